#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelper/Linux/RequestFormat.hpp"

namespace halvo::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

std::vector<std::pair<char, std::string>> argumentsOf(const char* member) {
    const RequestFormat* format = requestFormat(member);
    std::vector<std::pair<char, std::string>> list;
    if (format == nullptr) {
        ADD_FAILURE() << "no request " << member;
        return list;
    }
    EXPECT_STREQ(format->member, member);
    for (const RequestArgument& argument : format->arguments) {
        list.emplace_back(argument.type, argument.name);
    }
    return list;
}

TEST(RequestFormatTest, KnowsTheFourRequestsAndTheirArguments) {
    EXPECT_THAT(argumentsOf("Begin"),
                ElementsAre(Pair('s', "appPath"), Pair('d', "until"), Pair('d', "started")));
    EXPECT_THAT(argumentsOf("Heartbeat"), ElementsAre(Pair('b', "sessionEnding")));
    EXPECT_THAT(argumentsOf("End"), IsEmpty());
    EXPECT_THAT(argumentsOf("Status"), IsEmpty());
}

TEST(RequestFormatTest, KnowsNoOther) {
    for (const std::string_view member :
         {"", "begin", "BEGIN", "Begin ", "Begi", "Begins", "Introspect", "Ping"}) {
        EXPECT_EQ(requestFormat(member), nullptr) << member;
    }
}

struct SignatureRow {
    const char* member;
    const char* signature;
    std::optional<std::string> problem;
};

class RequestFormatSignatureTest : public ::testing::TestWithParam<SignatureRow> {};

TEST_P(RequestFormatSignatureTest, IsToldWhatDoesNotFit) {
    const RequestFormat* format = requestFormat(GetParam().member);
    ASSERT_NE(format, nullptr);
    EXPECT_EQ(argumentProblem(*format, GetParam().signature), GetParam().problem)
        << GetParam().member << " " << GetParam().signature;
}

constexpr const char* begin = "Begin(s appPath, d until, d started)";
constexpr const char* heartbeat = "Heartbeat(b sessionEnding)";

SignatureRow missing(const char* member, const char* signature, const std::string& argument,
                     const std::string& format) {
    return {member, signature, argument + " is missing: " + format};
}

SignatureRow wrong(const char* member, const char* signature, const std::string& argument,
                   const std::string& format) {
    return {member, signature,
            argument + " has the wrong type: " + format + " was called with \"" + signature + "\""};
}

SignatureRow tooMany(const char* member, const char* signature, const std::string& format) {
    return {member, signature,
            "there are more arguments than " + format + " takes: \"" + signature + "\""};
}

INSTANTIATE_TEST_SUITE_P(
    Signatures, RequestFormatSignatureTest,
    ::testing::Values(
        SignatureRow{"Begin", "sdd", std::nullopt}, SignatureRow{"Heartbeat", "b", std::nullopt},
        SignatureRow{"End", "", std::nullopt}, SignatureRow{"Status", "", std::nullopt},
        missing("Begin", "", "appPath", begin), missing("Begin", "s", "until", begin),
        missing("Begin", "sd", "started", begin),
        missing("Heartbeat", "", "sessionEnding", heartbeat), wrong("Begin", "d", "appPath", begin),
        wrong("Begin", "odd", "appPath", begin), wrong("Begin", "asdd", "appPath", begin),
        wrong("Begin", "(sdd)", "appPath", begin), wrong("Begin", "ssd", "until", begin),
        wrong("Begin", "st", "until", begin), wrong("Begin", "sds", "started", begin),
        wrong("Begin", "sdv", "started", begin), wrong("Begin", "sdad", "started", begin),
        wrong("Heartbeat", "i", "sessionEnding", heartbeat),
        wrong("Heartbeat", "ab", "sessionEnding", heartbeat), tooMany("Begin", "sddd", begin),
        tooMany("Begin", "sdda{sv}", begin), tooMany("Heartbeat", "bb", heartbeat),
        tooMany("End", "b", "End()"), tooMany("Status", "a(ss)", "Status()")));

}  // namespace
}  // namespace halvo::testing
