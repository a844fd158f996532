#include <gtest/gtest.h>

#include <bit>
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
    Flat operator+(std::uint64_t word) const {
        Flat sum = *this;
        sum.words.push_back(word);
        return sum;
    }

    Flat operator+(double date) const { return *this + std::bit_cast<std::uint64_t>(date); }

    Flat operator+(std::string_view text) const {
        Flat sum = *this + std::uint64_t{text.size()};
        sum.bytes += text;
        return sum;
    }

    [[nodiscard]] HalvoValues values() const {
        return {words.data(), words.size(), bytes.data(), bytes.size()};
    }

    std::vector<std::uint64_t> words;
    std::string bytes;
};

// The values of a reply, which is freed. Of a failure: "PATH|PROBLEM".
Flat taken(HalvoReply reply) {
    const auto& [words, wordCount, bytes, byteCount] = reply.values;
    Flat flat{{words, words + wordCount}, {static_cast<const char*>(bytes), byteCount}};
    if (reply.isFailure) {
        flat.bytes.insert(flat.words.at(0), "|");
    }
    halvo_free(reply);
    return flat;
}

const std::string mistaken = "|The arguments are not those of the function";

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
    const Flat snapshot = taken(halvo_snapshot_decode(snapshotJSON.values()));
    const Flat state = taken(halvo_keep_alive_decode(stateJSON.values()));
    const Flat moment = Flat() + nine + std::uint64_t{5} + one + one + nine + one + one + one + none + "" + one + one;
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
        const HalvoReply reply = function(arguments.values());
        EXPECT_FALSE(reply.isFailure) << taken(reply).bytes;
        halvo_free(reply);
        EXPECT_EQ(taken(function((arguments + none).values())).bytes, mistaken);
        HalvoValues fewer = arguments.values();
        while (fewer.wordCount > 0) {
            --fewer.wordCount;
            EXPECT_EQ(taken(function(fewer)).bytes, mistaken);
        }
        // A number that is no count, no index, no size: refused, or a number.
        for (std::size_t i = 0; i < arguments.words.size(); ++i) {
            Flat wrong = arguments;
            wrong.words[i] = ~none;
            const HalvoReply answer = function(wrong.values());
            const bool isFailure = answer.isFailure;
            const std::string text = taken(answer).bytes;
            EXPECT_TRUE(!isFailure || text == mistaken || text.contains("is not a date")) << text;
        }
    }
}

TEST_F(HalvoRecordsTest, RefusesWhatIsJustOutOfRange) {
    Flat great = state;
    great.words.front() = one << 31U;
    EXPECT_EQ(taken(halvo_keep_alive_encode(great.values())).bytes, mistaken);
    const Flat two = state + std::uint64_t{2} + nine;
    EXPECT_EQ(taken(halvo_keep_alive_was_bypassed(two.values())).bytes, mistaken);
    const Flat sixth = Flat() + std::uint64_t{6};
    EXPECT_EQ(taken(halvo_snapshot_countdown(sixth.values())).bytes, mistaken);
}

TEST_F(HalvoRecordsTest, AcceptsNullWhereThereIsNothing) {
    halvo_free({});
    EXPECT_EQ(taken(halvo_link_scheme({})).bytes, "halvo");
    EXPECT_EQ(taken(halvo_link_reading({})).bytes, mistaken);
    EXPECT_EQ(taken(halvo_link_reading({&none, 1, nullptr, 0})).words, std::vector{none + 4});
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
    for (const auto& [function, arguments] : {Call{halvo_snapshot_encode, snapshot},
                                              Call{halvo_snapshot_state, snapshot + nine}}) {
        const std::size_t before = testing::mallocsMade();
        halvo_free(function(arguments.values()));
        const std::size_t count = testing::mallocsMade() - before;
        ASSERT_GT(count, 10U);
        for (std::size_t number = 1; number <= count; ++number) {
            testing::failMalloc(number);
            const HalvoReply reply = function(arguments.values());
            EXPECT_EQ(taken(reply).bytes, "|There is not enough memory") << number;
        }
    }
}
#endif

}  // namespace
}  // namespace halvo
