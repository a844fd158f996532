#include "HalvoHelper/LiveSessionProbe.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <systemd/sd-login.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string_view>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoPlatform/Bundle.hpp"
#include "HalvoPlatform/Linux/FileStamp.hpp"
#include "HalvoPlatform/Paths.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {
namespace {

// The property of the session that `ask`, of sd-login(3), reads; empty when that fails.
std::string sessionProperty(int (*ask)(const char*, char**), const std::string& session) {
    char* text = nullptr;
    if (ask(session.c_str(), &text) < 0 || text == nullptr) {
        return {};
    }
    const std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
    return text;
}

// The user at seat0. sd-login opens, parses and allocates; so it is asked only when one of the two
// files behind the last answer has changed: logind replaces files by rename, which gives another
// inode. Where those files lie is internal to logind: should they move, it is asked every time.
class Console {
  public:
    std::optional<std::uint32_t> user() {
        auto seat = FileStamp::of("/run/systemd/seats/seat0");
        auto session = sessionPath_.empty() ? std::nullopt : FileStamp::of(sessionPath_.c_str());
        if (!seat || !session || seat != seat_ || session != session_) {
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
    // The user of the active session; sets leftUntil_ when it is closing.
    std::optional<std::uint32_t> ask() {
        const std::string session = sessionProperty(
            [](const char* seat, char** text) { return sd_seat_get_active(seat, text, nullptr); },
            "seat0");
        if (session.empty()) {
            return std::nullopt;
        }
        sessionPath_ = "/run/systemd/sessions/" + session;
        session_ = FileStamp::of(sessionPath_.c_str());
        const std::string state = sessionProperty(sd_session_get_state, session);
        uid_t uid = 0;
        // A login screen has the class "greeter".
        if (sessionProperty(sd_session_get_class, session) != "user" || state.empty() ||
            sd_session_get_uid(session.c_str(), &uid) < 0 || uid == 0) {
            return std::nullopt;
        }
        if (state == "closing") {
            const Seconds now = sinceBoot();
            const Seconds since = std::min(peopleClosing_.try_emplace(uid, now).first->second,
                                           closing_.try_emplace(session, now).first->second);
            leftUntil_ = since + HelperEngine::Timing::sessionEndGrace;
        } else {
            peopleClosing_.erase(uid);
            closing_.erase(session);
        }
        return uid;
    }

    std::string sessionPath_;
    std::optional<FileStamp> seat_;
    std::optional<FileStamp> session_;
    std::optional<std::uint32_t> user_;
    // When user_ counts as present again although the session is closing.
    std::optional<Seconds> leftUntil_;
    // Since when each user has been seen closing: a second closing session must not restart the
    // time, nor another user who takes the seat for a moment. And each session, which stays closing
    // while its user switches to another one and back.
    std::map<std::uint32_t, Seconds> peopleClosing_;
    std::map<std::string, Seconds> closing_;
};

class LiveSessionProbe final : public SessionProbe {
  public:
    std::optional<std::uint32_t> consoleUser() override { return console_.user(); }

    bool isAppRunning(const std::string& bundlePath, std::uint32_t uid) override {
        return isRun(executableOf(bundlePath), uid);
    }

  private:
    // The executable of the bundle last asked about, cached while its Info.plist is unchanged.
    const std::string& executableOf(const std::string& bundlePath) {
        auto info = FileStamp::of(infoPath_.c_str());
        if (bundlePath == bundlePath_ && info && info == info_ && itemExists(executable_)) {
            return executable_;
        }
        const Bundle bundle(bundlePath);
        bundlePath_ = bundlePath;
        infoPath_ = bundle.infoPath();
        info = FileStamp::of(infoPath_.c_str());
        const auto named = bundle.executablePath();
        executable_ = named.value_or(AppLocation::usualExecutable(bundlePath));
        // An executable that is missing may yet appear: look again next time.
        info_ = named ? info : std::nullopt;
        return executable_;
    }

    // Whether a process with the effective user `uid` runs the file at `executable`; proc(5).
    bool isRun(const std::string& executable, std::uint32_t uid) {
        if (proc_ == nullptr) {
            proc_.reset(opendir("/proc"));
        }
        struct stat file{};
        if (proc_ == nullptr || stat(executable.c_str(), &file) != 0) {
            return false;
        }
        link_.resize(executable.size() + 1);
        rewinddir(proc_.get());
        while (const dirent* entry = readdir(proc_.get())) {
            if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9' &&
                runs(entry->d_name, executable, file, uid)) {
                return true;
            }
        }
        return false;
    }

    // Whether `process`, a folder in /proc, does that. The path is compared first, because it rules
    // out nearly every process with one system call.
    bool runs(const char* process, const std::string& executable, const struct stat& file,
              std::uint32_t uid) {
        const int proc = dirfd(proc_.get());
        name_.assign(process).append("/exe");
        const ssize_t target =
            proc < 0 ? -1 : readlinkat(proc, name_.c_str(), link_.data(), link_.size());
        if (target < 0 ||
            std::string_view(link_.data(), static_cast<std::size_t>(target)) != executable) {
            return false;
        }
        // A process's own folder belongs to its effective user, even when it may not be dumped.
        struct stat folder{};
        struct statx status{};
        // AT_STATX_DONT_SYNC: the file may lie on a FUSE file system whose server stalls.
        return fstatat(proc, process, &folder, 0) == 0 && folder.st_uid == uid &&
               statx(proc, name_.c_str(), AT_STATX_DONT_SYNC, STATX_INO, &status) == 0 &&
               makedev(status.stx_dev_major, status.stx_dev_minor) == file.st_dev &&
               status.stx_ino == file.st_ino;
    }

    Console console_;
    std::string bundlePath_;
    std::string infoPath_;
    std::optional<FileStamp> info_;
    std::string executable_;
    // Opened at the first scan, rewound at each.
    std::unique_ptr<DIR, int (*)(DIR*)> proc_{nullptr, closedir};
    // The name of the link to the executable of a process, and its target.
    std::string name_;
    std::string link_;
};

}  // namespace

std::unique_ptr<SessionProbe> makeLiveSessionProbe() {
    return std::make_unique<LiveSessionProbe>();
}

}  // namespace halvo
