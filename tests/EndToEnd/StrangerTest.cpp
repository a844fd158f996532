// Attacks on the admission of callers that need file systems or namespaces of one's own, or the app
// itself. The rules one by one are tested by CallerRulesTest.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::HasSubstr;

constexpr mode_t setGroupID = 02755;
const std::string inBundle = "/Contents/MacOS/TestCaller";

std::string withoutGroup(const std::string& path) {
    return "it does not run with the private group of " + path;
}

class StrangerTest : public ::testing::Test {
  protected:
    // The app is let in before and after, by the same helper.
    void SetUp() override { ASSERT_EQ(world.ask({"status"}).status, Reply::no); }

    void TearDown() override { EXPECT_EQ(world.ask({"status"}).status, Reply::no); }

    // Asks with `words`, which the helper must refuse because of `rule`.
    void expectRefusal(const std::vector<std::string>& words, const std::string& rule,
                       const std::vector<std::string>& environment = {}) {
        const ChildResult answer = world.run(words, environment);
        EXPECT_EQ(answer.status, Reply::refused) << answer.output;
        expectRule(rule);
    }

    // As often as it is expected.
    void expectRule(const std::string& rule) {
        const int times = ++expected[rule];
        EXPECT_TRUE(eventually(
            Seconds{5}, [&] { return helper.count("error: Refused a caller: " + rule) == times; }))
            << rule << "\n"
            << helper.process().output();
    }

    [[nodiscard]] std::string copyOfThePersonsOwn() const {
        const std::string path = world.home + "/TestCaller";
        copyFile(HALVO_TEST_CALLER, path, world.user, 0755, world.user);
        return path;
    }

    World world;
    RunningHelper helper;
    std::map<std::string, int> expected;
};

class NamespaceTest : public StrangerTest {
  protected:
    void SetUp() override {
        StrangerTest::SetUp();
        if (world.run({"/usr/bin/unshare", "--user", "true"}).status != 0) {
            GTEST_SKIP() << "needs user namespaces for everybody";
        }
    }
};

TEST_F(NamespaceTest, OfUsersTakesTheGroupFromTheApp) {
    for (const char* map : {"--map-root-user", "--map-current-user"}) {
        expectRefusal({"/usr/bin/unshare", "--user", map, Place::caller, "status"},
                      withoutGroup(Place::caller));
    }
    EXPECT_EQ(world.run({"/usr/bin/unshare", "--user", Place::caller, "status"}).status,
              Reply::refused);
}

TEST_F(NamespaceTest, OfMountsForgesNeitherTheAppNorItsInfoPlist) {
    const std::string mine = copyOfThePersonsOwn();
    const std::string plist = world.home + "/Info.plist";
    put(plist, readTestFile(Place::infoPlist));
    const auto expectRefusalWith = [this](const std::string& forgery, const std::string& place) {
        expectRefusal(
            {"/usr/bin/unshare", "--user", "--map-root-user", "--mount", "/bin/sh", "-c",
             "mount --bind " + forgery + " " + place + " && exec " + Place::caller + " status"},
            "its executable lies on no mount of the machine's, by /proc/1/mountinfo");
    };
    expectRefusalWith(mine, Place::caller);
    put(Place::infoPlist, "");
    expectRefusalWith(plist, Place::infoPlist);
    copyFile(HALVO_APP_BUNDLE "/Contents/Info.plist", Place::infoPlist, 0, 0644);
}

// ---------------------------------------------------------------- file systems of one's own

const std::string disk = "/run/media/disk";
const std::string callerOnDisk = disk + "/Halvo.app" + inBundle;

const std::string loop = "mount -o loop,ro,nodev,";
const std::string fuse = "fuse2fs -o ro,allow_other,nodev,";

// A file system in which everything says that it is the installed app: a person can write any owner
// and any bit into an image, and have it mounted without a password, with nosuid.
class OwnFileSystemTest : public StrangerTest {
  protected:
    void SetUp() override {
        StrangerTest::SetUp();
        if (!exists("/dev/loop-control")) {
            GTEST_SKIP() << "needs loop devices";
        }
    }

    static bool hasFuse() { return exists("/dev/fuse") && exists("/usr/bin/fuse2fs"); }

    void TearDown() override {
        // Not before nobody runs from it any more.
        EXPECT_TRUE(IsSkipped() || eventually(Seconds{5}, [] {
                        return std::system(("umount " + disk + " 2>/dev/null").c_str()) == 0;
                    }));
        StrangerTest::TearDown();
    }

    // An image in which the caller is set-group-id to `group`; `mount` is the beginning of a
    // command.
    void mountImage(gid_t group, const std::string& mount) {
        const std::string tree = "/tmp/tree";
        const std::string image = "/tmp/image";
        fs::remove_all(tree);
        fs::remove(image);
        world.installApp(tree + "/Halvo.app");
        copyFile(HALVO_TEST_CALLER, tree + "/Halvo.app" + inBundle, group, setGroupID);
        copyFile("/bin/sleep", tree + "/sleep", 0, 0755);
        fs::create_directories(disk);
        must("mke2fs -q -t ext4 -d " + tree + " " + image + " 200M >/dev/null");
        must(mount + " " + image + " " + disk);
        ASSERT_EQ(modeOf(callerOnDisk), setGroupID) << "the image is not what it should be";
    }

    static void must(const std::string& command) {
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
    }

    const std::vector<std::string> ask{callerOnDisk, "status"};
    const std::string withoutSetGroupID =
        "its executable lies on a file system mounted with nosuid, where the kernel gives nobody "
        "its group";
};

class OwnFileSystemKindTest : public OwnFileSystemTest,
                              public ::testing::WithParamInterface<std::string> {
  protected:
    void SetUp() override {
        OwnFileSystemTest::SetUp();
        if (GetParam() == fuse && !hasFuse()) {
            GTEST_SKIP() << "needs /dev/fuse and the package fuse2fs";
        }
    }
};

TEST_P(OwnFileSystemKindTest, IsNoWayIn) {
    mountImage(world.user, GetParam() + "nosuid");
    expectRefusal(ask, withoutSetGroupID);
}

// Each rule by itself would have been enough.
TEST_P(OwnFileSystemKindTest, IsNoWayInWithAGroupOfThePersonsOwnThoughTheKernelHonoursItsBits) {
    mountImage(world.user, GetParam() + "suid");
    expectRefusal(ask, "the group " + world.userName + " is the own group of " + world.userName);
}

// And so what is refused above is all that is wrong with the image.
TEST_P(OwnFileSystemKindTest, IsTheAppWhereRootMountedItAndTheGroupIsNobodys) {
    mountImage(world.appGroup, GetParam() + "suid");
    const ChildResult answer = world.run(ask);
    EXPECT_EQ(answer.status, Reply::no) << answer.output;
}

INSTANTIATE_TEST_SUITE_P(Kinds, OwnFileSystemKindTest, ::testing::Values(loop, fuse),
                         [](const auto& test) { return test.param == loop ? "Loop" : "FUSE"; });

// Nor does one whose server answers nobody hold up the helper, and with it everybody.
TEST_F(OwnFileSystemTest, HoldsUpNobodyWhenItStalls) {
    if (!hasFuse()) {
        GTEST_SKIP() << "needs /dev/fuse and the package fuse2fs";
    }
    mountImage(world.user, fuse + "nosuid");
    const std::vector<pid_t> servers = processesRunning(fs::canonical("/usr/bin/fuse2fs"));
    ASSERT_EQ(servers.size(), 1);
    helper.process().stop();
    TestProcess caller({.words = {callerOnDisk, "connect", Place::socket}, .person = world.user});
    EXPECT_EQ(caller.readLine(), "connected");
    ::kill(servers[0], SIGSTOP);
    // For a second the kernel answers in its place; fuse(8), attr_timeout.
    sleepFor(Seconds{1.5});
    helper.process().goOn();
    const ChildResult answer = world.ask({"status"});
    ::kill(servers[0], SIGCONT);
    EXPECT_EQ(answer.status, Reply::no) << answer.output;
    expectRule(withoutSetGroupID);
    caller.kill();
}

// Nor with a program that has, in a mount namespace of its own, the path of the app that the helper
// looks for.
TEST_F(OwnFileSystemTest, HoldsUpNobodyWhenItStallsAtThePathOfTheApp) {
    if (!hasFuse()) {
        GTEST_SKIP() << "needs /dev/fuse and the package fuse2fs";
    }
    mountImage(world.user, fuse + "nosuid");
    const std::vector<pid_t> servers = processesRunning(fs::canonical("/usr/bin/fuse2fs"));
    ASSERT_EQ(servers.size(), 1);
    TestProcess stranger(
        {.words = {"/usr/bin/unshare", "--user", "--map-root-user", "--mount", "/bin/sh", "-c",
                   "mount --bind " + disk + "/sleep " + Place::appExecutable + " && exec " +
                       Place::appExecutable + " 60"},
         .person = world.user});
    ASSERT_TRUE(eventually(Seconds{5}, [] {
        return processesRunning(Place::appExecutable).size() == 1;
    })) << stranger.output();
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    ::kill(servers[0], SIGSTOP);
    const bool isOpened =
        helper.says("Halvo isn't running during Ultra Hard mode; opening it", Seconds{12});
    ::kill(servers[0], SIGCONT);
    EXPECT_TRUE(isOpened) << helper.process().output();
    EXPECT_TRUE(stranger.isRunning()) << stranger.output();
    EXPECT_EQ(world.end(), Reply::yes);
    stranger.kill();
}

// What somebody might do to the app itself.
using IntruderTest = StrangerTest;

TEST_F(IntruderTest, CannotSlipALibraryIntoTheApp) {
    const std::string mark = "/tmp/mark";
    const std::vector<std::string> intrusion{"LD_PRELOAD=/tmp/intruder.so",
                                             "HALVO_INJECTION_MARK=" + mark};
    fs::copy_file(HALVO_INTRUDER, "/tmp/intruder.so", fs::copy_options::overwrite_existing);
    fs::remove(mark);
    const std::string mine = copyOfThePersonsOwn();
    ASSERT_EQ(world.run({mine, "--help"}, intrusion).status, 0);
    ASSERT_THAT(readTestFile(mark), HasSubstr(mine)) << "the intruder does not even work";

    fs::remove(mark);
    const ChildResult answer = world.run({Place::caller, "status"}, intrusion);
    EXPECT_EQ(answer.status, Reply::no) << answer.output;
    EXPECT_FALSE(exists(mark)) << readTestFile(mark);
}

// Tries to trace a child that runs `words`, as `person`; gives 0 or the errno.
int trace(const std::vector<std::string>& words, uid_t person) {
    TestProcess tracer({.person = person, .body = [words] {
                            const pid_t child = fork();
                            if (child == 0) {
                                execute(words[0], {words.begin() + 1, words.end()});
                            }
                            // The app is what it is from its exec on.
                            eventually([&] { return processWords(child).at(0) == words[0]; });
                            const int code =
                                ptrace(PTRACE_SEIZE, child, nullptr, nullptr) == 0 ? 0 : errno;
                            kill(child, SIGKILL);
                            waitpid(child, nullptr, 0);
                            return code;
                        }});
    return tracer.wait();
}

TEST_F(IntruderTest, CannotTraceTheApp) {
    ASSERT_EQ(trace({"/bin/sleep", "60"}, world.user), 0) << "nothing may be traced here";
    EXPECT_EQ(trace({Place::caller, "wait"}, world.user), EPERM);
}

TEST_F(IntruderTest, CannotLookIntoTheApp) {
    TestProcess app = world.startCaller({"wait"});
    ASSERT_EQ(app.readLine(), "waiting");
    const std::string folder = "/proc/" + std::to_string(app.pid());
    for (const char* file : {"/mem", "/environ", "/maps", "/exe", "/fd/0"}) {
        EXPECT_NE(world.run({"/bin/dd", "if=" + folder + file, "of=/dev/null", "count=1"}).status,
                  0)
            << file;
    }
}

TEST_F(IntruderTest, TakesTheGroupFromTheAppThatItTracesFromTheStart) {
    TestProcess tracer(
        {.person = world.user, .body = [] {
             const pid_t child = fork();
             if (child == 0) {
                 ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
                 execl(Place::caller.c_str(), Place::caller.c_str(), "status", nullptr);
                 _exit(1);
             }
             int status = 0;
             while (waitpid(child, &status, 0) == child && WIFSTOPPED(status)) {
                 const int signal = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
                 ptrace(PTRACE_CONT, child, nullptr, signal);
             }
             return WEXITSTATUS(status);
         }});
    EXPECT_EQ(tracer.wait(), Reply::refused) << tracer.output();
    expectRule(withoutGroup(Place::caller));
}

}  // namespace
}  // namespace halvo::testing
