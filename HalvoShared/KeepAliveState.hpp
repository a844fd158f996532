// What the app leaves behind about itself, for whoever finds it gone.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/JSON.hpp"
#include "HalvoShared/SharedFile.hpp"

namespace halvo {

struct KeepAliveState {
    // The app's process that wrote this.
    std::int32_t pid{};
    // The bundle that it ran from.
    std::string appPath;
    // Whether its last run ended as it should.
    bool clean{};
    // The end of the commitment that runs; absent when none does.
    std::optional<WallDate> commitmentUntil;
    // Whether Ultra Hard mode was on.
    bool ultraHard{};
    // Whether the app was released from Ultra Hard mode's hold. False in files from before this
    // was recorded.
    bool appReleased{};
    // Whether a bypass was noted for this commitment already. False in files from before this was
    // recorded.
    bool bypassNoted{};
    // When this was written.
    WallDate updatedAt;

    HALVO_RECORD(KeepAliveState, pid, appPath, clean, commitmentUntil, ultraHard, appReleased,
                 bypassNoted, updatedAt)
    static constexpr auto mayBeMissing =
        std::to_array<std::string_view>({"appReleased", "bypassNoted"});

    static constexpr const char* fileName = "keepalive.json";

    // `fileName` in the app group's container as that was at the first call.
    static const SharedFile<KeepAliveState>& file();

    // Whether the app, found gone at `date`, is to be opened again: it did not end as it should,
    // and a commitment runs past `date`.
    [[nodiscard]] bool shouldRelaunch(WallDate date) const;

    // Whether the app, found gone at `date`, was got rid of to escape Ultra Hard mode: it did not
    // end as it should, nobody opened it again on purpose, and while the commitment ran it was
    // silent for more than two minutes.
    [[nodiscard]] bool wasBypassed(bool relaunchedByAgent, WallDate date) const;

    // Whether the app at the path `fromBin` may be opened. From the Trash only while Ultra Hard
    // mode holds it. Looks at the text alone, for "/.Trash/".
    [[nodiscard]] bool mayOpen(const std::string& fromBin) const;
};

}  // namespace halvo
