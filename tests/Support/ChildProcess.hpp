// Code that must not run in the tests' own process: it ends the process, drops privileges, closes
// descriptors or serves the process's one event loop.
#pragma once

#include <functional>
#include <string>

namespace halvo::testing {

// How a child process ended and what it said.
struct ChildResult {
    // The exit status, or -1 when a signal ended it.
    int status = -1;
    // The signal that ended it, or 0.
    int signal = 0;
    // Standard output and standard error together.
    std::string output;
};

// Runs `body` in a forked child. A body that returns makes the child exit with 0, or with 1 when it
// failed an expectation; the text of the failure is in the output. A child that takes longer than
// 30 s is killed. Not to be called while another thread runs.
ChildResult runInChild(const std::function<void()>& body);

}  // namespace halvo::testing
