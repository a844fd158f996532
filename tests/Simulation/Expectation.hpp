// What must be so, told from the rules and not from the engine.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>

#include "HalvoHelperCore/HelperEngine.hpp"
#include "tests/Support/SimulatedWorld.hpp"

namespace halvo::testing {

// The commitment that must be held, with both budgets counted down as time passes.
struct ExpectedCommitment {
    std::string appPath;
    std::uint32_t uid{};
    WallDate startedWall;
    Seconds remaining{};
    Seconds cap{};
    bool locked{};

    [[nodiscard]] Seconds left() const { return std::min(remaining, cap); }

    [[nodiscard]] bool isLive() const { return left() > Seconds{0}; }

    // Whether `record`, as of `now`, is this commitment with this time left. Its lock is not
    // looked at.
    [[nodiscard]] bool matches(const HelperCommitment& record, const ClockReading& now) const;
};

// What a stored record is worth at `now`: within one boot the time since its checkpoint is charged.
// After a reboot it is the larger of what the wall clock says and the time that the machine has
// been up, and a day after the start by the wall clock everything is over.
ExpectedCommitment worthOf(const HelperCommitment& record, const ClockReading& now);

struct BeginRequest {
    std::string appPath;
    WallDate until;
    WallDate started;
    HelperPeer peer;
};

// Follows an engine through its operations and says what each must bring about. Reads the world as
// it is before the operation. Every time is exact: spans are multiples of an eighth of a second.
class Expectation {
  public:
    explicit Expectation(const SimulatedWorld& world) : world_(world) {}

    std::optional<ExpectedCommitment> held;
    std::optional<HelperEngine::Lift> lastLift;

    // Time passes within one boot, whether or not an engine runs.
    void timePasses(Seconds span);

    // The operations, with their replies.
    void startup();
    bool begin(const BeginRequest& request);
    bool end(std::uint32_t uid);
    bool heartbeat(bool sessionEnding, std::uint32_t uid);
    // What must be opened.
    std::optional<Opening> tick();
    int terminate();
    [[nodiscard]] HelperStatus status(std::uint32_t uid) const;

  private:
    void lift(HelperEngine::Lift reason);
    bool wouldLock(const std::string& path) const;
    std::optional<Opening> openingDue();
    bool isAnnounced();

    [[nodiscard]] Seconds now() const { return world_.clock.now().sinceBoot; }

    const SimulatedWorld& world_;

    // A flag that the operation clears before it looks at the flags again.
    std::string unlockedPath_;

    // When each thing that keeps the app from being opened last happened.
    Seconds started_{};
    std::optional<Seconds> heard_;
    std::optional<Seconds> seen_;
    std::optional<Seconds> opened_;
    std::optional<Seconds> announced_;
    std::optional<std::uint32_t> console_;
    Seconds consoleSince_{};
};

}  // namespace halvo::testing
