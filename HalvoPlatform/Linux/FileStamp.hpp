// What tells one version of a file from the next without reading it.
#pragma once

#include <sys/stat.h>

#include <ctime>
#include <optional>

namespace halvo {

// Of the file behind a path, as stat(2) has it. To be taken before the file is read: a change in
// between shows next time.
struct FileStamp {
    dev_t device{};
    ino_t inode{};
    off_t size{};
    timespec modified{};
    timespec changed{};

    // Nothing when the look-up fails. Allocates nothing.
    static std::optional<FileStamp> of(const char* path) {
        struct stat status{};
        if (stat(path, &status) != 0) {
            return std::nullopt;
        }
        return FileStamp{status.st_dev, status.st_ino, status.st_size, status.st_mtim,
                         status.st_ctim};
    }

    // Whether another change would show. The kernel's file times go by its tick (10 ms at most),
    // or did before Linux 6.13: what is written in place twice within one has the same stamp. A
    // time to come is as bad.
    [[nodiscard]] bool isSettled() const { return changed.tv_sec + 1 < std::time(nullptr); }

    bool operator==(const FileStamp& other) const {
        const auto same = [](const timespec& a, const timespec& b) {
            return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
        };
        return device == other.device && inode == other.inode && size == other.size &&
               same(modified, other.modified) && same(changed, other.changed);
    }
};

}  // namespace halvo
