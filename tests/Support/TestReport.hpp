// How a program was started, as the test app reports it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace halvo::testing {

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
