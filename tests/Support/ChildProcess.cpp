#include "tests/Support/ChildProcess.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "HalvoPlatform/Descriptor.hpp"

namespace halvo::testing {
namespace {

using namespace std::chrono_literals;

[[noreturn]] void runChild(const std::function<void()>& body, const Descriptor& output) {
    dup2(output.get(), STDOUT_FILENO);
    dup2(output.get(), STDERR_FILENO);
    body();
    std::fflush(nullptr);
    // Not _exit(2): what watches the run (coverage, sanitizers) reports at the end.
    std::exit(::testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
}

// Reads until the child has closed its end, or kills it when it takes too long.
std::string collect(const Descriptor& input, pid_t child) {
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    std::string text;
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd waiting{input.get(), POLLIN, 0};
        if (left <= 0ms || poll(&waiting, 1, static_cast<int>(left.count())) <= 0) {
            kill(child, SIGKILL);
            return text + "(killed after 30 s)";
        }
        std::array<char, 4096> buffer{};
        const ssize_t count = read(input.get(), buffer.data(), buffer.size());
        if (count <= 0) {
            return text;
        }
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

}  // namespace

ChildResult runInChild(const std::function<void()>& body) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2");
    }
    const Descriptor input(ends[0]);
    Descriptor output(ends[1]);
    // What is still buffered would be written twice.
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        runChild(body, output);
    }
    output = Descriptor();
    ChildResult result;
    result.output = collect(input, child);
    int status = 0;
    if (waitpid(child, &status, 0) == child) {
        result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    return result;
}

}  // namespace halvo::testing
