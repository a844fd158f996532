// The group of its own to which the app is installed set-group-id. The helper admits only callers
// with which the kernel has seen this group in effect at connect(2), so it is what tells the app
// from any other program of the same person.
//
// What stays with a set-group-id process all its life, whatever is done here: it is not dumpable
// (no core file, no debugger of the same person, and its files in /proc belong to root), and the
// dynamic linker ignores LD_PRELOAD and its like (ld.so(8)). LeakSanitizer, which needs ptrace(2),
// aborts in it, and no sanitizer finds its options in the environment; see SanitizerOptions.cpp.
//
// Everything works in a process that is not set-group-id as well: there is nothing to set aside and
// nothing to put in effect.
#pragma once

#include <sys/types.h>

#include <optional>

namespace halvo::PrivateGroup {

// Takes the group out of effect in the whole process and keeps it as the saved group only
// (credentials(7)), so that files are made and checked with the person's own group. A program that
// is executed from now on does not get it (execve(2)); a child that only forked still has it. To be
// called first in main(), once, before any thread is started. A kernel that refuses (setresgid(2);
// it has no reason to) is a fatal error: the process must not go on with the group in effect.
void setAside();

// Puts the group in effect for as long as this object lives, for the calling thread alone: to the
// kernel credentials belong to threads, and only the C library's wrappers carry a change to all of
// them. To be held around connect(2) and nothing else. Created and destroyed on one thread, one at
// a time on it. Where the kernel refuses to put the group in effect nothing changes, and the helper
// then refuses the connection; where it refuses to take it back the process ends with a fatal
// error. Both changes clear the thread's parent-death signal (PR_SET_PDEATHSIG(2const)).
class InEffect {
  public:
    InEffect();
    ~InEffect();
    InEffect(const InEffect&) = delete;
    InEffect& operator=(const InEffect&) = delete;

  private:
    // The effective group to go back to; nothing when there is nothing to put back.
    std::optional<gid_t> before_;
};

}  // namespace halvo::PrivateGroup
