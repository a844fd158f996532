#include "../FakeDarwin.hpp"
#include "../Foundation/Foundation.hpp"
#include "Dispatch.hpp"

namespace fake {
namespace {

std::vector<std::string> texts(bool areErrors) {
    std::vector<std::string> found;
    for (const LogEntry& entry : world().log) {
        if (entry.isError == areErrors) {
            found.push_back(entry.text);
        }
    }
    return found;
}

}  // namespace

World& world() {
    static auto& only = *new World;
    return only;
}

void reset() {
    resetDispatch();
    resetXPC();
    resetMainBundle();
    world() = World{};
}

std::vector<std::string> errors() { return texts(true); }

std::vector<std::string> notices() { return texts(false); }

}  // namespace fake
