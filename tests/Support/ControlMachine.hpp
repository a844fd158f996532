// A fake of the machine that halvoctl examines.
#pragma once

#include <algorithm>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::tools {

// How gtest prints what differs.
inline void PrintTo(const Outcome& outcome, std::ostream* stream) {
    *stream << "status " << outcome.status << ", output:\n"
            << outcome.output << "errors:\n"
            << outcome.errors;
}

}  // namespace halvo::tools

namespace halvo::control {

inline void PrintTo(const Check& check, std::ostream* stream) {
    *stream << check.name << ": " << static_cast<int>(check.verdict) << ", " << check.finding
            << " -> " << check.advice;
}

// Advances simulated time instead of sleeping, and records its messages.
class FakeWaiter final : public Waiter {
  public:
    Seconds now() override { return time; }

    Seconds time{1000};
    std::vector<std::string> said;
    std::function<void()> onPause;

  protected:
    void pause(Seconds span) override {
        time += span;
        if (onPause) {
            onPause();
        }
    }

    void say(const std::string& line) override { said.push_back(line); }
};

// Processes that end on terminate(), unless `areStuck`.
class FakeProcesses final : public HelperProcesses {
  public:
    FakeProcesses() : HelperProcesses("") {}

    std::vector<pid_t> running() override { return processes; }

    bool isStopped(pid_t process) override {
        return std::ranges::find(stopped, process) != stopped.end();
    }

    void terminate(pid_t process) override {
        terminated.push_back(process);
        if (!areStuck) {
            std::erase(processes, process);
        }
        if (onTerminate) {
            onTerminate();
        }
    }

    std::vector<pid_t> processes;
    std::vector<pid_t> stopped;
    std::vector<pid_t> terminated;
    bool areStuck = false;
    std::function<void()> onTerminate;
};

// Records stop() and resume() in a CallLog.
class FakeService final : public Service {
  public:
    explicit FakeService(testing::CallLog& log) : log_(log) {
        startCommand = "start-helper";
        restartCommand = "restart-helper";
    }

    std::string whatStarts() override { return "it starts when the app calls"; }

    std::expected<void, std::string> stop() override {
        log_.enter("save", "by stop");  // a verb that CallLog::changes() selects
        if (onStop) {
            onStop();
        }
        return stopped;
    }

    std::expected<std::string, std::string> resume() override {
        log_.enter("save", "by resume");
        if (onResume) {
            onResume();
        }
        return resumed;
    }

    std::vector<std::string> otherApplications() override { return applications; }

    Checks examine() override { return {isOk("service", "fine")}; }

    Checks examineApp(const std::string& app) override { return {isOk("bundle", app)}; }

    Checks examineSession(std::uint32_t uid) override {
        return {isOk("person", std::to_string(uid))};
    }

    std::vector<std::string> applications;
    std::function<void()> onStop;
    std::function<void()> onResume;
    std::expected<void, std::string> stopped;
    std::expected<std::string, std::string> resumed = "";

  private:
    testing::CallLog& log_;
};

// A machine with the app com.example.app installed and no commitment stored.
struct FakeMachine {
    FakeMachine() {
        writeInfo(app, "com.example.app", "7QX4KD19MT");
        world.flags.add(app);
        service.releaseLock = disk / "release.lock";
    }

    static void writeInfo(const std::string& bundle, const std::string& identifier,
                          const std::string& team) {
        std::filesystem::create_directories(bundle + "/Contents/MacOS");
        testing::writeTestFile(bundle + "/Contents/MacOS/Sample", "");
        testing::writeTestFile(bundle + "/Contents/Info.plist",
                               testing::infoText("Sample", identifier, team));
    }

    // Stores a commitment of ann's with `left` remaining, and locks its bundle.
    HelperCommitment& hold(Seconds left = Seconds{3725}) {
        world.store.stored =
            HelperCommitment{app, ann, world.clock.now().wall, left, left, world.clock.now(), true};
        world.flags.setByHand(app, true);
        return std::get<HelperCommitment>(world.store.stored);
    }

    static constexpr std::uint32_t ann = 1000;

    testing::TemporaryFolder disk;
    testing::SimulatedWorld world{disk};
    FakeProcesses processes;
    FakeService service{world.calls};
    FakeWaiter waiter;
    const std::string applications = disk / "Applications";
    const std::string app = applications + "/Halvo.app";
    Machine machine{.identity = {"com.example.app", "7QX4KD19MT"},
                    .helper = disk / "libexec/HalvoHelper",
                    .stateFile = disk / "state/commitment.json",
                    .applications = applications,
                    .isRoot = true,
                    .clock = world.clock,
                    .calendar = *GregorianCalendar::named("Europe/Berlin"),
                    .flags = world.flags,
                    .store = world.store,
                    .session = world.session,
                    .processes = processes,
                    .waiter = waiter,
                    .userName =
                        [](std::uint32_t uid) {
                            return uid == ann ? std::optional<std::string>("ann") : std::nullopt;
                        },
                    .service = &service};
};

}  // namespace halvo::control
