// A copy of the helper's executable in a folder of root's, for a bundle of another user: an
// executable in such a bundle is never started as root.
#pragma once

#include <expected>
#include <string>

#include "HalvoHelperCore/HelperIdentity.hpp"

namespace halvo {

// Checks that the program at `path` (UTF-8) meets `requirement` (in the code-signing requirement
// language), strictly: in every architecture, since the system may run any, and with nothing in the
// file that the signature does not cover. Fails with the system's message. The result is true of
// the file as it is now only; a user who can change it can do so right after. No network. Any
// thread. SecStaticCodeCheckValidity.
std::expected<void, std::string> checkCodeSignature(const std::string& path,
                                                    const std::string& requirement);

namespace HelperCopy {

// The folder of root's that holds the copy and nothing else.
std::string folder(const HelperIdentity& identity);

// Makes a new copy of `executable`, which replaces an older one, and returns its path; or fails
// with the reason. `executable` is read once. Then the copy alone is checked, which only root can
// reach: it must meet the helper's own requirement, and gets its path only after that. One that
// does not is removed before this returns, and an older one with it.
//
// The copy runs in open-as-user mode without the rest of the bundle: its Info.plist is inside the
// executable, and it loads libraries of the system only. It is removed when the process ends
// (atexit(3)). Main queue only.
std::expected<std::string, std::string> make(const std::string& executable,
                                             const HelperIdentity& identity);

// Removes the copy, with its folder, that a killed process has left. Main queue only.
void remove(const HelperIdentity& identity);

}  // namespace HelperCopy
}  // namespace halvo
