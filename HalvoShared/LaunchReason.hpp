// Why the app was launched, as its arguments tell it.
#pragma once

namespace halvo::LaunchReason {

// Followed by "YES": the app is opened again after it was quit.
inline constexpr const char* relaunchArgument = "-halvoRelaunchedAfterQuit";

}  // namespace halvo::LaunchReason
