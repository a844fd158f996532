#include "tools/Halvoctl/ReleaseLock.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::control {
namespace {

// Whether `file` is what now lies at `path`.
bool liesAt(const Descriptor& file, const std::string& path) {
    struct stat own{};
    struct stat there{};
    return fstat(file.get(), &own) == 0 && lstat(path.c_str(), &there) == 0 &&
           own.st_dev == there.st_dev && own.st_ino == there.st_ino;
}

std::unexpected<std::string> failure(const std::string& path, int code) {
    return std::unexpected(records::printable(path) + " cannot be locked: " +
                           std::generic_category().message(code) + ". Mend that and try again.");
}

}  // namespace

ReleaseLock::ReleaseLock(std::string path, Descriptor file)
    : path_(std::move(path)), file_(std::move(file)) {}

ReleaseLock::~ReleaseLock() {
    // While it is locked, so that it is nobody else's.
    if (file_.isOpen()) {
        unlink(path_.c_str());
    }
}

std::expected<ReleaseLock, std::string> ReleaseLock::take(const std::string& path,
                                                          const Patience& patience) {
    constexpr std::chrono::milliseconds pace{20};
    constexpr int flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
    constexpr mode_t rootsAlone = 0600;
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    bool said = false;
    while (true) {
        Descriptor file(open(path.c_str(), flags, rootsAlone));
        if (!file.isOpen()) {
            return failure(path, errno);
        }
        if (flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
            // One that ended in between took its file away, and what was locked is nobody's lock.
            if (liesAt(file, path)) {
                return ReleaseLock(path, std::move(file));
            }
            continue;
        }
        if (errno != EWOULDBLOCK && errno != EINTR) {
            return failure(path, errno);
        }
        const Seconds passed = Clock::now() - start;
        if (passed >= patience.limit) {
            return std::unexpected(
                "Another halvoctl release runs and does not end. Wait for it, or kill it, and try "
                "again.");
        }
        if (!said && passed >= Seconds{1}) {
            said = true;
            if (patience.slow) {
                patience.slow();
            }
        }
        std::this_thread::sleep_for(pace);
    }
}

}  // namespace halvo::control
