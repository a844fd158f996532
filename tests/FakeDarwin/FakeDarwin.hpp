// Fakes of the frameworks and system calls of Darwin that the macOS layer uses, on simulated time.
// They behave as World says, and record how they are called in it.
//
// May be used on any thread, as only one runs at a time: the fakes start a thread and wait for its
// end.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace fake {

// A process as libproc reports it.
struct Process {
    pid_t pid{};
    std::uint32_t uid{};
    // The bytes that proc_pidpath() writes; empty makes it fail.
    std::string path{};
    // The size that proc_pidinfo() returns; 64 is the whole struct.
    int infoSize = 64;
    // The size that proc_pidpath() returns, unless that is what it wrote.
    std::optional<int> pathSize = std::nullopt;
    // Stopped by SIGSTOP.
    bool isStopped = false;
};

struct LogEntry {
    std::string subsystem;
    std::string category;
    bool isError{};
    std::string text;

    bool operator==(const LogEntry&) const = default;
};

// A call of SecStaticCodeCheckValidity().
struct SignatureCheck {
    std::string path;
    std::uint32_t flags{};

    bool operator==(const SignatureCheck&) const = default;
};

// A launched NSTask.
struct Launch {
    std::string executable;
    std::vector<std::string> arguments;
    std::map<std::string, std::string> environment;
    bool hasTerminationHandler{};

    bool operator==(const Launch&) const = default;
};

struct World {
    // libproc: the processes in listing order (pid 0, the kernel, only if it is here); what
    // proc_listallpids() returns without a buffer, and with one, unless the true number; the number
    // of calls of proc_pidinfo() and proc_pidpath().
    std::vector<Process> processes;
    std::optional<int> announcedProcesses;
    std::optional<int> listedProcesses;
    int infoCalls = 0;
    int pathCalls = 0;

    // SystemConfiguration: without a name there is no console user.
    std::optional<std::string> consoleUser;
    std::uint32_t consoleUID = 0;

    // lchflags(2): the flags by path, none for other items; its errno when it fails; the number of
    // calls. lstat(2) itself is the real one.
    std::map<std::string, std::uint32_t> flags;
    std::optional<int> lchflagsError;
    int lchflagsCalls = 0;

    // statfs(2): the volume's flags by path, MNT_LOCAL for other paths; whether it fails.
    std::map<std::string, std::uint32_t> volumes;
    bool statfsFails = false;

    // acl(3): the lists by path, where "a" is an entry that allows, "d" one that denies, "?" one
    // that cannot be read; the errno when acl_get_link_np() fails.
    std::map<std::string, std::string> accessLists;
    std::optional<int> accessListError;

    // Security: the contents of signed files, with the requirement that their signature meets. A
    // check calls `onSignatureCheck`, then reads the file. A requirement is valid when it begins as
    // those of the product do.
    std::map<std::string, std::string> signedFiles;
    std::vector<SignatureCheck> signatureChecks;
    std::function<void()> onSignatureCheck;
    bool errorsHaveTexts = true;

    // The clocks: nanoseconds since boot, which Dispatch advances as a script runs; the wall clock
    // at boot, in seconds since 1970.
    std::uint64_t sinceBoot = 1'000'000'000'000;
    double bootedAt = 1'800'000'000;

    // sysctl(3) "kern.bootsessionuuid": its bytes, without which the call for the size fails;
    // whether the call for the value fails.
    std::optional<std::string> bootSession =
        std::string("9F0C6A5E-0000-4000-8000-00000000B007") + '\0';
    bool bootSessionReadFails = false;
    int sysctlCalls = 0;

    // The main bundle: its executable; its Info.plist as XML, as Foundation finds it; the section
    // __TEXT,__info_plist of the running program, if any. The Info.plist of other bundles is read
    // from the disk each time; Foundation may cache it.
    std::optional<std::string> mainExecutable =
        "/Applications/Halvo.app/Contents/Helpers/HalvoHelper";
    std::string mainInfo;
    std::optional<std::string> carriedInfo;

    // Foundation's folders: the containers of the process's app groups, and Application Support
    // (none when empty). By Apple's documentation of
    // containerURLForSecurityApplicationGroupIdentifier macOS returns a URL for every group; that
    // of another group lies where no folder can be made.
    std::map<std::string, std::string> groupContainers;
    std::string applicationSupport = "/nonexistent";

    // NSTask: the launched tasks, a callback for each, and the error that prevents a launch.
    // Without an environment a task inherits that of the process. A program that exists is run to
    // its end.
    std::vector<Launch> launches;
    std::function<void(const Launch&)> onLaunch;
    std::optional<std::string> launchError;

    // fcntl(2) F_FULLFSYNC and fsync(2): their errno when they fail; the number of calls.
    std::optional<int> fullSyncError;
    std::optional<int> syncError;
    int fullSyncCalls = 0;
    int syncCalls = 0;

    // The unified log, formatted.
    std::vector<LogEntry> log;
};

World& world();

// Resets the world, queues, sources and listeners to those of a new process. Values of
// dispatch_queue_set_specific(3) stay, as the static variables do that they belong to.
void reset();

// The log messages of one level, in order.
std::vector<std::string> errors();
std::vector<std::string> notices();

// Dispatch. Timers use the wall clock, or a clock that advances with World::sinceBoot, but not when
// a test moves that, which simulates sleep. Time passes only inside dispatch_main(), which serves
// the main queue on a new thread until the script is over, and then throws Over.
struct Over {};

// Calls `event` `seconds` from now, on a thread of no queue.
void at(double seconds, std::function<void()> event);

// Ends the script `seconds` from now. Without it dispatch_main() ends when only timers are left.
void endAt(double seconds);

// Serves the main queue for `seconds` (0: only what is due) on a new thread, and returns.
void serve(double seconds);

// Lets `seconds` pass in a turn of the main queue: timers become due, and wait.
void keepBusy(double seconds);

// Delivers `signal` to the signal sources that monitor it. False when there is none.
bool raise(int signal);

// The settings of the timers that are not released, in order of creation, in nanoseconds. `first`
// counts from dispatch_source_set_timer(3).
struct Timer {
    std::uint64_t first{};
    std::uint64_t interval{};
    std::uint64_t leeway{};
    bool isStrict{};
    // It uses the wall clock.
    bool isWall{};
};

std::vector<Timer> timers();

// The number of live objects of the class `name` and its subclasses. Autoreleased objects live
// until their pool is drained, so a test that counts needs its own pool.
long liveObjects(const char* name);

}  // namespace fake
