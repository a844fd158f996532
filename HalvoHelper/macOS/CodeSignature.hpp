// Who has signed a program.
#pragma once

#include <expected>
#include <string>

namespace halvo {

// Checks that the program at `path` (UTF-8) is signed as `requirement` (in the code-signing
// requirement language) demands, and whole: with every architecture of it, since the system may run
// any, and nothing in the file that the signature does not cover (SecStaticCodeCheckValidity). Else
// why not, in the system's words. Looks at the file as it is now; who can change it can do so right
// after. Asks no network. Any thread.
std::expected<void, std::string> checkCodeSignature(const std::string& path,
                                                    const std::string& requirement);

}  // namespace halvo
