// What lets others than the owner change an item: access-control lists, acl(3), and the volume that
// it lies on, statfs(2). None and the machine's own, but for what a test names.
#include <sys/acl.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstddef>
#include <string>

#include "../FakeDarwin.hpp"

struct _acl {
    std::string entries;
    std::size_t next = 0;
};

struct _acl_entry {};

extern "C" {

acl_t acl_get_link_np(const char* path, acl_type_t type) {
    const fake::World& world = fake::world();
    const auto found = world.accessLists.find(path);
    if (type != ACL_TYPE_EXTENDED || world.accessListError || found == world.accessLists.end()) {
        // acl_get(3): an item without a list is an error like any other.
        errno = type != ACL_TYPE_EXTENDED ? EINVAL : world.accessListError.value_or(ENOENT);
        return nullptr;
    }
    return new _acl{found->second};
}

int acl_get_entry(acl_t list, int which, acl_entry_t* entry) {
    list->next = which == ACL_FIRST_ENTRY ? 0 : list->next;
    if (list->next == list->entries.size()) {
        errno = EINVAL;
        return -1;
    }
    *entry = reinterpret_cast<acl_entry_t>(&list->entries[list->next++]);
    return 0;
}

int acl_get_tag_type(acl_entry_t entry, acl_tag_t* tag) {
    const char kind = *reinterpret_cast<const char*>(entry);
    if (kind == '?') {
        errno = EINVAL;
        return -1;
    }
    *tag = kind == 'a' ? ACL_EXTENDED_ALLOW : ACL_EXTENDED_DENY;
    return 0;
}

int acl_free(void* list) {
    delete static_cast<acl_t>(list);
    return 0;
}

int __real_statfs(const char* path, struct statfs* volume);

// The linker puts this in the place of statfs().
int __wrap_statfs(const char* path, struct statfs* volume) {
    const fake::World& world = fake::world();
    if (world.statfsFails) {
        errno = EIO;
        return -1;
    }
    const int result = __real_statfs(path, volume);
    const auto found = world.volumes.find(path);
    volume->f_flags = found == world.volumes.end() ? MNT_LOCAL : static_cast<long>(found->second);
    return result;
}
}
