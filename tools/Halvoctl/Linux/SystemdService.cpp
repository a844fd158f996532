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
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::control {
namespace {

using records::printable;
using Done = std::expected<void, std::string>;

// One conversation with systemd, which ends by its deadline. After a failure nothing more is asked.
class Conversation {
  public:
    Conversation(const std::vector<BusAddress>& buses, Seconds limit)
        : deadline_(deadlineAfter(limit)) {
        for (const BusAddress& each : buses) {
            problem_.clear();
            connect(each);
            if (problem_.empty()) {
                return;
            }
        }
    }

    // What failed first, as a sentence without a full stop; empty where nothing did.
    [[nodiscard]] const std::string& problem() const { return problem_; }

    [[nodiscard]] Seconds left() const { return deadline_ - sinceBoot(); }

    // The property `name` of the unit called `unit`, which the interface of `kind` has; empty after
    // a failure.
    std::string text(const std::string& unit, const std::string& kind, const std::string& name) {
        const BusMessage reply = property(unit, kind, name);
        const char* value = "";
        ifWell([&] { return sd_bus_message_read(reply.get(), "v", "s", &value); });
        return value;
    }

    std::vector<std::string> texts(const std::string& unit, const std::string& kind,
                                   const std::string& name) {
        const BusMessage reply = property(unit, kind, name);
        ifWell([&] { return sd_bus_message_enter_container(reply.get(), 'v', "as"); });
        ifWell([&] { return sd_bus_message_enter_container(reply.get(), 'a', "s"); });
        std::vector<std::string> found;
        for (const char* each = nullptr; sd_bus_message_read(reply.get(), "s", &each) > 0;) {
            found.emplace_back(each);
        }
        return found;
    }

    // Calls `method` of the manager for the unit `name`.
    void call(const char* method, const std::string& name) {
        ask(systemd, "/org/freedesktop/systemd1", systemd + ".Manager", method, {name, "replace"});
    }

  private:
    static inline const std::string systemd = "org.freedesktop.systemd1";
    static inline const std::string broker = "org.freedesktop.DBus";

    void connect(const BusAddress& bus) {
        auto socket = connectAsApp(bus.path, deadline_);
        auto opened = socket ? openBus(std::move(*socket)) : std::unexpected(socket.error());
        if (!opened) {
            fail(opened.error());
            return;
        }
        bus_ = std::move(*opened);
        if (bus.isBroker) {
            ask(broker, "/org/freedesktop/DBus", broker, "Hello", {});
        }
    }

    // Makes a call of libsystemd, unless something has failed.
    template <typename Call>
    void ifWell(const Call& call) {
        if (const int result = problem_.empty() ? call() : 0; result < 0) {
            fail(-result);
        }
    }

    void fail(int code) { problem_ = "systemd does not answer: " + errorText(code); }

    BusMessage property(const std::string& unit, const std::string& kind, const std::string& name) {
        char* path = nullptr;
        sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit.c_str(), &path);
        const std::unique_ptr<char, decltype(&std::free)> owner(path, &std::free);
        return ask(systemd, path, broker + ".Properties", "Get", {systemd + "." + kind, name});
    }

    // The reply to a call with these texts; null after a failure.
    BusMessage ask(const std::string& destination, const char* path, const std::string& interface,
                   const char* member, const std::vector<std::string>& texts) {
        sd_bus_message* raw = nullptr;
        ifWell([&] {
            return sd_bus_message_new_method_call(bus_.get(), &raw, destination.c_str(), path,
                                                  interface.c_str(), member);
        });
        const BusMessage request(raw);
        for (const std::string& each : texts) {
            ifWell([&] { return sd_bus_message_append(raw, "s", each.c_str()); });
        }
        if (!problem_.empty()) {
            return nullptr;
        }
        auto reply = callWithin(deadline_, *bus_, *request);
        if (!reply) {
            fail(reply.error() == ETIMEDOUT ? ETIMEDOUT : ECONNRESET);
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

Unit readUnit(Conversation& systemd, const std::string& name, const char* kind) {
    return {.load = systemd.text(name, "Unit", "LoadState"),
            .active = systemd.text(name, "Unit", "ActiveState"),
            .enabled = systemd.text(name, "Unit", "UnitFileState"),
            .result = systemd.text(name, kind, "Result"),
            .sub = systemd.text(name, "Unit", "SubState")};
}

std::expected<Units, std::string> readUnits(Conversation systemd, const HelperIdentity& identity) {
    const std::string service = serviceUnit(identity);
    Units units{readUnit(systemd, socketUnit(identity), "Socket"),
                readUnit(systemd, service, "Service"),
                readUnit(systemd, resumeUnit(identity), "Service"),
                {systemd.text(service, "Service", "ProtectSystem") == "strict",
                 systemd.texts(service, "Service", "ReadWritePaths")}};
    for (std::string& folder : units.sandbox.writable) {
        folder.erase(0, folder.find_first_not_of("-+"));
    }
    if (!systemd.problem().empty()) {
        return std::unexpected(systemd.problem());
    }
    return units;
}

Done runJob(Conversation systemd, Waiter& waiter, Systemd::Job job,
            const std::vector<std::string>& names, const std::string& line) {
    const bool isStop = job == Systemd::Job::stop;
    for (const std::string& name : names) {
        systemd.call(isStop ? "StopUnit" : "StartUnit", name);
    }
    Unit unit;
    const auto areDone = [&] {
        return std::ranges::all_of(names, [&](const std::string& name) {
            unit.active = systemd.text(name, "Unit", "ActiveState");
            return !systemd.problem().empty() || (isStop ? !unit.isUp() : unit.active == "active");
        });
    };
    // Leaves time for an answer to the last question.
    constexpr Seconds lastAnswer{0.2};
    const bool isOver = waiter.wait(areDone, systemd.left() - lastAnswer, line);
    if (!systemd.problem().empty()) {
        return std::unexpected(systemd.problem());
    }
    if (!isOver) {
        return std::unexpected("it takes too long, and is still " + printable(unit.active));
    }
    return {};
}

class SystemdService final : public Service {
  public:
    SystemdService(ServiceParts parts, std::optional<Systemd> systemd)
        : parts_(std::move(parts)),
          systemd_(systemd ? std::make_unique<Systemd>(*std::move(systemd)) : nullptr) {}

    std::string whatStarts() override {
        if (!systemd_) {
            return "nothing starts it, since systemd does not run here; start it by hand: " +
                   parts_.executable;
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

    [[nodiscard]] std::string startCommand() const override {
        return systemd_ ? "systemctl start " + service_ : parts_.executable;
    }

    [[nodiscard]] std::string restartCommand() const override {
        return systemd_ ? "systemctl restart " + service_ : "";
    }

    Done stop() override {
        if (systemd_ && !units()) {
            return std::unexpected(units().error() + ". Try again when systemd answers.");
        }
        // The socket with the service: the app calls every 2 seconds, which would start it again.
        std::vector<std::string> names;
        for (const auto& [name, unit] :
             {std::pair{socket_, unitsOr().socket}, std::pair{service_, unitsOr().service}}) {
            if (unit.isLoaded() || unit.isUp()) {
                names.push_back(name);
            }
        }
        // systemd gives the service time to end, and kills it after that.
        Done stopped;
        if (!names.empty()) {
            stopped = systemd_->run(Systemd::Job::stop, names, Seconds{30},
                                    "Waiting for systemd to stop the helper, at most 30 seconds.");
        }
        if (!stopped) {
            return std::unexpected("systemd did not stop the helper: " + stopped.error() +
                                   ". Look into systemctl status " + service_ + ", and try again.");
        }
        // One that was started by hand, or that runs where there is no systemd.
        return endAll(parts_.processes, parts_.waiter);
    }

    std::expected<std::string, std::string> resume() override {
        const Unit socket = unitsOr().socket;
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
            systemd_->run(Systemd::Job::start, {socket_}, Seconds{10},
                          "Waiting for systemd to start the helper's socket, at most 10 seconds.");
        if (!started) {
            return std::unexpected("The helper's socket could not be started again: " +
                                   started.error() + ". Start it: systemctl start " + socket_);
        }
        return "";
    }

    // A helper in the unit's sandbox can lock nowhere else; else anywhere.
    std::vector<std::string> otherApplications() override {
        return lockableFolders(unitsOr().sandbox);
    }

    Checks examine() override {
        Checks checks{isNotApplicable("systemd", "does not run here; start the helper by hand: " +
                                                     printable(parts_.executable))};
        if (systemd_) {
            checks = checkUnits(parts_.identity, units());
        }
        checks.push_back(checkSocket(
            HelperBus::socketPath(parts_.identity.helperBundleID()),
            systemd_ || !parts_.processes.running().empty(),
            systemd_ ? "systemctl restart " + socket_ : "Stop the helper and start it again."));
        checks.push_back(checkLog("/run/systemd/journal/socket"));
        return checks;
    }

    Checks examineApp(const std::string& app, bool isRoot) override {
        Checks checks{checkAppFiles(app)};
        if (const auto gid = groupOfApp(app)) {
            const auto facts = readGroup(*gid);
            checks.push_back(facts ? checkGroup(*facts)
                                   : isProblem("app's group", printable(facts.error()),
                                               "The helper must read it too: mend that file."));
        }
        const bool mayLock = prctl(PR_CAPBSET_READ, CAP_LINUX_IMMUTABLE, 0, 0, 0) == 1;
        checks.push_back(checkFlagSupport(app, !isRoot || mayLock));
        // Of what it does not lock anywhere, the app's place says so.
        if (systemd_ && AppLocation::isLockablePath(app)) {
            checks.push_back(units() ? checkSandbox(parts_.identity, app, units()->sandbox)
                                     : noAnswer("sandbox", units().error()));
        }
        return checks;
    }

    Checks examineSession(std::uint32_t uid) override {
        return {checkUserManager("/run/user/" + std::to_string(uid) + "/systemd/private")};
    }

  private:
    // Not where systemd does not run.
    const std::expected<Units, std::string>& units() {
        if (!units_) {
            units_ = systemd_->units(parts_.identity);
        }
        return *units_;
    }

    // Of units of which nothing is known, nothing is said.
    Units unitsOr() { return systemd_ ? units().value_or(Units{}) : Units{}; }

    ServiceParts parts_;
    // Null where it does not run.
    std::unique_ptr<Systemd> systemd_;
    std::string socket_ = socketUnit(parts_.identity);
    std::string service_ = serviceUnit(parts_.identity);
    std::optional<std::expected<Units, std::string>> units_;
};

}  // namespace

Systemd liveSystemd(Waiter& waiter, const std::vector<BusAddress>& buses, Seconds limit) {
    return {[=](const HelperIdentity& identity) {
                return readUnits(Conversation(buses, limit), identity);
            },
            [=, &waiter](Systemd::Job job, const std::vector<std::string>& names, Seconds jobLimit,
                         const std::string& line) {
                return runJob(Conversation(buses, jobLimit), waiter, job, names, line);
            }};
}

std::unique_ptr<Service> systemdService(const ServiceParts& parts, std::optional<Systemd> systemd) {
    return std::make_unique<SystemdService>(parts, std::move(systemd));
}

std::string releaseLockPath(const HelperIdentity& identity) {
    return "/run/" + identity.helperBundleID() + ".release.lock";
}

std::unique_ptr<Service> liveService(const ServiceParts& parts) {
    if (sd_booted() <= 0) {
        return systemdService(parts, std::nullopt);
    }
    // systemd's own socket needs no broker, and is root's.
    std::vector<BusAddress> buses{{"/run/dbus/system_bus_socket", true}};
    if (geteuid() == 0) {
        buses.insert(buses.begin(), {"/run/systemd/private", false});
    }
    return systemdService(parts, liveSystemd(parts.waiter, buses, Seconds{10}));
}

}  // namespace halvo::control
