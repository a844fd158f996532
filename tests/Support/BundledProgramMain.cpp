// Prints one property of its own process or bundle; its only argument names which.

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "HalvoPlatform/Bundle.hpp"
#include "HalvoShared/AppGroup.hpp"
#include "HalvoShared/HalvoLink.hpp"
#include "HalvoShared/IntentHosting.hpp"

int main(int argc, char** argv) {
    using namespace halvo;
    const std::string question = argc > 1 ? argv[1] : "";
    if (question == "scheme") {
        std::cout << HalvoLink::scheme();
    } else if (question == "scheme-of-changed-bundle") {
        std::cout << HalvoLink::scheme();
        std::ofstream(Bundle::main().infoPath())
            << R"(<plist version="1.0"><dict><key>HalvoURLScheme</key><string>still</string>)"
               "</dict></plist>";
        std::cout << ' ' << HalvoLink::scheme() << ' ' << HalvoLink{HalvoLink::Today{}}.url();
    } else if (question == "url") {
        std::cout << HalvoLink{HalvoLink::Today{}}.url();
    } else if (question == "identifier") {
        std::cout << AppGroup::identifier().value_or("(none)");
    } else if (question == "container") {
        std::cout << AppGroup::container();
    } else if (question == "process") {
        std::cout << (IntentHosting::shared().isAppProcess() ? "app" : "extension");
    } else {
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
