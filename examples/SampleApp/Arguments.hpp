// The words of the command line.
#pragma once

#include <expected>
#include <optional>
#include <span>
#include <string>

#include "HalvoPlatform/Time.hpp"

namespace halvo {

struct Arguments {
    // How long a commitment to begin; without it the app only shows what holds.
    std::optional<Seconds> commitment;
    // The helper opened the app again after it was quit.
    bool broughtBack = false;
    bool help = false;

    bool operator==(const Arguments&) const = default;
};

// Understands the words that follow the program's own name, or says what is wrong with them, as a
// sentence.
std::expected<Arguments, std::string> parseArguments(std::span<const std::string> words);

// What --help prints.
extern const char* const helpText;

}  // namespace halvo
