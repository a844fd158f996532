// How the helper starts: as whom, with which identity, on which socket.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "HalvoPlatform/Descriptor.hpp"
#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/Stepper.hpp"
#include "tests/EndToEnd/World.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::StartsWith;

constexpr int exitUsage = 64;
constexpr int exitSystem = 71;
constexpr int exitNoPermission = 77;
constexpr int exitConfig = 78;

const std::string noIdentity = "error: The helper has no team or app identifier in its Info.plist";

class StartUpTest : public ::testing::Test {
  protected:
    World world;
};

std::string member(const std::string& key, const std::string& value) {
    return "<key>" + key + "</key>" + value;
}

std::string string(const std::string& text) { return "<string>" + text + "</string>"; }

std::string plist(const std::string& content) {
    return R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0">)" + content + "</plist>";
}

std::string infoWith(const std::string& appBundleID, const std::string& teamID) {
    return plist("<dict>" + member("HalvoAppBundleID", appBundleID) +
                 member("HalvoTeamID", teamID) + "</dict>");
}

// Starts the helper and expects it to end with `status` and to say nothing but `line`, and `more`.
void expectRefusal(int status, const std::string& line, const Start& start = {},
                   const std::vector<std::string>& more = {}) {
    RunningHelper helper(start);
    EXPECT_EQ(helper.wait(), status);
    std::vector<std::string> lines{line};
    lines.insert(lines.end(), more.begin(), more.end());
    EXPECT_EQ(helper.log(), lines);
}

// What makes an identifier, and a file that is whole, is held by the tests of those types.
TEST_F(StartUpTest, NeedsBothIdentifiersInItsInfoPlist) {
    const std::string app = string("com.example.app");
    const std::string team = string("7QX4KD19MT");
    const std::string whole = infoWith(app, team);
    constexpr std::size_t tooMuch = 2'000'000;
    for (const std::string& info :
         {plist("<dict/>"), plist("<dict>" + member("HalvoAppBundleID", app) + "</dict>"),
          infoWith("<array>" + app + "</array>", team), infoWith(app, "<integer>1</integer>"),
          infoWith(string("com.example/../app"), team), infoWith(app, string("7qx4kd19mt")),
          std::string(), whole.substr(0, whole.size() / 2), whole + std::string(tooMuch, ' ')}) {
        put(Place::helperInfoPlist, info);
        SCOPED_TRACE(info.substr(0, 200));
        expectRefusal(exitConfig, noIdentity);
    }
    put(Place::helperInfoPlist, whole);
    EXPECT_EQ(RunningHelper().terminate(), 0);
}

TEST_F(StartUpTest, TakesAnIdentifierThatEndsInAPoint) {
    put(Place::helperInfoPlist, infoWith(string("com.example."), string("7QX4KD19MT")));
    RunningHelper helper;
    EXPECT_TRUE(helper.isRunning());
    EXPECT_TRUE(exists("/run/com.example..helper.sock"));
    EXPECT_EQ(helper.terminate(), 0);
}

TEST_F(StartUpTest, SaysThatAnIdentifierIsTooLongForASocket) {
    const std::string app(200, 'a');
    put(Place::helperInfoPlist, infoWith(string(app), string("7QX4KD19MT")));
    expectRefusal(exitConfig, "error: The app's identifier is too long for a socket: /run/" + app +
                                  ".helper.sock");
    fs::remove("/run/" + app + ".helper.sock.lock");
}

TEST_F(StartUpTest, NeedsAnInfoPlist) {
    fs::remove(Place::helperInfoPlist);
    expectRefusal(exitConfig, noIdentity);
    fs::create_directory(Place::helperInfoPlist);
    expectRefusal(exitConfig, noIdentity);
    fs::remove(Place::helperInfoPlist);
    ASSERT_EQ(mkfifo(Place::helperInfoPlist.c_str(), 0644), 0);
    expectRefusal(exitConfig, noIdentity);
    fs::remove(Place::helperInfoPlist);
    fs::create_symlink("/dev/zero", Place::helperInfoPlist);
    expectRefusal(exitConfig, noIdentity);
    fs::remove(Place::helperInfoPlist);
}

TEST_F(StartUpTest, RunsOnlyAsRootAndSaysSoBeforeItReadsAnything) {
    const Start asPerson{.person = world.user};
    const std::vector<std::string> advice{
        "error: Here systemd starts it, when the app calls; to start it by hand: sudo " +
        Place::helper};
    expectRefusal(exitNoPermission, "error: The helper runs only as root, from launchd", asPerson,
                  advice);
    fs::remove(Place::helperInfoPlist);
    expectRefusal(exitNoPermission, "error: The helper runs only as root, from launchd", asPerson,
                  advice);
    EXPECT_FALSE(exists(Place::lock));
}

TEST_F(StartUpTest, ServesWhateverItsFirstWordIs) {
    const std::string app = Place::app;
    for (const std::vector<std::string>& words : {std::vector<std::string>{},
                                                  {""},
                                                  {"--help"},
                                                  {"--open-as-users"},
                                                  {"open-as-user"},
                                                  {"serve", "--open-as-user", "0", app}}) {
        RunningHelper helper({.words = words});
        EXPECT_EQ(world.ask({"status"}).status, Reply::no);
        EXPECT_EQ(helper.terminate(), 0);
    }
}

TEST_F(StartUpTest, OpensAsAUserInsteadWhenItsFirstWordSaysSo) {
    const std::string app = Place::app;
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{},
          {"61000"},
          {"0", app},
          {"+0", app},
          {"", app},
          {"-1", app},
          {"4294967296", app},
          {"61000x", app},
          {"59999", app},
          {"61000", "/Applications/../Applications/Halvo.app"},
          {"61000", "Applications/Halvo.app"},
          {"61000", "/Applications/Halvo"}}) {
        std::vector<std::string> all{"--open-as-user"};
        all.insert(all.end(), words.begin(), words.end());
        RunningHelper helper({.words = all});
        EXPECT_EQ(helper.wait(), exitUsage) << words.size();
        EXPECT_THAT(helper.log(), ElementsAre());
        EXPECT_FALSE(exists(Place::lock));
    }
}

TEST_F(StartUpTest, LeavesAloneWhatLiesInTheSocketsPlace) {
    const std::string line = "error: Something that is no socket lies at " + Place::socket +
                             "; remove it and start the helper again";
    put("/tmp/target", "somebody's", 0600);
    const std::vector<std::function<void()>> rows{
        [] { put(Place::socket, "somebody's", 0640); },
        [] { fs::create_directory(Place::socket); },
        [] { EXPECT_EQ(mkfifo(Place::socket.c_str(), 0600), 0); },
        [] { fs::create_symlink("/tmp/target", Place::socket); },
        [] { fs::create_symlink("/tmp/missing", Place::socket); },
        [] { fs::create_symlink("/tmp", Place::socket); },
    };
    for (const auto& putThere : rows) {
        putThere();
        struct stat before{};
        struct stat after{};
        ASSERT_EQ(lstat(Place::socket.c_str(), &before), 0);
        expectRefusal(exitConfig, line);
        ASSERT_EQ(lstat(Place::socket.c_str(), &after), 0);
        EXPECT_EQ(after.st_ino, before.st_ino);
        EXPECT_EQ(after.st_mode, before.st_mode);
        EXPECT_EQ(after.st_size, before.st_size);
        fs::remove(Place::socket);
    }
    EXPECT_EQ(readTestFile("/tmp/target"), "somebody's");
    EXPECT_EQ(modeOf("/tmp/target"), 0600);
    EXPECT_FALSE(exists("/tmp/missing"));
}

TEST_F(StartUpTest, NeverFollowsALinkInTheLocksPlace) {
    for (const char* target : {"/tmp/target", "/tmp/missing"}) {
        put("/tmp/target", "somebody's");
        fs::create_symlink(target, Place::lock);
        expectRefusal(exitSystem, "error: Couldn't open " + Place::lock +
                                      ": Too many levels of symbolic links");
        EXPECT_EQ(readTestFile("/tmp/target"), "somebody's");
        EXPECT_FALSE(exists("/tmp/missing"));
        fs::remove(Place::lock);
    }
}

TEST_F(StartUpTest, YieldsToAHelperThatAlreadyRuns) {
    RunningHelper first;
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    expectRefusal(exitSystem, "error: Another helper already runs: it holds " + Place::lock);
    EXPECT_TRUE(world.status().holding);
    EXPECT_TRUE(isLocked());
    EXPECT_TRUE(first.isRunning());
}

TEST_F(StartUpTest, TakesThePlaceOfAHelperThatWasKilled) {
    {
        RunningHelper killed;
        killed.kill();
    }
    ASSERT_TRUE(fs::is_socket(Place::socket));
    ASSERT_TRUE(exists(Place::lock));
    EXPECT_EQ(world.ask({"status"}).status, Reply::notRunning);
    RunningHelper helper;
    EXPECT_EQ(world.ask({"status"}).status, Reply::no);
}

TEST_F(StartUpTest, YieldsToAHelperThatBeganWhileAnotherEnded) {
    std::optional<RunningHelper> first(std::in_place);
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    // The late one has opened the first one's lock, and takes it when the first has ended.
    RunningHelper late({.stopped = true});
    Stepper stepper(late.process());
    ASSERT_TRUE(stepper.goTo(1, SYS_flock, [] { return false; }));
    EXPECT_EQ(first->terminate(), 75);
    RunningHelper second;
    EXPECT_TRUE(second.isRunning());
    stepper.leave();
    EXPECT_EQ(late.wait(), exitSystem);
    EXPECT_THAT(late.log(),
                ElementsAre("error: Another helper already runs: it holds " + Place::lock));
    EXPECT_TRUE(world.status().holding);
    EXPECT_EQ(second.terminate(), 75);
    EXPECT_FALSE(exists(Place::socket));
}

TEST_F(StartUpTest, LetsEverybodyConnectAndNobodyIntoItsLockAndTakesBothAwayAtTheEnd) {
    RunningHelper helper({.prepare = [] { umask(0); }});
    EXPECT_EQ(modeOf(Place::socket), 0666);
    EXPECT_EQ(modeOf(Place::lock), 0600);
    EXPECT_EQ(helper.terminate(), 0);
    EXPECT_FALSE(exists(Place::socket));
    EXPECT_FALSE(exists(Place::lock));
}

TEST_F(StartUpTest, ServesWithoutStandardDescriptors) {
    RunningHelper helper({.prepare = [] {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
    }});
    const std::string folder = "/proc/" + std::to_string(helper.process().pid()) + "/fd/";
    for (const char* number : {"0", "1", "2"}) {
        EXPECT_EQ(fs::read_symlink(folder + number), "/dev/null");
    }
    EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_TRUE(world.state()->locked);
    EXPECT_EQ(helper.terminate(), 75);
    EXPECT_TRUE(world.state()->locked);
}

TEST_F(StartUpTest, OutlivesTheReaderOfItsLog) {
    RunningHelper helper({.prepare = [] {
        std::array<int, 2> ends{};
        if (pipe(ends.data()) != 0 || dup2(ends[1], STDERR_FILENO) < 0) {
            _exit(1);
        }
        close(ends[0]);
        close(ends[1]);
    }});
    EXPECT_EQ(world.begin(Seconds{600}), Reply::yes);
    EXPECT_TRUE(world.status().holding) << "it ended when it said so";
    EXPECT_EQ(helper.terminate(), 75);
}

TEST_F(StartUpTest, EndsOnSIGTERMWhateverItInherited) {
    RunningHelper helper({.prepare = [] {
        for (const int signal : {SIGTERM, SIGCHLD, SIGPIPE, SIGHUP}) {
            std::signal(signal, SIG_IGN);
        }
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_SETMASK, &all, nullptr);
    }});
    // With everything blocked from the start, nothing tells from outside when it serves.
    ASSERT_TRUE(
        eventually(Seconds{10}, [this] { return world.ask({"status"}).status == Reply::no; }));
    EXPECT_EQ(helper.terminate(), 0);
}

// A socket as a service manager makes it: bound, listening, and handed over as descriptor 3.
class HandedSocket {
  public:
    explicit HandedSocket(int type = SOCK_STREAM) : socket_(::socket(AF_UNIX, type, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, Place::socket.c_str(), Place::socket.size() + 1);
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
        chmod(Place::socket.c_str(), 0666);
        if (type == SOCK_STREAM) {
            EXPECT_EQ(listen(socket_.get(), SOMAXCONN), 0);
        }
    }

    // sd_listen_fds(3).
    [[nodiscard]] Start start(int count = 1, pid_t otherPid = 0) const {
        return {.prepare = [number = socket_.get(), count, otherPid] {
            const int copy = fcntl(number, F_DUPFD, 10);
            for (int i = 0; i < count; ++i) {
                dup2(copy, 3 + i);
            }
            close(copy);
            const pid_t pid = otherPid == 0 ? getpid() : otherPid;
            setenv("LISTEN_PID", std::to_string(pid).c_str(), 1);
            setenv("LISTEN_FDS", std::to_string(count).c_str(), 1);
        }};
    }

  private:
    Descriptor socket_;
};

TEST_F(StartUpTest, ServesTheSocketThatAServiceManagerHandsOver) {
    const HandedSocket handed;
    // Waiting already when the helper comes.
    TestProcess early = world.startCaller({"status"});
    RunningHelper helper(handed.start());
    EXPECT_EQ(early.wait(), Reply::no);
    EXPECT_EQ(world.ask({"status"}).status, Reply::no);
    EXPECT_FALSE(exists(Place::lock));
    EXPECT_EQ(helper.terminate(), 0);
    EXPECT_TRUE(exists(Place::socket)) << "it is the manager's";
}

TEST_F(StartUpTest, TakesExactlyOneStreamSocketFromAServiceManager) {
    const std::string line = "error: systemd must hand over exactly one Unix stream socket";
    {
        const HandedSocket handed;
        expectRefusal(exitConfig, line, handed.start(2));
        expectRefusal(exitConfig, line, {.prepare = [] {
                          dup2(STDIN_FILENO, 3);
                          setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
                          setenv("LISTEN_FDS", "1", 1);
                      }});
    }
    fs::remove(Place::socket);
    const HandedSocket datagrams(SOCK_DGRAM);
    expectRefusal(exitConfig, line, datagrams.start());
}

TEST_F(StartUpTest, MakesItsOwnSocketWhenTheHandedOneIsForSomebodyElse) {
    const HandedSocket handed;
    RunningHelper helper(handed.start(1, 1));
    EXPECT_TRUE(exists(Place::lock));
    EXPECT_EQ(world.ask({"status"}).status, Reply::no);
}

}  // namespace
}  // namespace halvo::testing
