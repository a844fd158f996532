// systemd, asked over D-Bus; org.freedesktop.systemd1(5).
#pragma once

#include <expected>
#include <string>
#include <vector>

#include "HalvoHelperCore/HelperIdentity.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {

// The names of the helper's units.
std::string socketUnit(const HelperIdentity& identity);
std::string serviceUnit(const HelperIdentity& identity);
// Starts the service at boot while a commitment is stored.
std::string resumeUnit(const HelperIdentity& identity);

struct Unit {
    // "loaded", "not-found", "masked", ...
    std::string load;
    // "active", "inactive", "failed", ...
    std::string active;
    // "enabled", "disabled", "static", ...; empty when there is no file.
    std::string enabled;
    // "success", or why it failed.
    std::string result;
    // "running", "listening", "auto-restart", ...
    std::string sub;

    [[nodiscard]] bool isLoaded() const { return load == "loaded"; }

    // It runs, or is about to.
    [[nodiscard]] bool isActive() const { return active == "active" || active == "activating"; }

    // There is something to stop, also of a unit whose file is gone or masked since it was started.
    [[nodiscard]] bool isUp() const {
        return !active.empty() && active != "inactive" && active != "failed";
    }

    // It ended, and systemd starts it again in a moment; active too.
    [[nodiscard]] bool isRestarting() const { return sub.starts_with("auto-restart"); }

    bool operator==(const Unit&) const = default;
};

// What the service's unit says of files; systemd.exec(5). A unit that is not loaded says nothing.
struct Sandbox {
    // ProtectSystem=strict: all is read-only but for `writable`.
    bool isStrict{};
    // The folders of ReadWritePaths=, without the "-" and "+" in front.
    std::vector<std::string> writable;

    bool operator==(const Sandbox&) const = default;
};

// The helper's units.
struct Units {
    Unit socket;
    Unit service;
    Unit resume;
    Sandbox sandbox;
};

class Systemd {
  public:
    virtual ~Systemd() = default;

    // The units of `identity`. Takes at most 10 seconds. Fails with a sentence without a full stop.
    virtual std::expected<Units, std::string> units(const HelperIdentity& identity) = 0;

    // Stops, or starts, the units called `names`, and waits until they are inactive, or active: at
    // most for `limit`; says `line` when that takes a second. Fails with a sentence without a full
    // stop.
    virtual std::expected<void, std::string> stop(const std::vector<std::string>& names,
                                                  Seconds limit, const std::string& line) = 0;
    virtual std::expected<void, std::string> start(const std::vector<std::string>& names,
                                                   Seconds limit, const std::string& line) = 0;
};

// A bus on which systemd is reached.
struct BusAddress {
    // As sd_bus_set_address(3) takes it.
    std::string address;
    // A message broker's; else systemd itself is the other side.
    bool isBroker{};
};

// The machine's own. Connects for each call.
class LiveSystemd final : public Systemd {
  public:
    // Borrows `waiter`. `buses`: those to try, in order. By default for root systemd's own socket,
    // which needs no broker, and then the system bus.
    explicit LiveSystemd(Waiter& waiter);
    LiveSystemd(Waiter& waiter, std::vector<BusAddress> buses, Seconds limit);

    std::expected<Units, std::string> units(const HelperIdentity& identity) override;
    std::expected<void, std::string> stop(const std::vector<std::string>& names, Seconds limit,
                                          const std::string& line) override;
    std::expected<void, std::string> start(const std::vector<std::string>& names, Seconds limit,
                                           const std::string& line) override;

  private:
    // Calls `method` of systemd's manager for each unit, and waits until all are as `isDone` wants.
    std::expected<void, std::string> change(const char* method,
                                            const std::vector<std::string>& names,
                                            bool (*isDone)(const Unit& unit), Seconds limit,
                                            const std::string& line);

    Waiter& waiter_;
    std::vector<BusAddress> buses_;
    Seconds limit_;
};

}  // namespace halvo::control
