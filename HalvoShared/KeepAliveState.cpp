#include "HalvoShared/KeepAliveState.hpp"

#include "HalvoShared/AppGroup.hpp"

namespace halvo {
namespace {

// A running app writes more often than that.
constexpr Seconds silence{120};

constexpr const char* trash = "/.Trash/";

constexpr auto no = [] { return false; };

}  // namespace

template <>
const coding::Type& coding::Coding<KeepAliveState>::type() {
    static const Type type = RecordType({
        required<&KeepAliveState::pid>("pid"),
        required<&KeepAliveState::appPath>("appPath"),
        required<&KeepAliveState::clean>("clean"),
        optional<&KeepAliveState::commitmentUntil>("commitmentUntil"),
        required<&KeepAliveState::ultraHard>("ultraHard"),
        defaulted<&KeepAliveState::appReleased>("appReleased", no),
        defaulted<&KeepAliveState::bypassNoted>("bypassNoted", no),
        required<&KeepAliveState::updatedAt>("updatedAt"),
    });
    return type;
}

const SharedFile<KeepAliveState>& KeepAliveState::file() {
    static const SharedFile<KeepAliveState> file(fileName, AppGroup::container());
    return file;
}

bool KeepAliveState::shouldRelaunch(WallDate date) const {
    return !clean && commitmentUntil && *commitmentUntil > date;
}

bool KeepAliveState::wasBypassed(bool relaunchedByAgent, WallDate date) const {
    return !clean && ultraHard && !relaunchedByAgent && commitmentUntil &&
           date - updatedAt > silence && updatedAt < *commitmentUntil;
}

bool KeepAliveState::mayOpen(const std::string& fromBin) const {
    return fromBin.find(trash) == std::string::npos || (ultraHard && !appReleased);
}

}  // namespace halvo
