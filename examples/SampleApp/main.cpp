// A small app that uses the helper the way the real one does.

#include <sysexits.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "HalvoClient/OwnBundle.hpp"
#include "HalvoClient/PrivateGroup.hpp"
#include "examples/SampleApp/SampleApp.hpp"

namespace {

constexpr const char* helpText =
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

}  // namespace

int main(int count, char** arguments) {
    using namespace halvo;
    PrivateGroup::setAside();
    // The app must outlive the reader of its output.
    std::signal(SIGPIPE, SIG_IGN);
    const std::vector<std::string> words(arguments + (count > 0 ? 1 : 0), arguments + count);
    const auto parsed = parseArguments(words);
    if (!parsed) {
        std::fprintf(stderr, "Halvo: %s See Halvo --help.\n", parsed.error().c_str());
        return EX_USAGE;
    }
    if (parsed->help) {
        std::fputs(helpText, stdout);
        return EX_OK;
    }
    const auto bundle = ownBundle();
    if (!bundle) {
        std::fputs(
            "Halvo: this program must lie in its app bundle, whose Info.plist names its helper.\n",
            stderr);
        return EX_CONFIG;
    }
    HelperClient client(bundle->identity);
    Display display(stdout, isatty(STDOUT_FILENO) == 1);
    RecordKeeper records(KeepAliveState::file(), WidgetSnapshot::file(), bundle->path);
    return Companion(client, display, records, bundle->path).run(*parsed);
}
