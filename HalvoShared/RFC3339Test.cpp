#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <string>
#include <utility>

#include "HalvoShared/RFC3339.hpp"

namespace halvo {
namespace {

std::string textOf(double seconds) {
    std::string text;
    return RFC3339::append(wallDate(seconds), text) ? text : "none";
}

std::optional<double> secondsOf(const std::string& text) {
    const auto date = RFC3339::parse(text);
    return date ? std::optional(secondsSince1970(*date)) : std::nullopt;
}

TEST(RFC3339Test, IsWrittenInUTCCutToTheSecond) {
    constexpr double infinite = std::numeric_limits<double>::infinity();
    const std::pair<double, const char*> rows[] = {{0, "1970-01-01T00:00:00Z"},
                                                   {1795165200, "2026-11-20T09:00:00Z"},
                                                   {951782399, "2000-02-28T23:59:59Z"},
                                                   {951868800, "2000-03-01T00:00:00Z"},
                                                   {0.999999, "1970-01-01T00:00:00Z"},
                                                   {-0.000001, "1969-12-31T23:59:59Z"},
                                                   {-1, "1969-12-31T23:59:59Z"},
                                                   {-62167219200, "0000-01-01T00:00:00Z"},
                                                   {-62167219200.5, "none"},
                                                   {253402300799.5, "9999-12-31T23:59:59Z"},
                                                   {253402300800, "none"},
                                                   {std::nan(""), "none"},
                                                   {infinite, "none"},
                                                   {-infinite, "none"},
                                                   {1e300, "none"}};
    for (const auto& [seconds, text] : rows) {
        EXPECT_EQ(textOf(seconds), text) << seconds;
    }
    std::string text = "before";
    EXPECT_FALSE(RFC3339::append(wallDate(std::nan("")), text));
    EXPECT_EQ(text, "before");
    EXPECT_TRUE(RFC3339::append(wallDate(0), text));
    EXPECT_EQ(text, "before1970-01-01T00:00:00Z");
}

TEST(RFC3339Test, IsReadWithAnOffset) {
    const std::pair<const char*, double> rows[] = {{"1970-01-01T00:00:00Z", 0},
                                                   {"2026-11-20T09:00:00Z", 1795165200},
                                                   {"2024-02-29T23:59:59Z", 1709251199},
                                                   {"0000-01-01T00:00:00Z", -62167219200},
                                                   {"9999-12-31T23:59:59Z", 253402300799},
                                                   {"2026-11-20T10:00:00+01:00", 1795165200},
                                                   {"2026-11-20T14:45:00+05:45", 1795165200},
                                                   {"2026-11-19T23:30:00-09:30", 1795165200},
                                                   {"2026-11-20T09:00:00-00:00", 1795165200},
                                                   {"1970-01-01T23:59:00+23:59", 0}};
    for (const auto& [text, seconds] : rows) {
        EXPECT_EQ(secondsOf(text), seconds) << text;
    }
}

TEST(RFC3339Test, IsReadFromNothingElse) {
    std::istringstream texts(
        "|Z|2026-11-20|2026-11-20T09:00:00|2026-11-20T09:00Z|2026-11-20 09:00:00Z|"
        "2026-11-20T09:00:00.000Z|2026-11-20T09:00:00,5Z|2026-11-20t09:00:00Z|"
        "2026-11-20T09:00:00z|2026-11-20T09:00:00+01|2026-11-20T09:00:00+0100|"
        "2026-11-20T09:00:00+24:00|2026-11-20T09:00:00+01:60|2026-11-20T09:00:00 01:00|"
        "2026-11-20T09:00:00Z | 2026-11-20T09:00:00Z|20261120T090000Z|2026-W47-5T09:00:00Z|"
        "2026-13-01T00:00:00Z|2026-00-01T00:00:00Z|2026-02-29T00:00:00Z|"
        "2026-04-31T00:00:00Z|2026-11-00T00:00:00Z|2026-11-20T24:00:00Z|"
        "2026-11-20T09:60:00Z|2016-12-31T23:59:60Z|-026-11-20T09:00:00Z|"
        "+2026-11-20T09:00:00Z|12026-11-20T09:00:00Z|2026-11-20T09:00:00Zulu|"
        "0000-01-01T00:00:00+00:01|9999-12-31T23:59:59-00:01|1795165200|"
        "２026-11-20T09:00:00Z");
    for (std::string text; std::getline(texts, text, '|');) {
        EXPECT_EQ(secondsOf(text), std::nullopt) << text;
    }
    EXPECT_EQ(secondsOf(std::string("2026-11-20T09:00:00\0", 20)), std::nullopt);
}

}  // namespace
}  // namespace halvo
