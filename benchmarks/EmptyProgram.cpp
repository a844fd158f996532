// What the helper's libraries cost by themselves: a program that links the same libraries in the
// same way, calls one function of each, so that the linker keeps them, prints CLOCK_MONOTONIC in
// ns, and waits.

#include <plist/plist.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <string>

int main() {
    sd_bus* bus = nullptr;
    sd_bus_new(&bus);
    sd_bus_unref(bus);
    plist_t list = nullptr;
    const std::string text = "<plist version=\"1.0\"><dict/></plist>";
    plist_from_xml(text.data(), static_cast<unsigned>(text.size()), &list);
    plist_free(list);
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    // Longer than the small-string buffer, so that the C++ library allocates.
    const std::string line = std::to_string(now.count()) + std::string(64, ' ') + "\n";
    if (write(STDOUT_FILENO, line.data(), line.size()) < 0) {
        return 1;
    }
    pause();
}
