#include "tools/Halvoctl/Linux/SystemdService.hpp"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "HalvoHelperCore/AppLocation.hpp"
#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::control {
namespace {

using records::printable;
using Done = std::expected<void, std::string>;

constexpr const char* destination = "org.freedesktop.systemd1";

// What libsystemd allocated.
struct Free {
    void operator()(void* memory) const { std::free(memory); }  // NOLINT(*-no-malloc)

    // Without a flush, which would wait for a peer that does not read.
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};

template <typename T>
using Owned = std::unique_ptr<T, Free>;

std::string pathOf(const std::string& unit) {
    char* path = nullptr;
    sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit.c_str(), &path);
    return Owned<char>(path) ? path : "";
}

// One conversation with systemd, which ends by its deadline. After a failure nothing more is asked.
class Conversation {
  public:
    Conversation(const std::vector<BusAddress>& buses, Seconds limit)
        : deadline_(Clock::now() + std::chrono::duration_cast<Clock::duration>(limit)) {
        for (const BusAddress& each : buses) {
            problem_.clear();
            if (note(connect(each))) {
                return;
            }
        }
    }

    // What failed first, as a sentence without a full stop; empty where nothing did.
    [[nodiscard]] const std::string& problem() const { return problem_; }

    [[nodiscard]] Seconds left() const {
        return std::max<Seconds>(deadline_ - Clock::now(), Seconds{0});
    }

    // The property `name` of the unit called `unit`, which the interface of `kind` has; empty after
    // a failure.
    std::string text(const std::string& unit, const std::string& kind, const char* name) {
        char* value = nullptr;
        ask([&](sd_bus_error* error) {
            return sd_bus_get_property_string(bus_.get(), destination, pathOf(unit).c_str(),
                                              interfaceOf(kind).c_str(), name, error, &value);
        });
        return Owned<char>(value) ? value : "";
    }

    std::vector<std::string> texts(const std::string& unit, const std::string& kind,
                                   const char* name) {
        char** values = nullptr;
        ask([&](sd_bus_error* error) {
            return sd_bus_get_property_strv(bus_.get(), destination, pathOf(unit).c_str(),
                                            interfaceOf(kind).c_str(), name, error, &values);
        });
        const Owned<char*> owner(values);
        std::vector<std::string> found;
        for (char** each = values; each != nullptr && *each != nullptr; ++each) {
            found.emplace_back(Owned<char>(*each).get());
        }
        return found;
    }

    // Calls `method` of the manager for the unit `name`.
    void call(const char* method, const std::string& name) {
        ask([&](sd_bus_error* error) {
            return sd_bus_call_method(bus_.get(), destination, "/org/freedesktop/systemd1",
                                      interfaceOf("Manager").c_str(), method, error, nullptr, "ss",
                                      name.c_str(), "replace");
        });
    }

  private:
    using Clock = std::chrono::steady_clock;

    static std::string interfaceOf(const std::string& kind) { return destination + ("." + kind); }

    [[nodiscard]] std::uint64_t microsecondsLeft() const {
        return static_cast<std::uint64_t>(
            std::chrono::ceil<std::chrono::microseconds>(left()).count());
    }

    // Keeps what a `result` below zero means; `answer`: systemd's own, if it gave one. Returns
    // whether it means nothing.
    bool note(int result, const char* answer = nullptr) {
        if (result < 0) {
            problem_ = answer != nullptr && result != -ETIMEDOUT
                           ? printable(answer)
                           : "systemd does not answer: " + errorText(-result);
        }
        return result >= 0;
    }

    template <typename Call>
    void ask(const Call& call) {
        if (problem_.empty()) {
            // 0 would mean the library's own limit.
            sd_bus_set_method_call_timeout(bus_.get(),
                                           std::max<std::uint64_t>(microsecondsLeft(), 1));
            sd_bus_error error{};
            const int result = call(&error);
            note(result, error.message);
            sd_bus_error_free(&error);
        }
    }

    int connect(const BusAddress& bus) {
        sd_bus* raw = nullptr;
        int result = sd_bus_new(&raw);
        bus_.reset(raw);
        if (result < 0 || (result = sd_bus_set_address(raw, bus.address.c_str())) < 0 ||
            (result = sd_bus_set_bus_client(raw, static_cast<int>(bus.isBroker))) < 0) {
            return result;
        }
        result = sd_bus_start(raw);
        // The library would wait for as long as it likes.
        while (result >= 0 && sd_bus_is_ready(raw) == 0) {
            result = sd_bus_process(raw, nullptr);
            if (result == 0) {
                result = left() > Seconds{0} ? sd_bus_wait(raw, microsecondsLeft()) : -ETIMEDOUT;
            }
        }
        return result;
    }

    Clock::time_point deadline_;
    Owned<sd_bus> bus_;
    std::string problem_;
};

Unit readUnit(Conversation& systemd, const std::string& name, const char* kind) {
    return {.load = systemd.text(name, "Unit", "LoadState"),
            .active = systemd.text(name, "Unit", "ActiveState"),
            .enabled = systemd.text(name, "Unit", "UnitFileState"),
            .result = systemd.text(name, kind, "Result"),
            .sub = systemd.text(name, "Unit", "SubState")};
}

class LiveSystemd final : public Systemd {
  public:
    LiveSystemd(Waiter& waiter, std::vector<BusAddress> buses, Seconds limit)
        : waiter_(waiter), buses_(std::move(buses)), limit_(limit) {}

    std::expected<Units, std::string> units(const HelperIdentity& identity) override {
        Conversation systemd(buses_, limit_);
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

    Done run(Job job, const std::vector<std::string>& names, Seconds limit,
             const std::string& line) override {
        Conversation systemd(buses_, limit);
        for (const std::string& name : names) {
            systemd.call(job == Job::stop ? "StopUnit" : "StartUnit", name);
        }
        Unit unit;
        const auto areDone = [&] {
            return std::ranges::all_of(names, [&](const std::string& name) {
                unit.active = systemd.text(name, "Unit", "ActiveState");
                return !systemd.problem().empty() ||
                       (job == Job::stop ? !unit.isUp() : unit.active == "active");
            });
        };
        // Leaves time for an answer to the last question.
        constexpr Seconds lastAnswer{0.2};
        const bool isOver = waiter_.wait(areDone, systemd.left() - lastAnswer, line);
        if (!systemd.problem().empty()) {
            return std::unexpected(systemd.problem());
        }
        if (!isOver) {
            return std::unexpected("it takes too long, and is still " + printable(unit.active));
        }
        return {};
    }

  private:
    Waiter& waiter_;
    std::vector<BusAddress> buses_;
    Seconds limit_;
};

class SystemdService final : public Service {
  public:
    SystemdService(const HelperIdentity& identity, std::string executable,
                   std::unique_ptr<Systemd> systemd, HelperProcesses& processes, Waiter& waiter)
        : identity_(identity),
          executable_(std::move(executable)),
          systemd_(std::move(systemd)),
          processes_(processes),
          waiter_(waiter) {}

    std::string whatStarts() override {
        if (!systemd_) {
            return "nothing starts it, since systemd does not run here; start it by hand: " +
                   executable_;
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
        return systemd_ ? "systemctl start " + service_ : executable_;
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
        return endAll(processes_, waiter_);
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
        Checks checks{isNotApplicable(
            "systemd", "does not run here; start the helper by hand: " + printable(executable_))};
        if (systemd_) {
            checks = checkUnits(identity_, units());
        }
        checks.push_back(checkSocket(
            HelperBus::socketPath(identity_.helperBundleID()),
            systemd_ || !processes_.running().empty(),
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
            checks.push_back(units() ? checkSandbox(identity_, app, units()->sandbox)
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
            units_ = systemd_->units(identity_);
        }
        return *units_;
    }

    // Of units of which nothing is known, nothing is said.
    Units unitsOr() { return systemd_ ? units().value_or(Units{}) : Units{}; }

    HelperIdentity identity_;
    std::string executable_;
    std::unique_ptr<Systemd> systemd_;
    HelperProcesses& processes_;
    Waiter& waiter_;
    std::string socket_ = socketUnit(identity_);
    std::string service_ = serviceUnit(identity_);
    std::optional<std::expected<Units, std::string>> units_;
};

}  // namespace

std::unique_ptr<Systemd> liveSystemd(Waiter& waiter, const std::vector<BusAddress>& buses,
                                     Seconds limit) {
    return std::make_unique<LiveSystemd>(waiter, buses, limit);
}

std::unique_ptr<Service> systemdService(const HelperIdentity& identity,
                                        const std::string& executable,
                                        std::unique_ptr<Systemd> systemd,
                                        HelperProcesses& processes, Waiter& waiter) {
    return std::make_unique<SystemdService>(identity, executable, std::move(systemd), processes,
                                            waiter);
}

std::string releaseLockPath(const HelperIdentity& identity) {
    return "/run/" + identity.helperBundleID() + ".release.lock";
}

std::unique_ptr<Service> liveService(const HelperIdentity& identity, const std::string& executable,
                                     HelperProcesses& processes, Waiter& waiter) {
    // systemd's own socket needs no broker, and is root's.
    std::vector<BusAddress> buses{{"unix:path=/run/dbus/system_bus_socket", true}};
    if (geteuid() == 0) {
        buses.insert(buses.begin(), {"unix:path=/run/systemd/private", false});
    }
    return systemdService(identity, executable,
                          sd_booted() > 0 ? liveSystemd(waiter, buses, Seconds{10}) : nullptr,
                          processes, waiter);
}

}  // namespace halvo::control
