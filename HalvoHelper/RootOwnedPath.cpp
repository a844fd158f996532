#include "HalvoHelper/RootOwnedPath.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "HalvoPlatform/ErrorText.hpp"

namespace halvo::RootOwnedPath {
namespace {

// What is wrong with the very item at `path`.
std::optional<FileError> problemAt(const std::string& path, Item item) {
    struct stat status{};
    if (lstat(path.c_str(), &status) != 0) {
        const int code = errno;
        return FileError{code, path + ": " + errorText(code)};
    }
    const bool isOfKind = item == Item::folder ? S_ISDIR(status.st_mode) : S_ISREG(status.st_mode);
    if (!isOfKind) {
        return FileError{0, path + (S_ISLNK(status.st_mode) ? " is a symbolic link"
                                    : item == Item::folder  ? " is not a folder"
                                                            : " is not a regular file")};
    }
    if (status.st_uid != 0) {
        return FileError{0, path + " belongs to user " + std::to_string(status.st_uid)};
    }
    // On Linux an access-control list that lets others write shows in the group's bits; acl(5).
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return FileError{0, "others than its owner can write to " + path};
    }
    auto beyond = problemBeyondMode(path);
    return beyond ? std::optional(FileError{0, *std::move(beyond)}) : std::nullopt;
}

}  // namespace

std::optional<FileError> examine(const std::string& path, Item item, const std::string& top) {
    for (std::size_t slash = path.find('/'); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        const std::string folder = slash == 0 ? "/" : path.substr(0, slash);
        if (folder.size() < top.size()) {
            continue;
        }
        if (auto found = problemAt(folder, Item::folder)) {
            return found;
        }
    }
    return problemAt(path, item);
}

std::optional<std::string> problem(const std::string& path, Item item, const std::string& top) {
    const auto found = examine(path, item, top);
    return found ? std::optional(found->message) : std::nullopt;
}

}  // namespace halvo::RootOwnedPath
