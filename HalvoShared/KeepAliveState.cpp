#include "HalvoShared/KeepAliveState.hpp"

#include "HalvoShared/AppGroup.hpp"
#include "HalvoShared/Coding.hpp"

namespace halvo {

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
    // A running app writes the record more often.
    constexpr Seconds silence{120};
    return !clean && ultraHard && !relaunchedByAgent && commitmentUntil &&
           date - updatedAt > silence && updatedAt < *commitmentUntil;
}

bool KeepAliveState::mayOpen(const std::string& fromBin) const {
    return !fromBin.contains("/.Trash/") || (ultraHard && !appReleased);
}

}  // namespace halvo
