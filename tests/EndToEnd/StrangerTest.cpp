// Who is not let in: everything that the person at the console may try to pass for the app.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "tests/EndToEnd/RunningHelper.hpp"
#include "tests/EndToEnd/World.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;

using ::testing::HasSubstr;

constexpr mode_t setGroupID = 02755;
const std::string copyOfApp = Place::applications + "/Copy.app";
const std::string copyOfCaller = copyOfApp + "/Contents/MacOS/TestCaller";

std::string changeable(const std::string& path) {
    return "somebody besides root can change " + path;
}

std::string withoutGroup(const std::string& path) {
    return "it does not run with the private group of " + path;
}

const std::string elsewhere =
    "its executable lies on no mount of the machine's, by /proc/1/mountinfo";

std::string outsideOfBundle(const std::string& path) {
    return path + " is not in a bundle of this app and team";
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

    void expectRule(const std::string& rule) {
        EXPECT_TRUE(helper.says("error: Refused a caller: " + rule)) << rule << "\n"
                                                                     << helper.process().output();
    }

    void expectCopyIsRefused(const std::string& rule) {
        expectRefusal({copyOfCaller, "status"}, rule);
    }

    [[nodiscard]] std::string copyOfThePersonsOwn() const {
        const std::string path = world.home + "/TestCaller";
        copyFile(HALVO_TEST_CALLER, path, world.user, 0755, world.user);
        return path;
    }

    // Makes what follows happen between a caller's connecting and the helper's look at it.
    void whileTheHelperLooksAway(const std::function<void()>& act) {
        helper.process().stop();
        act();
        helper.process().goOn();
    }

    World world;
    RunningHelper helper;
};

TEST_F(StrangerTest, IsACopyOutsideOfAnyBundle) {
    const std::string mine = copyOfThePersonsOwn();
    expectRefusal({mine, "--socket", Place::socket, "status"}, changeable(mine));

    const std::string roots = "/Library/TestCaller";
    copyFile(HALVO_TEST_CALLER, roots, world.appGroup, setGroupID);
    expectRefusal({roots, "--socket", Place::socket, "status"}, outsideOfBundle(roots));
    fs::remove(roots);
}

TEST_F(StrangerTest, IsACopyOfTheBundleInTheHome) {
    const std::string bundle = world.home + "/Applications/Halvo.app";
    world.installApp(bundle);
    // The files are root's and set-group-id, yet their owner can move the folder away.
    const std::string caller = bundle + "/Contents/MacOS/TestCaller";
    expectRefusal({caller, "status"}, changeable(caller));
}

TEST_F(StrangerTest, IsACopyOfTheBundleWithoutTheGroup) {
    world.installApp(copyOfApp);
    ASSERT_EQ(world.run({copyOfCaller, "status"}).status, Reply::no) << "a second installation";

    ASSERT_EQ(chmod(copyOfCaller.c_str(), 0755), 0);
    expectCopyIsRefused(withoutGroup(copyOfCaller));
    ASSERT_EQ(chown(copyOfCaller.c_str(), 0, 0), 0);
    ASSERT_EQ(chmod(copyOfCaller.c_str(), 0755), 0);
    expectCopyIsRefused(withoutGroup(copyOfCaller));
}

TEST_F(StrangerTest, HasTheGroupButNotFromItsExecutable) {
    world.installApp(copyOfApp);
    ASSERT_EQ(chmod(copyOfCaller.c_str(), 0755), 0);
    // As a member of the group could.
    TestProcess caller({.words = {copyOfCaller, "status"}, .prepare = [this] {
                            if (setresgid(world.user, world.appGroup, world.appGroup) != 0 ||
                                setresuid(world.user, world.user, world.user) != 0) {
                                _exit(1);
                            }
                        }});
    EXPECT_EQ(caller.wait(), Reply::refused);
    expectRule(withoutGroup(copyOfCaller));
}

// Each way that the rules know is held by their own tests.
TEST_F(StrangerTest, IsAnExecutableThatOthersCanChange) {
    const std::string folder = copyOfApp + "/Contents";
    const std::vector<std::function<void()>> rows{
        [] { EXPECT_EQ(chmod(copyOfCaller.c_str(), 02757), 0); },
        [this] {
            copyFile(HALVO_TEST_CALLER, copyOfCaller, world.appGroup, setGroupID, world.user);
        },
        [&] { EXPECT_EQ(chmod(folder.c_str(), 01777), 0); },
        [&, this] { EXPECT_EQ(chown(folder.c_str(), world.user, 0), 0); },
    };
    for (const auto& spoil : rows) {
        world.installApp(copyOfApp);
        spoil();
        // Which asks once.
        expectRefusal({copyOfCaller, "raw", "Status"}, changeable(copyOfCaller));
        fs::remove_all(copyOfApp);
    }
    EXPECT_EQ(helper.log().size(), rows.size());
}

TEST_F(StrangerTest, IsABundleThatDoesNotProveToBeTheApps) {
    const std::string plist = copyOfApp + "/Contents/Info.plist";
    const std::string whole = readTestFile(Place::infoPlist);
    const auto without = [&](const std::string& word) {
        std::string other = whole;
        other.at(other.find(word)) = 'X';
        put(plist, other);
    };
    const std::vector<std::function<void()>> rows{
        [&] { without(HALVO_APP_BUNDLE_ID); },
        [&] { without(HALVO_TEAM_ID); },
        [&] { put(plist, ""); },
        [&] { fs::remove(plist); },
        [&] { EXPECT_TRUE(fs::remove(plist) && mkfifo(plist.c_str(), 0644) == 0); },
        [&] { EXPECT_EQ(chmod(plist.c_str(), 0664), 0); },
        [&, this] { EXPECT_EQ(chown(plist.c_str(), world.user, 0), 0); },
        [&] {
            fs::remove(plist);
            fs::create_symlink(Place::infoPlist, plist);
        },
    };
    for (const auto& spoil : rows) {
        world.installApp(copyOfApp);
        spoil();
        expectRefusal({copyOfCaller, "--socket", Place::socket, "raw", "Status"},
                      outsideOfBundle(copyOfCaller));
        fs::remove_all(copyOfApp);
    }
    EXPECT_EQ(helper.log().size(), rows.size());
    world.installApp(copyOfApp);
    EXPECT_EQ(world.run({copyOfCaller, "status"}).status, Reply::no);
}

TEST_F(StrangerTest, LiesElsewhereInTheBundle) {
    for (const char* folder : {"/Contents", "/Contents/Helpers", "/Contents/MacOS/Inner"}) {
        fs::create_directories(Place::app + folder);
        const std::string caller = Place::app + folder + "/TestCaller";
        copyFile(HALVO_TEST_CALLER, caller, world.appGroup, setGroupID);
        expectRefusal({caller, "--socket", Place::socket, "status"}, outsideOfBundle(caller));
    }
}

TEST_F(StrangerTest, BecomesTheAppAfterItConnected) {
    const std::string mine = copyOfThePersonsOwn();
    std::optional<TestProcess> caller;
    whileTheHelperLooksAway([&] {
        caller.emplace(Start{.words = {mine, "--socket", Place::socket, "connect-then-exec",
                                       Place::caller, "use-fd", "3", "status"},
                             .person = world.user});
        // By now it is the app as far as its executable goes.
        EXPECT_TRUE(
            eventually(Seconds{5}, [] { return processesRunning(Place::caller).size() == 1; }));
    });
    EXPECT_EQ(caller->wait(), Reply::refused) << caller->output();
    expectRule(withoutGroup(Place::caller));
}

TEST_F(StrangerTest, HandsItsConnectionToTheApp) {
    const std::string mine = copyOfThePersonsOwn();
    // Its child is the app; the connection is the stranger's own.
    const ChildResult answer =
        world.run({mine, "--socket", Place::socket, "connect-then-exec", "/bin/sh", "-c",
                   Place::caller + " use-fd 3 status; echo the child said $?"});
    EXPECT_THAT(answer.output, HasSubstr("the child said 77"));
    EXPECT_TRUE(helper.says("error: Refused a caller: *"));
}

TEST_F(StrangerTest, HandsItsConnectionToTheAppAndStaysBehindAsIt) {
    const std::string mine = copyOfThePersonsOwn();
    std::optional<TestProcess> caller;
    // The connection's process runs the app, and a child that is the app speaks on it.
    whileTheHelperLooksAway([&] {
        caller.emplace(
            Start{.words = {mine, "--socket", Place::socket, "connect-then-exec", "/bin/sh", "-c",
                            Place::caller + " use-fd 3 status & exec " + Place::caller + " run"},
                  .person = world.user});
        EXPECT_TRUE(
            eventually(Seconds{5}, [] { return processesRunning(Place::caller).size() == 2; }));
    });
    EXPECT_TRUE(eventually(Seconds{5}, [&] {
        return caller->output().find("refused") != std::string::npos;
    })) << caller->output();
    expectRule(withoutGroup(Place::caller));
}

TEST_F(StrangerTest, IsWhatTheAppBecameAfterItConnected) {
    const std::string mine = copyOfThePersonsOwn();
    std::optional<TestProcess> caller;
    whileTheHelperLooksAway([&] {
        caller.emplace(world.startCaller({"connect-then-exec", mine, "use-fd", "3", "status"}));
        EXPECT_TRUE(eventually(Seconds{5}, [&] { return processesRunning(mine).size() == 1; }));
    });
    EXPECT_EQ(caller->wait(), Reply::refused) << caller->output();
    expectRule(changeable(mine));
}

TEST_F(StrangerTest, IsGoneWhenTheHelperLooks) {
    std::optional<TestProcess> caller;
    whileTheHelperLooksAway([&] {
        caller.emplace(world.startCaller({"stall", "1"}));
        EXPECT_TRUE(eventually(Seconds{5}, [&] { return !caller->output().empty(); }));
        caller->kill();
    });
    expectRule("its executable cannot be read: No such file or directory");
}

TEST_F(StrangerTest, KeepsAConnectionWhoseProcessNumberTheAppHasNow) {
    const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    constexpr int peerPidfd = 77;  // SO_PEERPIDFD
    int number = -1;
    socklen_t size = sizeof number;
    if (getsockopt(socket, SOL_SOCKET, peerPidfd, &number, &size) != 0 && errno == ENOPROTOOPT) {
        GTEST_SKIP() << "needs SO_PEERPIDFD, Linux 6.5";
    }
    close(socket);
    std::optional<TestProcess> honest;
    whileTheHelperLooksAway([&] {
        // The app connects, and leaves the connection to somebody who outlives it.
        TestProcess first = world.startCaller(
            {"connect-then-exec", "/bin/sh", "-c", "sleep 60 <&3 >/dev/null 2>&1 & exit 0"});
        ASSERT_EQ(first.wait(), 0);
        // The next process gets the number after this one.
        std::ofstream("/proc/sys/kernel/ns_last_pid") << first.pid() - 1;
        honest.emplace(world.startCaller({"run"}));
        ASSERT_EQ(honest->pid(), first.pid());
        EXPECT_TRUE(eventually(Seconds{5}, [&] { return !honest->output().empty(); }));
    });
    // In one way or the other, as kernels have it.
    EXPECT_TRUE(eventually(Seconds{5}, [this] {
        return helper.count("error: Refused a caller: it ended meanwhile") +
                   helper.count(
                       "error: Refused a caller: it cannot be told whether it still lives") >
               0;
    })) << helper.process().output();
}

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

TEST_F(NamespaceTest, OfMountsCannotForgeTheAppsPath) {
    const std::string mine = copyOfThePersonsOwn();
    expectRefusal(
        {"/usr/bin/unshare", "--user", "--map-root-user", "--mount", "/bin/sh", "-c",
         "mount --bind " + mine + " " + Place::caller + " && exec " + Place::caller + " status"},
        elsewhere);
}

TEST_F(NamespaceTest, OfMountsCannotForgeTheInfoPlist) {
    const std::string plist = world.home + "/Info.plist";
    put(plist, readTestFile(Place::infoPlist));
    put(Place::infoPlist, "");
    expectRefusal({"/usr/bin/unshare", "--user", "--map-root-user", "--mount", "/bin/sh", "-c",
                   "mount --bind " + plist + " " + Place::infoPlist + " && exec " + Place::caller +
                       " --socket " + Place::socket + " status"},
                  elsewhere);
    copyFile(HALVO_APP_BUNDLE "/Contents/Info.plist", Place::infoPlist, 0, 0644);
}

TEST_F(StrangerTest, GivesUpTheGroupWithNoNewPrivileges) {
    TestProcess caller({.words = {Place::caller, "status"}, .person = world.user, .prepare = [] {
                            prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
                        }});
    EXPECT_EQ(caller.wait(), Reply::refused);
    expectRule(withoutGroup(Place::caller));
}

// ---------------------------------------------------------------- file systems of one's own

const std::string disk = "/run/media/disk";
const std::string callerOnDisk = disk + "/Halvo.app/Contents/MacOS/TestCaller";

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
        copyFile(HALVO_TEST_CALLER, tree + "/Halvo.app/Contents/MacOS/TestCaller", group,
                 setGroupID);
        fs::create_directories(disk);
        must("mke2fs -q -t ext4 -d " + tree + " " + image + " 200M >/dev/null");
        must(mount + " " + image + " " + disk);
        ASSERT_EQ(modeOf(callerOnDisk), setGroupID) << "the image is not what it should be";
    }

    static void must(const std::string& command) {
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
    }

    const std::vector<std::string> ask{callerOnDisk, "--socket", Place::socket, "status"};
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

TEST_P(OwnFileSystemKindTest, IsNoWayInWithAGroupThatIsNobodys) {
    mountImage(world.appGroup, GetParam() + "nosuid");
    TestProcess caller({.words = ask, .prepare = [this] {
                            if (setgroups(0, nullptr) != 0 ||
                                setresgid(world.user, world.appGroup, world.appGroup) != 0 ||
                                setresuid(world.user, world.user, world.user) != 0) {
                                _exit(1);
                            }
                        }});
    EXPECT_EQ(caller.wait(), Reply::refused) << caller.output();
    expectRule(withoutSetGroupID);
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
    std::optional<TestProcess> caller;
    whileTheHelperLooksAway([&] {
        caller.emplace(Start{.words = {callerOnDisk, "--socket", Place::socket, "stall", "1"},
                             .person = world.user});
        EXPECT_TRUE(eventually(Seconds{5}, [&] { return !caller->output().empty(); }));
        ::kill(servers[0], SIGSTOP);
        // For a second the kernel answers in its place; fuse(8), attr_timeout.
        sleepFor(Seconds{1.5});
    });
    const ChildResult answer = world.ask({"status"});
    ::kill(servers[0], SIGCONT);
    EXPECT_EQ(answer.status, Reply::no) << answer.output;
    expectRule(withoutSetGroupID);
    caller->kill();
}

// What somebody might do to the app itself.

class IntruderTest : public StrangerTest {
  protected:
    const std::string mark = "/tmp/mark";
    const std::vector<std::string> intrusion{"LD_PRELOAD=/tmp/intruder.so",
                                             "HALVO_INJECTION_MARK=" + mark};
};

TEST_F(IntruderTest, CannotSlipALibraryIntoTheApp) {
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
                                std::vector<std::string> copy = words;
                                std::vector<char*> pointers;
                                for (std::string& word : copy) {
                                    pointers.push_back(word.data());
                                }
                                pointers.push_back(nullptr);
                                execv(pointers[0], pointers.data());
                                _exit(1);
                            }
                            // The app is what it is from its exec on.
                            const std::string link = "/proc/" + std::to_string(child) + "/cmdline";
                            while (readTestFile(link).find(words[0]) != 0) {
                            }
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
    EXPECT_EQ(trace({Place::caller, "run"}, world.user), EPERM);
}

TEST_F(IntruderTest, CannotLookIntoTheApp) {
    const TestProcess app = world.startCaller({"run"});
    ASSERT_TRUE(eventually(Seconds{5}, [&] { return !app.output().empty(); }));
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
