// A small app that uses the helper the way the real one does.

#include <sysexits.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "HalvoClient/HelperClient.hpp"
#include "HalvoClient/OwnBundle.hpp"
#include "HalvoClient/PrivateGroup.hpp"
#include "examples/SampleApp/Arguments.hpp"
#include "examples/SampleApp/Companion.hpp"
#include "examples/SampleApp/Display.hpp"
#include "examples/SampleApp/RecordKeeper.hpp"

int main(int count, char** words) {
    using namespace halvo;
    PrivateGroup::setAside();
    // Whoever reads what the app says may go away; the app must not.
    std::signal(SIGPIPE, SIG_IGN);
    const std::vector<std::string> list(words + (count > 0 ? 1 : 0), words + count);
    const auto arguments = parseArguments(list);
    if (!arguments) {
        std::fprintf(stderr, "Halvo: %s See Halvo --help.\n", arguments.error().c_str());
        return EX_USAGE;
    }
    if (arguments->help) {
        std::fputs(helpText, stdout);
        return EX_OK;
    }
    const auto bundle = ownBundle();
    if (!bundle) {
        std::fputs(
            "Halvo: this program must lie in its app bundle, beside whose Info.plist it "
            "knows its helper.\n",
            stderr);
        return EX_CONFIG;
    }
    HelperClient client(bundle->identity);
    Display display(stdout, isatty(STDOUT_FILENO) == 1);
    RecordKeeper records(KeepAliveState::file(), WidgetSnapshot::file(), bundle->path);
    return Companion(client, display, records, bundle->path).run(*arguments);
}
