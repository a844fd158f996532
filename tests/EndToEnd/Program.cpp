#include "tests/EndToEnd/Program.hpp"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <utility>

#include "HalvoPlatform/Descriptor.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

// What the child reports when it cannot become the program; also shells' word for it.
constexpr int cannotRun = 127;

std::vector<char*> pointersTo(std::vector<std::string>& words) {
    std::vector<char*> pointers;
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

void become(uid_t person) {
    // Everybody's group has the number of the person; see scripts/private-machine.
    if (setgroups(0, nullptr) != 0 || setresgid(person, person, person) != 0 ||
        setresuid(person, person, person) != 0) {
        _exit(cannotRun);
    }
}

[[noreturn]] void runChild(const Start& start, int input, const std::string& output) {
    const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (file < 0 || dup2(input, STDIN_FILENO) < 0 || dup2(file, STDOUT_FILENO) < 0 ||
        dup2(file, STDERR_FILENO) < 0) {
        _exit(cannotRun);
    }
    // Also the one on which the test waits for the program to be there.
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    std::vector<std::string> environment{"PATH=/usr/bin:/bin:/usr/sbin:/sbin"};
    if (start.stopped) {
        // Whoever traces it is in LeakSanitizer's way, which then aborts.
        environment.emplace_back("ASAN_OPTIONS=detect_leaks=0");
    }
    environment.insert(environment.end(), start.environment.begin(), start.environment.end());
    clearenv();
    for (std::string& variable : environment) {
        putenv(variable.data());
    }
    if (start.prepare) {
        start.prepare();
    }
    if (start.person) {
        become(*start.person);
    }
    if (start.stopped) {
        // Nobody waits for the rest.
        close_range(STDERR_FILENO + 1, ~0U, 0);
        raise(SIGSTOP);
    }
    if (start.body) {
        close_range(STDERR_FILENO + 1, ~0U, 0);
        _exit(start.body());
    }
    std::vector<std::string> words = start.words;
    execv(words.at(0).c_str(), pointersTo(words).data());
    _exit(cannotRun);
}

// The end to read from and the end to write to.
std::pair<Descriptor, Descriptor> makePipe() {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

std::string newOutputPath() {
    static int count = 0;
    std::filesystem::create_directories("/tmp/output");
    return "/tmp/output/" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

}  // namespace

Seconds timeNow() {
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return std::chrono::seconds{time.tv_sec} + std::chrono::nanoseconds{time.tv_nsec};
}

void sleepFor(Seconds span) {
    const double whole = std::floor(span.count());
    timespec time{static_cast<time_t>(whole), static_cast<long>((span.count() - whole) * 1e9)};
    while (nanosleep(&time, &time) != 0) {
    }
}

bool eventually(Seconds limit, const std::function<bool()>& condition) {
    constexpr Seconds pause{0.01};
    const Seconds end = timeNow() + limit;
    while (!condition()) {
        if (timeNow() >= end) {
            return false;
        }
        sleepFor(pause);
    }
    return true;
}

bool always(Seconds span, const std::function<bool()>& condition) {
    return !eventually(span, [&] { return !condition(); });
}

Program::Program(const Start& start) : outputPath_(newOutputPath()) {
    auto [started, starting] = makePipe();
    auto [input, inputEnd] = makePipe();
    input_ = std::move(inputEnd);
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        runChild(start, input.get(), outputPath_);
    }
    EXPECT_GT(pid_, 0) << "cannot fork";
    starting = Descriptor();
    char nothing = 0;
    [[maybe_unused]] const ssize_t end = read(started.get(), &nothing, 1);
    if (start.stopped) {
        waitUntilStopped();
    }
}

Program::Program(Program&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      status_(other.status_),
      input_(std::move(other.input_)),
      outputPath_(std::move(other.outputPath_)) {}

Program::~Program() {
    if (pid_ > 0) {
        kill();
    }
}

void Program::send(int signal) const {
    if (pid_ > 0 && !status_) {
        ::kill(pid_, signal);
    }
}

void Program::kill() {
    send(SIGKILL);
    reap(true);
}

void Program::stop() {
    send(SIGSTOP);
    waitUntilStopped();
}

void Program::waitUntilStopped() const {
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(pid_), &info, WSTOPPED);
}

void Program::goOn() const { send(SIGCONT); }

bool Program::reap(bool block) {
    if (pid_ > 0 && !status_) {
        int status = 0;
        if (waitpid(pid_, &status, block ? 0 : WNOHANG) == pid_) {
            noteEnd(status);
        }
    }
    return status_.has_value();
}

void Program::noteEnd(int waitStatus) {
    constexpr int signalled = 128;
    status_ = WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : signalled + WTERMSIG(waitStatus);
}

bool Program::isRunning() { return !reap(false); }

int Program::wait(Seconds limit) {
    if (!status_) {
        const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
        pollfd ended{process.get(), POLLIN, 0};
        const auto milliseconds =
            std::chrono::ceil<std::chrono::duration<int, std::milli>>(limit).count();
        if (poll(&ended, 1, milliseconds) != 1) {
            ADD_FAILURE() << "still running after " << limit.count() << " s: " << output();
            send(SIGKILL);
        }
        reap(true);
    }
    return status_.value_or(cannotRun);
}

std::string Program::output() const { return readTestFile(outputPath_); }

std::vector<unsigned long long> processNumbers(pid_t pid, const std::string& field, int base) {
    std::istringstream status(readTestFile("/proc/" + std::to_string(pid) + "/status"));
    std::string line;
    while (std::getline(status, line)) {
        if (!line.starts_with(field + ":")) {
            continue;
        }
        std::istringstream words(line.substr(field.size() + 1));
        std::vector<unsigned long long> numbers;
        for (std::string word; words >> word;) {
            unsigned long long number = 0;
            if (std::from_chars(word.data(), word.data() + word.size(), number, base).ec ==
                std::errc{}) {
                numbers.push_back(number);
            }
        }
        return numbers;
    }
    return {};
}

std::vector<std::string> processWords(pid_t pid, const char* file) {
    const std::string path = "/proc/" + std::to_string(pid) + "/" + file;
    std::vector<std::string> words;
    eventually(Seconds{5}, [&] {
        std::istringstream bytes(readTestFile(path));
        for (std::string word; std::getline(bytes, word, '\0');) {
            words.push_back(word);
        }
        return !words.empty();
    });
    return words;
}

std::vector<pid_t> processesRunning(const std::string& path) {
    namespace fs = std::filesystem;
    std::vector<pid_t> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        std::error_code ignored;
        if (std::ranges::all_of(name, [](char c) { return c >= '0' && c <= '9'; }) &&
            fs::read_symlink(entry.path() / "exe", ignored) == path) {
            found.push_back(std::stoi(name));
        }
    }
    return found;
}

}  // namespace halvo::testing
