// Machines, services and programs that do what a test tells them.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {

// Programs by their words, joined with blanks. One that is not known cannot be started.
class FakePrograms final : public Programs {
  public:
    std::expected<Finished, std::string> run(const std::vector<std::string>& words,
                                             const Patience& patience) override {
        std::string command;
        for (const std::string& word : words) {
            command += (command.empty() ? "" : " ") + word;
        }
        calls.push_back(command);
        limits.push_back(patience.limit);
        if (isSlow && patience.slow) {
            patience.slow();
        }
        const auto answer = answers.find(command);
        if (answer == answers.end() || answer->second.empty()) {
            return std::unexpected(words.front() + " cannot be started: No such file or directory");
        }
        const auto result = answer->second.front();
        if (answer->second.size() > 1) {
            answer->second.pop_front();
        }
        return result;
    }

    // From now on `command` ends so; the last of several answers stays.
    void answer(const std::string& command, int status, const std::string& output = "") {
        answers[command].push_back(Finished{status, output});
    }

    void fail(const std::string& command, const std::string& why) {
        answers[command].push_back(std::unexpected(why));
    }

    std::map<std::string, std::deque<std::expected<Finished, std::string>>> answers;
    std::vector<std::string> calls;
    std::vector<Seconds> limits;
    bool isSlow = false;
};

// Processes that end when they are asked to, unless told otherwise.
class FakeProcesses final : public HelperProcesses {
  public:
    std::vector<pid_t> running() override { return processes; }

    bool isStopped(pid_t process) override { return process == stopped; }

    void terminate(pid_t process) override {
        terminated.push_back(process);
        if (!areStuck) {
            std::erase(processes, process);
        }
        if (onTerminate) {
            onTerminate();
        }
    }

    Seconds now() override { return time; }

    void pause(Seconds span) override { time += span; }

    Seconds time{1000};
    std::vector<pid_t> processes;
    pid_t stopped = 0;
    std::vector<pid_t> terminated;
    bool areStuck = false;
    std::function<void()> onTerminate;
};

// Notes what it was asked in a call log.
class FakeService final : public Service {
  public:
    explicit FakeService(testing::CallLog& log) : log_(log) {}

    std::vector<pid_t> running() override { return processes; }

    std::vector<pid_t> stopped() override { return stoppedProcesses; }

    std::string whatStarts() override { return "it starts when the app calls"; }

    [[nodiscard]] std::string startCommand() const override { return "start-helper"; }

    [[nodiscard]] std::string restartCommand() const override { return restart; }

    std::expected<void, std::string> stop(const Progress& progress) override {
        log_.enter("save", "by stop");  // the verb of a change
        if (onStop) {
            onStop();
        }
        progress("Waiting.");
        return stopError ? std::expected<void, std::string>(std::unexpected(*stopError))
                         : std::expected<void, std::string>();
    }

    std::expected<std::string, std::string> resume(const Progress&) override {
        log_.enter("save", "by resume");
        if (onResume) {
            onResume();
        }
        return resumed;
    }

    std::vector<pid_t> processes;
    std::vector<pid_t> stoppedProcesses;
    std::string restart = "restart-helper";
    std::function<void()> onStop;
    std::function<void()> onResume;
    std::optional<std::string> stopError;
    std::expected<std::string, std::string> resumed = "";

  private:
    testing::CallLog& log_;
};

// A machine with the app of com.example.app in its folder for apps, and nothing stored.
struct FakeMachine {
    FakeMachine() {
        writeInfo(app, "com.example.app", "7QX4KD19MT");
        world.flags.add(app);
    }

    static void writeInfo(const std::string& bundle, const std::string& identifier,
                          const std::string& team) {
        std::filesystem::create_directories(bundle + "/Contents/MacOS");
        testing::writeTestFile(bundle + "/Contents/MacOS/Sample", "");
        testing::writeTestFile(
            bundle + "/Contents/Info.plist",
            "<plist version=\"1.0\"><dict><key>CFBundleExecutable</key><string>Sample</string>"
            "<key>CFBundleIdentifier</key><string>" +
                identifier + "</string><key>HalvoTeamID</key><string>" + team +
                "</string></dict></plist>");
    }

    // What the store holds: a commitment of ann's with `left` to run, whose lock is owed.
    HelperCommitment& hold(Seconds left = Seconds{3725}) {
        world.store.stored =
            HelperCommitment{app, ann, world.clock.now().wall, left, left, world.clock.now(), true};
        world.flags.setByHand(app, true);
        return std::get<HelperCommitment>(world.store.stored);
    }

    static constexpr std::uint32_t ann = 1000;

    testing::TemporaryFolder disk;
    testing::SimulatedWorld world{disk};
    FakeService service{world.calls};
    FakePrograms programs;
    const std::string applications = disk / "Applications";
    const std::string app = applications + "/Halvo.app";
    Machine machine{.identity = {"com.example.app", "7QX4KD19MT"},
                    .helper = disk / "libexec/HalvoHelper",
                    .stateFile = disk / "state/commitment.json",
                    .releaseLock = disk / "release.lock",
                    .applications = applications,
                    .isRoot = true,
                    .clock = world.clock,
                    .flags = world.flags,
                    .store = world.store,
                    .session = world.session,
                    .service = service,
                    .programs = programs,
                    .userName = [](std::uint32_t uid) {
                        return uid == ann ? std::optional<std::string>("ann") : std::nullopt;
                    }};
};

}  // namespace halvo::control
