#include "examples/SampleApp/Arguments.hpp"

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "HalvoHelperCore/HelperCommitment.hpp"
#include "HalvoShared/LaunchReason.hpp"

namespace halvo {
namespace {

bool isDigits(std::string_view text) {
    return !text.empty() && std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

// Plain decimals only: strtod(3) would also take "inf", "0x1p3" and "1e3".
bool isDecimal(std::string_view text) {
    const std::size_t point = text.find('.');
    return isDigits(text.substr(0, point)) &&
           (point == std::string_view::npos || isDigits(text.substr(point + 1)));
}

std::optional<Seconds> parseMinutes(const std::string& word) {
    if (!isDecimal(word)) {
        return std::nullopt;
    }
    const Seconds span =
        std::chrono::duration<double, std::ratio<60>>(std::strtod(word.c_str(), nullptr));
    return span > Seconds{0} && span <= HelperCommitment::maximum ? std::optional(span)
                                                                  : std::nullopt;
}

}  // namespace

std::expected<Arguments, std::string> parseArguments(std::span<const std::string> words) {
    Arguments arguments;
    while (!words.empty()) {
        const std::string& word = words.front();
        words = words.subspan(1);
        if (word == "--help" || word == "-h") {
            arguments.help = true;
        } else if (word == LaunchReason::relaunchArgument) {
            if (words.empty() || words.front() != "YES") {
                return std::unexpected(word + " is followed by YES and nothing else.");
            }
            words = words.subspan(1);
            arguments.broughtBack = true;
        } else if (const auto minutes = parseMinutes(word); minutes && !arguments.commitment) {
            arguments.commitment = minutes;
        } else if (minutes) {
            return std::unexpected("One number of minutes is enough: there is " + word + " too.");
        } else {
            return std::unexpected("'" + word + "' is no number of minutes above 0, up to 1440.");
        }
    }
    return arguments;
}

const char* const helpText =
    R"(Usage: Halvo [MINUTES]

With MINUTES, commits you to keep this app for that long: above 0, up to 1440,
fractions as in 0.5. Without it, shows what you are committed to. While a
commitment holds Halvo stays, shows the time left, and tells the helper every
2 seconds that it is alive. It ends by itself 10 seconds after the commitment.

There is no word to end a commitment early. If one holds that ends later than
MINUTES from now, the later end stays.

Examples:
  Halvo 25        keep the app for 25 minutes
  Halvo 0.5       ... for half a minute, to try it
  Halvo           how long is it still?

Other words:
  -halvoRelaunchedAfterQuit YES   the helper opened Halvo again; not for people
  --help                          show this text

Exit status: 0 when nothing holds (any more) or a signal told it to end,
1 when the helper did not take the commitment, 64 for wrong words, 65 when the
helper rejects the request, 69 when it is not running, 71 when this process has
no descriptors or memory left, 75 when it does not answer, 77 when it refuses
this program, 78 when this program lies in no app bundle.
)";

}  // namespace halvo
