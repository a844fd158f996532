// The flags of files, chflags(2), which Linux's stat(2) does not have.
#include <sys/stat.h>

#include <cerrno>

#include "../FakeDarwin.hpp"

extern "C" {

int __real_lstat(const char* path, struct stat* status);

// lstat(2), in the place of which the linker puts this.
int __wrap_lstat(const char* path, struct stat* status) {
    const int result = __real_lstat(path, status);
    if (result == 0) {
        const auto& flags = fake::world().flags;
        const auto found = flags.find(path);
        status->st_flags = found == flags.end() ? 0 : static_cast<long>(found->second);
    }
    return result;
}

int lchflags(const char* path, std::uint32_t flags) {
    fake::World& world = fake::world();
    ++world.lchflagsCalls;
    if (world.lchflagsError) {
        errno = *world.lchflagsError;
        return -1;
    }
    struct stat status{};
    if (__real_lstat(path, &status) != 0) {
        return -1;
    }
    world.flags[path] = flags;
    return 0;
}
}
