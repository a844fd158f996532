// The helper's executable where root alone can change it, for a bundle that is another user's:
// what lies in such a bundle is never started as root.
#pragma once

#include <expected>
#include <string>

#include "HalvoHelperCore/HelperIdentity.hpp"

namespace halvo {

// Checks that the program at `path` (UTF-8) is signed as `requirement` (in the code-signing
// requirement language) demands, and whole: with every architecture of it, since the system may run
// any, and nothing in the file that the signature does not cover (SecStaticCodeCheckValidity). Else
// why not, in the system's words. Looks at the file as it is now; who can change it can do so right
// after. Asks no network. Any thread.
std::expected<void, std::string> checkCodeSignature(const std::string& path,
                                                    const std::string& requirement);

namespace HelperCopy {

// The folder of root's in which the copy lies, which holds nothing else.
std::string folder(const HelperIdentity& identity);

// Makes a new copy of the `executable`, in the place of an older one, and returns its path; or says
// why there is none. `executable` is read once. Then the copy alone is looked at, which nobody but
// root can reach: it must be signed as the helper's own requirement demands, and has its path only
// when it was found to be. One that is not is gone when this returns, and an older one with it.
//
// The copy starts in open-as-user mode without the rest of the bundle: its Info.plist is inside the
// executable, and it loads libraries of the system only. It goes when the process ends
// (atexit(3)). Main queue only.
std::expected<std::string, std::string> make(const std::string& executable,
                                             const HelperIdentity& identity);

// Takes away the copy, with its folder, that a process has left which was killed. Main queue only.
void remove(const HelperIdentity& identity);

}  // namespace HelperCopy
}  // namespace halvo
