// A library that somebody might slip into the app by LD_PRELOAD (ld.so(8)). Into whatever program
// it is loaded, it appends that program's path as a line to the file that HALVO_INJECTION_MARK
// names.

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstddef>
#include <cstdlib>

namespace {

[[gnu::constructor]] void leaveMark() {
    const char* mark = std::getenv("HALVO_INJECTION_MARK");
    if (mark == nullptr) {
        return;
    }
    std::array<char, PATH_MAX> line{};
    const ssize_t length = readlink("/proc/self/exe", line.data(), line.size() - 1);
    if (length < 0) {
        return;
    }
    line[static_cast<std::size_t>(length)] = '\n';
    const int file = open(mark, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    // Without a mark, whoever looks for it finds out.
    [[maybe_unused]] const ssize_t written =
        write(file, line.data(), static_cast<std::size_t>(length) + 1);
    close(file);
}

}  // namespace
