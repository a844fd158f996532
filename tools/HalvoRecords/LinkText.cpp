#include "tools/HalvoRecords/LinkText.hpp"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string_view>
#include <variant>

#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::records {
namespace {

// ASCII, whatever the locale.
bool isPlain(std::string_view text) {
    return !text.empty() && std::ranges::all_of(text, [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '-' || c == '_';
    });
}

}  // namespace

std::string description(const HalvoLink& link) {
    std::string text(link.name());
    if (const auto* breathe = std::get_if<HalvoLink::Breathe>(&link.screen)) {
        if (breathe->style) {
            text += ", style " +
                    (isPlain(*breathe->style) ? *breathe->style : inQuotes(*breathe->style));
        }
        if (breathe->minutes) {
            text += ", " + std::to_string(*breathe->minutes) +
                    (*breathe->minutes == 1 ? " minute" : " minutes");
        }
    }
    return text;
}

std::string asJSON(const HalvoLink& link) {
    nlohmann::ordered_json object;
    object["screen"] = link.name();
    if (const auto* breathe = std::get_if<HalvoLink::Breathe>(&link.screen)) {
        if (breathe->style) {
            object["style"] = *breathe->style;
        }
        if (breathe->minutes) {
            object["minutes"] = *breathe->minutes;
        }
    }
    return printable(object.dump());
}

}  // namespace halvo::records
