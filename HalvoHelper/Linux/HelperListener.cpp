#include "HalvoHelper/HelperListener.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <utility>

#include "HalvoHelper/HelperService.hpp"
#include "HalvoHelper/Linux/BusConnection.hpp"
#include "HalvoHelper/Linux/CallerRules.hpp"
#include "HalvoHelper/Linux/Limits.hpp"
#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Fatal.hpp"
#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"
#include "HalvoPlatform/Log.hpp"
#include "HalvoPlatform/MainQueue.hpp"

namespace halvo {
namespace {

// Logs why there can be no listener, and ends the process; sysexits.h.
[[noreturn]] void fail(int status, const std::string& message) {
    HALVO_LOG_ERROR(helperLog, "%{public}s", message.c_str());
    std::exit(status);
}

// Admitted connections outrank accept(), or callers without end would keep the app from
// authenticating: sd-bus arms its timer anew at each turn of the loop, and among equals the source
// that has waited longest goes first. sd_event_source_set_priority(3).
constexpr std::int64_t incomingPriority = SD_EVENT_PRIORITY_NORMAL + 10;

class SocketListener final : public HelperListener {
  public:
    SocketListener(HelperIdentity identity, Descriptor socket, Descriptor lock)
        : rules_(std::move(identity)), socket_(std::move(socket)), lock_(std::move(lock)) {}

    ~SocketListener() override {
        sd_event_source_disable_unref(incoming_);
        sd_event_source_disable_unref(retry_);
    }

    void serve(HelperService& service) override {
        service_ = &service;
        sd_event* loop = nullptr;
        if (listen(socket_.get(), Limits::backlog) != 0 || sd_event_default(&loop) < 0 ||
            sd_event_add_io(loop, &incoming_, socket_.get(), EPOLLIN, onIncoming, this) < 0 ||
            sd_event_source_set_priority(incoming_, incomingPriority) < 0 ||
            // Made now: later there may be no descriptor left for a timer.
            sd_event_add_time_relative(loop, &retry_, CLOCK_MONOTONIC, 0, 0, onRetry, this) < 0 ||
            sd_event_source_set_enabled(retry_, SD_EVENT_OFF) < 0) {
            fatal("The helper cannot listen on its socket");
        }
        sd_event_unref(loop);
        sd_notify(/*unset_environment=*/0, "READY=1");
    }

  private:
    static int onIncoming(sd_event_source*, int, std::uint32_t, void* self) {
        static_cast<SocketListener*>(self)->acceptOne();
        return 0;
    }

    static int onRetry(sd_event_source*, std::uint64_t, void* self) {
        sd_event_source_set_enabled(static_cast<SocketListener*>(self)->incoming_, SD_EVENT_ON);
        return 0;
    }

    // One per iteration of the event loop, so that connections are served in between.
    void acceptOne() {
        Descriptor socket(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!socket.isOpen()) {
            pauseAfterAcceptError(errno);
            return;
        }
        const Seconds now = liveMainQueue().now();
        if (connections_.size() >= Limits::connections) {
            refusals_.refused(now, "too many connections are open");
            return;
        }
        auto caller = rules_.check(socket.get());
        const auto isTheirs = [&](const auto& other) { return other.uid() == caller->uid; };
        if (!caller) {
            refusals_.refused(now, caller.error());
        } else if (std::cmp_greater_equal(std::ranges::count_if(connections_, isTheirs),
                                          Limits::connectionsOfUser)) {
            refusals_.refused(
                now, "too many connections of user " + std::to_string(caller->uid) + " are open");
        } else if (!admit(std::move(socket), *std::move(caller))) {
            refusals_.refused(
                now,
                "it did not authenticate as D-Bus requires, or memory or file descriptors ran out");
        }
    }

    // When accept() fails for lack of descriptors or memory, or a security module forbids it, the
    // socket stays readable: trying again at once would spin.
    void pauseAfterAcceptError(int code) {
        // The caller has closed already, or the wake-up was spurious; accept(2).
        if (code == EAGAIN || code == EINTR || code == ECONNABORTED) {
            return;
        }
        HALVO_LOG_ERROR(helperLog, "Couldn't accept a caller: %{public}s", errorText(code).c_str());
        sd_event_source_set_enabled(incoming_, SD_EVENT_OFF);
        sd_event_source_set_time_relative(retry_, 1'000'000);  // microseconds
        sd_event_source_set_enabled(retry_, SD_EVENT_ONESHOT);
    }

    bool admit(Descriptor socket, HelperPeer caller) {
        BusConnection& connection = connections_.emplace_back(
            HelperConnection(std::move(caller), service_->engine()),
            [this](const BusConnection& gone) { forget(gone); },
            [this](const BusConnection& begun) { outdateOthers(begun); });
        if (!connection.start(std::move(socket))) {
            connections_.pop_back();
            return false;
        }
        service_->connectionOpened();
        return true;
    }

    // The begin has changed what statuses on the user's other connections reported.
    void outdateOthers(const BusConnection& begun) {
        for (BusConnection& other : connections_) {
            if (&other != &begun && other.uid() == begun.uid()) {
                other.outdate();
            }
        }
    }

    // Called from within the connection, which is therefore destroyed later.
    void forget(const BusConnection& gone) {
        service_->connectionClosed();
        liveMainQueue().async([this, &gone] {
            connections_.remove_if([&](const auto& other) { return &other == &gone; });
        });
    }

    CallerRules rules_;
    Descriptor socket_;
    // Held while this helper serves the socket that it made itself.
    Descriptor lock_;
    HelperService* service_ = nullptr;
    sd_event_source* incoming_ = nullptr;
    sd_event_source* retry_ = nullptr;
    RefusalLog refusals_;
    std::list<BusConnection> connections_;
};

// The socket that systemd hands over (sd_listen_fds(3)); not open when the helper was not started
// by systemd. In the unit's sandbox it could create none itself.
Descriptor socketFromSystemd(const std::string& name) {
    const int count = sd_listen_fds(/*unset_environment=*/1);
    if (count == 0) {
        // Whether systemd started this very process, and not one above it; systemd.exec(5).
        const char* process = std::getenv("SYSTEMD_EXEC_PID");
        if (process != nullptr && process == std::to_string(getpid())) {
            fail(EX_CONFIG, "systemd handed over no socket: systemctl restart " + name + ".socket");
        }
        return {};
    }
    const int socket = SD_LISTEN_FDS_START;
    if (count != 1 || sd_is_socket_unix(socket, SOCK_STREAM, -1, nullptr, 0) <= 0 ||
        fcntl(socket, F_SETFL, O_NONBLOCK) != 0) {
        fail(EX_CONFIG, "systemd must hand over exactly one Unix stream socket");
    }
    return Descriptor(socket);
}

// Binds a new socket to `path`, in place of a stale one. Every user may connect; CallerRules
// decides which callers are served.
Descriptor bindSocket(const std::string& path) {
    const auto address = socketAddress(path);
    if (!address) {
        fail(EX_CONFIG, "The app's identifier is too long for a socket: " + path);
    }
    struct stat status{};
    if (lstat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode)) {
        fail(EX_CONFIG, path + " exists and is not a socket; remove it and start the helper again");
    }
    unlink(path.c_str());
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    constexpr mode_t everyUser = 0666;
    if (!socket.isOpen() || bind(socket.get(), generic(*address), sizeof *address) != 0 ||
        chmod(path.c_str(), everyUser) != 0) {
        fail(EX_OSERR, "Couldn't make the socket " + path + ": " + errorText(errno));
    }
    return socket;
}

}  // namespace

std::optional<std::string> startAdvice(const std::string& executable) {
    return "Here systemd starts it, when the app calls; to start it by hand: sudo " + executable;
}

std::unique_ptr<HelperListener> makeListener(const HelperIdentity& identity) {
    const std::string name = identity.helperBundleID();
    Descriptor handedOver = socketFromSystemd(name);
    if (handedOver.isOpen()) {
        return std::make_unique<SocketListener>(identity, std::move(handedOver), Descriptor{});
    }
    static const std::string path = HelperBus::socketPath(name);
    // A file of its own, because the socket's file outlives a helper that was killed.
    static const std::string lockPath = path + ".lock";
    auto lock = takeLockFile(lockPath);
    if (!lock) {
        fail(EX_OSERR, lock.error().code == EWOULDBLOCK
                           ? "Another helper already runs: it holds " + lockPath
                           : "Couldn't open " + lock.error().message);
    }
    Descriptor socket = bindSocket(path);
    // The helper always ends by exit(3), so its files in /run are removed there.
    std::atexit([] {
        unlink(path.c_str());
        unlink(lockPath.c_str());
    });
    return std::make_unique<SocketListener>(identity, std::move(socket), *std::move(lock));
}

}  // namespace halvo
