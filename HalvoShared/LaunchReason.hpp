// The launch arguments of the app.
#pragma once

#include <array>

namespace halvo::LaunchReason {

// Followed by "YES": the app was quit and is relaunched.
inline constexpr const char* relaunchArgument = "-halvoRelaunchedAfterQuit";

// The arguments of the process that the app leaves running after it has quit.
inline constexpr std::array<const char*, 1> afterQuitArguments{"--after-quit"};

}  // namespace halvo::LaunchReason
