#include "HalvoHelper/LiveSessionProbe.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string_view>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Linux/FileStamp.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {
namespace {

using Text = std::unique_ptr<char, decltype(&std::free)>;

// The user at seat0. Asking sd-login opens, parses and allocates; so it is asked only when one of
// the two files behind the last answer is no longer the same; logind replaces files by rename,
// which gives another inode. Where those files are is logind's own affair: should they lie
// elsewhere, it is asked every time.
class Console {
  public:
    std::optional<std::uint32_t> user() {
        auto seat = FileStamp::of("/run/systemd/seats/seat0");
        auto session = sessionPath_.empty() ? std::nullopt : FileStamp::of(sessionPath_.c_str());
        if (!seat || !session || seat != seat_ || session != session_) {
            // The stamps are taken before the files are read: a change in between shows next time.
            seat_ = seat;
            session_.reset();
            sessionPath_.clear();
            leftUntil_.reset();
            user_ = ask();
        }
        if (leftUntil_ && sinceBoot() >= *leftUntil_) {
            leftUntil_.reset();
        }
        return leftUntil_ ? std::nullopt : user_;
    }

  private:
    // The user of the session in front; sets leftUntil_ when it is closing.
    std::optional<std::uint32_t> ask() {
        char* rawSession = nullptr;
        if (sd_seat_get_active("seat0", &rawSession, nullptr) < 0) {
            return std::nullopt;
        }
        const Text session(rawSession, &std::free);
        if (session == nullptr) {
            return std::nullopt;
        }
        sessionPath_ = std::string("/run/systemd/sessions/") + session.get();
        session_ = FileStamp::of(sessionPath_.c_str());
        char* rawClass = nullptr;
        char* rawState = nullptr;
        uid_t uid = 0;
        const bool known = sd_session_get_class(session.get(), &rawClass) >= 0 &&
                           sd_session_get_state(session.get(), &rawState) >= 0 &&
                           sd_session_get_uid(session.get(), &uid) >= 0;
        const Text sessionClass(rawClass, &std::free);
        const Text state(rawState, &std::free);
        // A login screen has the class "greeter".
        if (!known || std::string_view(sessionClass.get()) != "user" || uid == 0) {
            return std::nullopt;
        }
        if (std::string_view(state.get()) == "closing") {
            const Seconds now = sinceBoot();
            const Seconds since = std::min(peopleClosing_.try_emplace(uid, now).first->second,
                                           closing_.try_emplace(session.get(), now).first->second);
            leftUntil_ = since + HelperEngine::Timing::sessionEndGrace;
        } else {
            peopleClosing_.erase(uid);
            closing_.erase(session.get());
        }
        return uid;
    }

    std::string sessionPath_;
    std::optional<FileStamp> seat_;
    std::optional<FileStamp> session_;
    std::optional<std::uint32_t> user_;
    // When user_ counts as there again although their session is closing.
    std::optional<Seconds> leftUntil_;
    // Since when. Of each user: one session that closes after another must not begin it anew, nor
    // must somebody else who has the seat for a moment. And of each session, which stays closing
    // while the user goes to another of theirs and comes back.
    std::map<std::uint32_t, Seconds> peopleClosing_;
    std::map<std::string, Seconds> closing_;
};

// The executable of the bundle last asked about, kept for as long as its Info.plist is the same.
class ExpectedExecutable {
  public:
    const std::string& of(const std::string& bundlePath) {
        const auto info =
            bundlePath == bundlePath_ ? FileStamp::of(infoPath_.c_str()) : std::nullopt;
        if (!info || info != info_ || access(executable_.c_str(), F_OK) != 0) {
            lookUp(bundlePath);
        }
        return executable_;
    }

  private:
    void lookUp(const std::string& bundlePath) {
        const Bundle bundle(bundlePath);
        bundlePath_ = bundlePath;
        infoPath_ = bundle.infoPath();
        info_ = FileStamp::of(infoPath_.c_str());
        if (auto named = bundle.executablePath()) {
            executable_ = *std::move(named);
            return;
        }
        executable_ = AppLocation::usualExecutable(bundlePath);
        info_.reset();  // what the Info.plist names may yet appear: look again next time
    }

    std::string bundlePath_;
    std::string infoPath_;
    std::optional<FileStamp> info_;
    std::string executable_;
};

// All processes, in one pass with one buffer; proc(5).
class Processes {  // NOLINT(*-member-init): see entries_.
  public:
    // Whether a process with the effective user `uid` runs the file at `executable`.
    bool run(const std::string& executable, std::uint32_t uid) {
        struct stat expected{};
        if (stat(executable.c_str(), &expected) != 0 || !openOrRewind()) {
            return false;
        }
        link_.resize(executable.size() + 1);
        while (true) {
            const ssize_t length = getdents64(proc_.get(), entries_.data(), entries_.size());
            if (length <= 0) {
                return false;
            }
            for (std::size_t at = 0; at < static_cast<std::size_t>(length);) {
                const auto* entry = reinterpret_cast<const dirent64*>(entries_.data() + at);
                if (runs(entry->d_name, executable) && isUsers(entry->d_name, uid) &&
                    isSameFile(entry->d_name, expected)) {
                    return true;
                }
                at += entry->d_reclen;
            }
        }
    }

  private:
    // "PID/exe", or "PID" with the end cut off again.
    using Name = std::array<char, NAME_MAX + 8>;

    static Name executableOf(const char* process) {
        Name name{};
        const std::size_t length = std::strlen(process);
        std::memcpy(name.data(), process, length);
        std::memcpy(name.data() + length, "/exe", sizeof "/exe");
        return name;
    }

    bool openOrRewind() {
        if (proc_.isOpen()) {
            return lseek(proc_.get(), 0, SEEK_SET) == 0;
        }
        proc_ = Descriptor(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        return proc_.isOpen();
    }

    // The first question, because it rules out nearly every process with one call.
    bool runs(const char* process, const std::string& executable) {
        if (process[0] < '0' || process[0] > '9') {
            return false;
        }
        const Name name = executableOf(process);
        const ssize_t length = readlinkat(proc_.get(), name.data(), link_.data(), link_.size());
        return length >= 0 &&
               std::string_view(link_.data(), static_cast<std::size_t>(length)) == executable;
    }

    // A process's own folder belongs to its effective user, even when it may not be dumped.
    bool isUsers(const char* process, std::uint32_t uid) const {
        struct stat status{};
        return fstatat(proc_.get(), process, &status, 0) == 0 && status.st_uid == uid;
    }

    bool isSameFile(const char* process, const struct stat& expected) const {
        const Name name = executableOf(process);
        struct statx status{};
        // AT_STATX_DONT_SYNC: the file may lie on a file system that its owner serves, and stalls.
        if (statx(proc_.get(), name.data(), AT_STATX_DONT_SYNC, STATX_INO, &status) != 0) {
            return false;
        }
        return makedev(status.stx_dev_major, status.stx_dev_minor) == expected.st_dev &&
               status.stx_ino == expected.st_ino;
    }

    Descriptor proc_;
    std::string link_;
    // Not filled: a helper that never looks for the app would keep eight pages of zeros.
    alignas(dirent64) std::array<char, 32768> entries_;
};

}  // namespace

class LiveSessionProbe::State {
  public:
    Console console;
    ExpectedExecutable executable;
    Processes processes;
};

LiveSessionProbe::LiveSessionProbe() : state_(std::make_unique_for_overwrite<State>()) {}

LiveSessionProbe::~LiveSessionProbe() = default;

std::optional<std::uint32_t> LiveSessionProbe::consoleUser() { return state_->console.user(); }

bool LiveSessionProbe::isAppRunning(const std::string& bundlePath, std::uint32_t uid) {
    return state_->processes.run(state_->executable.of(bundlePath), uid);
}

}  // namespace halvo
