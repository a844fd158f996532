#include "HalvoHelper/RootOwnedPath.hpp"

#include <sys/acl.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstdint>
#include <memory>

#include "HalvoPlatform/ErrorText.hpp"

namespace halvo::RootOwnedPath {
namespace {

// Whether the access-control list of the item allows anything, acl(3). One that
// cannot be read may allow anything.
bool hasGenerousList(const std::string& path) {
    const std::unique_ptr<std::remove_pointer_t<acl_t>, int (*)(void*)> list(
        acl_get_link_np(path.c_str(), ACL_TYPE_EXTENDED), acl_free);
    if (list == nullptr) {
        return errno != ENOENT;  // which says that there is none
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
    // A volume that a person has mounted, or that another machine serves, says of owners what that
    // person or machine likes; mount(2) sets MNT_NOSUID on the former.
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
