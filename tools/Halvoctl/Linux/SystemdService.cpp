#include "tools/Halvoctl/Linux/SystemdService.hpp"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

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
using Done = std::expected<void, std::string>;

// One conversation with systemd, which ends by its deadline. After a failure nothing more is asked,
// and all that is told is empty.
class Conversation {
  public:
    // On the first of `buses` that answers.
    Conversation(const std::vector<BusAddress>& buses, Seconds limit)
        : deadline_(deadlineAfter(limit)) {
        for (const auto& [path, isBroker] : buses) {
            problem_.clear();
            auto socket = connectAsApp(path, deadline_);
            auto bus = socket ? openBus(std::move(*socket)) : std::unexpected(socket.error());
            note(bus ? 0 : -bus.error());
            bus_ = bus ? std::move(*bus) : nullptr;
            if (isBroker) {
                ask("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                    "Hello", "");
            }
            if (problem_.empty()) {
                return;
            }
        }
    }

    // What failed first, as a sentence without a full stop; empty where nothing did.
    [[nodiscard]] const std::string& problem() const { return problem_; }

    [[nodiscard]] Seconds left() const { return deadline_ - sinceBoot(); }

    // The list of texts that is the property `name` of the unit called `unit`, which the interface
    // of `kind` has; or the one text.
    std::vector<std::string> texts(const std::string& unit, const std::string& kind,
                                   const char* name, const char* type = "as") {
        char* path = nullptr;
        sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit.c_str(), &path);
        const std::unique_ptr<char, decltype(&std::free)> owner(path, &std::free);
        const BusMessage reply = ask(systemd, path, "org.freedesktop.DBus.Properties", "Get", "ss",
                                     (systemd + ("." + kind)).c_str(), name);
        note(sd_bus_message_enter_container(reply.get(), 'v', type));
        if (*type == 'a') {
            note(sd_bus_message_enter_container(reply.get(), 'a', "s"));
        }
        std::vector<std::string> found;
        for (const char* each = nullptr; sd_bus_message_read(reply.get(), "s", &each) > 0;) {
            found.emplace_back(each);
        }
        return found;
    }

    std::string text(const std::string& unit, const std::string& kind, const char* name) {
        const auto found = texts(unit, kind, name, "s");
        return found.empty() ? "" : found.front();
    }

    // Calls `method` of the manager for the unit `name`.
    void call(const char* method, const std::string& name) {
        ask(systemd, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager", method, "ss",
            name.c_str(), "replace");
    }

  private:
    static constexpr const char* systemd = "org.freedesktop.systemd1";

    // What a function of libsystemd gave, which refuses what an earlier one could not make.
    void note(int result) {
        if (result < 0 && problem_.empty()) {
            problem_ = "systemd does not answer: " + errorText(-result);
        }
    }

    // The reply to a call with arguments of `types`; null after a failure.
    template <typename... Arguments>
    BusMessage ask(const char* destination, const char* path, const char* interface,
                   const char* member, const char* types, Arguments... arguments) {
        sd_bus_message* raw = nullptr;
        note(
            sd_bus_message_new_method_call(bus_.get(), &raw, destination, path, interface, member));
        const BusMessage request(raw);
        note(sd_bus_message_append(raw, types, arguments...));
        if (!problem_.empty()) {
            return nullptr;
        }
        auto reply = callWithin(deadline_, *bus_, *request);
        if (!reply) {
            note(reply.error() == ETIMEDOUT ? -ETIMEDOUT : -ECONNRESET);
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

// Those of the helper called `helper`.
Answer readUnits(Conversation systemd, const std::string& helper) {
    const auto unit = [&](const std::string& name, const char* kind) -> Unit {
        return {.name = name,
                .load = systemd.text(name, "Unit", "LoadState"),
                .active = systemd.text(name, "Unit", "ActiveState"),
                .enabled = systemd.text(name, "Unit", "UnitFileState"),
                .result = systemd.text(name, kind, "Result"),
                .sub = systemd.text(name, "Unit", "SubState")};
    };
    Units units{unit(helper + ".socket", "Socket"),
                unit(helper + ".service", "Service"),
                unit(helper + "-resume.service", "Service"),
                {}};
    const std::string& service = units.service.name;
    if (systemd.text(service, "Service", "ProtectSystem") == "strict") {
        units.writable = systemd.texts(service, "Service", "ReadWritePaths");
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
    SystemdService(const Machine& machine, std::vector<BusAddress> buses, Seconds limit)
        : machine_(machine), buses_(std::move(buses)), limit_(limit) {
        startCommand = isBooted() ? "systemctl start " + service_ : machine.helper;
        restartCommand = isBooted() ? "systemctl restart " + service_ : "";
    }

    std::string whatStarts() override {
        if (!isBooted()) {
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
        // The socket with the service: the app calls every 2 seconds, which would start it again.
        std::vector<std::string> names;
        for (const Unit& unit : {units()->socket, units()->service}) {
            if (unit.isLoaded() || unit.isUp()) {
                names.push_back(unit.name);
            }
        }
        // systemd gives the service time to end, and kills it after that.
        const Done stopped =
            names.empty() ? Done()
                          : run("StopUnit", names, Seconds{30},
                                "Waiting for systemd to stop the helper, at most 30 seconds.");
        if (!stopped) {
            return std::unexpected("systemd did not stop the helper: " + stopped.error() +
                                   ". Look into systemctl status " + service_ + ", and try again.");
        }
        // One that was started by hand, or that runs where there is no systemd.
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
                   " was stopped before, and stays so. To start it: systemctl start " + socket_;
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

    // A helper in the unit's sandbox can lock nowhere else; else anywhere.
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
        Checks checks{isNotApplicable("systemd", "does not run here; start the helper by hand: " +
                                                     printable(machine_.helper))};
        if (isBooted()) {
            checks = checkUnits(units());
        }
        checks.push_back(checkSocket(
            HelperBus::socketPath(machine_.identity.helperBundleID()),
            isBooted() || !machine_.processes.running().empty(),
            isBooted() ? "systemctl restart " + socket_ : "Stop the helper and start it again."));
        checks.push_back(checkLog("/run/systemd/journal/socket"));
        return checks;
    }

    Checks examineApp(const std::string& app) override {
        Checks checks{checkAppFiles(app)};
        if (const auto gid = groupOfApp(app)) {
            const auto facts = readGroup(*gid);
            checks.push_back(facts ? checkGroup(*facts)
                                   : isProblem("app's group", printable(facts.error()),
                                               "The helper must read it too: mend that file."));
        }
        const bool mayLock = prctl(PR_CAPBSET_READ, CAP_LINUX_IMMUTABLE, 0, 0, 0) == 1;
        checks.push_back(checkFlagSupport(app, !machine_.isRoot || mayLock));
        // Of what it does not lock anywhere, the app's place says so.
        if (isBooted() && AppLocation::isLockablePath(app)) {
            checks.push_back(checkSandbox(units(), app));
        }
        return checks;
    }

    Checks examineSession(std::uint32_t uid) override {
        return {checkUserManager("/run/user/" + std::to_string(uid) + "/systemd/private")};
    }

  private:
    [[nodiscard]] bool isBooted() const { return !buses_.empty(); }

    // Empty ones where systemd does not run.
    const Answer& units() {
        if (!units_) {
            units_ = isBooted() ? readUnits(Conversation(buses_, limit_), helper_) : Units{};
        }
        return *units_;
    }

    // Calls `method` of the manager, StopUnit or StartUnit, for the units called `names`, and waits
    // until they are inactive, or active: at most for `limit`; says `line` when that takes a
    // second. Fails with a sentence without a full stop.
    Done run(const char* method, const std::vector<std::string>& names, Seconds limit,
             const std::string& line) {
        Conversation systemd(buses_, limit);
        for (const std::string& name : names) {
            systemd.call(method, name);
        }
        Unit unit;
        const auto areDone = [&] {
            return std::ranges::all_of(names, [&](const std::string& name) {
                unit.active = systemd.text(name, "Unit", "ActiveState");
                const bool isDone =
                    method == std::string("StopUnit") ? !unit.isUp() : unit.active == "active";
                return isDone || !systemd.problem().empty();
            });
        };
        // Leaves time for an answer to the last question.
        constexpr Seconds lastAnswer{0.2};
        const bool isOver = machine_.waiter.wait(areDone, systemd.left() - lastAnswer, line);
        if (!systemd.problem().empty()) {
            return std::unexpected(systemd.problem());
        }
        if (!isOver) {
            return std::unexpected("it takes too long, and is still " + printable(unit.active));
        }
        return {};
    }

    const Machine& machine_;
    std::vector<BusAddress> buses_;
    Seconds limit_;
    std::string helper_ = machine_.identity.helperBundleID();
    std::string socket_ = helper_ + ".socket";
    std::string service_ = helper_ + ".service";
    std::optional<Answer> units_;
};

}  // namespace

std::unique_ptr<Service> systemdService(const Machine& machine, std::vector<BusAddress> buses,
                                        Seconds limit) {
    return std::make_unique<SystemdService>(machine, std::move(buses), limit);
}

std::string releaseLockPath(const HelperIdentity& identity) {
    return "/run/" + identity.helperBundleID() + ".release.lock";
}

std::unique_ptr<Service> liveService(const Machine& machine) {
    if (sd_booted() <= 0) {
        return systemdService(machine, {});
    }
    // systemd's own socket needs no broker, and is root's.
    std::vector<BusAddress> buses{{"/run/dbus/system_bus_socket", true}};
    if (machine.isRoot) {
        buses.insert(buses.begin(), {"/run/systemd/private", false});
    }
    return systemdService(machine, std::move(buses));
}

}  // namespace halvo::control
