#include "tools/Halvoctl/Linux/Systemd.hpp"

#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <system_error>

#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::control {
namespace {

constexpr const char* destination = "org.freedesktop.systemd1";
constexpr const char* unitInterface = "org.freedesktop.systemd1.Unit";
constexpr const char* serviceInterface = "org.freedesktop.systemd1.Service";
constexpr const char* socketInterface = "org.freedesktop.systemd1.Socket";

struct Free {
    // As libsystemd made them. NOLINTBEGIN(*-no-malloc)
    void operator()(char* text) const { std::free(text); }

    void operator()(char** texts) const {
        for (char** each = texts; *each != nullptr; ++each) {
            std::free(*each);
        }
        std::free(static_cast<void*>(texts));
    }

    // NOLINTEND(*-no-malloc)

    // Without a flush, which would wait for a peer that does not read.
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};

using Text = std::unique_ptr<char, Free>;

struct Error {
    Error() = default;
    Error(const Error&) = delete;
    Error& operator=(const Error&) = delete;

    ~Error() { sd_bus_error_free(&raw); }

    sd_bus_error raw{};
};

std::string pathOf(const std::string& unit) {
    char* path = nullptr;
    sd_bus_path_encode("/org/freedesktop/systemd1/unit", unit.c_str(), &path);
    return Text(path) ? path : "";
}

// One conversation with systemd, which ends by its deadline. After a failure nothing more is asked.
class Conversation {
  public:
    Conversation(const std::vector<BusAddress>& buses, Seconds limit)
        : deadline_(Clock::now() + std::chrono::duration_cast<Clock::duration>(limit)) {
        for (const BusAddress& each : buses) {
            problem_.clear();
            if (connect(each) >= 0) {
                return;
            }
        }
    }

    // What failed first, as a sentence without a full stop; empty where nothing did.
    [[nodiscard]] const std::string& problem() const { return problem_; }

    [[nodiscard]] Seconds left() const {
        return std::max<Seconds>(deadline_ - Clock::now(), Seconds{0});
    }

    // The property `name`; empty after a failure.
    std::string text(const std::string& path, const char* interface, const char* name) {
        char* value = nullptr;
        ask([&](sd_bus_error* error) {
            return sd_bus_get_property_string(bus_.get(), destination, path.c_str(), interface,
                                              name, error, &value);
        });
        const Text owner(value);
        return value == nullptr ? "" : value;
    }

    std::vector<std::string> texts(const std::string& path, const char* interface,
                                   const char* name) {
        char** values = nullptr;
        ask([&](sd_bus_error* error) {
            return sd_bus_get_property_strv(bus_.get(), destination, path.c_str(), interface, name,
                                            error, &values);
        });
        const std::unique_ptr<char*, Free> owner(values);
        std::vector<std::string> found;
        for (char** each = values; each != nullptr && *each != nullptr; ++each) {
            found.emplace_back(*each);
        }
        return found;
    }

    // Calls `method` of the manager for the unit `name`.
    void call(const char* method, const std::string& name) {
        ask([&](sd_bus_error* error) {
            return sd_bus_call_method(bus_.get(), destination, "/org/freedesktop/systemd1",
                                      "org.freedesktop.systemd1.Manager", method, error, nullptr,
                                      "ss", name.c_str(), "replace");
        });
    }

  private:
    using Clock = std::chrono::steady_clock;

    [[nodiscard]] std::uint64_t microsecondsLeft() const {
        return static_cast<std::uint64_t>(
            std::chrono::ceil<std::chrono::microseconds>(left()).count());
    }

    // `answer`: systemd's own, if it gave one.
    int fail(int result, const sd_bus_error& answer = {}) {
        const bool isAnswer = answer.message != nullptr && result != -ETIMEDOUT;
        problem_ = isAnswer
                       ? records::printable(answer.message)
                       : "systemd does not answer: " + std::generic_category().message(-result);
        return result;
    }

    template <typename Call>
    void ask(const Call& call) {
        if (!problem_.empty()) {
            return;
        }
        // 0 would mean the library's own limit.
        sd_bus_set_method_call_timeout(bus_.get(), std::max<std::uint64_t>(microsecondsLeft(), 1));
        Error error;
        if (const int result = call(&error.raw); result < 0) {
            fail(result, error.raw);
        }
    }

    int connect(const BusAddress& bus) {
        sd_bus* raw = nullptr;
        int result = sd_bus_new(&raw);
        bus_.reset(raw);
        if (result >= 0) {
            result = sd_bus_set_address(raw, bus.address.c_str());
        }
        if (result >= 0) {
            result = sd_bus_set_bus_client(raw, static_cast<int>(bus.isBroker));
        }
        if (result >= 0) {
            result = sd_bus_start(raw);
        }
        // The library would wait for as long as it likes.
        while (result >= 0 && sd_bus_is_ready(raw) == 0) {
            result = sd_bus_process(raw, nullptr);
            if (result == 0) {
                result = left() > Seconds{0} ? sd_bus_wait(raw, microsecondsLeft()) : -ETIMEDOUT;
            }
        }
        return result < 0 ? fail(result) : result;
    }

    Clock::time_point deadline_;
    std::unique_ptr<sd_bus, Free> bus_;
    std::string problem_;
};

Unit readUnit(Conversation& systemd, const std::string& name, const char* interface) {
    const std::string path = pathOf(name);
    return {.load = systemd.text(path, unitInterface, "LoadState"),
            .active = systemd.text(path, unitInterface, "ActiveState"),
            .enabled = systemd.text(path, unitInterface, "UnitFileState"),
            .result = systemd.text(path, interface, "Result"),
            .sub = systemd.text(path, unitInterface, "SubState")};
}

Sandbox readSandbox(Conversation& systemd, const std::string& service) {
    const std::string path = pathOf(service);
    Sandbox sandbox{systemd.text(path, serviceInterface, "ProtectSystem") == "strict",
                    systemd.texts(path, serviceInterface, "ReadWritePaths")};
    for (std::string& folder : sandbox.writable) {
        folder.erase(0, folder.find_first_not_of("-+"));
    }
    return sandbox;
}

std::vector<BusAddress> liveBuses() {
    std::vector<BusAddress> buses;
    if (geteuid() == 0) {
        buses.push_back({"unix:path=/run/systemd/private", false});
    }
    buses.push_back({"unix:path=/run/dbus/system_bus_socket", true});
    return buses;
}

}  // namespace

std::string socketUnit(const HelperIdentity& identity) {
    return identity.helperBundleID() + ".socket";
}

std::string serviceUnit(const HelperIdentity& identity) {
    return identity.helperBundleID() + ".service";
}

std::string resumeUnit(const HelperIdentity& identity) {
    return identity.helperBundleID() + "-resume.service";
}

LiveSystemd::LiveSystemd(Waiter& waiter) : LiveSystemd(waiter, liveBuses(), Seconds{10}) {}

LiveSystemd::LiveSystemd(Waiter& waiter, std::vector<BusAddress> buses, Seconds limit)
    : waiter_(waiter), buses_(std::move(buses)), limit_(limit) {}

std::expected<Units, std::string> LiveSystemd::units(const HelperIdentity& identity) {
    Conversation systemd(buses_, limit_);
    Units units{readUnit(systemd, socketUnit(identity), socketInterface),
                readUnit(systemd, serviceUnit(identity), serviceInterface),
                readUnit(systemd, resumeUnit(identity), serviceInterface),
                readSandbox(systemd, serviceUnit(identity))};
    if (!systemd.problem().empty()) {
        return std::unexpected(systemd.problem());
    }
    return units;
}

std::expected<void, std::string> LiveSystemd::stop(const std::vector<std::string>& names,
                                                   Seconds limit, const std::string& line) {
    return change("StopUnit", names, [](const Unit& unit) { return !unit.isUp(); }, limit, line);
}

std::expected<void, std::string> LiveSystemd::start(const std::vector<std::string>& names,
                                                    Seconds limit, const std::string& line) {
    return change(
        "StartUnit", names, [](const Unit& unit) { return unit.active == "active"; }, limit, line);
}

std::expected<void, std::string> LiveSystemd::change(const char* method,
                                                     const std::vector<std::string>& names,
                                                     bool (*isDone)(const Unit& unit),
                                                     Seconds limit, const std::string& line) {
    Conversation systemd(buses_, limit);
    for (const std::string& name : names) {
        systemd.call(method, name);
    }
    Unit unit;
    const auto areDone = [&] {
        return std::ranges::all_of(names, [&](const std::string& name) {
            unit.active = systemd.text(pathOf(name), unitInterface, "ActiveState");
            return !systemd.problem().empty() || isDone(unit);
        });
    };
    // Leaves time for an answer to the last question.
    constexpr Seconds lastAnswer{0.2};
    const bool isOver = waiter_.wait(areDone, systemd.left() - lastAnswer, line);
    if (!systemd.problem().empty()) {
        return std::unexpected(systemd.problem());
    }
    if (!isOver) {
        return std::unexpected("it takes too long, and is still " +
                               records::printable(unit.active));
    }
    return {};
}

}  // namespace halvo::control
