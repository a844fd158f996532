// The engine on the live system, ticking between marks that a trace of its system calls shows:
// access(2) to "/mark/NAME" and "/mark/end", which do not exist. Prints a line "NAME ALLOCATIONS"
// for each. Usage: TickProbe BUNDLE UID

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
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

void traced(HelperEngine& engine, const char* name) {
    const std::string mark = std::string("/mark/") + name;
    const std::size_t before = testing::mallocsMade();
    access(mark.c_str(), F_OK);
    engine.tick();
    access("/mark/end", F_OK);
    std::printf("%s %zu\n", name, testing::mallocsMade() - before);
}

void outlastSilence() { std::this_thread::sleep_for(HelperEngine::Timing::silence + Seconds{0.2}); }

}  // namespace

int main(int count, char** words) {
    if (count != 3) {
        return EXIT_FAILURE;
    }
    // printf(3) makes its buffer at first use, which must not count.
    std::printf("started %d\n", 0);
    const HelperPeer app{static_cast<std::uint32_t>(std::strtoul(words[2], nullptr, 10)),
                         std::string(words[1])};
    SystemHelperClock clock;
    ChflagsFileFlags flags(ItemFlag::systemImmutable);
    FileCommitmentStore store("/tmp/TickProbe");
    LiveSessionProbe session;
    NoOpener opener;
    HelperEngine engine(clock, flags, store, session, opener);
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
