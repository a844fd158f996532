#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "HalvoPlatform/Version.hpp"
#include "tests/Support/ControlMachine.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using Words = std::vector<std::string>;

class StatusTest : public ::testing::Test {
  protected:
    Observation seen() { return observe(fake.machine); }

    std::string text() { return run({"status"}, &fake.machine).output; }

    std::string json() { return run({"status", "--json"}, &fake.machine).output; }

    // The check of the `nth` bundle as "agree: finding -> advice" or "disagree: ...".
    std::string checked(std::size_t nth = 0) {
        const Observation observation = seen();
        const Check check = checkLock(fake.machine, observation, observation.apps.at(nth));
        return (check.verdict == Verdict::ok ? "agree: " : "disagree: ") + check.finding +
               (check.advice.empty() ? "" : " -> ") + check.advice;
    }

    FakeMachine fake;
    StoredCommitment& stored = fake.world.store.stored;
};

TEST_F(StatusTest, FindsTheBundlesOfTheApp) {
    FakeMachine::writeInfo(fake.applications + "/Another.app", "com.example.app", "ANYTEAM123");
    FakeMachine::writeInfo(fake.applications + "/Other.app", "com.example.other", "7QX4KD19MT");
    FakeMachine::writeInfo(fake.applications + "/Halvo.old", "com.example.app", "7QX4KD19MT");
    fs::create_directories(fake.applications + "/Empty.app");
    EXPECT_EQ(seen().installed, (Words{fake.applications + "/Another.app", fake.app}));
    fake.service.applications = {fake.applications, "/nowhere", fake.applications};
    EXPECT_EQ(seen().installed.size(), 2U) << "without duplicates";
    fake.machine.applications = "/nowhere";
    EXPECT_TRUE(seen().installed.empty()) << "other folders must be root's";
}

TEST_F(StatusTest, FindsTheLocksOfTheAppsOwnBundlesThatNoRecordOwes) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, to whom the bundles must belong";
    }
    const std::string second = fake.applications + "/Second.app";
    const std::string info = second + "/Contents/Info.plist";
    FakeMachine::writeInfo(second, "com.example.app", "7QX4KD19MT");
    fake.world.flags.add(second);
    EXPECT_TRUE(seen().orphans.empty());
    fake.hold();
    fake.world.flags.setByHand(second, true);
    EXPECT_EQ(seen().orphans, Words{second});
    EXPECT_EQ(seen().apps,
              (std::vector<AppFlag>{{fake.app, LockState::locked}, {second, LockState::locked}}));
    fake.processes.processes = {7};
    EXPECT_EQ(checked(0).substr(0, 6), "agree:");
    EXPECT_EQ(checked(1),
              "disagree: The bundle is locked, but no record says that the helper did it -> To "
              "unlock it: halvoctl release (which also ends what holds)");
    EXPECT_NE(text().find("\n" + second + ": The bundle is locked, but no"), std::string::npos);

    const auto expectNotOwn = [&](const char* why) { EXPECT_TRUE(seen().orphans.empty()) << why; };
    fs::permissions(info, fs::perms{0664});
    expectNotOwn("others can write its Info.plist");
    fs::permissions(info, fs::perms{0644});
    ASSERT_EQ(chown(second.c_str(), FakeMachine::ann, 0), 0);
    expectNotOwn("it belongs to another user");
    ASSERT_EQ(chown(second.c_str(), 0, 0), 0);
    FakeMachine::writeInfo(second, "com.example.app", "ANYTEAM123");
    expectNotOwn("it is another team's");
    fs::remove_all(second);
    FakeMachine::writeInfo(fake.disk / "Real", "com.example.app", "7QX4KD19MT");
    fs::create_directory_symlink(fake.disk / "Real", second);
    expectNotOwn("a link is no bundle");
}

TEST_F(StatusTest, ComparesRecordAndFlag) {
    const auto record = [this](Seconds left, bool isLocked) -> StoredCommitment {
        fake.hold(left).locked = isLocked;
        return stored;
    };
    const StoredCommitment none = NoCommitment{};
    const StoredCommitment live = record(Seconds{3725}, true);
    const StoredCommitment bare = record(Seconds{3725}, false);
    const StoredCommitment over = record(Seconds{0}, true);
    const StoredCommitment overBare = record(Seconds{0}, false);
    const StoredCommitment damaged = UnreadableCommitment{fake.app, true};
    const StoredCommitment damagedBare = UnreadableCommitment{fake.app, false};
    // halvoctl unlocks only bundles that belong to root.
    const bool isRoot = geteuid() == 0;
    const std::string unlock = isRoot ? "halvoctl release" : clearCommand(fake.app);
    const std::string ends = isRoot ? " (which also ends what holds)" : "";
    const std::string unnamed =
        "disagree: The bundle is locked, but no record says that the helper did it -> ";
    const std::string unsaid =
        "disagree: The bundle is locked, but the record does not say that the helper did it -> It "
        "stays locked. To unlock it: ";
    const std::string unlocked = "agree: The bundle is not locked";
    const std::string starts =
        " -> The helper ends the commitment when it starts next: start-helper";
    const std::string bareHolds = "The commitment holds without a lock";
    const std::string gone = ": There is nothing at " + fake.app;
    const std::string noOther = "disagree" + gone + " -> The helper locks no other in its place.";
    constexpr bool isLocked = true;
    constexpr bool isRunning = true;

    struct {
        StoredCommitment stored;
        bool isLocked;
        bool isRunning;
        std::string result;
    } const rows[] = {
        {none, false, false, unlocked},
        {none, isLocked, false, unnamed + "To unlock it: " + unlock},
        {none, isLocked, isRunning,
         unnamed +
             "If the helper that runs holds something all the same, it writes the record anew "
             "within a minute. Else to unlock the bundle: " +
             unlock},
        {live, isLocked, isRunning, "agree: The bundle is locked, as the record says"},
        {live, isLocked, false,
         "agree: The bundle is locked, as the record says -> No helper runs that would keep it so: "
         "start-helper"},
        {live, false, isRunning,
         "disagree: The bundle is not locked, but should be -> The helper sets it back within 2 "
         "seconds."},
        {live, false, false,
         "disagree: The bundle is not locked, but should be -> The helper locks it when it starts: "
         "start-helper"},
        {bare, false, false,
         "disagree: " + bareHolds +
             ", though the bundle may be locked -> The helper's log says why it could not. It "
             "tries again when the app begins or extends a commitment."},
        {bare, isLocked, false,
         std::string(isRoot ? "disagree" : "agree") +
             ": The bundle carries a lock that the helper did not set -> It stays when the "
             "commitment ends. To unlock the bundle: " +
             unlock + ends},
        {over, isLocked, false, "agree: The bundle is still locked" + starts},
        {over, false, false, unlocked + starts},
        {over, false, isRunning,
         unlocked + " -> The helper ends the commitment within 2 seconds, unless it no longer has "
                    "the record in memory."},
        {overBare, isLocked, false, unsaid + unlock},
        {damaged, isLocked, false, "agree: The bundle is still locked" + starts},
        {damagedBare, isLocked, false, unsaid + unlock},
        {UnreadableCommitment{}, false, false, unlocked + starts}};

    for (const auto& row : rows) {
        stored = row.stored;
        fake.world.flags.setByHand(fake.app, row.isLocked);
        fake.processes.processes = row.isRunning ? std::vector<pid_t>{7} : std::vector<pid_t>{};
        EXPECT_EQ(checked(), row.result) << "row " << &row - rows;
    }
    const std::string elsewhere = fake.disk / "Elsewhere.app";
    fs::create_directories(elsewhere);
    fake.world.flags.add(elsewhere);
    fake.hold().appPath = elsewhere;
    fake.world.flags.erase(fake.app);
    EXPECT_EQ(checked(), "agree: " + bareHolds + ": the helper does not lock a bundle there");
    for (const auto& [missing, result] : std::vector<std::pair<StoredCommitment, std::string>>{
             {live, noOther}, {damaged, noOther}, {damagedBare, "agree" + gone}}) {
        stored = missing;
        EXPECT_EQ(checked(), result);
    }
}

TEST_F(StatusTest, PrintsALiveCommitment) {
    const std::string end = ", whole\n  version     " + std::string(version) +
                            "\nThe bundle is locked, as the record says.\n";
    fake.hold();
    fake.processes.processes = {12};
    EXPECT_EQ(text(),
              "com.example.app: Ultra Hard mode holds for ann (uid 1000), for another 1:02:05.\n"
              "  until       2025-10-09 11:55:25 +02:00\n"
              "  started     2025-10-09 10:53:20 +02:00\n"
              "  app         " +
                  fake.app + ", locked\n  helper      runs, pid 12\n  state file  " +
                  fake.machine.stateFile + end);
    fake.processes.processes = {12, 13};
    const Json expected{
        {"apps", Json::array({{{"agrees", true},
                               {"finding", "The bundle is locked, as the record says."},
                               {"flag", "locked"},
                               {"next", ""},
                               {"path", fake.app}}})},
        {"commitment",
         {{"app", fake.app},
          {"holds", true},
          {"left", 3725.0},
          {"locked", true},
          {"started", "2025-10-09T08:53:20Z"},
          {"uid", 1000},
          {"until", "2025-10-09T09:55:25Z"},
          {"user", "ann"}}},
        {"helper",
         {{"executable", fake.machine.helper},
          {"identifier", "com.example.app.helper"},
          {"pids", {12, 13}},
          {"starts", nullptr},
          {"stopped", Json::array()}}},
        {"now", "2025-10-09T08:53:20Z"},
        {"salvaged", nullptr},
        {"stateFile", {{"condition", "whole"}, {"path", fake.machine.stateFile}}},
        {"version", version}};
    EXPECT_EQ(json(), expected.dump(2) + "\n");
    EXPECT_TRUE(fake.world.calls.changes().empty());
}

TEST_F(StatusTest, PrintsEachStateAsTextAndJSON) {
    const std::string named = "com.example.app: ";
    const std::string file = "\n  state file  " + fake.machine.stateFile;
    const std::string odd = "/Applications/\x1B[2J\n.app";

    // Successive changes; what the text then contains; members of the JSON object.
    struct {
        std::function<void()> change;
        Words texts;
        Json members;
    } const rows[] = {
        {[] {},
         {named + "Nothing holds.\n  app         " + fake.app +
          ", unlocked\n  helper      does not run; it starts when the app calls\n  state file  "
          "none (" +
          fake.machine.stateFile + ")\n  version     " + version + "\nThe bundle is not locked.\n"},
         {{"/commitment", nullptr},
          {"/helper/starts", "it starts when the app calls"},
          {"/stateFile/condition", "none"},
          {"/apps/0/flag", "unlocked"}}},
        {[&] {
             fake.hold(Seconds{100}).uid = 4711;
             fake.world.clock.advance(Seconds{200});
         },
         {named +
              "Nothing holds: the time of uid 4711 has run out, but the record is still there.\n"
              "  until then  2025-10-09 10:55:00 +02:00\n",
          "The bundle is still locked. The helper ends the commitment when it starts next: "
          "start-helper\n"},
         {{"/commitment/user", nullptr}, {"/commitment/holds", false}}},
        {[&] {
             auto& endless = fake.hold();
             endless.remaining = endless.capRemaining =
                 Seconds{std::numeric_limits<double>::infinity()};
         },
         {"until       an unknown time\n"},
         {{"/commitment/until", nullptr}, {"/commitment/left", nullptr}}},
        {[&] {
             fake.hold().appPath = odd;
             fake.machine.userName = [](std::uint32_t) { return std::string("a\x07"); };
         },
         {"/Applications/\\u001b[2J\\n.app, missing\n", "a\\u0007 (uid 1000)"},
         {{"/commitment/app", odd}, {"/apps/0/path", odd}, {"/apps/0/flag", "missing"}}},
        {[&] { stored = UnreadableCommitment{"/Elsewhere/Third.app", false}; },
         {"/Elsewhere/Third.app, missing\n"},
         {{"/salvaged", {{"app", "/Elsewhere/Third.app"}, {"locked", false}}},
          {"/apps/0/path", "/Elsewhere/Third.app"}}},
        {[&] { stored = UnreadableCommitment{std::nullopt, true}; },
         {named + "The state file is damaged: its commitment cannot be recovered.\n",
          file + ", damaged\n"},
         {{"/salvaged", {{"app", nullptr}, {"locked", true}}},
          {"/apps/0/path", fake.app},
          {"/stateFile/condition", "damaged"}}},
        {[&] {
             stored = NoCommitment{};
             fs::create_directories(fake.machine.stateFile);
         },
         {named + "The state file cannot be read; the helper treats it as missing.\n",
          file + ", unreadable\n"},
         {{"/stateFile/condition", "unreadable"}}},
        {[&] {
             fs::remove_all(fake.app);
             fake.processes.processes = {12, 13};
             fake.processes.stopped = {13};
         },
         {"\n  app         none in " + fake.applications + "\n",
          "\n  helper      runs, pids 12 and 13; stopped (SIGSTOP): pid 13\n"},
         {{"/apps", Json::array()}, {"/helper/stopped", {13}}}}};

    for (const auto& [change, texts, members] : rows) {
        change();
        for (const std::string& part : texts) {
            EXPECT_NE(text().find(part), std::string::npos) << part << "not in\n" << text();
        }
        const Json root = Json::parse(json());
        for (const auto& [where, value] : members.items()) {
            EXPECT_EQ(root.at(Json::json_pointer(where)), value) << where;
        }
        EXPECT_EQ(json().find('\x1B'), std::string::npos);
    }
}

}  // namespace
}  // namespace halvo::control
