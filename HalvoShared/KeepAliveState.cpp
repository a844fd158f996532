#include "HalvoShared/KeepAliveState.hpp"

#include "HalvoShared/AppGroup.hpp"
#include "HalvoShared/Coding.hpp"

namespace halvo {
namespace {

// A running app writes more often than that.
constexpr Seconds silence{120};

constexpr const char* trash = "/.Trash/";

}  // namespace

template std::expected<KeepAliveState, JSON::Error> JSON::decode(std::string_view json);
template std::expected<std::string, JSON::Error> JSON::encode(const KeepAliveState& value);

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
