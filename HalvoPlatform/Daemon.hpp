// What a process that runs as root all day settles before it does anything else.
#pragma once

namespace halvo {

// Makes the process safe to run as a service, however it was started: descriptors 0 to 2 are open
// (on /dev/null where they were not), so that no socket is ever taken for standard error; its
// folder is "/"; its umask is the usual one (what must be closed to others is made so). Signals are
// left alone.
// Called once, first, on the main thread. Never fails.
void prepareDaemon();

// Whether the real user is root.
bool runsAsRoot();

}  // namespace halvo
