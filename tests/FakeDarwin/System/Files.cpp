// Darwin's additions to files: flags, chflags(2); access-control lists, acl(3); mount flags,
// statfs(2); F_FULLFSYNC, fcntl(2). The linker replaces system calls by the functions that begin
// with
// __wrap_ (ld(1), --wrap).
#include <fcntl.h>
#include <sys/acl.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <optional>
#include <string>

#include "../FakeDarwin.hpp"

struct _acl {
    std::string entries;
    std::size_t next = 0;
};

namespace {

// Returns as a failed system call.
int failure(int code) {
    errno = code;
    return -1;
}

std::uint32_t flagsAt(const std::map<std::string, std::uint32_t>& all, const char* path,
                      std::uint32_t otherwise) {
    const auto found = all.find(path);
    return found == all.end() ? otherwise : found->second;
}

}  // namespace

extern "C" {

int __real_lstat(const char* path, struct stat* status);
int __real_statfs(const char* path, struct statfs* volume);
int __real_fcntl(int descriptor, int command, ...);
int __real_fsync(int descriptor);

int __wrap_lstat(const char* path, struct stat* status) {
    const int result = __real_lstat(path, status);
    status->st_flags = flagsAt(fake::world().flags, path, 0);
    return result;
}

int lchflags(const char* path, std::uint32_t flags) {
    fake::World& world = fake::world();
    ++world.lchflagsCalls;
    struct stat status{};
    if (world.lchflagsError) {
        return failure(*world.lchflagsError);
    }
    if (__real_lstat(path, &status) != 0) {
        return -1;
    }
    world.flags[path] = flags;
    return 0;
}

int __wrap_statfs(const char* path, struct statfs* volume) {
    if (fake::world().statfsFails) {
        return failure(EIO);
    }
    const int result = __real_statfs(path, volume);
    volume->f_flags = flagsAt(fake::world().volumes, path, MNT_LOCAL);
    return result;
}

// acl_get(3): an item without a list gives ENOENT.
acl_t acl_get_link_np(const char* path, acl_type_t type) {
    const fake::World& world = fake::world();
    const auto found = world.accessLists.find(path);
    if (type != ACL_TYPE_EXTENDED || world.accessListError || found == world.accessLists.end()) {
        errno = type != ACL_TYPE_EXTENDED ? EINVAL : world.accessListError.value_or(ENOENT);
        return nullptr;
    }
    return new _acl{found->second};
}

int acl_get_entry(acl_t list, int which, acl_entry_t* entry) {
    list->next = which == ACL_FIRST_ENTRY ? 0 : list->next;
    if (list->next == list->entries.size()) {
        return failure(EINVAL);
    }
    *entry = reinterpret_cast<acl_entry_t>(&list->entries[list->next++]);
    return 0;
}

int acl_get_tag_type(acl_entry_t entry, acl_tag_t* tag) {
    const char kind = *reinterpret_cast<const char*>(entry);
    *tag = kind == 'a' ? ACL_EXTENDED_ALLOW : ACL_EXTENDED_DENY;
    return kind == '?' ? failure(EINVAL) : 0;
}

int acl_free(void* list) {
    delete static_cast<acl_t>(list);
    return 0;
}

int __wrap_fsync(int descriptor) {
    ++fake::world().syncCalls;
    const auto& error = fake::world().syncError;
    return error ? failure(*error) : __real_fsync(descriptor);
}

int __wrap_fcntl(int descriptor, int command, ...) {
    if (command == F_FULLFSYNC) {
        ++fake::world().fullSyncCalls;
        const auto& error = fake::world().fullSyncError;
        return error ? failure(*error) : __real_fsync(descriptor);
    }
    // The third argument, if any, is an int or a pointer; va_arg of a pointer reads both.
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return __real_fcntl(descriptor, command, argument);
}
}
