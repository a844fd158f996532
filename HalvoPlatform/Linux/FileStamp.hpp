// What tells one version of a file from the next without reading it.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <optional>

namespace halvo {

// Of the file behind a path, as stat(2) has it. To be taken before the file is read: a change in
// between shows next time.
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

    // Whether another change would show. The kernel's file times go by its tick (10 ms at most),
    // or did before Linux 6.13: what is written in place twice within one has the same stamp. A
    // time to come is as bad.
    [[nodiscard]] bool isSettled() const { return changed / second + 1 < std::time(nullptr); }

    bool operator==(const FileStamp&) const = default;

  private:
    static constexpr std::int64_t second = 1'000'000'000;
};

}  // namespace halvo
