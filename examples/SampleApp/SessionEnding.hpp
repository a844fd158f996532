// Whether the person is leaving: logging out, or the machine is going down.
#pragma once

#include <optional>
#include <string>

#include "HalvoPlatform/Time.hpp"

namespace halvo {

// What logind knows, each absent where it cannot be learned; sd-login(3),
// org.freedesktop.login1(5).
struct SessionFacts {
    // The state of the session that this process belongs to.
    std::optional<std::string> sessionState;
    // The state of the person. It stands in for the session's in a process that the person's
    // service manager started, which belongs to no session.
    std::optional<std::string> userState;
    // A reboot or shutdown has begun.
    std::optional<bool> preparingForShutdown;
};

// Whether a request to end, received now, is part of the session's end. Without logind it never is:
// the app then leaves no excuse behind. Nor is it where the session was closing before already
// (`wasOpen`: it was not, some seconds ago): a program that is left behind keeps it so, and
// somebody could start the app in it again and again only to have its end announced.
bool isSessionEnding(const SessionFacts& facts, bool wasOpen);

// Whether the session, or the person, is closing. Reads files of logind's only.
bool isClosing();

// Asks logind, and waits for it at most `limit`.
SessionFacts readSessionFacts(Seconds limit);

}  // namespace halvo
