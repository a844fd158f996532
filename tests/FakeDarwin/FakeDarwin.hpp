// A Darwin that does what a test tells it: stand-ins of the frameworks and system calls that the
// macOS layer uses, on simulated time, with what they were asked for written down.
//
// Everything here may be called from any thread that the test or Dispatch runs, one at a time: the
// stand-ins run one thread while all others wait for it.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace fake {

// A process as libproc tells of it.
struct Process {
    pid_t pid{};
    std::uint32_t uid{};
    // What proc_pidpath() writes, byte for byte; it fails when this is empty.
    std::string path{};
    // How many bytes proc_pidinfo() returns; 64 is all of them.
    int infoSize = 64;
    // What proc_pidpath() returns in place of the number of bytes that it wrote.
    std::optional<int> pathSize = std::nullopt;
    // SIGSTOP reached it.
    bool isStopped = false;
};

struct LogEntry {
    std::string subsystem;
    std::string category;
    bool isError{};
    std::string text;

    bool operator==(const LogEntry&) const = default;
};

// A look at a code signature: SecStaticCodeCheckValidity(), with its flags.
struct SignatureCheck {
    std::string path;
    std::uint32_t flags{};

    bool operator==(const SignatureCheck&) const = default;
};

// A task that was launched.
struct Launch {
    std::string executable;
    std::vector<std::string> arguments;
    std::map<std::string, std::string> environment;
    bool hasTerminationHandler{};

    bool operator==(const Launch&) const = default;
};

struct World {
    // libproc: the processes in the order in which they are listed (pid 0, the kernel, only when it
    // is here); what proc_listallpids() returns without a buffer, and with one, in place of the
    // truth; how often proc_pidinfo() and proc_pidpath() were called.
    std::vector<Process> processes;
    std::optional<int> announcedProcesses;
    std::optional<int> listedProcesses;
    int infoCalls = 0;
    int pathCalls = 0;

    // SystemConfiguration: nobody has the console when there is no name.
    std::optional<std::string> consoleUser;
    std::uint32_t consoleUID = 0;

    // lchflags(2): the flags by path, any other item that exists has none; its errno when it fails;
    // how often it was called. lstat(2) itself is the real one.
    std::map<std::string, std::uint32_t> flags;
    std::optional<int> lchflagsError;
    int lchflagsCalls = 0;

    // statfs(2): the flags of the volume by path; all else lies on the machine's own. Whether it
    // fails.
    std::map<std::string, std::uint32_t> volumes;
    bool statfsFails = false;

    // acl(3): the lists by path: "a" is an entry that allows, "d" one that denies, "?" one that
    // cannot be read. And the errno where the system does not tell.
    std::map<std::string, std::string> accessLists;
    std::optional<int> accessListError;

    // Security: files as they must be, by their bytes, with the requirement that their signature
    // meets. The bytes are read at the very check, before which `onSignatureCheck` is called. A
    // requirement is text that begins as all of ours do.
    std::map<std::string, std::string> signedFiles;
    std::vector<SignatureCheck> signatureChecks;
    std::function<void()> onSignatureCheck;
    bool errorsHaveTexts = true;

    // The clocks: nanoseconds since boot, which Dispatch moves as a script goes on; the wall
    // clock's seconds since 1970 at boot; how many nanoseconds clock_gettime_nsec_np(3) takes after
    // its look.
    std::uint64_t sinceBoot = 1'000'000'000'000;
    double bootedAt = 1'800'000'000;
    std::uint64_t readingTakes = 0;

    // sysctl(3) "kern.bootsessionuuid": its bytes, without which the call for the size fails;
    // whether that for the value does.
    std::optional<std::string> bootSession =
        std::string("9F0C6A5E-0000-4000-8000-00000000B007") + '\0';
    bool bootSessionReadFails = false;
    int sysctlCalls = 0;

    // The main bundle: its executable; its Info.plist as XML, as Foundation finds it; and the
    // section __TEXT,__info_plist of the running program, when it has one. Other bundles are read
    // from the disk, Contents/Info.plist, each time anew; Foundation may remember what it has read.
    std::optional<std::string> mainExecutable =
        "/Applications/Halvo.app/Contents/Helpers/HalvoHelper";
    std::string mainInfo;
    std::optional<std::string> carriedInfo;

    // Foundation's folders: the containers of groups that the process may use, and Application
    // Support (none when empty). By Apple's documentation of
    // containerURLForSecurityApplicationGroupIdentifier macOS gives a URL for every group; that of
    // one that the process may not use is a place where nobody can make a folder.
    std::map<std::string, std::string> groupContainers;
    std::string otherGroupContainers = "/proc/Group Containers";
    std::string applicationSupport = "/nonexistent";

    // Tasks: those launched, what happens then, and why none can be launched. A task without an
    // environment of its own has the process's. A program that this machine has is run to its end.
    std::vector<Launch> launches;
    std::function<void(const Launch&)> onLaunch;
    std::optional<std::string> launchError;

    // fcntl(2) F_FULLFSYNC and fsync(2): their errno when they fail; how often they were called.
    std::optional<int> fullSyncError;
    std::optional<int> syncError;
    int fullSyncCalls = 0;
    int syncCalls = 0;

    // The unified log, formatted.
    std::vector<LogEntry> log;
};

World& world();

// Everything as in a new process: the world, the queues, the sources, the listeners. Only what was
// set on the main queue by dispatch_queue_set_specific(3) stays, as static variables do.
void reset();

// The texts of the log at one level, in order.
std::vector<std::string> errors();
std::vector<std::string> notices();

// Dispatch. Timers go by the wall clock, or by one that passes with World::sinceBoot but stands
// still when a test moves that: then the machine was asleep. Time passes only inside
// dispatch_main(), which serves the main queue on a thread of its own until the script is over, and
// then throws Over.
struct Over {};

// Calls `event` on a thread that is no queue's when `seconds` have passed from now on.
void at(double seconds, std::function<void()> event);

// When the script is over, counted from now on. Without it dispatch_main() is over when nothing is
// left to come but timers.
void endAt(double seconds);

// Serves the main queue for `seconds` (0: only what is due) on a thread of its own, and returns.
void serve(double seconds);

// What a kernel does with `signal`: tells the sources that watch it. False when there is none.
bool raise(int signal);

// The timers that were made and not released, in the order of their making: what each was set to,
// in nanoseconds. `first` counts from when it was set.
struct Timer {
    std::uint64_t first{};
    std::uint64_t interval{};
    std::uint64_t leeway{};
    bool isStrict{};
    // It goes by the wall clock.
    bool isWall{};
};

std::vector<Timer> timers();

// Objective-C objects of the class `name` and its subclasses that are alive. What was autoreleased
// lives until its pool ends, so a test that counts has a pool of its own.
long liveObjects(const char* name);

}  // namespace fake
