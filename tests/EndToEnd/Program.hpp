// Programs that a test runs, and waiting for what they do.
#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo::testing {

// Time since boot of the machine; the helper's own clock.
Seconds timeNow();

void sleepFor(Seconds span);

// Whether `condition` comes true before `limit` has passed.
bool eventually(Seconds limit, const std::function<bool()>& condition);

// Whether `condition` is true at every look for as long as `span`.
bool always(Seconds span, const std::function<bool()>& condition);

struct Start {
    // The program's path and its arguments.
    std::vector<std::string> words{};
    // Whose process it is, with no groups but the person's own. Without, root's.
    std::optional<uid_t> person{};
    // "NAME=VALUE", besides PATH and what sanitizers need.
    std::vector<std::string> environment{};
    // Done as root in the new process, before anything else.
    std::function<void()> prepare{};
    // Stops right before the program begins, until SIGCONT; for tracing it from there on.
    bool stopped = false;
    // Done in place of a program; gives the exit status.
    std::function<int()> body{};
};

// A child process. Killed at the end, should it still run.
class Program {
  public:
    // Returns once the program has been started, or has ended because it could not be.
    explicit Program(const Start& start);
    Program(Program&& other) noexcept;
    Program& operator=(Program&&) = delete;
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program();

    [[nodiscard]] pid_t pid() const { return pid_; }

    void send(int signal) const;

    // Sends SIGKILL and waits for the end.
    void kill();

    // Stops it for a while; returns when it has stopped.
    void stop();
    void goOn() const;

    // Ends its standard input, on which nothing ever comes.
    void closeInput() { input_ = Descriptor(); }

    // Whether it has not ended.
    bool isRunning();

    // Waits for the end. The exit status, or 128+N after signal N, as shells have it. One that
    // takes longer than `limit` is killed and fails the test.
    int wait(Seconds limit = Seconds{60});

    // For who waits for it in another way: takes what waitpid(2) said of its end.
    void noteEnd(int waitStatus);

    // What it has written so far to its standard output and error.
    [[nodiscard]] std::string output() const;

  private:
    bool reap(bool block);
    void waitUntilStopped() const;

    pid_t pid_ = -1;
    std::optional<int> status_;
    Descriptor input_;
    std::string outputPath_;
};

// The numbers in a field of /proc/PID/status, in base `base`; empty when there is no such process.
std::vector<unsigned long long> processNumbers(pid_t pid, const std::string& field, int base = 10);

// The words of the process's command line, or of its environment. A process that execve(2) is about
// to give its words, after its executable, is waited for.
std::vector<std::string> processWords(pid_t pid, const char* file = "cmdline");

// All processes whose executable is the file at `path`.
std::vector<pid_t> processesRunning(const std::string& path);

}  // namespace halvo::testing
