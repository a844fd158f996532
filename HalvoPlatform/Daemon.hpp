// The first steps of a process that runs as a root service.
#pragma once

namespace halvo {

// Makes the process safe to run as a service, however it was started: descriptors 0 to 2 are open
// (on /dev/null where they were not), so that no socket is ever taken for standard error; its
// working directory is "/"; its umask is 022 (private files are created with their mode); an
// allocation of C++ that fails is fatal (Fatal.hpp, std::set_new_handler). Signals are left alone.
// Never fails. Called once, first, on the main thread.
void prepareDaemon();

// Whether the real user is root.
bool runsAsRoot();

}  // namespace halvo
