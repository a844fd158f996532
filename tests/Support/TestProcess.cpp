#include "tests/Support/TestProcess.hpp"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

#include "HalvoHelper/ArgumentVector.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// Between two polls of a condition.
constexpr Seconds shortestPause = 5ms;

// The exit status of shells for a program that cannot be executed.
constexpr int cannotRun = 127;

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe2");
        }
        readEnd = Descriptor(ends[0]);
        writeEnd = Descriptor(ends[1]);
    }

    Descriptor readEnd;
    Descriptor writeEnd;
};

Descriptor fileInMemory() {
    Descriptor file(memfd_create("output", MFD_CLOEXEC));
    // Several descriptors, of the child and of its children, write to it.
    if (!file.isOpen() || fcntl(file.get(), F_SETFL, O_APPEND) != 0) {
        throw std::system_error(errno, std::generic_category(), "memfd_create");
    }
    return file;
}

[[noreturn]] void giveUp(const char* call) {
    std::perror(call);
    _exit(cannotRun);
}

void setEnvironment(const ProcessOptions& options) {
    clearenv();
    setenv("PATH", "/usr/bin:/bin:/usr/sbin:/sbin", 1);
    if (options.stopped) {
        // LeakSanitizer aborts in a traced process.
        setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    }
    for (const std::string& variable : options.environment) {
        const std::size_t sign = variable.find('=');
        setenv(variable.substr(0, sign).c_str(), variable.substr(sign + 1).c_str(), 1);
    }
}

[[noreturn]] void runChild(const ProcessOptions& options, const Descriptor& input,
                           const Descriptor& output, Descriptor& started) {
    if (dup2(input.get(), STDIN_FILENO) < 0 || dup2(output.get(), STDOUT_FILENO) < 0 ||
        dup2(output.get(), STDERR_FILENO) < 0) {
        _exit(cannotRun);
    }
    if (!options.body) {
        // Descriptors of the test, and the other ends of the pipes.
        close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
        setEnvironment(options);
    }
    if (options.prepare) {
        options.prepare();
    }
    if (options.person) {
        become(*options.person);
    }
    if (options.stopped) {
        started = Descriptor();
        raise(SIGSTOP);
    }
    if (!options.body) {
        execv(options.words.at(0).c_str(), ArgumentVector(options.words).data());
        giveUp(options.words[0].c_str());
    }
    started = Descriptor();
    const int status = options.body();
    std::fflush(nullptr);
    // Not _exit(2): coverage and sanitizers report in exit handlers.
    std::exit(status);
}

ProcessOptions optionsOf(const std::function<void()>& body) {
    return {.body = [&body] {
        body();
        return ::testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS;
    }};
}

fs::path folderOf(pid_t process) { return "/proc/" + std::to_string(process); }

}  // namespace

Seconds timeNow() { return std::chrono::steady_clock::now().time_since_epoch(); }

void sleepFor(Seconds span) { std::this_thread::sleep_for(span); }

bool eventually(Seconds limit, const std::function<bool()>& condition) {
    const Seconds end = timeNow() + limit;
    while (true) {
        const Seconds before = timeNow();
        if (condition()) {
            return true;
        }
        if (timeNow() >= end) {
            return false;
        }
        // A poll that runs a program must not keep the machine busy.
        sleepFor(std::max(shortestPause, 3 * (timeNow() - before)));
    }
}

bool always(Seconds span, const std::function<bool()>& condition) {
    return !eventually(span, [&] { return !condition(); });
}

// --------------------------------------------------------------------------------------- processes

void become(const Credentials& person) {
    if (setgroups(0, nullptr) != 0 || setresgid(person.gid, person.gid, person.gid) != 0 ||
        setresuid(person.uid, person.uid, person.uid) != 0) {
        giveUp("become");
    }
}

void execute(const std::string& path, std::vector<std::string> arguments,
             std::vector<std::string> environment) {
    arguments.insert(arguments.begin(), path);
    execve(path.c_str(), ArgumentVector(arguments).data(), ArgumentVector(environment).data());
    giveUp(path.c_str());
}

TestProcess::TestProcess(const ProcessOptions& options) {
    Pipe input;
    Pipe started;
    output_ = fileInMemory();
    // Buffered output would be written twice.
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (pid_ == 0) {
        input.writeEnd = Descriptor();
        runChild(options, input.readEnd, output_, started.writeEnd);
    }
    input_ = std::move(input.writeEnd);
    started.writeEnd = Descriptor();
    char nothing = 0;
    [[maybe_unused]] const ssize_t end = read(started.readEnd.get(), &nothing, 1);
    if (options.stopped) {
        waitUntilStopped();
    }
}

TestProcess::TestProcess(const std::function<void()>& body) : TestProcess(optionsOf(body)) {}

TestProcess::TestProcess(TestProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      waitStatus_(other.waitStatus_),
      input_(std::move(other.input_)),
      output_(std::move(other.output_)),
      read_(other.read_) {}

TestProcess::~TestProcess() { kill(); }

void TestProcess::send(int signal) const {
    if (!hasEnded()) {
        ::kill(pid_, signal);
    }
}

void TestProcess::kill() {
    send(SIGKILL);
    reap(0);
}

void TestProcess::stop() const {
    send(SIGSTOP);
    waitUntilStopped();
}

void TestProcess::goOn() const { send(SIGCONT); }

void TestProcess::waitUntilStopped() const {
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(pid_), &info, WSTOPPED);
}

void TestProcess::tell(const std::string& line) const {
    const std::string bytes = line + "\n";
    EXPECT_EQ(write(input_.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::string TestProcess::output() const {
    std::string text;
    std::array<char, 4096> buffer{};
    while (true) {
        const ssize_t count =
            pread(output_.get(), buffer.data(), buffer.size(), static_cast<off_t>(text.size()));
        if (count <= 0) {
            return text;
        }
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
}

std::string TestProcess::readLine() {
    eventually([this] { return hasLine() || !isRunning(); });
    const std::string text = output();
    const std::size_t end = std::min(text.find('\n', read_), text.size());
    const std::string line = text.substr(read_, end - read_);
    read_ = std::min(end + 1, text.size());
    return line;
}

bool TestProcess::hasLine() const { return output().find('\n', read_) != std::string::npos; }

std::string TestProcess::readAll() {
    eventually([this] { return !isRunning(); });
    const std::string text = output();
    return text.substr(std::exchange(read_, text.size()));
}

void TestProcess::reap(int options) {
    int status = 0;
    if (!hasEnded() && waitpid(pid_, &status, options) == pid_) {
        waitStatus_ = status;
    }
}

bool TestProcess::isRunning() {
    reap(WNOHANG);
    return !hasEnded();
}

int TestProcess::wait(Seconds limit) {
    if (!eventually(limit, [this] { return !isRunning(); })) {
        ADD_FAILURE() << "still running after " << limit.count() << " s: " << output();
        kill();
    }
    const int signal = endingSignal();
    return signal == 0 ? WEXITSTATUS(*waitStatus_) : 128 + signal;
}

int TestProcess::endingSignal() const {
    return waitStatus_ && WIFSIGNALED(*waitStatus_) ? WTERMSIG(*waitStatus_) : 0;
}

ChildResult runInChild(const ProcessOptions& options, Seconds limit) {
    TestProcess child(options);
    child.closeInput();
    const int status = child.wait(limit);
    const int signal = child.endingSignal();
    return {signal == 0 ? status : -1, child.output(), signal};
}

ChildResult runInChild(const std::function<void()>& body) { return runInChild(optionsOf(body)); }

void expectInChild(const std::function<void()>& body) {
    const ChildResult result = runInChild(body);
    EXPECT_EQ(result.status, 0) << result.output;
}

void exitAtOnce() {
    std::fflush(nullptr);
    _exit(::testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
}

void expectInNewProcess(void (*body)()) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto run = [body] {
        body();
        std::exit(::testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
    };
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "");
}

std::string processField(pid_t process, const std::string& field) {
    std::ifstream status(folderOf(process) / "status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field + ":")) {
            const std::size_t first = line.find_first_not_of(" \t", field.size() + 1);
            return first == std::string::npos ? "" : line.substr(first);
        }
    }
    return "";
}

std::vector<unsigned long long> processNumbers(pid_t process, const std::string& field, int base) {
    std::istringstream words(processField(process, field));
    std::vector<unsigned long long> numbers;
    for (std::string word; words >> word;) {
        numbers.push_back(std::stoull(word, nullptr, base));
    }
    return numbers;
}

std::vector<std::string> processWords(pid_t process, const char* file) {
    std::vector<std::string> words;
    eventually(5s, [&] {
        std::istringstream bytes(readTestFile(folderOf(process) / file));
        for (std::string word; std::getline(bytes, word, '\0');) {
            words.push_back(word);
        }
        return !words.empty();
    });
    return words;
}

std::vector<pid_t> processesRunning(const std::string& path) {
    std::vector<pid_t> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        pid_t process = 0;
        std::error_code ignored;
        if (std::from_chars(name.data(), name.data() + name.size(), process).ec == std::errc{} &&
            fs::read_symlink(entry.path() / "exe", ignored) == path) {
            found.push_back(process);
        }
    }
    std::ranges::sort(found);
    return found;
}

FewDescriptors::FewDescriptors(rlim_t count) {
    // UndefinedBehaviorSanitizer opens a descriptor the first time that it checks such an object.
    EXPECT_FALSE(std::generic_category().message(EMFILE).empty());
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    const int next = dup(STDERR_FILENO);
    close(next);
    const rlimit few{static_cast<rlim_t>(next) + count, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
}

FewDescriptors::~FewDescriptors() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before_), 0); }

}  // namespace halvo::testing
