#include "tools/Halvoctl/ShellWord.hpp"

#include <algorithm>
#include <string_view>

#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::control {

std::string shellWord(const std::string& text) {
    constexpr std::string_view plain =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:@,%";
    std::string shown = records::printable(text);
    if (!shown.empty() && std::ranges::all_of(shown, [&](char c) { return plain.contains(c); })) {
        return shown;
    }
    std::string word = "'";
    for (const char c : shown) {
        word += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return word + "'";
}

}  // namespace halvo::control
