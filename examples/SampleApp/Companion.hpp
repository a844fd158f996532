// The app while it runs: keeps the helper company for as long as a commitment holds.
#pragma once

#include <optional>
#include <string>

#include "HalvoClient/BusCall.hpp"
#include "HalvoClient/HelperClient.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Time.hpp"
#include "examples/SampleApp/Arguments.hpp"
#include "examples/SampleApp/Display.hpp"
#include "examples/SampleApp/RecordKeeper.hpp"

namespace halvo {

// How fast the app lives.
struct Pace {
    // Well below the silence after which the helper looks whether the app runs.
    Seconds heartbeat{2};
    // A helper that is slower than this is tried again at the next heartbeat.
    Seconds heartbeatLimit{2};
    // How long the app stays when nothing holds any more, so that what it says can be read.
    Seconds lingering{10};
    // How long it looks for a helper of which it knows nothing yet.
    Seconds searching{60};
};

// Begins a commitment if asked to, then sends heartbeats and shows what holds.
// It has no way to end a commitment. While it stays it keeps the records that others of the app's
// processes read. Takes SIGINT, SIGTERM and SIGHUP for itself when it is made, which must be before
// any thread is. Borrows the client, the display and the records.
class Companion {
  public:
    Companion(HelperClient& client, Display& display, RecordKeeper& records, std::string appPath,
              Pace pace = {});

    // Returns the process's exit status once nothing holds any more, a signal came, or the helper
    // could not be asked to begin with.
    int run(const Arguments& arguments);

  private:
    enum class Next { Stay, Leave };

    HelperClient::Result<HelperStatus> begin(Seconds span);
    int stay();
    // One heartbeat, and what follows from its answer.
    Next beat();
    void holds(const HelperStatus& status);
    Next isOver();
    Next isInTrouble(const HelperFailure& failure);
    void refresh();
    void sayIfAny(const std::optional<std::string>& trouble);
    // Waits for a signal until `until`; zero when there was none.
    [[nodiscard]] int waitForSignal(Deadline until) const;
    void leave(int signal);

    HelperClient& client_;
    Display& display_;
    RecordKeeper& records_;
    std::string appPath_;
    Pace pace_;
    Descriptor signals_;
    int exitStatus_ = 0;

    HelperStatus shown_;
    // What is the matter with the helper, as it was last said.
    std::string trouble_;
    // Nothing holds any more, and the person has been told.
    bool over_ = false;
    // For how long a session that closes counts as one that was open just now.
    Deadline wasOpenUntil_;
    // When the app ends by itself, unless a helper that is there says that something holds.
    Deadline leavingAt_;
};

}  // namespace halvo
