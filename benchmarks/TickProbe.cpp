// The engine on the live system, ticking between marks that a trace of its system calls shows:
// access(2) to "/mark/NAME" and "/mark/end/ALLOCATIONS", which do not exist. Usage: TickProbe
// BUNDLE UID

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "HalvoHelper/LiveSessionProbe.hpp"
#include "HalvoHelperCore/ChflagsFileFlags.hpp"
#include "HalvoHelperCore/FileCommitmentStore.hpp"
#include "HalvoHelperCore/HelperEngine.hpp"
#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "HalvoPlatform/Fatal.hpp"
#include "tests/Support/MallocCount.hpp"

namespace {

using namespace halvo;

// The app runs all the time, so it must not be opened.
class NoOpener final : public AppOpener {
  public:
    void open(const std::string&, std::uint32_t, bool) override {
        fatal("the engine opens an app that runs");
    }
};

void traced(HelperEngine& engine, const std::string& name) {
    access(("/mark/" + name).c_str(), F_OK);
    const std::size_t before = testing::mallocsMade();
    engine.tick();
    const std::size_t allocations = testing::mallocsMade() - before;
    access(("/mark/end/" + std::to_string(allocations)).c_str(), F_OK);
}

void outlastSilence() { std::this_thread::sleep_for(HelperEngine::Timing::silence + Seconds{0.2}); }

}  // namespace

int main(int count, char** words) {
    if (count != 3) {
        return EXIT_FAILURE;
    }
    const HelperPeer app{static_cast<std::uint32_t>(std::strtoul(words[2], nullptr, 10)),
                         std::string(words[1])};
    SystemHelperClock clock;
    ChflagsFileFlags flags(ItemFlag::systemImmutable);
    FileCommitmentStore store("/tmp/TickProbe");
    const auto session = makeLiveSessionProbe();
    NoOpener opener;
    HelperEngine engine(clock, flags, store, *session, opener);
    engine.startup();
    const WallDate now = wallNow();
    if (!engine.begin(*app.bundlePath, now + std::chrono::hours{1}, now, app) ||
        flags.state(*app.bundlePath) != LockState::locked) {
        fatal("the engine does not hold and lock the app");
    }
    engine.tick();
    engine.heartbeat(false, app);
    traced(engine, "quiet");
    traced(engine, "quiet");
    // Silent, the app is looked for. The first time, the place of its executable is looked up.
    outlastSilence();
    traced(engine, "first-search");
    outlastSilence();
    traced(engine, "search");
    const bool stillLocked = flags.state(*app.bundlePath) == LockState::locked;
    engine.end(app);
    return stillLocked ? EXIT_SUCCESS : EXIT_FAILURE;
}
