// Child processes of a test, look-ups in proc(5), and waiting for conditions.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo::testing {

// How long a test waits for a condition that should hold soon: generous, as other tests run at the
// same time.
inline constexpr Seconds timeLimit{20};

// The time of a monotonic clock.
Seconds timeNow();

void sleepFor(Seconds span);

// Polls `condition` until it holds or `limit` has passed; whether it held. Pauses a few
// milliseconds between polls, or three times as long as the poll took.
bool eventually(Seconds limit, const std::function<bool()>& condition);

inline bool eventually(const std::function<bool()>& condition) {
    return eventually(timeLimit, condition);
}

// Polls `condition` for `span`; whether it always held.
bool always(Seconds span, const std::function<bool()>& condition);

// --------------------------------------------------------------------------------------- processes

// A user with one group.
struct Credentials {
    constexpr Credentials() = default;

    constexpr Credentials(uid_t user, gid_t group) : uid(user), gid(group) {}

    // On a private machine a user's group has the user's number.
    constexpr Credentials(uid_t user) : Credentials(user, user) {}

    bool operator==(const Credentials&) const = default;

    uid_t uid{};
    gid_t gid{};
};

// Switches this process to `person` for good, without supplementary groups; exits with 127 when it
// cannot. For the bodies of child processes.
void become(const Credentials& person);

// execve(2); exits with 127 when it fails.
[[noreturn]] void execute(const std::string& path, std::vector<std::string> arguments,
                          std::vector<std::string> environment = {});

// What a child process runs, a program or a function, and how.
struct ProcessOptions {
    // The program's path and its arguments.
    std::vector<std::string> words{};
    // The user it switches to; without, that of the test.
    std::optional<Credentials> person{};
    // The program's environment, as "NAME=VALUE"; a default PATH is added.
    std::vector<std::string> environment{};
    // Runs in the new process, with that environment, before it switches to `person`.
    std::function<void()> prepare{};
    // Raises SIGSTOP right before execve(2), until goOn(): for a tracer.
    bool stopped = false;
    // Runs instead of a program, with the environment of the test; returns the exit status.
    std::function<int()> body{};
};

// A running child process with pipes to the test. Killed by the destructor. Must not be created
// while another thread runs (it forks).
class TestProcess {
  public:
    // Returns once execve(2) has succeeded, or the child has exited because it failed (127); with a
    // body, once that begins. Throws std::system_error when fork(2) fails.
    explicit TestProcess(const ProcessOptions& options);

    // Runs `body`; the child then exits with 0, or with 1 after a failed expectation.
    explicit TestProcess(const std::function<void()>& body);

    TestProcess(TestProcess&& other) noexcept;
    TestProcess& operator=(TestProcess&&) = delete;
    TestProcess(const TestProcess&) = delete;
    TestProcess& operator=(const TestProcess&) = delete;
    ~TestProcess();

    [[nodiscard]] pid_t pid() const { return pid_; }

    // Sends the signal, unless the child was reaped.
    void send(int signal) const;

    // Sends SIGKILL and reaps the child.
    void kill();

    // SIGSTOP, returning once it has taken effect; SIGCONT.
    void stop() const;
    void goOn() const;

    // Writes `line` and a newline to the child's standard input, which closeInput() closes.
    void tell(const std::string& line) const;

    void closeInput() { input_ = Descriptor(); }

    // What the child and its descendants have written to standard output and error so far.
    [[nodiscard]] std::string output() const;

    // The next line of the output, without its newline. A partial line when the child ends, or
    // after `timeLimit`.
    std::string readLine();

    // Whether readLine() would return without waiting.
    [[nodiscard]] bool hasLine() const;

    // Waits for the child's end; the output after the lines already read.
    std::string readAll();

    // Whether it still runs; reaps it otherwise.
    bool isRunning();

    // Waits for the end; the exit status, or 128+N after signal N, as in shells. A child that
    // exceeds `limit` is killed and fails the test.
    int wait(Seconds limit = Seconds{60});

    // Takes over a status from waitpid(2), for a tracer that reaped the child itself.
    void noteEnd(int waitStatus) { waitStatus_ = waitStatus; }

    // The signal that ended it, or 0.
    [[nodiscard]] int endingSignal() const;

  private:
    void reap(int options);

    [[nodiscard]] bool hasEnded() const { return pid_ < 0 || waitStatus_.has_value(); }

    void waitUntilStopped() const;

    pid_t pid_ = -1;
    std::optional<int> waitStatus_;
    Descriptor input_;
    // memfd_create(2): unlike a pipe, takes any amount without a reader.
    Descriptor output_;
    std::size_t read_ = 0;
};

// How a child process ended, and its output.
struct ChildResult {
    // The exit status, or -1 when a signal ended it.
    int status = -1;
    // Standard output and standard error together.
    std::string output;
    // The signal that ended it, or 0.
    int signal = 0;

    bool operator==(const ChildResult&) const = default;
};

// Runs the child to its end, with an empty standard input; see TestProcess.
ChildResult runInChild(const ProcessOptions& options, Seconds limit = Seconds{60});
ChildResult runInChild(const std::function<void()>& body);

// Runs `body` in a child process and expects no failure in it.
void expectInChild(const std::function<void()>& body);

// Ends a child process with 0, or with 1 after a failed expectation, without exit handlers: in a
// process that changed its user, or that can start no other, LeakSanitizer's would abort.
[[noreturn]] void exitAtOnce();

// Runs `body` in a process that is started anew (execve(2)), and expects no failure in it: for what
// happens once per process.
void expectInNewProcess(void (*body)());

// ---------------------------------------------------------------------------------------- proc(5)

// A field of /proc/PID/status, trimmed; empty when there is no such process.
std::string processField(pid_t process, const std::string& field);

// The numbers in such a field, in base `base`.
std::vector<unsigned long long> processNumbers(pid_t process, const std::string& field,
                                               int base = 10);

// The arguments of a process, or its environment. Retries while they are empty: during execve(2)
// the executable changes before they do.
std::vector<std::string> processWords(pid_t process, const char* file = "cmdline");

// The processes whose /proc/PID/exe is `path`, sorted.
std::vector<pid_t> processesRunning(const std::string& path);

// Limits this process to `count` more descriptors while it lives (RLIMIT_NOFILE).
class FewDescriptors {
  public:
    explicit FewDescriptors(rlim_t count);
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;
    ~FewDescriptors();

  private:
    rlimit before_{};
};

}  // namespace halvo::testing
