// How the app comes back.
#pragma once

#include <cstdint>
#include <string>

namespace halvo {

class AppOpener {
  public:
    virtual ~AppOpener() = default;

    // Opens the app at `appPath` for the user `uid`, inside that user's session. `afterQuit` tells
    // the app that it is brought back after it was quit. Returns at once; a failure is logged by
    // the implementation and nobody waits for the outcome.
    virtual void open(const std::string& appPath, std::uint32_t uid, bool afterQuit) = 0;
};

}  // namespace halvo
