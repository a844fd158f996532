// The private group to which the app is installed set-group-id. The helper admits only callers
// whose effective group was this one at connect(2), which tells the app from other programs of the
// same person.
//
// A set-group-id process remains not dumpable (no core file, no debugger of the same person, its
// files in /proc belong to root), and the dynamic linker ignores LD_PRELOAD (ld.so(8)).
// LeakSanitizer, which needs ptrace(2), aborts in it, and sanitizers ignore their options in the
// environment; see SanitizerOptions.cpp.
//
// In a process that is not set-group-id all of this does nothing.
#pragma once

#include <sys/types.h>

#include <optional>

namespace halvo::PrivateGroup {

// Restores the person's own group as the effective one of the process and keeps the private group
// as the saved one only (credentials(7)), so that files are created and checked with the person's
// own. Programs that are executed from then on do not inherit it (execve(2)); a forked child does.
// Failure (setresgid(2)) is a fatal error. Called once, first in main(), before any thread is
// started.
void setAside();

// Makes the private group the effective one while this object lives, for the calling thread alone:
// to the kernel credentials belong to threads, and only the C library's wrappers change those of
// all of them. For connect(2) only. Created and destroyed on one thread, one at a time on it.
// Failure to set the group changes nothing, and the helper then refuses the connection; failure to
// restore the earlier one is a fatal error. Both clear the thread's parent-death signal
// (PR_SET_PDEATHSIG(2const)).
class InEffect {
  public:
    InEffect();
    ~InEffect();
    InEffect(const InEffect&) = delete;
    InEffect& operator=(const InEffect&) = delete;

  private:
    // The effective group to restore, if any.
    std::optional<gid_t> before_;
};

}  // namespace halvo::PrivateGroup
