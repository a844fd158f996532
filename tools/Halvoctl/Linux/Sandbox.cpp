#include "tools/Halvoctl/Linux/Sandbox.hpp"

#include <algorithm>
#include <array>
#include <string_view>

#include "tools/HalvoRecords/Wording.hpp"
#include "tools/Halvoctl/Linux/Units.hpp"
#include "tools/Halvoctl/Observation.hpp"

namespace halvo::control {
namespace {

using records::printable;

bool isWithin(const std::string& path, std::string folder) {
    if (!folder.ends_with('/')) {
        folder += '/';
    }
    return (path + "/").starts_with(folder);
}

// `path` as a unit file has it; systemd.unit(5), "Specifiers", and systemd.syntax(7), "Quoting".
std::string unitWord(const std::string& path) {
    std::string word;
    for (const char c : printable(path)) {
        word += c == '%' ? "%%" : std::string(1, c);
    }
    return word.contains(' ') ? "\"" + word + "\"" : word;
}

}  // namespace

std::vector<std::string> parseList(const std::string& text) {
    std::vector<std::string> words;
    std::string word;
    bool isWord = false;
    bool isQuoted = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == ' ' && !isQuoted) {
            if (isWord) {
                words.push_back(word);
            }
            word.clear();
            isWord = false;
            continue;
        }
        isWord = true;
        if (c == '"') {
            isQuoted = !isQuoted;
        } else {
            i += isQuoted && c == '\\' && i + 1 < text.size() ? 1 : 0;
            word += text[i];
        }
    }
    if (isWord) {
        words.push_back(word);
    }
    return words;
}

std::expected<Sandbox, std::string> readSandbox(const HelperIdentity& identity,
                                                Programs& programs) {
    constexpr Seconds limit{10};
    const auto shown =
        programs.run({systemctl, "show", "--no-pager", "--property=ProtectSystem,ReadWritePaths",
                      "--", serviceUnit(identity)},
                     {limit, {}});
    if (!shown) {
        return std::unexpected(shown.error());
    }
    if (shown->status != 0) {
        return std::unexpected(std::string(systemctl) + " does not tell of the helper's sandbox");
    }
    Properties properties = parseProperties(shown->output).front();
    Sandbox sandbox{properties["ProtectSystem"] == "strict",
                    parseList(properties["ReadWritePaths"])};
    for (std::string& folder : sandbox.writable) {
        folder.erase(0, folder.find_first_not_of("-+"));
    }
    return sandbox;
}

std::vector<std::string> lockableFolders(const Sandbox& sandbox) {
    if (!sandbox.isStrict) {
        return homeApplications();
    }
    std::vector<std::string> folders = sandbox.writable;
    for (std::string& each : folders) {
        each += each.ends_with("/Applications") ? "" : "/Applications";
    }
    return folders;
}

Check checkSandbox(const HelperIdentity& identity, const std::string& app,
                   const std::expected<Sandbox, std::string>& sandbox) {
    const std::string name = "sandbox";
    const std::string service = serviceUnit(identity);
    const std::string place = app.substr(0, app.find_last_of('/'));
    if (!sandbox) {
        return isProblem(name, printable(sandbox.error()), "Look whether systemctl works at all.");
    }
    if (!sandbox->isStrict ||
        std::ranges::any_of(sandbox->writable,
                            [&place](const std::string& each) { return isWithin(place, each); })) {
        return isOk(name, "the helper can lock what lies in " + printable(place));
    }
    const std::string finding =
        service + " may not write to " + printable(place) + ", so the helper cannot lock there";
    // ProtectHome= and PrivateTmp= put others in their place.
    constexpr std::array<const char*, 5> hidden{"/home", "/root", "/run/user", "/tmp", "/var/tmp"};
    for (const char* each : hidden) {
        if (isWithin(place, each)) {
            return isProblem(name, finding,
                             std::string("What lies below ") + each +
                                 " it cannot see at all. Install the app into /Applications.");
        }
    }
    const std::string word = unitWord(place);
    const std::string optional = word.starts_with('"') ? "\"-" + word.substr(1) : "-" + word;
    return isProblem(
        name, finding,
        "systemctl edit " + service + ", with the lines [Service], ReadWritePaths=" + optional +
            ", [Unit], RequiresMountsFor=" + word + "; then systemctl restart " + service);
}

}  // namespace halvo::control
