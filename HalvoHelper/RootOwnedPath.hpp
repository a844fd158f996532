// Whether root alone can change or replace the item at a path: what every file must meet that is
// trusted or run.
#pragma once

#include <optional>
#include <string>

#include "HalvoPlatform/Files.hpp"

namespace halvo::RootOwnedPath {

// What is to lie at the end of a path. A symbolic link is neither.
enum class Item { file, folder };

// What besides owner and mode keeps the item at `path` itself from being root's alone. One per
// system: on Linux nothing; on macOS an access-control list that allows anything (acl(3)), and a
// volume that is not local or on which owners are ignored (statfs(2)). Any thread.
std::optional<std::string> problemBeyondMode(const std::string& path);

// What keeps the item at the absolute `path` from being root's alone to change or to replace: a
// part of a sentence that names the item ("/srv belongs to user 1000"), with the errno of a look-up
// that failed, else 0. `top`: the first of the folders above the item that counts; those above it
// may belong to any user. Nothing when the item and every folder above it are real and root's
// alone.
//
// Looks from "/" downwards and no further than the first folder that is another user's: below it a
// file system may be mounted whose owner stalls the caller. Any thread.
std::optional<FileError> examine(const std::string& path, Item item = Item::file,
                                 const std::string& top = "/");

// The text of that alone. Any thread.
std::optional<std::string> problem(const std::string& path, Item item = Item::file,
                                   const std::string& top = "/");

}  // namespace halvo::RootOwnedPath
