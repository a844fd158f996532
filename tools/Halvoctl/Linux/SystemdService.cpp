#include "tools/Halvoctl/Linux/SystemdService.hpp"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

#include "HalvoClient/BusCall.hpp"
#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "tools/HalvoRecords/TerminalText.hpp"

namespace halvo::control {
namespace {

using records::printable;
// Errors are sentences without a full stop.
using Done = std::expected<void, std::string>;
using UnitsOrError = std::expected<Units, std::string>;

// A connection to systemd with one deadline for all calls. After the first failure no call is made,
// and every result is empty.
class Connection {
  public:
    Connection(const BusAddress& address, Seconds limit) : deadline_(deadlineAfter(limit)) {
        auto socket = connectToHelper(address.path, deadline_);
        auto bus = socket ? openBus(std::move(*socket)) : std::unexpected(socket.error());
        check(bus ? 0 : -bus.error());
        bus_ = bus ? std::move(*bus) : nullptr;
        if (address.isBroker) {
            call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello");
        }
    }

    // The first failure, as a sentence without a full stop; empty without one.
    [[nodiscard]] const std::string& problem() const { return problem_; }

    [[nodiscard]] Seconds left() const { return deadline_ - sinceBoot(); }

    // Returns the property `name`, a list of strings, of `unit`; `kind` is the interface that has
    // it. With the `type` "s" the property is one string.
    std::vector<std::string> strings(const std::string& unit, const std::string& kind,
                                     const char* name, const char* type = "as") {
        char* path = nullptr;
        sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit.c_str(), &path);
        const std::unique_ptr<char, decltype(&std::free)> owner(path, &std::free);
        const BusMessage reply = call(systemd, path, "org.freedesktop.DBus.Properties", "Get",
                                      (systemd + ("." + kind)).c_str(), name);
        check(sd_bus_message_enter_container(reply.get(), 'v', type));
        if (*type == 'a') {
            check(sd_bus_message_enter_container(reply.get(), 'a', "s"));
        }
        std::vector<std::string> found;
        for (const char* each = nullptr; sd_bus_message_read(reply.get(), "s", &each) > 0;) {
            found.emplace_back(each);
        }
        return found;
    }

    std::string string(const std::string& unit, const std::string& kind, const char* name) {
        const auto found = strings(unit, kind, name, "s");
        return found.empty() ? "" : found.front();
    }

    // Calls `method` of the manager, StopUnit or StartUnit, for `unit`.
    void startJob(const char* method, const std::string& unit) {
        call(systemd, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager", method,
             unit.c_str(), "replace");
    }

  private:
    static constexpr const char* systemd = "org.freedesktop.systemd1";

    // Takes the result of a function of libsystemd. All of them refuse the null pointers that
    // earlier failures leave.
    void check(int result) {
        if (result < 0 && problem_.empty()) {
            problem_ = "systemd does not answer: " + errorText(-result);
        }
    }

    // Calls `member`, with two strings unless they are null, and returns the reply; null after a
    // failure.
    BusMessage call(const char* destination, const char* path, const char* interface,
                    const char* member, const char* first = nullptr, const char* second = nullptr) {
        sd_bus_message* raw = nullptr;
        check(
            sd_bus_message_new_method_call(bus_.get(), &raw, destination, path, interface, member));
        const BusMessage request(raw);
        check(sd_bus_message_append(raw, first == nullptr ? "" : "ss", first, second));
        if (!problem_.empty()) {
            return nullptr;
        }
        auto reply = callWithin(deadline_, *bus_, *request);
        if (!reply) {
            check(reply.error() == ETIMEDOUT ? -ETIMEDOUT : -ECONNRESET);
            return nullptr;
        }
        if (const sd_bus_error* error = sd_bus_message_get_error(reply->get())) {
            problem_ = printable(error->message != nullptr ? error->message : error->name);
            return nullptr;
        }
        return std::move(*reply);
    }

    Deadline deadline_;
    BusHandle bus_;
    std::string problem_;
};

// Reads those of the helper `helper`.
UnitsOrError readUnits(Connection systemd, const std::string& helper) {
    const auto unit = [&](const std::string& name, const char* kind) -> Unit {
        return {.name = name,
                .load = systemd.string(name, "Unit", "LoadState"),
                .active = systemd.string(name, "Unit", "ActiveState"),
                .enabled = systemd.string(name, "Unit", "UnitFileState"),
                .result = systemd.string(name, kind, "Result"),
                .sub = systemd.string(name, "Unit", "SubState")};
    };
    Units units{unit(helper + ".socket", "Socket"),
                unit(helper + ".service", "Service"),
                unit(helper + "-resume.service", "Service"),
                {}};
    const std::string& service = units.service.name;
    if (systemd.string(service, "Service", "ProtectSystem") == "strict") {
        units.writable = systemd.strings(service, "Service", "ReadWritePaths");
        for (std::string& folder : *units.writable) {
            folder.erase(0, folder.find_first_not_of("-+"));
        }
    }
    if (!systemd.problem().empty()) {
        return std::unexpected(systemd.problem());
    }
    return units;
}

class SystemdService final : public Service {
  public:
    SystemdService(const Machine& machine, std::optional<BusAddress> bus, Seconds limit)
        : machine_(machine), bus_(std::move(bus)), limit_(limit) {
        startCommand = bus_ ? "systemctl start " + service_ : machine.helper;
        restartCommand = bus_ ? "systemctl restart " + service_ : "";
        releaseLock = "/run/" + helper_ + ".release.lock";
    }

    std::string whatStarts() override {
        if (!bus_) {
            return "nothing starts it, since systemd does not run here; start it by hand: " +
                   machine_.helper;
        }
        if (!units()) {
            return "nothing is known of what starts it: " + units().error();
        }
        if (units()->service.isRestarting()) {
            return "it starts again in a moment, since it ended (" + units()->service.result +
                   "); if it stays so: journalctl --unit=" + service_;
        }
        if (!units()->socket.isActive()) {
            return "nothing starts it, since " + socket_ +
                   " is not active: systemctl enable --now " + socket_;
        }
        return units()->resume.enabled == "enabled"
                   ? "it starts when the app calls, and at boot while a commitment is stored"
                   : "it starts when the app calls";
    }

    Done stop() override {
        if (!units()) {
            return std::unexpected(units().error() + ". Try again when systemd answers.");
        }
        // The socket too: the app calls every 2 seconds, which would start the service again.
        std::vector<std::string> names;
        for (const Unit& unit : {units()->socket, units()->service}) {
            if (unit.isLoaded() || unit.isUp()) {
                names.push_back(unit.name);
            }
        }
        // systemd kills the service if it has not ended in time.
        const Done stopped =
            names.empty() ? Done()
                          : run("StopUnit", names, Seconds{30},
                                "Waiting for systemd to stop the helper, at most 30 seconds.");
        if (!stopped) {
            return std::unexpected("systemd did not stop the helper: " + stopped.error() +
                                   ". Look into systemctl status " + service_ + ", and try again.");
        }
        // Helpers that were started by hand.
        return endAll(machine_.processes, machine_.waiter);
    }

    std::expected<std::string, std::string> resume() override {
        const Unit socket = units().value_or(Units{}).socket;
        if (!socket.isLoaded()) {
            return socket.isUp() ? "The app cannot call the helper any more: " + socket_ + " is " +
                                       socket.load + ", and was stopped."
                                 : "";
        }
        if (!socket.isActive()) {
            return "The app cannot call the helper: " + socket_ +
                   " was already stopped, and stays stopped. To start it: systemctl start " +
                   socket_;
        }
        const Done started =
            run("StartUnit", {socket_}, Seconds{10},
                "Waiting for systemd to start the helper's socket, at most 10 seconds.");
        if (!started) {
            return std::unexpected("The helper's socket could not be started again: " +
                                   started.error() + ". Start it: systemctl start " + socket_);
        }
        return "";
    }

    // Outside of these the unit's sandbox prevents locking.
    std::vector<std::string> otherApplications() override {
        auto folders = units().value_or(Units{}).writable;
        if (!folders) {
            return Service::otherApplications();
        }
        for (std::string& each : *folders) {
            each += each.ends_with("/Applications") ? "" : "/Applications";
        }
        return *folders;
    }

    Checks examine() override {
        const std::string folder = folderOf(machine_.helper);
        Checks checks{isNotApplicable("systemd", "does not run here; start the helper by hand: " +
                                                     printable(machine_.helper))};
        if (bus_) {
            checks = units() ? checkUnits(*units()) : Checks{noAnswer("systemd")};
        }
        checks.insert(
            checks.begin(),
            checkHelperFiles({machine_.helper, folder + "/halvoctl", folder + "/Info.plist"}, "/",
                             "A user who can change the helper can become root."));
        checks.push_back(checkSocket(
            HelperBus::socketPath(helper_), bus_ || !machine_.processes.running().empty(),
            bus_ ? "systemctl restart " + socket_ : "Stop the helper and start it again."));
        checks.push_back(checkOptionalSocket(
            "log", "/run/systemd/journal/socket", "journalctl SUBSYSTEM=app.halvo CATEGORY=Helper",
            "there is no journal; the helper writes to its standard error"));
        return checks;
    }

    Checks examineApp(const std::string& app) override {
        Checks checks = checkAppFiles(app);
        const bool mayLock = prctl(PR_CAPBSET_READ, CAP_LINUX_IMMUTABLE, 0, 0, 0) == 1;
        checks.push_back(checkFlagSupport(app, !machine_.isRoot || mayLock));
        // Other paths are a problem of the app's place.
        if (bus_ && AppLocation::isLockablePath(app)) {
            checks.push_back(units() ? checkSandbox(*units(), app) : noAnswer("sandbox"));
        }
        return checks;
    }

    Checks examineSession(std::uint32_t uid) override {
        return {checkOptionalSocket(
            "user manager", "/run/user/" + std::to_string(uid) + "/systemd/private",
            "their systemd --user instance runs, and opens the app",
            "they have no systemd --user instance; the helper opens the app itself")};
    }

  private:
    // Empty without systemd.
    const UnitsOrError& units() {
        if (!units_) {
            units_ = bus_ ? readUnits(Connection(*bus_, limit_), helper_) : Units{};
        }
        return *units_;
    }

    Check noAnswer(const char* name) {
        return isProblem(name, units().error(), "Look whether systemctl works at all.");
    }

    // Calls `method` of the manager, StopUnit or StartUnit, for the units `names`, and waits until
    // they are inactive, or active: at most for `limit`; prints `line` after a second.
    Done run(const char* method, const std::vector<std::string>& names, Seconds limit,
             const std::string& line) {
        Connection systemd(bus_.value_or(BusAddress{}), limit);
        for (const std::string& name : names) {
            systemd.startJob(method, name);
        }
        Unit unit;
        const auto areDone = [&] {
            return std::ranges::all_of(names, [&](const std::string& name) {
                unit.active = systemd.string(name, "Unit", "ActiveState");
                const bool isDone =
                    method == std::string("StopUnit") ? !unit.isUp() : unit.active == "active";
                return isDone || !systemd.problem().empty();
            });
        };
        // Leaves time for the last reply.
        constexpr Seconds lastReply{0.2};
        const bool isOver = machine_.waiter.wait(areDone, systemd.left() - lastReply, line);
        if (!systemd.problem().empty()) {
            return std::unexpected(systemd.problem());
        }
        if (!isOver) {
            return std::unexpected("it takes too long, and is still " + printable(unit.active));
        }
        return {};
    }

    const Machine& machine_;
    std::optional<BusAddress> bus_;
    Seconds limit_;
    std::string helper_ = machine_.identity.helperBundleID();
    std::string socket_ = helper_ + ".socket";
    std::string service_ = helper_ + ".service";
    std::optional<UnitsOrError> units_;
};

}  // namespace

std::unique_ptr<Service> systemdService(const Machine& machine, std::optional<BusAddress> bus,
                                        Seconds limit) {
    return std::make_unique<SystemdService>(machine, std::move(bus), limit);
}

// As systemctl(1) does: root talks to systemd itself, which needs no broker.
std::unique_ptr<Service> liveService(const Machine& machine) {
    const BusAddress bus = machine.isRoot ? BusAddress{"/run/systemd/private", false}
                                          : BusAddress{"/run/dbus/system_bus_socket", true};
    return systemdService(machine, sd_booted() > 0 ? std::optional(bus) : std::nullopt);
}

}  // namespace halvo::control
