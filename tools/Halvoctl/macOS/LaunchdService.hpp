// The helper as a job of launchd.
#pragma once

#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {

// launchctl(1), of which only the exit status counts: what it prints is no interface. Runs it with
// the arguments `words`, and waits for its end, at most for `limit`; says `line` when that takes a
// second. Returns its exit status, or 128 and the number of the signal that ended it. Fails, with a
// sentence without a full stop, when it cannot be started or takes too long; it is killed then.
using Launchctl = std::function<std::expected<int, std::string>(
    std::vector<std::string> words, Seconds limit, const std::string& line)>;

// The system's own. It gets an environment of PATH and LC_ALL=C, nothing to read, the usual
// signals, and a process group of its own: what is typed at the terminal does not reach it. Borrows
// `waiter`. `program`: another in its place, for tests.
Launchctl liveLaunchctl(Waiter& waiter, const std::string& program = "/bin/launchctl");

std::unique_ptr<Service> launchdService(const Machine& machine, const Launchctl& launchctl);

// What of the helper's, whose executable is at `helper`, it starts as root to open the app.
Check checkOpening(const std::string& helper, const HelperIdentity& identity);

}  // namespace halvo::control
