// Deep links into the app.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "HalvoShared/JSON.hpp"

namespace halvo {

// A deep link: the screen that a widget, a control or an intent opens. A value. Any thread.
//
// Its URL is SCHEME://SCREEN, for a breathing exercise with the query items that are present:
// "halvo://breathe?style=box&minutes=5".
struct HalvoLink {
    // The breathing exercise. Any style and any number of minutes is valid.
    struct Breathe {
        std::optional<std::string> style;
        std::optional<std::int64_t> minutes;

        HALVO_RECORD(Breathe, style, minutes)
    };

    // A screen without parameters; `number` makes distinct types.
    template <int number>
    struct PlainScreen {
        bool operator==(const PlainScreen&) const = default;
    };

    using Focus = PlainScreen<0>;
    using Today = PlainScreen<1>;
    using Settings = PlainScreen<2>;
    // The main window; the fallback for all other URLs.
    using Main = PlainScreen<3>;

    using Screen = std::variant<Breathe, Focus, Today, Settings, Main>;

    Screen screen = Main{};

    bool operator==(const HalvoLink&) const = default;

    // Parses a URL; never fails. The screen is the host, compared byte for byte as it is written;
    // scheme, user, port, path and fragment are ignored. Of several query items of one name the
    // first counts; an item without "=" has no value. A "+" is not decoded as a space. A style that
    // is not UTF-8 once decoded is absent; so are minutes that are not a decimal number with an
    // optional sign, or do not fit.
    //
    // Characters that must be percent-encoded in a URL (RFC 3986), also a "%" that encodes nothing,
    // are read as if they were. Text that is still not a URL, or holds a NUL byte, is Main.
    static HalvoLink reading(std::string_view text);

    // The screen of the host `name`: "breathe" (without style and minutes), "focus", "today",
    // "settings" or "main". Nothing for any other name.
    static std::optional<Screen> screenNamed(std::string_view name);

    // The host of this link's URL.
    [[nodiscard]] std::string_view name() const;

    // The result of url() when no URL can be made.
    static constexpr const char* noURL = "file:///";

    // The link's URL under scheme().
    [[nodiscard]] std::string url() const;

    // The link's URL under `scheme`, which reading() parses to an equal link. noURL when `scheme`
    // is invalid: it is a letter, then letters, digits, "+", "-" and "." (RFC 3986, 3.1). A style
    // that is not UTF-8 is left out.
    [[nodiscard]] std::string url(const std::string& scheme) const;

    // The scheme of the app's own links: the string under "HalvoURLScheme" in the main bundle's
    // Info.plist, which is read each time; "halvo" when there is none.
    static std::string scheme();
};

}  // namespace halvo
