// Whether root alone decides what lies at a path: the ground on which everything is trusted that is
// read or run from a file.
#pragma once

#include <optional>
#include <string>

namespace halvo::RootOwnedPath {

// What is to lie at the end of a path. A symbolic link is neither.
enum class Item { file, folder };

// What else keeps the very item at `path` from being root's alone. One per system: on Linux
// nothing; on macOS an access-control list that allows anybody anything (acl(3)), and a volume that
// is not of this machine's own disks or on which owners do not count (statfs(2)).
std::optional<std::string> problemBeyondMode(const std::string& path);

struct Problem {
    // A part of a sentence that names the item: "/srv belongs to user 1000".
    std::string what;
    // The errno of a look-up that failed; else 0.
    int failure = 0;
};

// What keeps the item at the absolute `path` from being root's alone to change or to put another in
// the place of. Nothing when nothing does: it and every folder above it are real and root's alone.
// A look-up that fails keeps it.
//
// Looks from "/" downwards and no further than the first folder that is another user's: below it a
// file system may be mounted whose owner keeps us waiting. `top`: the first of the folders that
// counts, which is one of those above the item; those above it may be anybody's.
std::optional<Problem> examine(const std::string& path, Item item = Item::file,
                               const std::string& top = "/");

// The same, in words alone.
std::optional<std::string> problem(const std::string& path, Item item = Item::file,
                                   const std::string& top = "/");

}  // namespace halvo::RootOwnedPath
