// App bundles on the real disk, and reports of how their program was started.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "HalvoHelperCore/HelperIdentity.hpp"

namespace halvo::testing {

// Whose a TestBundle is.
inline const HelperIdentity sampleIdentity{"com.example.app", "7QX4KD19MT"};

// A bundle with the test app as its executable. Folders and the executable have mode 0755, files
// 0644, whatever the umask; the owner is the user of the test process.
class TestBundle {
  public:
    // At `path`, with the executable `name` and no Info.plist yet. Parent folders are created.
    explicit TestBundle(std::string path, std::string name = "Sample");

    // Writes an Info.plist with the executable's name and the identity that CallerRules reads.
    // Replaces an existing one by rename(2), as installers do.
    void writeInfo(const std::string& identifier = "com.example.app",
                   const std::string& team = "7QX4KD19MT") const;

    // Makes the executable set-group-id to `group`.
    void install(gid_t group) const;

    [[nodiscard]] const std::string& path() const { return path_; }

    [[nodiscard]] std::string folder() const { return path_ + "/Contents/MacOS"; }

    [[nodiscard]] std::string executable() const { return folder() + "/" + name_; }

    [[nodiscard]] std::string info() const { return path_ + "/Contents/Info.plist"; }

  private:
    std::string path_;
    std::string name_;
};

// An Info.plist with these members.
std::string infoText(const std::string& executable, const std::string& identifier,
                     const std::string& team);

// Replaces the file at `path` with a new one of `bytes` by rename(2).
void replaceTestFile(const std::string& path, const std::string& bytes);

// Rewrites the file at `path` in place: its inode stays.
void overwriteTestFile(const std::string& path, const std::string& bytes);

// Copies the program at `from` into `folder`, the root of a tmpfs, as a file with the inode number
// `number`. Returns the path of the copy.
std::string copyProgramAsNumber(const std::string& from, const std::string& folder, ino_t number);

// Gives the program at `path` to root and its group `group`, which whatever runs it has then.
void makeSetGroupID(const std::string& path, gid_t group);

// Copies the program at `from` to `to`, with the permissions 0755.
void copyProgram(const std::string& from, const std::string& to);

// ---------------------------------------------------------------- how a program was started

// The lines "key=value" of a report, by key, in order. The keys: pid, executable, argument,
// environment ("NAME=value"), user and group (real, effective, saved), supplementary, descriptor
// ("NUMBER TARGET rw", or "-" unless opened with O_RDWR), SigBlk, SigIgn and SigCgt (proc(5)),
// folder, umask, alarm (seconds left), session ("own" for a session leader).
using TestReport = std::map<std::string, std::vector<std::string>>;

// Where the program at `executable` writes its report: beside it, or in /tmp when it has no
// permission there. The program does not exit while the file `executable`.hold exists.
inline std::string reportBeside(const std::string& executable) { return executable + ".report"; }

inline std::string reportInTmp(const std::string& executable) {
    return "/tmp" + executable.substr(executable.find_last_of('/')) + ".report";
}

// The report at `path`; waits up to `timeLimit` for it. Empty without one, which fails the test.
TestReport readReport(const std::string& path);

// The ignored signals of `report` as a bit set, without the two that the C library reserves and
// ignores in spawned processes: nptl(7), posix_spawn(3).
std::uint64_t ignoredSignals(const TestReport& report);

// For main() of a program that tests start: writes the report of its start. Returns the exit
// status.
int reportStart(int argc, char** argv, char** environment);

}  // namespace halvo::testing
