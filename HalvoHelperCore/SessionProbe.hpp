// The console user and the app's processes, as the engine sees them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace halvo {

class SessionProbe {
  public:
    virtual ~SessionProbe() = default;

    // The user at the console; nothing without a login session, or at a login screen. Never root.
    virtual std::optional<std::uint32_t> consoleUser() = 0;

    // Whether a process with the effective user `uid` runs the executable of the bundle at
    // `bundlePath`. False on failure.
    virtual bool isAppRunning(const std::string& bundlePath, std::uint32_t uid) = 0;
};

}  // namespace halvo
