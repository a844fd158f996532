#include "benchmarks/Child.hpp"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <ctime>

#include "benchmarks/CannotMeasure.hpp"

namespace halvo::benchmark {
namespace {

constexpr int patience = 30'000;  // milliseconds

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        require(pipe2(ends.data(), O_CLOEXEC) == 0, "pipe2");
        read = Descriptor(ends[0]);
        write = Descriptor(ends[1]);
    }

    Descriptor read;
    Descriptor write;
};

// In the child. Any failure shows as a child that ended at once.
[[noreturn]] void become(const Child::How& how, char* const* words, const Pipe& input,
                         const Pipe& output, std::int64_t& startedAt) {
    constexpr int cannot = 127;
    const int errors = open(errorLog, O_WRONLY | O_CREAT | O_APPEND, 0600);
    const bool connected = dup2(input.read.get(), STDIN_FILENO) >= 0 &&
                           dup2(output.write.get(), STDOUT_FILENO) >= 0 &&
                           dup2(errors, STDERR_FILENO) >= 0 && close(errors) == 0;
    const bool dropped = !how.user || (setgroups(0, nullptr) == 0 && setgid(*how.user) == 0 &&
                                       setuid(*how.user) == 0);
    const bool pinned = !how.processor || pin(0, *how.processor);
    if (!connected || !dropped || !pinned) {
        _exit(cannot);
    }
    startedAt = monotonicNow();
    execv(words[0], words);
    _exit(cannot);
}

}  // namespace

std::int64_t monotonicNow() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

std::optional<int> processor(int index) {
    // What this process was given at its start; it may pin itself later.
    static const cpu_set_t usable = [] {
        cpu_set_t set;
        CPU_ZERO(&set);
        sched_getaffinity(0, sizeof set, &set);
        return set;
    }();
    for (int number = 0; number < CPU_SETSIZE; ++number) {
        if (CPU_ISSET(number, &usable) && index-- == 0) {
            return number;
        }
    }
    return std::nullopt;
}

bool pin(pid_t pid, int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    return sched_setaffinity(pid, sizeof set, &set) == 0;
}

Child::Child(const How& how)
    : startedAt_(static_cast<std::int64_t*>(mmap(
          nullptr, sizeof *startedAt_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))),
      name_(how.words.front()) {
    require(startedAt_ != MAP_FAILED, "mmap");
    Pipe input;
    Pipe output;
    std::vector<char*> words;
    for (const std::string& word : how.words) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    pid_ = fork();
    require(pid_ >= 0, "fork");
    if (pid_ == 0) {
        become(how, words.data(), input, output, *startedAt_);
    }
    input_ = std::move(input.write);
    output_ = std::move(output.read);
}

Child::~Child() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    munmap(startedAt_, sizeof *startedAt_);
}

void Child::tell(const std::string& line) {
    const std::string bytes = line + "\n";
    require(write(input_.get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
            "writing to " + name_);
}

std::string Child::hear() {
    std::size_t end = 0;
    while ((end = heard_.find('\n')) == std::string::npos) {
        pollfd ready{output_.get(), POLLIN, 0};
        if (poll(&ready, 1, patience) <= 0) {
            throw CannotMeasure(name_ + " does not answer");
        }
        std::array<char, 4096> buffer{};
        const ssize_t count = read(output_.get(), buffer.data(), buffer.size());
        if (count <= 0) {
            throw CannotMeasure(name_ + " ended without an answer");
        }
        heard_.append(buffer.data(), static_cast<std::size_t>(count));
    }
    std::string line = heard_.substr(0, end);
    heard_.erase(0, end + 1);
    return line;
}

int Child::wait() {
    int status = 0;
    require(waitpid(pid_, &status, 0) == pid_, "waiting for " + name_);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int Child::end(int signal) {
    kill(pid_, signal);
    return wait();
}

}  // namespace halvo::benchmark
