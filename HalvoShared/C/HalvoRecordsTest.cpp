#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "HalvoShared/C/HalvoRecords.h"
#include "tests/Support/MallocCount.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using testing::readTestFile;
using testing::TemporaryFolder;

using Function = HalvoFunction*;

const std::string mistaken = "|The arguments are not those of the function";

// Values that a caller makes, or has been handed.
struct Flat {
    Flat() = default;
    Flat(const Flat&) = default;

    explicit Flat(HalvoValues values)
        : words(values.words, values.words + values.wordCount),
          bytes(static_cast<const char*>(values.bytes), values.byteCount) {}

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

// A reply, freed.
struct Result : Flat {
    Result(Function function, HalvoValues arguments) : Result(function(arguments)) {}

    Result(Function function, const Flat& arguments) : Result(function, arguments.values()) {}

    explicit Result(HalvoReply reply) : Flat(reply.values), isFailure(reply.isFailure) {
        halvo_free(reply);
    }

    // "PATH|PROBLEM", or nothing after a success.
    [[nodiscard]] std::string failure() const {
        std::string text = isFailure ? bytes : "";
        return isFailure ? text.insert(words.at(0), "|") : text;
    }

    bool isFailure;
};

const std::string goldenSnapshot = readTestFile(HALVO_GOLDEN "/widgets.json");
const std::string goldenState = readTestFile(HALVO_GOLDEN "/keepalive.json");

constexpr double nine = 1795165200;

class HalvoRecordsTest : public ::testing::Test {
  protected:
    HalvoRecordsTest() { setenv("XDG_DATA_HOME", folder.path().c_str(), 1); }

    struct Case {
        Function function;
        Flat arguments;
    };

    // Valid arguments for every function.
    [[nodiscard]] std::vector<Case> cases() const {
        const std::uint64_t one = 1;
        const Flat dates = snapshot + one + nine;
        const Flat noBlocks = Flat() + std::uint64_t{5};
        const Flat link = Flat() + std::uint64_t{0} + one + "box" + std::uint64_t{0};
        const Flat moments = Result(halvo_snapshot_moments, dates + "Europe/Berlin");
        Flat moment = moments;
        moment.words.erase(moment.words.begin());
        const Flat path = Flat() + (folder / "file");
        return {{halvo_snapshot_decode, Flat() + goldenSnapshot},
                {halvo_snapshot_encode, snapshot},
                {halvo_snapshot_file, {}},
                {halvo_snapshot_kinds, {}},
                {halvo_snapshot_state, snapshot + nine},
                {halvo_snapshot_countdown, noBlocks},
                {halvo_snapshot_day_is_empty, Flat() + nine + one + one + one},
                {halvo_snapshot_moments, dates + "Europe/Berlin"},
                {halvo_snapshot_timeline_dates, snapshot + nine + "Asia/Tokyo" + 60.0 + one},
                {halvo_snapshot_reload_date, dates + nine},
                {halvo_moment_focus, moment},
                {halvo_keep_alive_decode, Flat() + goldenState},
                {halvo_keep_alive_encode, state},
                {halvo_keep_alive_file, {}},
                {halvo_keep_alive_should_relaunch, state + nine},
                {halvo_keep_alive_was_bypassed, state + one + nine},
                {halvo_keep_alive_may_open, state + "/Applications"},
                {halvo_link_reading, Flat() + "halvo://today"},
                {halvo_link_url, link + one + "halvo"},
                {halvo_link_scheme, {}},
                {halvo_group_identifier, {}},
                {halvo_group_container, {}},
                {halvo_file_store, path + "text"},
                {halvo_file_read, path},
                {halvo_file_remove, path},
                {halvo_launch_arguments, {}}};
    }

    const TemporaryFolder folder;
    const Flat snapshot = Result(halvo_snapshot_decode, Flat() + goldenSnapshot);
    const Flat state = Result(halvo_keep_alive_decode, Flat() + goldenState);
};

TEST_F(HalvoRecordsTest, PassesRecordsInBothDirections) {
    EXPECT_EQ(Result(halvo_snapshot_encode, snapshot).bytes, goldenSnapshot);
    EXPECT_EQ(Result(halvo_keep_alive_encode, state).bytes, goldenState);
}

TEST_F(HalvoRecordsTest, AcceptsNullWhereThereIsNothing) {
    halvo_free({});
    EXPECT_EQ(Result(halvo_link_scheme, HalvoValues{}).bytes, "halvo");
    EXPECT_EQ(Result(halvo_link_reading, HalvoValues{}).failure(), mistaken);
    const std::uint64_t empty = 0;
    const Result link(halvo_link_reading, HalvoValues{&empty, 1, nullptr, 0});
    EXPECT_EQ(link.words, std::vector<std::uint64_t>{4}) << "main";
}

TEST_F(HalvoRecordsTest, FailsWithThePathAndTheProblem) {
    const std::string missing = folder / "missing/file";
    Flat late = state;
    late.words.back() = std::bit_cast<std::uint64_t>(1e300);
    Flat great = state;
    great.words.front() = std::uint64_t{1} << 31U;
    for (const auto& [function, arguments, failure] :
         std::vector<std::tuple<Function, Flat, std::string>>{
             {halvo_keep_alive_decode, Flat() + R"({"pid":"7"})",
              R"(pid|Expected a whole number of 32 bits, found "7")"},
             {halvo_snapshot_decode, Flat() + "[]", "|Expected an object, found a list"},
             {halvo_keep_alive_encode, late, "updatedAt|is not a date of the years 0 to 9999"},
             {halvo_snapshot_moments, snapshot + std::uint64_t{0} + "GMT+0200",
              "|no time zone is named \"GMT+0200\""},
             {halvo_snapshot_countdown, Flat() + std::uint64_t{6}, mistaken},
             {halvo_keep_alive_was_bypassed, state + std::uint64_t{2} + nine, mistaken},
             {halvo_keep_alive_encode, great, mistaken},
             {halvo_file_read, Flat() + missing, missing + "|No such file or directory"},
             {halvo_file_store, Flat() + missing + "x", missing + "|No such file or directory"}}) {
        EXPECT_EQ(Result(function, arguments).failure(), failure);
    }
}

TEST_F(HalvoRecordsTest, RefusesArgumentsThatAreNotThoseOfTheFunction) {
    for (const auto& [function, arguments] : cases()) {
        EXPECT_EQ(Result(function, arguments).failure(), "");
        const Flat more = arguments + std::uint64_t{0};
        EXPECT_EQ(Result(function, more).failure(), mistaken);
        HalvoValues fewer = arguments.values();
        while (fewer.wordCount > 0) {
            --fewer.wordCount;
            EXPECT_EQ(Result(function, fewer).failure(), mistaken);
        }
        // A number that is no count, no index, no size: refused, or a number.
        for (std::size_t i = 0; i < arguments.words.size(); ++i) {
            Flat wrong = arguments;
            wrong.words[i] = ~std::uint64_t{0};
            const std::string failure = Result(function, wrong).failure();
            EXPECT_TRUE(failure.empty() || failure.contains(mistaken) ||
                        failure.contains("is not a date"))
                << failure;
        }
    }
}

TEST_F(HalvoRecordsTest, KeepsNothingAfterTheReplyIsFreed) {
    for (const auto& [function, arguments] : cases()) {
        const Flat wrong = arguments + std::uint64_t{0};
        const Result once(function, arguments);
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
    const std::string failure = "|There is not enough memory";
    for (const auto& [function, arguments] :
         {Case{halvo_snapshot_encode, snapshot}, Case{halvo_snapshot_state, snapshot + nine}}) {
        const std::size_t before = testing::mallocsMade();
        const HalvoReply whole = function(arguments.values());
        const std::size_t count = testing::mallocsMade() - before;
        halvo_free(whole);
        ASSERT_GT(count, 10U);
        for (std::size_t number = 1; number <= count; ++number) {
            testing::failMalloc(number);
            const HalvoReply reply = function(arguments.values());
            EXPECT_EQ(Result(reply).failure(), failure) << number << " of " << count;
        }
    }
}
#endif

}  // namespace
}  // namespace halvo
