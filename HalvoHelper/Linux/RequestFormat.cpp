#include "HalvoHelper/Linux/RequestFormat.hpp"

#include <array>
#include <cstddef>

namespace halvo {
namespace {

constexpr std::array beginArguments{
    RequestArgument{'s', "appPath"},
    RequestArgument{'d', "until"},
    RequestArgument{'d', "started"},
};
constexpr std::array heartbeatArguments{RequestArgument{'b', "sessionEnding"}};

constexpr std::array formats{
    RequestFormat{"Begin", beginArguments},
    RequestFormat{"Heartbeat", heartbeatArguments},
    RequestFormat{"End", {}},
    RequestFormat{"Status", {}},
};

std::string described(const RequestFormat& format) {
    std::string text = format.member;
    text += '(';
    for (const RequestArgument& argument : format.arguments) {
        text += &argument == format.arguments.data() ? "" : ", ";
        text += argument.type;
        text += ' ';
        text += argument.name;
    }
    return text + ")";
}

}  // namespace

const RequestFormat* requestFormat(std::string_view member) {
    for (const RequestFormat& format : formats) {
        if (member == format.member) {
            return &format;
        }
    }
    return nullptr;
}

std::optional<std::string> argumentProblem(const RequestFormat& format,
                                           std::string_view signature) {
    // Every expected type is one character, so up to the first difference characters are arguments.
    for (std::size_t i = 0; i < format.arguments.size(); ++i) {
        const RequestArgument& argument = format.arguments[i];
        if (i >= signature.size()) {
            return std::string(argument.name) + " is missing: " + described(format);
        }
        if (signature[i] != argument.type) {
            return std::string(argument.name) + " has the wrong type: " + described(format) +
                   " was called with \"" + std::string(signature) + "\"";
        }
    }
    if (signature.size() > format.arguments.size()) {
        return "there are more arguments than " + described(format) + " takes: \"" +
               std::string(signature) + "\"";
    }
    return std::nullopt;
}

}  // namespace halvo
