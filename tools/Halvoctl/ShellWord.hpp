// What is shown to be typed.
#pragma once

#include <string>

namespace halvo::control {

// `text` as one word for a shell: as it stands where every character is plain, else in single
// quotes. What a terminal would obey is escaped as elsewhere, and then no longer means the same.
std::string shellWord(const std::string& text);

}  // namespace halvo::control
