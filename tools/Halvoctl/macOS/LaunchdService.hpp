// The helper as a job of launchd.
#pragma once

#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {

// Runs the program `words` and waits for its end, at most for `limit`; prints `line` after a second
// (Waiter::wait()). The program gets the environment PATH and LC_ALL=C, /dev/null as its standard
// streams, default signals, and a process group of its own: the terminal's signals do not reach it.
// Returns its exit status, or 128 and the number of the signal that ended it. Fails with a sentence
// without a full stop when it cannot be started or takes too long, when it is killed.
std::expected<int, std::string> runAndWait(Waiter& waiter, const std::vector<std::string>& words,
                                           Seconds limit, const std::string& line);

using Run = std::function<decltype(runAndWait)>;

// The service. Runs launchctl(1) by `run`, and looks only at its exit status: its output is no
// interface.
std::unique_ptr<Service> launchdService(const Machine& machine, Run run);

// How the helper, whose executable is at `helper`, is started as root to open the app.
Check checkOpening(const std::string& helper, const HelperIdentity& identity);

}  // namespace halvo::control
