#include "HalvoPlatform/Files.hpp"

#include <fcntl.h>
#include <ftw.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

std::unexpected<FileError> failure(int code, const std::string& path) {
    return std::unexpected(FileError{code, path + ": " + errorText(code)});
}

// For new files: no other user can open them before they have their final permissions.
constexpr mode_t ownerOnly = 0600;

// Creates the temporary file. One that a killed process has left is removed first.
Descriptor createTemporary(int folder, const std::string& name) {
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    Descriptor file(openat(folder, name.c_str(), flags, ownerOnly));
    if (!file.isOpen() && errno == EEXIST && unlinkat(folder, name.c_str(), 0) == 0) {
        file = Descriptor(openat(folder, name.c_str(), flags, ownerOnly));
    }
    return file;
}

// Returns 0 or the errno.
int fill(int file, std::string_view bytes, mode_t mode) {
    if (fchmod(file, mode) != 0) {
        return errno;
    }
    while (!bytes.empty()) {
        const ssize_t count = write(file, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    }
    return syncToDisk(file);
}

// The folder that the item at `path` is in.
std::string folderOf(const std::string& path) {
    const std::size_t name = path.find_last_of('/', path.find_last_not_of('/'));
    if (name == std::string::npos) {
        return ".";
    }
    return path.substr(0, name == 0 ? 1 : name);
}

// Creates one folder, and syncs the one above.
std::expected<void, FileError> makeFolder(const std::string& path, mode_t mode) {
    if (mkdir(path.c_str(), mode) != 0) {
        return failure(errno, path);
    }
    auto synced = syncAbove(path);
    if (!synced) {
        // The next call would find it, and assume that it is synced.
        rmdir(path.c_str());
    }
    return synced;
}

// Creates the folder, and before it the missing ones above.
// NOLINTNEXTLINE(misc-no-recursion): as deep as the path is, whose length the system limits.
std::expected<void, FileError> makeFolders(const std::string& path, mode_t mode) {
    auto made = makeFolder(path, mode);
    const std::string parent = folderOf(path);
    if (made || made.error().code != ENOENT || parent == path) {
        return made;
    }
    if (auto above = makeFolders(parent, 0755); !above && above.error().code != EEXIST) {
        return above;
    }
    return makeFolder(path, mode);
}

// Whether `file` is the file that is at `path` now.
bool liesAt(const Descriptor& file, const std::string& path) {
    struct stat own{};
    struct stat there{};
    return fstat(file.get(), &own) == 0 && lstat(path.c_str(), &there) == 0 &&
           own.st_dev == there.st_dev && own.st_ino == there.st_ino;
}

}  // namespace

std::expected<std::string, FileError> readFile(const std::string& path, std::size_t limit) {
    if (hasZeroByte(path)) {
        return failure(EINVAL, path);
    }
    // O_NONBLOCK: opening a pipe must not wait for its other end.
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status{};
    if (!file.isOpen() || fstat(file.get(), &status) != 0) {
        return failure(errno, path);
    }
    if (!S_ISREG(status.st_mode)) {
        return failure(EINVAL, path);
    }
    if (std::cmp_greater(status.st_size, limit)) {
        return failure(EFBIG, path);
    }
    std::string bytes;
    std::array<char, 4096> part{};
    ssize_t count = 0;
    while ((count = read(file.get(), part.data(), part.size())) != 0) {
        if (count < 0 && errno != EINTR) {
            return failure(errno, path);
        }
        bytes.append(part.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        if (bytes.size() > limit) {
            return failure(EFBIG, path);
        }
    }
    return bytes;
}

std::expected<void, FileError> syncAbove(const std::string& path) {
    const std::string above = folderOf(path);
    const Descriptor folder(open(above.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const int code = folder.isOpen() ? syncToDisk(folder.get()) : errno;
    return code == 0 ? std::expected<void, FileError>() : failure(code, above);
}

std::expected<void, FileError> createFolder(const std::string& path, mode_t mode) {
    auto made = makeFolders(path, mode);
    if (!made && made.error().code != EEXIST) {
        return made;
    }
    struct stat status{};
    if ((made ? chmod(path.c_str(), mode) : stat(path.c_str(), &status)) != 0) {
        return failure(errno, path);
    }
    return made || S_ISDIR(status.st_mode) ? std::expected<void, FileError>()
                                           : failure(ENOTDIR, path);
}

// By the C library alone: std::filesystem would link the C++ library's streams and locales into the
// helper, more than half of its code.
std::expected<void, FileError> removeItem(const std::string& path) {
    // Depth first. A result other than 0 ends the walk; nftw(3).
    const auto removeOne = [](const char* item, const struct stat*, int, FTW*) {
        return std::remove(item) == 0 || errno == ENOENT ? 0 : errno;
    };
    constexpr int openFolders = 16;
    const int result = nftw(path.c_str(), removeOne, openFolders, FTW_DEPTH | FTW_PHYS);
    const int code = result < 0 ? errno : result;
    if (code == ENOENT || code == ENOTDIR) {
        return {};
    }
    return code == 0 ? syncAbove(path) : failure(code, path);
}

std::expected<void, FileError> replaceFile(const std::string& folder, const std::string& name,
                                           std::string_view bytes, mode_t mode,
                                           const std::string& writer) {
    const std::string path = folder.ends_with('/') ? folder + name : folder + "/" + name;
    const std::string temporary = "." + name + writer + ".new";
    if (hasZeroByte(path)) {
        return failure(EINVAL, path);
    }
    const Descriptor place(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!place.isOpen()) {
        return failure(errno, folder);
    }
    const Descriptor file = createTemporary(place.get(), temporary);
    if (!file.isOpen()) {
        return failure(errno, folder + "/" + temporary);
    }
    int code = fill(file.get(), bytes, mode);
    if (code == 0 && renameat(place.get(), temporary.c_str(), place.get(), name.c_str()) != 0) {
        code = errno;
    }
    if (code != 0) {
        unlinkat(place.get(), temporary.c_str(), 0);
        return failure(code, path);
    }
    code = syncToDisk(place.get());
    return code == 0 ? std::expected<void, FileError>() : failure(code, folder);
}

std::expected<Descriptor, FileError> takeLockFile(const std::string& path) {
    while (true) {
        Descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, ownerOnly));
        if (!file.isOpen() || flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
            return failure(errno, path);
        }
        // The previous holder may have removed the file between open(2) and flock(2): try again.
        if (liesAt(file, path)) {
            return file;
        }
    }
}

}  // namespace halvo
