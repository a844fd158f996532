// Where the helper's unit lets it lock apps.
#pragma once

#include <expected>
#include <string>
#include <vector>

#include "HalvoHelperCore/HelperIdentity.hpp"
#include "tools/Halvoctl/Check.hpp"
#include "tools/Halvoctl/Programs.hpp"

namespace halvo::control {

// What the service's unit says of files; systemd.exec(5). A unit that is not loaded says nothing.
struct Sandbox {
    // ProtectSystem=strict: all is read-only but for `writable`.
    bool isStrict{};
    // The folders of ReadWritePaths=, without the "-" and "+" in front.
    std::vector<std::string> writable;

    bool operator==(const Sandbox&) const = default;
};

// That of `identity`, or why it cannot be told. Takes at most 10 seconds.
std::expected<Sandbox, std::string> readSandbox(const HelperIdentity& identity, Programs& programs);

// The folders of `sandbox` in which the helper can lock bundles; without a strict one, those of
// homeApplications().
std::vector<std::string> lockableFolders(const Sandbox& sandbox);

// The words of a list as `systemctl show` prints it: parted by blanks, those that need it in double
// quotes, with "\\" before what would else have a meaning there.
std::vector<std::string> parseList(const std::string& text);

// Whether the helper can lock the bundle at `app` from within `sandbox`.
Check checkSandbox(const HelperIdentity& identity, const std::string& app,
                   const std::expected<Sandbox, std::string>& sandbox);

}  // namespace halvo::control
