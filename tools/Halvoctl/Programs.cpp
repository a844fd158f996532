#include "tools/Halvoctl/Programs.hpp"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "HalvoHelper/ArgumentVector.hpp"
#include "HalvoPlatform/Descriptor.hpp"

namespace halvo::control {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t longestOutput = std::size_t{1} << 16U;
// How often is looked whether something has ended of which nothing tells.
constexpr std::chrono::milliseconds pace{5};

// Until when to wait, and when to say so.
class Wait {
  public:
    explicit Wait(const Patience& patience) : patience_(patience) {}

    [[nodiscard]] bool isOver() const { return passed() >= patience_.limit; }

    // Milliseconds until somebody has to look again, rounded up.
    [[nodiscard]] int untilNextLook() const {
        const Seconds next = said_ ? patience_.limit : std::min(patience_.limit, Seconds{1});
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - passed());
        return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    }

    void look() {
        if (!said_ && passed() >= Seconds{1}) {
            said_ = true;
            if (patience_.slow) {
                patience_.slow();
            }
        }
    }

  private:
    [[nodiscard]] Seconds passed() const { return Clock::now() - start_; }

    const Patience& patience_;
    Clock::time_point start_ = Clock::now();
    bool said_ = false;
};

std::unexpected<std::string> failure(const std::string& program, const std::string& what) {
    return std::unexpected(program + " " + what);
}

std::string described(int code) { return std::generic_category().message(code); }

// What posix_spawn(3) wants to know; its two objects have to be destroyed.
class SpawnRules {
  public:
    SpawnRules() {
        posix_spawn_file_actions_init(&actions_);
        posix_spawnattr_init(&attributes_);
    }

    ~SpawnRules() {
        posix_spawnattr_destroy(&attributes_);
        posix_spawn_file_actions_destroy(&actions_);
    }

    SpawnRules(const SpawnRules&) = delete;
    SpawnRules& operator=(const SpawnRules&) = delete;

    // 0, or the errno of what could not be settled.
    int settle(int output) {
        sigset_t none{};
        sigset_t all{};
        sigemptyset(&none);
        sigfillset(&all);
        constexpr short flags =
            POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
        for (const int code :
             {posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0),
              posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO),
              posix_spawn_file_actions_adddup2(&actions_, output, STDERR_FILENO),
              posix_spawnattr_setpgroup(&attributes_, 0),
              posix_spawnattr_setsigmask(&attributes_, &none),
              posix_spawnattr_setsigdefault(&attributes_, &all),
              posix_spawnattr_setflags(&attributes_, flags)}) {
            if (code != 0) {
                return code;
            }
        }
        return 0;
    }

    [[nodiscard]] const posix_spawn_file_actions_t* actions() const { return &actions_; }

    [[nodiscard]] const posix_spawnattr_t* attributes() const { return &attributes_; }

  private:
    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
};

// A process that was started, and its process group, for as long as it is waited for.
class Child {
  public:
    explicit Child(pid_t pid) : pid_(pid) {}

    ~Child() {
        if (pid_ > 0) {
            kill(-pid_, SIGKILL);
            int status = 0;
            while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
            }
        }
    }

    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // The exit status when it has ended.
    std::optional<int> ended() {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) != pid_) {
            return std::nullopt;
        }
        pid_ = -1;
        constexpr int signalled = 128;
        return WIFEXITED(status) ? WEXITSTATUS(status) : signalled + WTERMSIG(status);
    }

  private:
    pid_t pid_;
};

// Reads once from `pipe`; false at its end.
bool readSome(const Descriptor& pipe, std::string& output) {
    std::array<char, 4096> buffer{};
    const ssize_t count = read(pipe.get(), buffer.data(), buffer.size());
    if (count < 0) {
        return errno == EINTR || errno == EAGAIN;
    }
    const auto length = static_cast<std::size_t>(count);
    output.append(buffer.data(), std::min(length, longestOutput - output.size()));
    return count > 0;
}

}  // namespace

std::expected<Finished, std::string> LivePrograms::run(const std::vector<std::string>& words,
                                                       const Patience& patience) {
    const std::string& program = words.front();
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) {
        return failure(program, "cannot be started: " + described(errno));
    }
    const Descriptor reading(ends[0]);
    Descriptor writing(ends[1]);
    fcntl(reading.get(), F_SETFD, FD_CLOEXEC);
    fcntl(writing.get(), F_SETFD, FD_CLOEXEC);
    SpawnRules rules;
    const ArgumentVector arguments(words);
    const ArgumentVector environment({"PATH=/usr/bin:/bin:/usr/sbin:/sbin", "LC_ALL=C"});
    pid_t pid = -1;
    int code = rules.settle(writing.get());
    if (code == 0) {
        code = posix_spawn(&pid, program.c_str(), rules.actions(), rules.attributes(),
                           arguments.data(), environment.data());
    }
    if (code != 0) {
        return failure(program, "cannot be started: " + described(code));
    }
    Child child(pid);
    writing = Descriptor();

    Wait wait(patience);
    Finished finished;
    bool isOpen = true;
    while (true) {
        // What it has started may keep the pipe open after its own end.
        if (const auto status = child.ended()) {
            finished.status = *status;
            pollfd rest{reading.get(), POLLIN, 0};
            while (isOpen && poll(&rest, 1, 0) == 1 && readSome(reading, finished.output)) {
            }
            return finished;
        }
        wait.look();
        if (wait.isOver()) {
            return failure(program, "takes too long; it was stopped");
        }
        pollfd more{reading.get(), POLLIN, 0};
        constexpr int often = 50;
        if (!isOpen) {
            std::this_thread::sleep_for(pace);
        } else if (poll(&more, 1, std::min(wait.untilNextLook(), often)) == 1) {
            isOpen = readSome(reading, finished.output);
        }
    }
}

}  // namespace halvo::control
