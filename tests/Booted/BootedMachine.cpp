#include "tests/Booted/BootedMachine.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "tests/Support/InodeFlags.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

// A session on seat0 without a display server: PAM registers it with logind.
const std::string sessionUnit = R"([Service]
User=%i
PAMName=login
Environment=XDG_SEAT=seat0 XDG_SESSION_TYPE=wayland XDG_SESSION_CLASS=)";
const std::string sessionUnitEnd = "\nExecStart=/bin/sleep infinity\n";

// Generous: several machines may boot at a time on two processors.
constexpr Seconds loginLimit{60};

const char* treePath() { return std::getenv("BOOTED_MACHINE_TREE"); }

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\n");
    const auto last = text.find_last_not_of(" \t\n");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

// journalctl(1) prints a value that is not UTF-8 as an array of numbers, and one that is too long
// as null.
std::string fieldText(const nlohmann::json& value) {
    return value.is_string() ? value.get<std::string>() : value.dump();
}

}  // namespace

BootedMachine::BootedMachine() {
    for (const std::string kind : {"user", "greeter"}) {
        write("/etc/systemd/system/screen-" + kind + "@.service",
              sessionUnit + kind + sessionUnitEnd);
    }
    switchOn();
}

// After a failure, prints the end of the journal.
BootedMachine::~BootedMachine() {
    if (isOn_ && ::testing::Test::HasFailure()) {
        std::printf("%s\n", run({"journalctl", "--no-pager", "--quiet", "--output=short-monotonic",
                                 "--lines=150"})
                                .output.c_str());
    }
}

ChildResult BootedMachine::handle(const Words& words, const Words& more) const {
    constexpr Seconds limit{120};
    // The command "machine" is on the PATH, and finds the machine by environment variables.
    Words command{"/bin/sh", "-c", R"(exec machine "$@")", "-"};
    command.insert(command.end(), words.begin(), words.end());
    command.insert(command.end(), more.begin(), more.end());
    Words environment;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        environment.emplace_back(*variable);
    }
    return runInChild({.words = command, .environment = environment}, limit);
}

// Throws: without its machine, a test cannot continue.
void BootedMachine::power(const std::string& word) {
    isOn_ = false;
    const ChildResult answer = handle({word});
    if (answer.status != 0) {
        throw std::runtime_error("machine " + word + " failed:\n" + answer.output);
    }
}

void BootedMachine::switchOn() {
    power("start");
    isOn_ = true;
}

void BootedMachine::shutDown() { power("stop"); }

void BootedMachine::restart() {
    shutDown();
    switchOn();
}

void BootedMachine::cutPower() { power("cut"); }

std::string BootedMachine::must(const Words& words) const {
    const ChildResult answer = run(words);
    EXPECT_EQ(answer.status, 0) << ::testing::PrintToString(words) << "\n" << answer.output;
    return answer.output;
}

void BootedMachine::start(const std::string& unit) const {
    const std::vector<std::string> words{"systemctl", "start", unit};
    const ChildResult first = run(words);
    if (first.status != 0 &&
        run({"journalctl", "--unit", unit, "--grep", "Failed at step CGROUP"}).status == 0) {
        must(words);
        return;
    }
    EXPECT_EQ(first.status, 0) << first.output;
}

void BootedMachine::startIn(const std::string& session, const Words& words) const {
    const ChildResult answer = handle({"run", "--session", session, "sh", "-c",
                                       R"(setsid "$@" >>~/output 2>&1 </dev/null &)", "-"},
                                      words);
    EXPECT_EQ(answer.status, 0) << answer.output;
}

std::string BootedMachine::path(const std::string& inside) const {
    if (isOn_ && (inside.starts_with("/run/") || inside.starts_with("/tmp/"))) {
        return "/proc/" + trimmed(readTestFile("/run/booted-machine/leader")) + "/root" + inside;
    }
    return treePath() + inside;
}

bool BootedMachine::exists(const std::string& inside) const {
    struct stat status{};
    return lstat(path(inside).c_str(), &status) == 0;
}

std::string BootedMachine::read(const std::string& inside) const {
    return readTestFile(path(inside));
}

void BootedMachine::write(const std::string& inside, const std::string& bytes) const {
    std::ofstream file(path(inside), std::ios::binary);
    file << bytes;
    file.close();
    EXPECT_TRUE(file) << "cannot write " << inside;
}

bool BootedMachine::isLocked(const std::string& inside) const {
    return (inodeFlags(path(inside)).value_or(0) & FS_IMMUTABLE_FL) != 0;
}

std::optional<State> BootedMachine::state() const {
    const auto json = nlohmann::json::parse(read(Place::stateFile), nullptr, false);
    if (!json.is_object() || !json.contains("remaining") || !json.contains("locked")) {
        return std::nullopt;
    }
    return State{json["remaining"].get<double>(), json["locked"].get<bool>()};
}

std::string BootedMachine::startSession(const std::string& unit, const std::string& person) const {
    must({"systemctl", "start", unit});
    std::string session;
    EXPECT_TRUE(eventually(
        loginLimit,
        [&] {
            std::istringstream ids(sh("loginctl --no-legend list-sessions | awk '$3 == \"" +
                                      person + "\" { print $1 }'"));
            for (std::string id; ids >> id;) {
                const std::string about = run({"loginctl", "show-session", id, "--value",
                                               "--property=State", "--property=Seat"})
                                              .output;
                const bool isOpen = about.find("closing") == std::string::npos &&
                                    about.find("seat0") != std::string::npos;
                session = isOpen ? id : session;
            }
            return !session.empty();
        }))
        << person << " has no session";
    activate(session);
    return session;
}

std::string BootedMachine::logIn(const std::string& person) const {
    const std::string session = startSession("screen-user@" + person + ".service", person);
    const std::string uid = trimmed(must({"id", "-u", person}));
    EXPECT_TRUE(
        eventually(loginLimit, [&] { return activeState("user@" + uid + ".service") == "active"; }))
        << "no service manager for " << person;
    return session;
}

std::string BootedMachine::showLoginScreen() const {
    return startSession("screen-greeter@greeter.service", "greeter");
}

void BootedMachine::logOut(const std::string& session) const {
    must({"loginctl", "terminate-session", session});
    EXPECT_TRUE(eventually(loginLimit,
                           [&] { return run({"loginctl", "show-session", session}).status != 0; }))
        << "session " << session << " is still there";
}

void BootedMachine::activate(const std::string& session) const {
    must({"loginctl", "activate", session});
    EXPECT_TRUE(
        eventually(loginLimit,
                   [&] {
                       return read("/run/systemd/seats/seat0").find("\nACTIVE=" + session + "\n") !=
                              std::string::npos;
                   }))
        << "session " << session << " is not active";
}

pid_t BootedMachine::waitFor(const std::string& executable, Seconds limit,
                             const std::vector<pid_t>& except) const {
    pid_t found = -1;
    EXPECT_TRUE(eventually(limit,
                           [&] {
                               for (const pid_t pid : running(executable)) {
                                   found =
                                       std::ranges::find(except, pid) == except.end() ? pid : found;
                               }
                               return found > 0;
                           }))
        << executable << " does not run";
    return found;
}

bool BootedMachine::serves(pid_t app) const {
    const std::string group = "/home/alice/.local/share/group." + Place::appID;
    return eventually([&] {
        const auto record = nlohmann::json::parse(read(group + "/keepalive.json"), nullptr, false);
        return record.is_object() && record.value("pid", 0) == idInside(app) &&
               record.value("ultraHard", false);
    });
}

std::string BootedMachine::property(const std::string& unit, const std::string& name) const {
    return trimmed(run({"systemctl", "show", unit, "--value", "--property=" + name}).output);
}

std::vector<Entry> BootedMachine::journal(const Words& matches) const {
    Words words{"journalctl", "--no-pager", "--quiet", "--all", "--output=json"};
    words.insert(words.end(), matches.begin(), matches.end());
    std::istringstream lines(must(words));
    std::vector<Entry> entries;
    std::string line;
    while (std::getline(lines, line)) {
        const auto json = nlohmann::json::parse(line, nullptr, false);
        EXPECT_TRUE(json.is_object()) << line;
        Entry entry;
        for (const auto& [name, value] : json.items()) {
            entry[name] = fieldText(value);
        }
        entries.push_back(entry);
    }
    return entries;
}

int BootedMachine::count(const std::string& line) const {
    const bool isBeginning = line.ends_with('*');
    const std::string text = isBeginning ? line.substr(0, line.size() - 1) : line;
    return static_cast<int>(
        std::ranges::count_if(journal({"SUBSYSTEM=app.halvo"}), [&](Entry& entry) {
            const std::string& message = entry["MESSAGE"];
            return isBeginning ? message.starts_with(text) : message == text;
        }));
}

bool BootedMachine::says(const std::string& line, Seconds limit) const {
    return eventually(limit, [&] { return count(line) > 0; });
}

void BootedMachine::install(const std::vector<std::string>& files) const {
    for (const std::string& file : files) {
        fs::copy_file(file, path("/root/" + fs::path(file).filename().string()));
    }
    sh("dpkg --install /root/*.deb && rm /root/*.deb");
}

std::string BootedMachine::failedUnits() const {
    return sh("systemctl --failed --no-legend --plain | grep -v '^systemd-' || true");
}

void BootedMachine::commit(const std::string& session, const std::string& minutes) const {
    startIn(session, {Place::appExecutable, minutes});
    ASSERT_TRUE(eventually(Seconds{30}, [&] { return state().has_value() && isLocked(); }))
        << "the commitment is not held";
}

std::string BootedMachine::logInAndCommit(const std::string& minutes) const {
    const std::string session = logIn("alice");
    commit(session, minutes);
    return session;
}

std::string controlGroup(pid_t process) {
    std::ifstream file("/proc/" + std::to_string(process) + "/cgroup");
    std::string line;
    while (std::getline(file, line)) {
        const std::string top = "/payload";
        const auto at = line.find(top);
        if (line.starts_with("0::") && at != std::string::npos) {
            return line.substr(at + top.size());
        }
    }
    return "";
}

std::string processNamespace(pid_t process, const std::string& kind) {
    std::error_code ignored;
    return fs::read_symlink("/proc/" + std::to_string(process) + "/ns/" + kind, ignored);
}

bool isAlive(pid_t process) { return !processField(process, "State").empty(); }

pid_t idInside(pid_t process) {
    const auto ids = processNumbers(process, "NSpid");
    return ids.empty() ? -1 : static_cast<pid_t>(ids.back());
}

}  // namespace halvo::testing

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (!::testing::GTEST_FLAG(list_tests) && std::getenv("BOOTED_MACHINE_TREE") == nullptr) {
        std::fputs(
            "These tests run only beside a booted machine:\n"
            "    scripts/booted-machine --beside -- build/release/bin/BootedTests\n",
            stderr);
        return EXIT_FAILURE;
    }
    if (!::testing::GTEST_FLAG(list_tests) && access(HALVO_BOOTED_HELPER, R_OK) != 0) {
        std::fputs("BootedTests: needs the packages, which could not be built here\n", stderr);
        // SKIP_RETURN_CODE of ctest.
        constexpr int skipped = 125;
        return skipped;
    }
    return RUN_ALL_TESTS();
}
