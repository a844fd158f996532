// Where callers come in.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "HalvoHelperCore/HelperIdentity.hpp"

namespace halvo {

class HelperService;

// Waits for callers on the helper's Mach service, or what stands for it. Made before the engine
// starts up, so that a place that is taken is noticed before anything is touched; no caller is
// served before serve().
class HelperListener {
  public:
    virtual ~HelperListener() = default;

    // Serves the callers that are the app of `identity` from now on, for as long as the process
    // lives, with the engine of `service`, which must outlive the listener and counts them: opened
    // before the first request is served, closed after the last. Others are turned away before
    // `service` hears of them. On Linux the service manager is told that the helper is ready
    // (sd_notify(3)). Called once, on the main queue or before it runs.
    virtual void serve(const HelperIdentity& identity, HelperService& service) = 0;
};

// The listener of this system for the Mach service `name`. On macOS it is NSXPCListener, which
// always comes about: a name that launchd does not know shows only when nobody calls, and strangers
// are turned away by the system (setConnectionCodeSigningRequirement:). On Linux it takes the
// socket that systemd hands over (sd_listen_fds(3)), and fails where systemd started the process
// without one; else it makes its own and holds it alone. A failure is logged and ends the process:
// with 78 (sysexits.h) where the machine must be put in order first, with 71 where another helper
// runs or the system has nothing left.
std::unique_ptr<HelperListener> makeListener(const std::string& name);

// What to tell who starts the helper, the program at `executable`, as somebody else than root: how
// it is started on this system. Nothing on macOS, where only launchd can.
std::optional<std::string> startAdvice(const std::string& executable);

}  // namespace halvo
