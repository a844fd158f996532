// An engine in a simulated world, through events that nobody would think of.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/Simulation/Expectation.hpp"
#include "tests/Simulation/Random.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {

// Something that must always be so was not. The text says what, and what happened before.
struct Violation : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// How much came up in one or more runs, so that nobody takes an idle simulation for a good one.
using Tally = std::map<std::string, std::size_t>;

// One run: a sequence of events that its seed decides, with everything that must hold checked after
// each of them. Every second seed is one of foul weather, in which the store and the flags fail
// too.
//
// Two people begin, extend, end and quit; both clocks and the console do what they do; the flag is
// set and cleared by others; bundles come and go; the helper is terminated, killed between any two
// calls of a collaborator, and started again; the machine is rebooted and cut off from power.
class EngineSimulation {
  public:
    EngineSimulation(std::uint64_t seed, const TemporaryFolder& disk, Tally& tally);

    // Throws Violation. Returns the hash of everything that happened, down to each call and
    // message.
    std::uint64_t run();

  private:
    // Events.
    void happen();
    void happenWithoutEngine();
    void happenToEngine();
    void happenToWorld();
    void pass(Seconds span);
    void tick();
    void begin();
    bool expectBegin(const BeginRequest& request);
    void end();
    void heartbeat();
    void terminate();
    void kill();
    void restart();
    void powerCut();
    void setWallClock();
    void setFlagByHand();
    void clearFlagByHand();
    void moveBundle();
    void switchConsole();
    void startOrQuitApp();
    void changeWeather();
    void damageFile();

    // A flag as it was, and whether anybody had set it with the promise to clear it.
    struct Flag {
        bool isSet{};
        bool isOwed{};
    };

    // Runs `actual` on the engine, which must give what `expected` gives. Now and then it is broken
    // off at some call of a collaborator.
    template <class Expected, class Actual>
    void operate(const std::string& what, Expected expected, Actual actual);
    [[nodiscard]] std::map<std::string, Flag> flagsNow() const;
    void followFlags(const std::map<std::string, Flag>& before);
    void breakOff(const std::optional<ExpectedCommitment>& before,
                  const std::optional<ExpectedCommitment>& after);

    // What must hold.
    void check();
    void checkCommitment();
    void checkFlags();
    void checkDay();
    void checkDisk();
    void checkTerminated();
    void checkForeignFlags();
    void checkOwed(const std::string& path);
    void require(bool condition, const std::string& what);

    // Notes an event for the report, the tally and the hash.
    void note(const std::string& event);
    void hash(const std::string& text);
    void absorbTrace();

    [[nodiscard]] bool owes(const std::string& path) const;
    [[nodiscard]] std::optional<ExpectedCommitment> onDisk() const;

    [[nodiscard]] const ClockReading& now() const { return world_.clock.now(); }

    [[nodiscard]] Seconds eighths(std::size_t limit);
    [[nodiscard]] std::string anyBundle();
    [[nodiscard]] std::uint32_t anybody();

    std::uint64_t seed_;
    Random random_;
    Tally& tally_;
    bool isFoul_;
    LogCapture log_;
    SimulatedWorld world_;
    std::vector<std::string> bundles_;
    std::optional<HelperEngine> engine_;
    Expectation expectation_{world_};

    // Flags that others set while nobody owed them: nobody may clear them but others.
    std::set<std::string> foreign_;
    // Flags that are set because the helper set them.
    std::set<std::string> ours_;

    // Of the commitment since its first begin: how long it has run, by the clock that counts from
    // boot, at most as much as was lost with the power; and how old it was when it began.
    std::optional<Seconds> age_;

    std::uint64_t trace_ = 0xCBF29CE484222325U;
    std::deque<std::string> recent_;
    std::size_t events_ = 0;
};

}  // namespace halvo::testing
