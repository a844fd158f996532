#include "HalvoHelper/RootOwnedPath.hpp"

#include <sys/acl.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstdint>
#include <memory>

#include "HalvoPlatform/ErrorText.hpp"

namespace halvo::RootOwnedPath {
namespace {

// Whether the access-control list of the item has an entry that allows; acl(3). One that cannot be
// read counts as such.
bool hasGenerousList(const std::string& path) {
    const std::unique_ptr<std::remove_pointer_t<acl_t>, int (*)(void*)> list(
        acl_get_link_np(path.c_str(), ACL_TYPE_EXTENDED), acl_free);
    if (list == nullptr) {
        return errno != ENOENT;  // which means that there is no list
    }
    acl_entry_t entry = nullptr;
    for (int which = ACL_FIRST_ENTRY; acl_get_entry(list.get(), which, &entry) == 0;
         which = ACL_NEXT_ENTRY) {
        acl_tag_t tag = ACL_UNDEFINED_TAG;
        if (acl_get_tag_type(entry, &tag) != 0 || tag != ACL_EXTENDED_DENY) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::optional<std::string> problemBeyondMode(const std::string& path) {
    struct statfs volume{};
    if (statfs(path.c_str(), &volume) != 0) {
        return path + ": " + errorText(errno);
    }
    // A user who has mounted a volume, or a server of it, can forge owners; mount(2) sets
    // MNT_NOSUID on the former.
    constexpr std::uint32_t looked = MNT_LOCAL | MNT_NOSUID | MNT_IGNORE_OWNERSHIP;
    if ((static_cast<std::uint32_t>(volume.f_flags) & looked) != MNT_LOCAL) {
        return path + " lies on a volume whose owners cannot be relied on";
    }
    if (hasGenerousList(path)) {
        return "an access-control list lets others change " + path;
    }
    return std::nullopt;
}

}  // namespace halvo::RootOwnedPath
