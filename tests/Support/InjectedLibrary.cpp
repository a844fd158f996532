// A library that an attacker would inject into the app with LD_PRELOAD (ld.so(8)). Appends the path
// of the program that loads it as a line to the file that HALVO_INJECTION_MARK names.

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
    // A failed write shows in the test, which reads the file.
    [[maybe_unused]] const ssize_t written =
        write(file, line.data(), static_cast<std::size_t>(length) + 1);
    close(file);
}

}  // namespace
