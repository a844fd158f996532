// Where in the app a deep link leads.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "HalvoPlatform/Bundle.hpp"

namespace halvo {

// A deep link: what a widget, a control or an intent asks the app to show, and its URL. A value.
// Everything here may be called on any thread.
//
// Its URL is SCHEME://SCREEN, and for a breathing exercise ?style=TEXT&minutes=NUMBER with what of
// the two is given: "halvo://breathe?style=box&minutes=5".
struct HalvoLink {
    // The breathing exercise, of a style and for a number of minutes where they are given. Any text
    // and any number are taken.
    struct Breathe {
        std::optional<std::string> style;
        std::optional<std::int64_t> minutes;

        bool operator==(const Breathe&) const = default;
    };

    struct Focus {
        bool operator==(const Focus&) const = default;
    };

    struct Today {
        bool operator==(const Today&) const = default;
    };

    struct Settings {
        bool operator==(const Settings&) const = default;
    };

    // The main window, and what every text that leads nowhere else leads to.
    struct Main {
        bool operator==(const Main&) const = default;
    };

    using Screen = std::variant<Breathe, Focus, Today, Settings, Main>;

    Screen screen = Main{};

    bool operator==(const HalvoLink&) const = default;

    // The link that `text` is the URL of; never fails, whatever `text` holds. Only the host decides
    // on the screen, byte for byte as it is written; scheme, user, port, path and fragment are not
    // looked at. Of several query items of one name the first counts, and an item without "=" has
    // no value. A "+" is no space. A style that is not UTF-8 once decoded is absent; so are minutes
    // that are not a decimal number with at most a sign before it, or do not fit.
    //
    // Characters that a URL may hold only percent-encoded (RFC 3986), among them a "%" that encodes
    // nothing, are read as if they were encoded. Other text that is no URL is Main, and so is all
    // text with a zero byte.
    static HalvoLink reading(std::string_view text);

    // The screen whose host in a URL is `name`: "breathe" (of no style and no minutes), "focus",
    // "today", "settings" or "main". Nothing for any other name.
    static std::optional<Screen> screenNamed(std::string_view name);

    // The name of this link's screen.
    [[nodiscard]] std::string_view name() const;

    // What stands for a URL where none can be made.
    static constexpr const char* noURL = "file:///";

    // The link's URL under scheme().
    [[nodiscard]] std::string url() const;

    // The link's URL under `scheme`, which reading() reads as an equal link. noURL when
    // `scheme` is none: a letter, then letters, digits, "+", "-" and "." (RFC 3986, 3.1). A style
    // that is not UTF-8 cannot be told in a URL and is left out.
    [[nodiscard]] std::string url(const std::string& scheme) const;

    // The scheme of the app's own links: schemeIn() the main bundle's Info.plist, which is read
    // each time.
    static std::string scheme();

    // The string under "HalvoURLScheme", as it stands there; "halvo" when there is none.
    static std::string schemeIn(const std::optional<InfoDictionary>& info);
};

}  // namespace halvo
