// Pieces of work for benchmarks/run to time, by name.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace halvo::benchmark {

// Does something once. Returns how much: bytes, replies, items; zero when it did nothing. Throws
// std::exception when it cannot be done.
using Work = std::function<std::size_t()>;

// Does the work that standard input asks for until that ends. A line "NAME TIMES" is answered with
// "START END DONE": the instants before and after, in nanoseconds of CLOCK_MONOTONIC, and how much
// was done. Throws std::out_of_range for a name that is not in `works`.
void serve(const std::map<std::string, Work>& works);

// Throws std::system_error with the present errno when `ok` is false.
void require(bool ok, const std::string& what);

// Each serves one group of measurements. `words` are its arguments.

// UID BUNDLE: "search", of the app BUNDLE that UID does not run; its peers "searchBarely" and
// "pgrep".
void serveSearch(const std::vector<std::string>& words);

// DISK MEMORY, two folders, made when missing: "saveOnDisk", "saveInMemory", "begin" and "end"; the
// peer of each has "Barely" behind its name.
void serveSave(const std::vector<std::string>& words);

// "coding", "timelineDay", "timelineYear", "timelineMillennia", "moment" and "momentYesterday", and
// their peers "library", "plain..." and "walk".
void serveRecords(const std::vector<std::string>& words);

}  // namespace halvo::benchmark
