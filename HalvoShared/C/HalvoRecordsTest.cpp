#include <gtest/gtest.h>

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "HalvoShared/C/HalvoRecords.h"
#include "tests/Support/MallocCount.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using testing::readTestFile;
using testing::TemporaryFolder;

// Values that a caller makes, or has been handed.
struct Flat {
    // A number, a date or a text.
    template <class T>
    Flat operator+(const T& value) const {
        Flat sum = *this;
        if constexpr (std::convertible_to<T, std::string_view>) {
            sum.bytes += value;
            sum.words.push_back(std::string_view(value).size());
        } else {
            sum.words.push_back(std::bit_cast<std::uint64_t>(value));
        }
        return sum;
    }

    [[nodiscard]] HalvoValues values() const {
        return {words.data(), words.size(), bytes.data(), bytes.size()};
    }

    std::vector<std::uint64_t> words;
    std::string bytes;
};

// The values of the reply, which is freed; of a failure the path and the problem, without a word.
Flat reply(HalvoFunction* function, HalvoValues arguments) {
    const auto [values, isFailure, owner] = function(arguments);
    Flat flat{{values.words, values.words + (isFailure ? 0 : values.wordCount)},
              {static_cast<const char*>(values.bytes), values.byteCount}};
    halvo_free({values, isFailure, owner});
    return flat;
}

// The same of a failure, else nothing.
std::string failure(HalvoFunction* function, HalvoValues arguments) {
    const Flat flat = reply(function, arguments);
    return flat.words.empty() ? flat.bytes : "";
}

const std::string mistaken = "The arguments are not those of the function";

using Call = std::pair<HalvoFunction*, Flat>;

class HalvoRecordsTest : public ::testing::Test {
  protected:
    HalvoRecordsTest() { setenv("XDG_DATA_HOME", folder.path().c_str(), 1); }

    const TemporaryFolder folder;
    const double nine = 1795165200;
    const std::uint64_t none = 0;
    const std::uint64_t one = 1;
    const Flat snapshotJSON = Flat() + readTestFile(HALVO_GOLDEN "/widgets.json");
    const Flat stateJSON = Flat() + readTestFile(HALVO_GOLDEN "/keepalive.json");
    const Flat snapshot = reply(halvo_snapshot_decode, snapshotJSON.values());
    const Flat state = reply(halvo_keep_alive_decode, stateJSON.values());
    const Flat moment = Flat() + nine + std::uint64_t{5} + one + one + nine + one + one + one +
                        none + "" + one + one;
    const Flat file = Flat() + (folder / "file");

    // Each function with arguments that it accepts.
    const std::vector<Call> calls{
        {halvo_snapshot_decode, snapshotJSON},
        {halvo_snapshot_encode, snapshot},
        {halvo_snapshot_file, {}},
        {halvo_snapshot_kinds, {}},
        {halvo_snapshot_state, snapshot + nine},
        {halvo_snapshot_countdown, Flat() + std::uint64_t{5}},
        {halvo_snapshot_day_is_empty, Flat() + nine + one + one + one},
        {halvo_snapshot_moments, snapshot + one + nine + "Europe/Berlin"},
        {halvo_snapshot_timeline_dates, snapshot + nine + "Asia/Tokyo" + 60.0 + one},
        {halvo_snapshot_reload_date, snapshot + one + nine + nine},
        {halvo_moment_focus, moment},
        {halvo_keep_alive_decode, stateJSON},
        {halvo_keep_alive_encode, state},
        {halvo_keep_alive_file, {}},
        {halvo_keep_alive_should_relaunch, state + nine},
        {halvo_keep_alive_was_bypassed, state + one + nine},
        {halvo_keep_alive_may_open, state + "/Applications"},
        {halvo_link_reading, Flat() + "halvo://today"},
        {halvo_link_url, Flat() + none + one + "box" + none + "halvo"},
        {halvo_link_scheme, {}},
        {halvo_group_identifier, {}},
        {halvo_group_container, {}},
        {halvo_file_store, file + "text"},
        {halvo_file_read, file},
        {halvo_file_remove, file},
        {halvo_launch_arguments, {}}};
};

TEST_F(HalvoRecordsTest, RefusesArgumentsThatAreNotThoseOfTheFunction) {
    for (const auto& [function, arguments] : calls) {
        EXPECT_EQ(failure(function, arguments.values()), "");
        EXPECT_EQ(failure(function, (arguments + none).values()), mistaken);
        HalvoValues fewer = arguments.values();
        while (fewer.wordCount > 0) {
            --fewer.wordCount;
            EXPECT_EQ(failure(function, fewer), mistaken);
        }
        // A number that is no count, no index, no size: refused, or a number.
        for (std::size_t i = 0; i < arguments.words.size(); ++i) {
            Flat wrong = arguments;
            wrong.words[i] = ~none;
            const std::string text = failure(function, wrong.values());
            EXPECT_TRUE(text.empty() || text == mistaken || text.contains("is not a date")) << text;
        }
    }
    Flat great = state;
    great.words.front() = one << 31U;
    for (const auto& [function, justTooMuch] :
         {Call{halvo_keep_alive_encode, great}, Call{halvo_snapshot_countdown, Flat() + (none + 6)},
          Call{halvo_keep_alive_was_bypassed, state + (one + 1) + nine}}) {
        EXPECT_EQ(failure(function, justTooMuch.values()), mistaken);
    }
}

TEST_F(HalvoRecordsTest, AcceptsNullWhereThereIsNothing) {
    halvo_free({});
    EXPECT_EQ(reply(halvo_link_scheme, {}).bytes, "halvo");
    EXPECT_EQ(failure(halvo_link_reading, {}), mistaken);
    EXPECT_EQ(reply(halvo_link_reading, {&none, 1, nullptr, 0}).words, std::vector{none + 4});
}

TEST_F(HalvoRecordsTest, KeepsNothingAfterTheReplyIsFreed) {
    for (const auto& [function, arguments] : calls) {
        const Flat wrong = arguments + none;
        halvo_free(function(arguments.values()));
        const std::size_t before = testing::bytesAllocated();
        for (int i = 0; i < 50; ++i) {
            halvo_free(function(arguments.values()));
            halvo_free(function(wrong.values()));
        }
        // The allocator keeps some bytes more or less.
        EXPECT_LT(testing::bytesAllocated(), before + 50 * sizeof(HalvoReply));
    }
}

#if !HALVO_IS_SANITIZED
TEST_F(HalvoRecordsTest, FailsWhereThereIsNotTheMemoryForIt) {
    for (const auto& [function, arguments] :
         {Call{halvo_snapshot_encode, snapshot}, Call{halvo_snapshot_state, snapshot + nine}}) {
        const std::size_t before = testing::mallocsMade();
        halvo_free(function(arguments.values()));
        const std::size_t count = testing::mallocsMade() - before;
        ASSERT_GT(count, 10U);
        for (std::size_t number = 1; number <= count; ++number) {
            testing::failMalloc(number);
            const HalvoReply reply = function(arguments.values());
            EXPECT_TRUE(reply.isFailure) << number << " of " << count;
            EXPECT_STREQ(static_cast<const char*>(reply.values.bytes),
                         "There is not enough memory");
            halvo_free(reply);
        }
    }
}
#endif

}  // namespace
}  // namespace halvo
