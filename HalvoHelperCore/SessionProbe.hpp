// What the engine must know of the machine's people and processes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace halvo {

class SessionProbe {
  public:
    virtual ~SessionProbe() = default;

    // The user who sits at the console; nothing while nobody does, or only a login screen. Never
    // root.
    virtual std::optional<std::uint32_t> consoleUser() = 0;

    // Whether the executable of the bundle at `bundlePath` runs with the effective user `uid`. A
    // question that cannot be answered is false.
    virtual bool isAppRunning(const std::string& bundlePath, std::uint32_t uid) = 0;
};

}  // namespace halvo
