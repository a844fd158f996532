#include "tests/EndToEnd/World.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/stat.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tests/Support/InodeFlags.hpp"
#include "tests/Support/PrivateMachine.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

// Kills all processes of a user; process 1 reaps them.
void killAllOf(uid_t person) {
    runInChild({.person = person, .body = [] { return ::kill(-1, SIGKILL); }});
}

void removeAll(const std::string& path) {
    std::error_code ignored;
    if (exists(path) && isLocked(path)) {
        setLockedByHand(false, path);
    }
    fs::remove_all(path, ignored);
    EXPECT_FALSE(exists(path)) << path;
}

void removeAllIn(const std::string& folder) {
    for (const auto& entry : fs::directory_iterator(folder)) {
        removeAll(entry.path());
    }
}

std::vector<std::string> callerCommand(std::vector<std::string> words) {
    words.insert(words.begin(), Place::caller);
    return words;
}

// Runs a command of the machine, which is on its PATH.
void runOnMachine(const std::string& command) {
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

}  // namespace

World::World()
    : user(numberFrom("HALVO_UID")),
      other(numberFrom("HALVO_OTHER_UID")),
      userName(std::getenv("HALVO_USER")),
      home("/home/" + userName),
      appGroup(numberFrom("HALVO_APP_GID")) {
    killAllOf(user);
    killAllOf(other);
    removeAllIn(Place::applications);
    removeAllIn(Place::support);
    removeAllIn(home);
    removeAll(Place::socket);
    removeAll(Place::lock);
    const fs::path tools = fs::path(Place::helper).parent_path();
    removeAll(tools);
    fs::create_directory(tools);
    fs::copy_file(HALVO_HELPER_FILE, Place::helper);
    fs::copy_file(HALVO_CONTROL_FILE, Place::control);
    fs::copy_file(fs::path(HALVO_HELPER_FILE).parent_path() / "Info.plist", Place::helperInfoPlist);
    installApp(Place::app);
    runOnMachine("console-session user " + std::to_string(user));
}

void World::installApp(const std::string& path) const {
    const std::string executables = path + "/Contents/MacOS";
    fs::create_directories(executables);
    constexpr mode_t setGroupID = 02755;
    copyFile(HALVO_APP_BUNDLE "/Contents/Info.plist", path + "/Contents/Info.plist", 0, 0644);
    copyFile(HALVO_APP_BUNDLE "/Contents/MacOS/Halvo", executables + "/Halvo", appGroup,
             setGroupID);
    copyFile(HALVO_TEST_CALLER, executables + "/TestCaller", appGroup, setGroupID);
}

TestProcess World::startCaller(const std::vector<std::string>& words,
                               std::optional<uid_t> person) const {
    return TestProcess({.words = callerCommand(words), .person = person.value_or(user)});
}

ChildResult World::ask(const std::vector<std::string>& words, std::optional<uid_t> person) const {
    return runInChild({.words = callerCommand(words), .person = person.value_or(user)});
}

ChildResult World::run(const std::vector<std::string>& words,
                       const std::vector<std::string>& environment) const {
    return runInChild({.words = words, .person = user, .environment = environment});
}

TestProcess World::startApp() const {
    return TestProcess({.words = {Place::appExecutable}, .person = user});
}

int World::begin(Seconds span) const {
    return ask({"begin", ".", std::to_string(span.count()), "0"}).status;
}

Status World::status() const {
    const ChildResult answer = ask({"status"});
    Status status;
    std::istringstream words(answer.output);
    std::string word;
    words >> word;
    EXPECT_EQ(word, "status") << answer.status << ": " << answer.output;
    while (words >> word) {
        const std::string value = word.substr(word.find('=') + 1);
        if (word.starts_with("holding=")) {
            status.holding = value == "true";
        } else if (word.starts_with("locked=")) {
            status.locked = value == "true";
        } else if (word.starts_with("until=") && value != "none") {
            status.until = std::stod(value);
        }
    }
    return status;
}

std::optional<State> World::state() const {
    if (!exists(Place::stateFile)) {
        return std::nullopt;
    }
    const std::string bytes = readTestFile(Place::stateFile);
    const auto json = nlohmann::json::parse(bytes, nullptr, false);
    try {
        return State{json.at("appPath"),      json.at("uid"),
                     json.at("startedWall"),  json.at("remaining"),
                     json.at("capRemaining"), json.at("checkpoint").at("wall"),
                     json.at("locked")};
    } catch (const nlohmann::json::exception& error) {
        ADD_FAILURE() << "the state file cannot be parsed: " << error.what() << "\n" << bytes;
        return std::nullopt;
    }
}

void World::leaveConsole() const { runOnMachine("console-session nobody"); }

bool isLocked(const std::string& path) {
    struct statx status{};
    EXPECT_EQ(statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &status), 0) << path;
    return (status.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
}

void setLockedByHand(bool locked, const std::string& path) {
    ASSERT_TRUE(setImmutable(locked, path)) << path << ": " << strerror(errno);
}

bool exists(const std::string& path) {
    struct stat status{};
    return lstat(path.c_str(), &status) == 0;
}

void put(const std::string& path, const std::string& bytes, mode_t mode) {
    writeTestFile(path, bytes);
    ASSERT_EQ(chmod(path.c_str(), mode), 0) << path;
}

void copyFile(const std::string& from, const std::string& to, gid_t group, mode_t mode,
              uid_t owner) {
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
    // In this order: chown(2) clears the set-group-id bit.
    ASSERT_EQ(chown(to.c_str(), owner, group), 0) << to;
    ASSERT_EQ(chmod(to.c_str(), mode), 0) << to;
}

mode_t modeOf(const std::string& path) {
    constexpr mode_t permissions = 07777;
    struct stat status{};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & permissions;
}

}  // namespace halvo::testing

namespace {

// scripts/private-machine sets the variable, and is process 1 of a new pid namespace.
bool isPrivateMachine() {
    struct stat status{};
    return std::getenv("HALVO_APP_GID") != nullptr && stat("/.machine", &status) == 0 &&
           halvo::testing::readTestFile("/proc/1/cmdline").find("private-machine") !=
               std::string::npos;
}

}  // namespace

// The tests lock folders, kill processes and mount file systems; they refuse to run on a machine in
// use.
int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    if (!::testing::GTEST_FLAG(list_tests) && !isPrivateMachine()) {
        std::fputs(
            "These tests run only inside a private machine:\n"
            "    scripts/private-machine -- build/release/bin/EndToEndTests\n",
            stderr);
        return EXIT_FAILURE;
    }
    return RUN_ALL_TESTS();
}
