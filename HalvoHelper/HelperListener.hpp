// The listener for the app's connections.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "HalvoHelperCore/HelperIdentity.hpp"

namespace halvo {

class HelperService;

// Listens on the helper's Mach service, or the socket that stands for it. Made before the engine
// starts up, so that a second helper ends before it has touched anything; no caller is served
// before serve().
class HelperListener {
  public:
    virtual ~HelperListener() = default;

    // Serves callers from now on, for as long as the process lives, with the engine of `service`,
    // which must outlive the listener and counts their connections: opened before the first request
    // is served, closed after the last. Callers that are not the app are refused before `service`
    // hears of them. On Linux the service manager is told that the helper is ready (sd_notify(3)).
    // Called once, on the main queue or before it runs.
    virtual void serve(HelperService& service) = 0;
};

// The listener of this system, for callers that are the app of `identity`, on the Mach service
// named by helperBundleID(). A failure is logged and ends the process (sysexits.h): with 78 where
// the machine's configuration is wrong, with 71 where another helper runs or the system is out of
// resources. Main thread. On macOS it is NSXPCListener, whose creation never fails: a name that
// launchd does not know shows only in that no connection arrives; the system refuses callers by
// their code signature (setConnectionCodeSigningRequirement:). On Linux it takes the socket that
// systemd hands over (sd_listen_fds(3)), and fails where systemd started the process without one;
// else it binds its own and holds its lock file.
std::unique_ptr<HelperListener> makeListener(const HelperIdentity& identity);

// How the helper, the program at `executable`, is started by hand on this system, for a user who
// started it without being root. Nothing on macOS, where only launchd can.
std::optional<std::string> startAdvice(const std::string& executable);

}  // namespace halvo
