// The record that the app writes about itself, for processes that find it not running.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/SharedFile.hpp"

namespace halvo {

struct KeepAliveState {
    // The app's process.
    std::int32_t pid{};
    // The app's bundle.
    std::string appPath;
    // Whether the app's last run ended cleanly.
    bool clean{};
    // The end of the running commitment; absent when none runs.
    std::optional<WallDate> commitmentUntil;
    // Whether Ultra Hard mode was on.
    bool ultraHard{};
    // Whether the app was released from Ultra Hard mode. False in files older than this member.
    bool appReleased{};
    // Whether a bypass was already recorded for this commitment. False in files older than this
    // member.
    bool bypassNoted{};
    // When the record was written.
    WallDate updatedAt;

    HALVO_RECORD(KeepAliveState, pid, appPath, clean, commitmentUntil, ultraHard, appReleased,
                 bypassNoted, updatedAt)

    static constexpr bool mayBeMissing(std::string_view key) {
        return key == "appReleased" || key == "bypassNoted";
    }

    static constexpr const char* fileName = "keepalive.json";

    // `fileName` in the app group's container, whose path is cached at the first call.
    static const SharedFile<KeepAliveState>& file();

    // Whether to open the app again, which does not run at `date`: it did not end cleanly, and a
    // commitment runs past `date`.
    [[nodiscard]] bool shouldRelaunch(WallDate date) const;

    // Whether Ultra Hard mode was bypassed, given that the app did not run until `date`: it did not
    // end cleanly, was not relaunched by the agent, and last wrote this record while the commitment
    // ran, more than two minutes before `date`.
    [[nodiscard]] bool wasBypassed(bool relaunchedByAgent, WallDate date) const;

    // Whether the app at the path `fromBin` may be opened: from the Trash, a path that contains
    // "/.Trash/", only while Ultra Hard mode holds it.
    [[nodiscard]] bool mayOpen(const std::string& fromBin) const;
};

}  // namespace halvo
