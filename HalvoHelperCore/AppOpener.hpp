// Opening the app, as the engine sees it.
#pragma once

#include <cstdint>
#include <string>

namespace halvo {

class AppOpener {
  public:
    virtual ~AppOpener() = default;

    // Opens the app at `appPath` for the user `uid`, inside that user's session. `afterQuit`: tells
    // the app that it is opened again after it was quit. Returns at once, without the outcome; a
    // failure is logged by the implementation.
    virtual void open(const std::string& appPath, std::uint32_t uid, bool afterQuit) = 0;
};

}  // namespace halvo
