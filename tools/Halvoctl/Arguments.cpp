#include "tools/Halvoctl/Arguments.hpp"

#include <array>
#include <string_view>

#include "HalvoHelperCore/AppLocation.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::control {
namespace {

struct Kind {
    std::string_view name;
    const char* help;
    Command command;

    [[nodiscard]] bool isRelease() const { return std::holds_alternative<Release>(command); }

    [[nodiscard]] bool isDoctor() const { return std::holds_alternative<Examine>(command); }
};

bool asksForHelp(const std::string& word) { return word == "--help" || word == "-h"; }

std::string quoted(const std::string& word) { return "'" + records::printable(word) + "'"; }

// What the words of a command say.
struct Said {
    bool asJSON = false;
    std::optional<std::string> app;
    Release release;
};

// What `word` alone switches on for a command of this kind, if it does.
bool* switchOf(const Kind& kind, const std::string& word, Said& said) {
    if (!kind.isRelease() && word == "--json") {
        return &said.asJSON;
    }
    if (kind.isRelease() && word == "--and-stop") {
        return &said.release.staysStopped;
    }
    return kind.isRelease() && word == "--bundle-gone" ? &said.release.isBundleGone : nullptr;
}

std::expected<Command, std::string> parse(const Kind& kind, std::span<const std::string> words) {
    Said said;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (asksForHelp(word)) {
            return ShowHelp{kind.help};
        }
        if (bool* isOn = switchOf(kind, word, said)) {
            *isOn = true;
        } else if (kind.isDoctor() && word == "--app") {
            if (++i == words.size()) {
                return std::unexpected("--app needs the PATH of a bundle.");
            }
            said.app = words[i];
            if (!AppLocation::isBundlePath(*said.app)) {
                return std::unexpected(
                    "--app needs the absolute path of a bundle, as "
                    "/Applications/Halvo.app, not " +
                    quoted(*said.app) + ".");
            }
        } else {
            return std::unexpected(std::string(kind.name) + " knows no word " + quoted(word) + ".");
        }
    }
    if (kind.isRelease()) {
        return said.release;
    }
    if (kind.isDoctor()) {
        return Examine{said.asJSON, said.app};
    }
    return ShowStatus{said.asJSON};
}

}  // namespace

std::expected<Command, std::string> parseArguments(std::span<const std::string> words) {
    if (words.empty()) {
        return std::unexpected("What is to be done? status, doctor or release.");
    }
    if (asksForHelp(words.front())) {
        return ShowHelp{helpText};
    }
    if (words.front() == "--version") {
        return ShowVersion{};
    }
    const std::array kinds{
        Kind{"status", statusHelpText, ShowStatus{}},
        Kind{"doctor", doctorHelpText, Examine{}},
        Kind{"release", releaseHelpText, Release{}},
    };
    for (const Kind& kind : kinds) {
        if (kind.name == words.front()) {
            return parse(kind, words.subspan(1));
        }
    }
    return std::unexpected("There is no command " + quoted(words.front()) +
                           "; there are status, doctor and release.");
}

}  // namespace halvo::control
