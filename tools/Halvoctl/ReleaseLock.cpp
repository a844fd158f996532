#include "tools/Halvoctl/ReleaseLock.hpp"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>
#include <utility>

#include "HalvoPlatform/LockFile.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::control {
namespace {

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
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    bool said = false;
    while (true) {
        auto file = takeLockFile(path);
        if (file) {
            return ReleaseLock(path, std::move(*file));
        }
        if (file.error().code != EWOULDBLOCK) {
            return failure(path, file.error().code);
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
