// The requests as D-Bus carries them.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace halvo {

struct RequestArgument {
    char type;
    const char* name;
};

struct RequestFormat {
    const char* member;
    std::span<const RequestArgument> arguments;
};

// The request called `member`, or null when there is none.
const RequestFormat* requestFormat(std::string_view member);

// What is wrong with arguments of the D-Bus signature `signature` for `format`, as a sentence that
// names the first one that does not fit; nothing when they fit.
std::optional<std::string> argumentProblem(const RequestFormat& format, std::string_view signature);

}  // namespace halvo
