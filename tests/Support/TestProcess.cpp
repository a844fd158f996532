#include "tests/Support/TestProcess.hpp"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "HalvoHelper/ArgumentVector.hpp"

namespace halvo::testing {
namespace {

using namespace std::chrono_literals;

// A machine that is busy with other tests may be late.
constexpr auto patience = 20s;

struct Pipe {
    Descriptor readEnd;
    Descriptor writeEnd;
};

Pipe makePipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2");
    }
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

[[noreturn]] void runChild(const std::function<void()>& body, const Descriptor& input,
                           const Descriptor& output) {
    dup2(input.get(), STDIN_FILENO);
    dup2(output.get(), STDOUT_FILENO);
    dup2(output.get(), STDERR_FILENO);
    body();
    std::fflush(nullptr);
    // Not _exit(2): what watches the run (coverage, sanitizers) reports at the end.
    std::exit(::testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
}

[[noreturn]] void giveUp(const char* call) {
    std::perror(call);
    _exit(EXIT_FAILURE);
}

}  // namespace

TestProcess::TestProcess(const std::function<void()>& body) {
    Pipe input = makePipe();
    Pipe output = makePipe();
    // What is still buffered would be written twice.
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) {
        throw std::runtime_error("fork");
    }
    if (pid_ == 0) {
        input.writeEnd = Descriptor();
        runChild(body, input.readEnd, output.writeEnd);
    }
    input_ = std::move(input.writeEnd);
    output_ = std::move(output.readEnd);
}

TestProcess::~TestProcess() {
    if (!reaped_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

bool TestProcess::readMore(std::chrono::milliseconds limit) {
    pollfd waiting{output_.get(), POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(limit.count())) <= 0) {
        return false;
    }
    std::array<char, 4096> buffer{};
    const ssize_t count = read(output_.get(), buffer.data(), buffer.size());
    if (count <= 0) {
        return false;
    }
    text_.append(buffer.data(), static_cast<std::size_t>(count));
    return true;
}

std::string TestProcess::readLine() {
    while (text_.find('\n') == std::string::npos && readMore(patience)) {
    }
    const std::size_t end = text_.find('\n');
    std::string line = text_.substr(0, end);
    text_.erase(0, end == std::string::npos ? end : end + 1);
    return line;
}

bool TestProcess::hasLine() {
    while (text_.find('\n') == std::string::npos && readMore(std::chrono::milliseconds{0})) {
    }
    return text_.find('\n') != std::string::npos;
}

std::string TestProcess::readAll() {
    while (readMore(patience)) {
    }
    return std::exchange(text_, {});
}

int TestProcess::wait() {
    int status = 0;
    if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) {
        kill(pid_, SIGKILL);
        EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    }
    reaped_ = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void TestProcess::send(int signal) const { kill(pid_, signal); }

void become(const Person& person) {
    if (setgroups(0, nullptr) != 0 || setresgid(person.gid, person.gid, person.gid) != 0 ||
        setresuid(person.uid, person.uid, person.uid) != 0) {
        giveUp("become");
    }
}

void execute(const std::string& path, std::vector<std::string> arguments,
             const std::vector<std::string>& environment) {
    arguments.insert(arguments.begin(), path);
    execve(path.c_str(), ArgumentVector(arguments).data(), ArgumentVector(environment).data());
    giveUp(path.c_str());
}

bool eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

FewDescriptors::FewDescriptors(rlim_t count) {
    // The first time the sanitizer of undefined behaviour needs one to look at the object.
    EXPECT_FALSE(std::generic_category().message(EMFILE).empty());
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    const int next = dup(STDERR_FILENO);
    close(next);
    const rlimit few{static_cast<rlim_t>(next) + count, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
}

FewDescriptors::~FewDescriptors() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before_), 0); }

}  // namespace halvo::testing
