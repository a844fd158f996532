// App bundles on a real disk, and how their program was started.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace halvo::testing {

// A bundle made for a test, with the test app as its executable. Folders are 0755, files 0644, and
// the executable 0755, whatever the umask; all belong to whoever runs the tests.
class TestBundle {
  public:
    // At `path`, with the executable `name`. No Info.plist yet. The folders above must be there.
    explicit TestBundle(std::string path, std::string name = "Sample");

    // Writes an Info.plist that names the executable, and the identity as the caller rules read it.
    // Replaces one that is there, as installers do.
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

// Puts `bytes` in the place of the file at `path` by rename(2).
void replaceTestFile(const std::string& path, const std::string& bytes);

// Makes the file that is at `path` hold `bytes`, which stays the same file.
void overwriteTestFile(const std::string& path, const std::string& bytes);

// Copies the program at `from` into the folder of a file system of its own at `folder`, as a file
// that has the number `number` there. The path of the copy.
std::string copyProgramAsNumber(const std::string& from, const std::string& folder, ino_t number);

// Copies the program at `from` to `to`, with the permissions 0755.
void copyProgram(const std::string& from, const std::string& to);

// ---------------------------------------------------------------- how a program was started

// The lines "key=value" of a report, by key, in order. The keys: pid, executable, argument,
// environment ("NAME=value"), user and group (real, effective, saved), supplementary, descriptor
// ("NUMBER TARGET rw", or "-" when it is not for reading and writing), SigBlk, SigIgn and SigCgt
// (proc(5)), folder, umask, session ("own" when it leads one).
using TestReport = std::map<std::string, std::vector<std::string>>;

// Where the program at `executable` leaves its report: beside it, or in /tmp when it may not write
// there. While there is a file `executable`.hold the program does not end.
inline std::string reportBeside(const std::string& executable) { return executable + ".report"; }

inline std::string reportInTmp(const std::string& executable) {
    return "/tmp" + executable.substr(executable.find_last_of('/')) + ".report";
}

// The report at `path`, for which it waits up to 20 s. Empty when none comes.
TestReport readReport(const std::string& path);

// The set of ignored signals that `report` tells of, less the two that the C library keeps for
// itself and ignores in all that it spawns: nptl(7), posix_spawn(3).
std::uint64_t ignoredSignals(const TestReport& report);

// For main() of a program that tests start: leaves the report of its start. The status to exit
// with.
int reportStart(int count, char** words, char** environment);

}  // namespace halvo::testing
