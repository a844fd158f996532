#include "HalvoPlatform/LockFile.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>

#include "HalvoPlatform/ErrorText.hpp"

namespace halvo {
namespace {

// Whether `file` is what now lies at `path`.
bool liesAt(const Descriptor& file, const std::string& path) {
    struct stat own{};
    struct stat there{};
    return fstat(file.get(), &own) == 0 && lstat(path.c_str(), &there) == 0 &&
           own.st_dev == there.st_dev && own.st_ino == there.st_ino;
}

}  // namespace

std::expected<Descriptor, FileError> takeLockFile(const std::string& path) {
    constexpr int flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
    constexpr mode_t ownerOnly = 0600;
    while (true) {
        Descriptor file(open(path.c_str(), flags, ownerOnly));
        if (!file.isOpen() || flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
            const int code = errno;
            return std::unexpected(FileError{code, path + ": " + errorText(code)});
        }
        // Who ended in between took its file away, and what was locked is nobody's lock.
        if (liesAt(file, path)) {
            return file;
        }
    }
}

}  // namespace halvo
