// Other processes, for tests: programs that run as somebody, and what they say.
#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "HalvoPlatform/Descriptor.hpp"

namespace halvo::testing {

// A child process that the test talks to through pipes while it runs. Ends with the object at the
// latest. Not to be made while another thread runs.
class TestProcess {
  public:
    // Runs `body` in a forked child, whose standard output and standard error go to this object. A
    // body that returns makes the child exit with 0, or with 1 when it failed an expectation.
    explicit TestProcess(const std::function<void()>& body);

    TestProcess(const TestProcess&) = delete;
    TestProcess& operator=(const TestProcess&) = delete;

    // Kills the child if it still runs.
    ~TestProcess();

    [[nodiscard]] pid_t pid() const { return pid_; }

    // The next line that the child says, without its end; what there is of it when the child ends
    // or stays silent for 20 s.
    std::string readLine();

    // Whether there is a line to be read without waiting.
    bool hasLine();

    // All that the child has yet to say, up to its end.
    std::string readAll();

    // Closes the child's standard input, which the programs of these tests take as the word to end.
    void closeInput() { input_ = Descriptor(); }

    // Waits until the child has ended. Its exit status; 128 and the signal's number when one ended
    // it. Kills a child that takes longer than 20 s.
    int wait();

    // Sends the child `signal`.
    void send(int signal) const;

  private:
    // Whether there was more to read within `limit`.
    bool readMore(std::chrono::milliseconds limit);

    pid_t pid_ = 0;
    bool reaped_ = false;
    Descriptor input_;
    Descriptor output_;
    std::string text_;
};

// A user and the groups that go with it.
struct Person {
    uid_t uid{};
    gid_t gid{};

    bool operator==(const Person&) const = default;
};

// Makes this process `person`'s, without any other group, for good; ends it when that cannot be.
// For the bodies of child processes.
void become(const Person& person);

// Puts the program at `path` in the place of this process. Ends it when that cannot be.
[[noreturn]] void execute(const std::string& path, std::vector<std::string> arguments,
                          const std::vector<std::string>& environment = {});

// Looks until `condition` holds, for 20 s at most. Whether it came to hold.
bool eventually(const std::function<bool()>& condition);

// Leaves the process room for `count` descriptors more while it lives.
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
