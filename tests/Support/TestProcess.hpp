// Processes that a test runs beside itself, what the system says of processes, and waiting for what
// they do.
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

// How long a test waits for what should come soon. A machine that is busy with other tests may be
// late.
inline constexpr Seconds timeLimit{20};

// A monotonic time, which begins anywhere.
Seconds timeNow();

void sleepFor(Seconds span);

// Whether `condition` comes true before `limit` has passed. It is looked at every few milliseconds,
// or, when a look takes long, for a quarter of the time.
bool eventually(Seconds limit, const std::function<bool()>& condition);

inline bool eventually(const std::function<bool()>& condition) {
    return eventually(timeLimit, condition);
}

// Whether `condition` is true at every look for as long as `span`.
bool always(Seconds span, const std::function<bool()>& condition);

// --------------------------------------------------------------------------------------- processes

// A user and the user's only group.
struct Person {
    constexpr Person() = default;

    constexpr Person(uid_t user, gid_t group) : uid(user), gid(group) {}

    // On a private machine a person's group has the number of the person.
    constexpr Person(uid_t user) : Person(user, user) {}

    bool operator==(const Person&) const = default;

    uid_t uid{};
    gid_t gid{};
};

// Makes this process `person`'s, without any other group, for good; ends it when that cannot be.
// For the bodies of child processes.
void become(const Person& person);

// Puts the program at `path` in the place of this process. Ends it when that cannot be.
[[noreturn]] void execute(const std::string& path, std::vector<std::string> arguments,
                          std::vector<std::string> environment = {});

// What a child process is to be: a program, or a function.
struct Start {
    // The program's path and its arguments.
    std::vector<std::string> words{};
    // Whose process it becomes; without, it stays the test's.
    std::optional<Person> person{};
    // The program's environment, as "NAME=VALUE"; with the usual PATH unless it has another.
    std::vector<std::string> environment{};
    // Runs in the new process, with that environment, before it becomes the person's.
    std::function<void()> prepare{};
    // Stops right before the program begins, until goOn(): for a tracer.
    bool stopped = false;
    // Runs in place of a program, with the environment of the test; returns the exit status.
    std::function<int()> body{};
};

// A child process, which the test talks to while it runs. Killed at the end, should it still run.
// Not to be made while another thread runs.
class TestProcess {
  public:
    // Returns once the program has been started, or has ended because it could not be (127); with a
    // body, once that begins. Throws when there can be no process.
    explicit TestProcess(const Start& start);

    // Runs `body`; when it returns the child exits with 0, or with 1 when it failed an expectation.
    explicit TestProcess(const std::function<void()>& body);

    TestProcess(TestProcess&& other) noexcept;
    TestProcess& operator=(TestProcess&&) = delete;
    TestProcess(const TestProcess&) = delete;
    TestProcess& operator=(const TestProcess&) = delete;
    ~TestProcess();

    [[nodiscard]] pid_t pid() const { return pid_; }

    // Sends the signal, unless the child is known to have ended.
    void send(int signal) const;

    // Sends SIGKILL and waits for the end.
    void kill();

    // SIGSTOP, which has taken effect when this returns; SIGCONT.
    void stop() const;
    void goOn() const;

    // Writes `line` and its end to the child's standard input, which closeInput() ends.
    void tell(const std::string& line) const;

    void closeInput() { input_ = Descriptor(); }

    // All that the child, and what it started, has written so far to standard output and error.
    [[nodiscard]] std::string output() const;

    // The next line of the output, without its end; what there is of it when the child ends, or
    // stays silent for `timeLimit`.
    std::string readLine();

    // Whether there is a line to be read without waiting.
    [[nodiscard]] bool hasLine() const;

    // The output after the lines that were read, up to the child's end.
    std::string readAll();

    // Whether it has not ended.
    bool isRunning();

    // Waits for the end. The exit status, or 128+N after signal N, as shells have it. A child that
    // takes longer than `limit` is killed and fails the test.
    int wait(Seconds limit = Seconds{60});

    // Takes what waitpid(2) said of its end, for a caller that waits for it by itself.
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
    // A file in memory, which takes any amount without a reader.
    Descriptor output_;
    std::size_t read_ = 0;
};

// How a child process ended and what it said.
struct ChildResult {
    // The exit status, or -1 when a signal ended it.
    int status = -1;
    // Standard output and standard error together.
    std::string output;
    // The signal that ended it, or 0.
    int signal = 0;

    bool operator==(const ChildResult&) const = default;
};

// Runs the child, with nothing on its standard input, to its end; see TestProcess.
ChildResult runInChild(const Start& start, Seconds limit = Seconds{60});
ChildResult runInChild(const std::function<void()>& body);

// Runs `body` in a process that is started anew (execve(2)), and expects no failure in it: for what
// happens once per process.
void expectInNewProcess(void (*body)());

// ------------------------------------------------------------------- what the system says: proc(5)

// A field of /proc/PID/status, without blanks around it; empty when there is no such process.
std::string processField(pid_t process, const std::string& field);

// The numbers in such a field, in base `base`.
std::vector<unsigned long long> processNumbers(pid_t process, const std::string& field,
                                               int base = 10);

// The words of a process's command line, or of its environment. A process that execve(2) is about
// to give its words, after its executable, is waited for.
std::vector<std::string> processWords(pid_t process, const char* file = "cmdline");

// All processes whose executable is the file at `path`, in the order of their numbers.
std::vector<pid_t> processesRunning(const std::string& path);

// Leaves this process room for `count` descriptors more while it lives.
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
