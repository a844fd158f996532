#include "HalvoPlatform/Files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/DiskSync.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

std::unexpected<FileError> failure(int code, const std::string& path) {
    return std::unexpected(FileError{code, path + ": " + std::generic_category().message(code)});
}

// Gives 0 or the errno.
int writeAll(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(file, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    return 0;
}

// Opens the temporary file, new. A left-over of a process that was killed is removed first.
Descriptor createTemporary(int folder, const std::string& name) {
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    // Nobody else reads it before it has its final permissions.
    constexpr mode_t ownerOnly = 0600;
    Descriptor file(openat(folder, name.c_str(), flags, ownerOnly));
    if (!file.isOpen() && errno == EEXIST) {
        if (unlinkat(folder, name.c_str(), 0) != 0) {
            return {};
        }
        file = Descriptor(openat(folder, name.c_str(), flags, ownerOnly));
    }
    return file;
}

// Gives 0 or the errno.
int fill(int file, std::string_view bytes, mode_t mode) {
    if (fchmod(file, mode) != 0) {
        return errno;
    }
    if (const int code = writeAll(file, bytes); code != 0) {
        return code;
    }
    return syncToDisk(file);
}

}  // namespace

std::expected<std::string, FileError> readFile(const std::string& path, std::size_t limit) {
    if (hasZeroByte(path)) {
        return failure(EINVAL, path);
    }
    // O_NONBLOCK: opening a pipe must not wait for its other end.
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file.isOpen()) {
        return failure(errno, path);
    }
    struct stat status{};
    if (fstat(file.get(), &status) != 0) {
        return failure(errno, path);
    }
    if (!S_ISREG(status.st_mode)) {
        return failure(EINVAL, path);
    }
    if (std::cmp_greater(status.st_size, limit)) {
        return failure(EFBIG, path);
    }
    std::string bytes(static_cast<std::size_t>(status.st_size) + 1, '\0');
    std::size_t used = 0;
    while (true) {
        const ssize_t count = read(file.get(), bytes.data() + used, bytes.size() - used);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return failure(errno, path);
        }
        used += static_cast<std::size_t>(count);
        if (used > limit) {
            return failure(EFBIG, path);
        }
        if (count == 0) {
            break;
        }
        if (used == bytes.size()) {  // it grew while we read
            bytes.resize(bytes.size() * 2);
        }
    }
    bytes.resize(used);
    return bytes;
}

std::expected<void, FileError> createFolder(const std::string& path, mode_t mode) {
    if (mkdir(path.c_str(), mode) == 0) {
        if (chmod(path.c_str(), mode) != 0) {
            return failure(errno, path);
        }
        return {};
    }
    if (errno == EEXIST) {
        struct stat status{};
        if (stat(path.c_str(), &status) != 0) {
            return failure(errno, path);
        }
        if (!S_ISDIR(status.st_mode)) {
            return failure(ENOTDIR, path);
        }
        return {};
    }
    const std::size_t slash = path.find_last_of('/');
    if (errno != ENOENT || slash == std::string::npos || slash == 0) {
        return failure(errno, path);
    }
    const std::string parent = path.substr(0, slash);
    for (std::size_t end = parent.find('/', 1);; end = parent.find('/', end + 1)) {
        const std::string above = parent.substr(0, end);
        if (mkdir(above.c_str(), 0755) != 0 && errno != EEXIST) {
            return failure(errno, above);
        }
        if (end == std::string::npos) {
            break;
        }
    }
    if (mkdir(path.c_str(), mode) != 0 || chmod(path.c_str(), mode) != 0) {
        return failure(errno, path);
    }
    return {};
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
    if (const int unsynced = syncToDisk(place.get()); unsynced != 0) {
        return failure(unsynced, folder);
    }
    return {};
}

}  // namespace halvo
