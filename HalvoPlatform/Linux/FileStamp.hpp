// The version of a file, without reading it.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <optional>

namespace halvo {

// Identifies a version of the file at a path; stat(2). Taken before the file is read, so that a
// change in between is seen next time.
struct FileStamp {
    dev_t device{};
    ino_t inode{};
    off_t size{};
    // In nanoseconds since 1970.
    std::int64_t modified{};
    std::int64_t changed{};

    // Nothing when the look-up fails. Allocates nothing.
    static std::optional<FileStamp> of(const char* path) {
        struct stat status{};
        if (stat(path, &status) != 0) {
            return std::nullopt;
        }
        return FileStamp{status.st_dev, status.st_ino, status.st_size,
                         (status.st_mtim.tv_sec * second) + status.st_mtim.tv_nsec,
                         (status.st_ctim.tv_sec * second) + status.st_ctim.tv_nsec};
    }

    // Whether another change would give another stamp. The kernel's file times have the granularity
    // of its tick (10 ms at most), before Linux 6.13 for every write. False for a time in the
    // future as well.
    [[nodiscard]] bool isSettled() const { return changed / second + 1 < std::time(nullptr); }

    bool operator==(const FileStamp&) const = default;

  private:
    static constexpr std::int64_t second = 1'000'000'000;
};

}  // namespace halvo
