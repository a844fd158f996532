// Attacks on the admission of callers, with user-mounted file systems, namespaces or the app
// itself. CallerRulesTest covers the rules one by one.

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

class AdmissionTest : public ::testing::Test {
  protected:
    // The same helper admits the app before and after.
    void SetUp() override { ASSERT_EQ(world.ask({"status"}).status, Reply::no); }

    void TearDown() override { EXPECT_EQ(world.ask({"status"}).status, Reply::no); }

    // Runs `words`, which the helper must refuse by `rule`.
    void expectRefusal(const std::vector<std::string>& words, const std::string& rule,
                       const std::vector<std::string>& environment = {}) {
        const ChildResult answer = world.run(words, environment);
        EXPECT_EQ(answer.status, Reply::refused) << answer.output;
        expectRule(rule);
    }

    // The log has a refusal by `rule` for each one expected so far.
    void expectRule(const std::string& rule) {
        const int times = ++expected[rule];
        EXPECT_TRUE(eventually(
            Seconds{5}, [&] { return helper.count("error: Refused a caller: " + rule) == times; }))
            << rule << "\n"
            << helper.process().output();
    }

    [[nodiscard]] std::string copyOwnedByTheUser() const {
        const std::string path = world.home + "/TestCaller";
        copyFile(HALVO_TEST_CALLER, path, world.user, 0755, world.user);
        return path;
    }

    World world;
    RunningHelper helper;
    std::map<std::string, int> expected;
};

class NamespaceTest : public AdmissionTest {
  protected:
    void SetUp() override {
        AdmissionTest::SetUp();
        if (world.run({"/usr/bin/unshare", "--user", "true"}).status != 0) {
            GTEST_SKIP() << "needs unprivileged user namespaces";
        }
    }
};

TEST_F(NamespaceTest, AUserNamespaceLosesThePrivateGroup) {
    for (const char* map : {"--map-root-user", "--map-current-user"}) {
        expectRefusal({"/usr/bin/unshare", "--user", map, Place::caller, "status"},
                      withoutGroup(Place::caller));
    }
    EXPECT_EQ(world.run({"/usr/bin/unshare", "--user", Place::caller, "status"}).status,
              Reply::refused);
}

// ---------------------------------------------------------------- file systems of a user's making

const std::string disk = "/run/media/disk";
const std::string callerOnDisk = disk + "/Halvo.app" + inBundle;

const std::string loop = "mount -o loop,ro,nodev,";
const std::string fuse = "fuse2fs -o ro,allow_other,nodev,";

// A file system with a copy of the installed app: a user can write any owner and mode into an
// image, and have it mounted without a password, with nosuid.
class UserFileSystemTest : public AdmissionTest {
  protected:
    void SetUp() override {
        AdmissionTest::SetUp();
        if (!exists("/dev/loop-control")) {
            GTEST_SKIP() << "needs loop devices";
        }
    }

    static void skipWithoutFUSE() {
        if (!exists("/dev/fuse") || !exists("/usr/bin/fuse2fs")) {
            GTEST_SKIP() << "needs /dev/fuse and the package fuse2fs";
        }
    }

    void TearDown() override {
        // Busy until the last process that runs from it has exited.
        EXPECT_TRUE(IsSkipped() || eventually(Seconds{5}, [] {
                        return std::system(("umount " + disk + " 2>/dev/null").c_str()) == 0;
                    }));
        AdmissionTest::TearDown();
    }

    // Makes an image in which the caller is set-group-id to `group`, and mounts it with `mount`.
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
        ASSERT_EQ(modeOf(callerOnDisk), setGroupID) << "the image does not have the wanted mode";
    }

    static void must(const std::string& command) {
        ASSERT_EQ(std::system(command.c_str()), 0) << command;
    }

    const std::vector<std::string> ask{callerOnDisk, "status"};
    const std::string withoutSetGroupID =
        "its executable lies on a file system mounted with nosuid, where the kernel ignores the "
        "set-group-id bit";
};

class UserFileSystemKindTest : public UserFileSystemTest,
                               public ::testing::WithParamInterface<std::string> {
  protected:
    void SetUp() override {
        UserFileSystemTest::SetUp();
        if (GetParam() == fuse) {
            skipWithoutFUSE();
        }
    }
};

TEST_P(UserFileSystemKindTest, IsRefused) {
    mountImage(world.user, GetParam() + "nosuid");
    expectRefusal(ask, withoutSetGroupID);
}

// The rule about groups refuses it by itself, too.
TEST_P(UserFileSystemKindTest, IsRefusedForTheUsersOwnGroupEvenWithoutNosuid) {
    mountImage(world.user, GetParam() + "suid");
    expectRefusal(ask,
                  "the group " + world.userName + " is the primary group of " + world.userName);
}

// Shows that nothing else is wrong with the image.
TEST_P(UserFileSystemKindTest, IsAdmittedWithoutNosuidWithThePrivateGroup) {
    mountImage(world.appGroup, GetParam() + "suid");
    const ChildResult answer = world.run(ask);
    EXPECT_EQ(answer.status, Reply::no) << answer.output;
}

INSTANTIATE_TEST_SUITE_P(Kinds, UserFileSystemKindTest, ::testing::Values(loop, fuse),
                         [](const auto& test) { return test.param == loop ? "Loop" : "FUSE"; });

// A FUSE server that stops answering must not block the helper.
class StalledFileSystemTest : public UserFileSystemTest {
  protected:
    void SetUp() override {
        UserFileSystemTest::SetUp();
        skipWithoutFUSE();
        if (IsSkipped()) {
            return;
        }
        mountImage(world.user, fuse + "nosuid");
        const auto servers = processesRunning(fs::canonical("/usr/bin/fuse2fs"));
        ASSERT_EQ(servers.size(), 1);
        server = servers.front();
    }

    pid_t server = -1;
};

TEST_F(StalledFileSystemTest, OfTheCallerDoesNotBlockTheHelper) {
    helper.process().stop();
    TestProcess caller({.words = {callerOnDisk, "connect", Place::socket}, .person = world.user});
    EXPECT_EQ(caller.readLine(), "connected");
    ::kill(server, SIGSTOP);
    // For a second the kernel answers from its cache; fuse(8), attr_timeout.
    sleepFor(Seconds{1.5});
    helper.process().goOn();
    const ChildResult answer = world.ask({"status"});
    ::kill(server, SIGCONT);
    EXPECT_EQ(answer.status, Reply::no) << answer.output;
    expectRule(withoutSetGroupID);
    caller.kill();
}

// A process that runs from it, in a mount namespace where its path is that of the app.
TEST_F(StalledFileSystemTest, AtThePathOfTheAppDoesNotBlockTheHelper) {
    TestProcess imposter(
        {.words = {"/usr/bin/unshare", "--user", "--map-root-user", "--mount", "/bin/sh", "-c",
                   "mount --bind " + disk + "/sleep " + Place::appExecutable + " && exec " +
                       Place::appExecutable + " 60"},
         .person = world.user});
    ASSERT_TRUE(eventually(Seconds{5}, [] {
        return processesRunning(Place::appExecutable).size() == 1;
    })) << imposter.output();
    ASSERT_EQ(world.begin(Seconds{600}), Reply::yes);
    ::kill(server, SIGSTOP);
    const bool isOpened =
        helper.says("Halvo isn't running during Ultra Hard mode; opening it", Seconds{12});
    ::kill(server, SIGCONT);
    EXPECT_TRUE(isOpened) << helper.process().output();
    EXPECT_TRUE(imposter.isRunning()) << imposter.output();
    EXPECT_EQ(world.end(), Reply::yes);
    imposter.kill();
}

// Attacks on a process of the app.
using TamperingTest = AdmissionTest;

TEST_F(TamperingTest, TheAppIgnoresLDPreload) {
    const std::string mark = "/tmp/mark";
    const std::vector<std::string> injection{"LD_PRELOAD=/tmp/injected.so",
                                             "HALVO_INJECTION_MARK=" + mark};
    fs::copy_file(HALVO_INJECTED_LIBRARY, "/tmp/injected.so", fs::copy_options::overwrite_existing);
    fs::remove(mark);
    const std::string mine = copyOwnedByTheUser();
    ASSERT_EQ(world.run({mine, "--help"}, injection).status, 0);
    ASSERT_THAT(readTestFile(mark), HasSubstr(mine))
        << "the library is not even loaded into an ordinary program";

    fs::remove(mark);
    const ChildResult answer = world.run({Place::caller, "status"}, injection);
    EXPECT_EQ(answer.status, Reply::no) << answer.output;
    EXPECT_FALSE(exists(mark)) << readTestFile(mark);
}

// ptrace(2) of a child that runs `words`, as `person`; 0 or errno.
int trace(const std::vector<std::string>& words, uid_t person) {
    TestProcess tracer({.person = person, .body = [words] {
                            const pid_t child = fork();
                            if (child == 0) {
                                execute(words[0], {words.begin() + 1, words.end()});
                            }
                            // Protected from execve(2) on.
                            eventually([&] { return processWords(child).at(0) == words[0]; });
                            const int code =
                                ptrace(PTRACE_SEIZE, child, nullptr, nullptr) == 0 ? 0 : errno;
                            kill(child, SIGKILL);
                            waitpid(child, nullptr, 0);
                            return code;
                        }});
    return tracer.wait();
}

TEST_F(TamperingTest, TheAppCannotBeTraced) {
    ASSERT_EQ(trace({"/bin/sleep", "60"}, world.user), 0)
        << "ptrace(2) is not permitted at all here";
    EXPECT_EQ(trace({Place::caller, "wait"}, world.user), EPERM);
}

TEST_F(TamperingTest, TheAppStartedUnderATracerHasNoPrivateGroup) {
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
