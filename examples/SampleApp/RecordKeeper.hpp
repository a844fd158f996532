// What the app leaves in the files that it shares with its widgets, and with whoever finds it gone.
#pragma once

#include <optional>
#include <string>

#include "HalvoHelperCore/HelperStatus.hpp"
#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/KeepAliveState.hpp"
#include "HalvoShared/WidgetSnapshot.hpp"

namespace halvo {

// What the widgets show of a commitment that this app knows of since `since`, or of none.
WidgetSnapshot snapshotOf(const HelperStatus& status, WallDate since, WallDate now);

// Keeps both files up to date. One thread at a time.
class RecordKeeper {
  public:
    // For the app in the bundle `appPath`. Writes nothing yet.
    RecordKeeper(SharedFile<KeepAliveState> keepAlive, SharedFile<WidgetSnapshot> widgets,
                 std::string appPath);

    // The app lives, and the helper says `status`. Writes what has changed since the last call, and
    // the keep-alive record at least every half minute. Gives a sentence for the person when a file
    // cannot be written, once for as long as the reason stays the same.
    std::optional<std::string> update(const HelperStatus& status, WallDate now);

    // The app ends as it should. As update(), if that ever wrote anything.
    std::optional<std::string> end(WallDate now);

  private:
    std::optional<std::string> write(WallDate now);

    SharedFile<KeepAliveState> keepAliveFile_;
    SharedFile<WidgetSnapshot> widgetsFile_;
    KeepAliveState keepAlive_;
    HelperStatus status_;
    // Since when something holds, or nothing.
    WallDate since_;
    // When both files were last written; absent when they are yet to be.
    std::optional<WallDate> writtenAt_;
    // What was last said.
    std::string trouble_;
};

}  // namespace halvo
