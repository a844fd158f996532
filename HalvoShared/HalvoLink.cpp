#include "HalvoShared/HalvoLink.hpp"

#include <algorithm>
#include <array>
#include <boost/url.hpp>
#include <charconv>
#include <system_error>
#include <utility>

#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

namespace urls = boost::urls;

constexpr std::string_view styleItem = "style";
constexpr std::string_view minutesItem = "minutes";

// The separators of query items, and of name and value, must be encoded in a value.
constexpr auto valueCharacters = urls::pchars + '/' + '?' - '&' - '=';

// "[" and "]" are valid only in hosts that are not a screen: encoded, these lead to Main too.
constexpr auto urlCharacters = urls::pchars + '/' + '?';

bool isEscape(std::string_view text) {
    return text.size() >= 3 && text[0] == '%' && urls::grammar::hexdig_chars(text[1]) &&
           urls::grammar::hexdig_chars(text[2]);
}

// Boost.URL 1.81 accepts a path right after a host or port, without a "/": "halvo://today:port" and
// "halvo://ann@today@x" would lead to today.
bool hasPathWithoutSlash(const urls::url_view& url) {
    const std::string_view path = url.encoded_path();
    return url.has_authority() && !path.empty() && !path.starts_with('/');
}

// Percent-encodes all that a URL cannot hold otherwise.
std::string encoded(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::string_view one = text.substr(i, 1);
        result += isEscape(text.substr(i)) ? std::string(one) : urls::encode(one, urlCharacters);
    }
    return result;
}

std::optional<std::int64_t> minutesOf(const std::string& text) {
    if (text.starts_with("+-")) {
        return std::nullopt;
    }
    // from_chars() accepts only a minus sign.
    const char* start = text.data() + (text.starts_with('+') ? 1 : 0);
    const char* end = text.data() + text.size();
    std::int64_t number = 0;
    const auto [rest, error] = std::from_chars(start, end, number);
    return error == std::errc() && rest == end ? std::optional(number) : std::nullopt;
}

// The value of the first query item called `name`.
std::optional<std::string> valueOf(std::string_view name, const urls::url_view& url) {
    const auto items = url.encoded_params();
    const auto item = items.find(name);
    if (item == items.end() || !(*item).has_value) {
        return std::nullopt;
    }
    std::string value = (*item).value.decode();
    return isUTF8(value) ? std::optional(std::move(value)) : std::nullopt;
}

// The hosts, in the order of Screen's alternatives.
constexpr std::array<std::string_view, 5> names{"breathe", "focus", "today", "settings", "main"};

}  // namespace

HalvoLink HalvoLink::reading(std::string_view text) {
    if (text.contains('\0')) {
        return {};
    }
    // The fragment is ignored, whatever it holds.
    const std::string address = encoded(text.substr(0, text.find('#')));
    const auto parsed = urls::parse_uri_reference(address);
    if (!parsed || hasPathWithoutSlash(*parsed)) {
        return {};
    }
    auto screen = screenNamed(parsed->encoded_host()).value_or(Main{});
    if (auto* exercise = std::get_if<Breathe>(&screen)) {
        exercise->style = valueOf(styleItem, *parsed);
        exercise->minutes = valueOf(minutesItem, *parsed).and_then(minutesOf);
    }
    return {screen};
}

std::optional<HalvoLink::Screen> HalvoLink::screenNamed(std::string_view name) {
    static const std::array<Screen, names.size()> screens{Breathe{}, Focus{}, Today{}, Settings{},
                                                          Main{}};
    const auto index = static_cast<std::size_t>(
        std::ranges::distance(names.begin(), std::ranges::find(names, name)));
    return index < screens.size() ? std::optional(screens.at(index)) : std::nullopt;
}

std::string_view HalvoLink::name() const { return names.at(screen.index()); }

std::string HalvoLink::url() const { return url(scheme()); }

std::string HalvoLink::url(const std::string& scheme) const {
    urls::url url;
    try {
        url.set_scheme(scheme);
    } catch (const boost::system::system_error&) {
        return noURL;
    }
    url.set_encoded_host(name());
    if (const auto* exercise = std::get_if<Breathe>(&screen)) {
        if (exercise->style && isUTF8(*exercise->style)) {
            url.encoded_params().append(
                {styleItem, urls::encode(*exercise->style, valueCharacters)});
        }
        if (exercise->minutes) {
            url.encoded_params().append({minutesItem, std::to_string(*exercise->minutes)});
        }
    }
    return std::string(url.buffer());
}

std::string HalvoLink::scheme() {
    return infoString(Bundle::main().info(), "HalvoURLScheme").value_or("halvo");
}

}  // namespace halvo
