// Why the app was launched, as its arguments tell it.
#pragma once

#include <array>

namespace halvo::LaunchReason {

// Followed by "YES": the app is opened again after it was quit.
inline constexpr const char* relaunchArgument = "-halvoRelaunchedAfterQuit";

// The arguments of what the app leaves running to look after it once it has quit.
inline constexpr std::array<const char*, 1> afterQuitArguments{"--after-quit"};

}  // namespace halvo::LaunchReason
