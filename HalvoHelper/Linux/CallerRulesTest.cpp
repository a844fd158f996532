#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelper/Linux/CallerRules.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// Why a caller was refused; "admitted" when it was not.
std::string verdictOn(int connection, const HelperIdentity& wanted = sampleIdentity) {
    const auto caller = CallerRules(wanted).check(connection);
    return caller ? "admitted" : caller.error();
}

std::array<Descriptor, 2> connectedEnds() {
    std::array<int, 2> ends{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

TEST(CallerRulesTest, RefuseWhatIsNoConnection) {
    EXPECT_EQ(verdictOn(-1), "its credentials cannot be read: Bad file descriptor");
    const Descriptor file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(verdictOn(file.get()),
              "its credentials cannot be read: Socket operation on non-socket");
    const Descriptor unconnected(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(verdictOn(unconnected.get()), "its credentials cannot be read");
}

TEST(CallerRulesTest, RefuseAnyOtherProgramAndReadNothingFromIt) {
    const auto ends = connectedEnds();
    ASSERT_EQ(write(ends[1].get(), "hello", 5), 5);
    EXPECT_NE(verdictOn(ends[0].get()), "admitted");
    std::array<char, 16> buffer{};
    EXPECT_EQ(read(ends[0].get(), buffer.data(), buffer.size()), 5);
}

// Account files in which the group 990 is private.
class AccountFilesTest : public ::testing::Test {
  protected:
    AccountFilesTest() {
        write("group", "root:x:0:\nhalvo-app:x:990:\nann:x:1000:\n");
        write("gshadow", "root:*::\nhalvo-app:!::\nann:!::\n");
        write("passwd", "root:x:0:0::/root:/bin/sh\nann:x:1000:1000::/home/ann:/bin/sh\n");
    }

    void write(const std::string& name, const std::string& text) const {
        replaceTestFile(etc / name, text);
    }

    [[nodiscard]] std::string problem(gid_t group = 990) const {
        const auto facts = readGroup(group, etc.path());
        const auto flaw = facts ? flawOf(*facts) : std::nullopt;
        return !facts ? facts.error() : flaw ? flaw->finding : "private";
    }

    TemporaryFolder etc;
};

TEST_F(AccountFilesTest, IsPrivate) {
    EXPECT_EQ(problem(), "private");
    EXPECT_EQ(problem(1000), "the group ann is the primary group of ann");
    EXPECT_EQ(problem(0), "the group 0 is root's");
    EXPECT_EQ(problem(991), "the group 991 has no name");
    // And by the machine's own files.
    const auto root = readGroup(0);
    ASSERT_TRUE(root) << root.error();
    EXPECT_EQ(root->name, "root");
    EXPECT_THAT(root->owners, ::testing::Contains("root"));
    EXPECT_EQ(root->hasShadow, geteuid() == 0);
}

// Of such a line, nsswitch.conf(5)'s "compat", the C library gives no password: a null pointer.
TEST_F(AccountFilesTest, MayHaveALineThatRefersToNIS) {
    write("group", "+\nroot:x:0:\n");
    write("gshadow", "+\nroot:*::\n");
    EXPECT_EQ(problem(0), "the group 0 is root's");
}

TEST_F(AccountFilesTest, HasNoMembersOwnersOrPassword) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, who alone looks at the shadow";
    }

    const struct {
        const char* file;
        const char* text;
        const char* problem;
    } rows[] = {
        {"group", "halvo-app:x:990:ann,ben\n", "the group halvo-app has members: ann, ben"},
        // Whichever entry has the number.
        {"group", "halvo-app:x:990:\nother:x:990:ann\n", "the group halvo-app has members: ann"},
        {"group", "halvo-app:$6$hash:990:\n", "the group halvo-app has a password"},
        {"group", "halvo-app::990:\n", "private"},
        {"gshadow", "halvo-app:!::ann\n", "the group halvo-app has members: ann"},
        {"gshadow", "halvo-app:!:ann:\n", "the group halvo-app has administrators: ann"},
        {"gshadow", "halvo-app:$6$hash::\n", "the group halvo-app has a password"},
        {"gshadow", "halvo-app:!$6$hash::\n", "private"},
        {"gshadow", "halvo-app:*::\n", "private"},
        {"gshadow", "other:$6$hash:ann:ann\n", "private"},
        {"passwd", "ann:x:1000:990::/:/bin/sh\nben:x:1001:990::/:\n",
         "the group halvo-app is the primary group of ann, ben"},
        {"passwd", "", "private"},
        {"group", "", "the group 990 has no name"},
    };

    for (const auto& row : rows) {
        const std::string path = etc / row.file;
        const std::string before = readTestFile(path);
        write(row.file, row.text);
        EXPECT_EQ(problem(), row.problem) << row.file << ": " << row.text;
        write(row.file, before);
    }
}

TEST_F(AccountFilesTest, HasALineLongerThanAnyBuffer) {
    std::string members;
    for (int number = 0; number < 100'000; ++number) {
        members += (number == 0 ? "u" : ",u") + std::to_string(number);
    }
    write("group", "crowd:x:2000:" + members + "\nhalvo-app:x:990:ann\n");
    EXPECT_EQ(problem(), "the group halvo-app has members: ann");
}

TEST_F(AccountFilesTest, IsNotToldFromAFileThatCannotBeRead) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root, who alone looks at the shadow";
    }
    std::filesystem::remove(etc / "gshadow");
    EXPECT_EQ(problem(), "private") << "there need not be one";
    for (const char* name : {"group", "gshadow", "passwd"}) {
        std::filesystem::remove(etc / name);
        std::filesystem::create_directory(etc / name);
        EXPECT_EQ(problem(), (etc / name) + ": Is a directory");
        std::filesystem::remove(etc / name);
        write(name, "halvo-app:x:990:\n");
    }
    std::filesystem::remove(etc / "passwd");
    EXPECT_EQ(problem(), (etc / "passwd") + ": No such file or directory");
}

// The mounts are those of process 1: no other test in the same process may leave its mount
// namespace (PrivateMount).
class CallerRulesPrivateMachineTest : public PrivateMachineTest {
  protected:
    void prepare() override {
        app = std::make_unique<TestBundle>("/Applications/Sample.app");
        app->writeInfo();
        app->install(appGroup);
        const auto address = socketAddress(socketPath).value();
        fs::remove(socketPath);
        listener = Descriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(bind(listener.get(), generic(address), sizeof address), 0);
        ASSERT_EQ(chmod(socketPath.c_str(), 0666), 0);
        ASSERT_EQ(::listen(listener.get(), 5), 0);
    }

    void cleanUp() override {
        caller.reset();
        for (const auto& item : fs::directory_iterator("/Applications")) {
            fs::remove_all(item.path());
        }
    }

    // Runs `path` with these words as a process that first does `prepare`, and takes its
    // connection.
    Descriptor connectionOf(const std::string& path, const std::vector<std::string>& words,
                            const std::function<void()>& prepare) {
        caller = std::make_unique<TestProcess>([&] {
            prepare();
            execute(path, words);
        });
        pollfd waiting{listener.get(), POLLIN, 0};
        constexpr int tenSeconds = 10'000;
        if (poll(&waiting, 1, tenSeconds) != 1) {
            ADD_FAILURE() << "no connection; " << path << " says: " << caller->readLine();
            return {};
        }
        return Descriptor(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    Descriptor connectionOf(const std::string& path, const std::vector<std::string>& words) {
        return connectionOf(path, words, [this] { become(user); });
    }

    // The usual caller: a person's process of the program at `path`, which is there to stay.
    Descriptor connectionOf(const std::string& path) {
        return connectionOf(path, {"connect", socketPath});
    }

    // A process of the app that first does `prepare`.
    Descriptor connectionAfter(const std::function<void()>& prepare) {
        return connectionOf(app->executable(), {"connect", socketPath}, prepare);
    }

    // The verdict while `source` lies over `target`.
    static std::string verdictBelow(const std::string& source, const std::string& target,
                                    const Descriptor& connection) {
        EXPECT_EQ(mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr), 0);
        std::string verdict = verdictOn(connection.get());
        EXPECT_EQ(umount(target.c_str()), 0);
        return verdict;
    }

    // The program of the last caller, as the kernel says.
    [[nodiscard]] std::string runs() const {
        return fs::read_symlink("/proc/" + std::to_string(caller->pid()) + "/exe");
    }

    Descriptor connectionOfApp() { return connectionOf(app->executable()); }

    std::string verdictOnApp() { return verdictOn(connectionOfApp().get()); }

    [[nodiscard]] std::string changeable() const {
        return app->executable() + " can be changed by users other than root";
    }

    [[nodiscard]] std::string forged() const {
        return "what it runs is not the file at " + app->executable();
    }

    const std::string elsewhere = "its executable's mount is not in /proc/1/mountinfo";

    [[nodiscard]] std::string withoutGroup(const std::string& path) const {
        return "it does not run with the private group of " + path;
    }

    [[nodiscard]] std::string ofAnotherApp() const {
        return app->executable() + " is not in a bundle of this app and team";
    }

    const std::string socketPath = "/run/callers.sock";
    std::unique_ptr<TestBundle> app;
    Descriptor listener;
    std::unique_ptr<TestProcess> caller;
};

// Each rule is broken by itself: the rest holds as in this one.
TEST_F(CallerRulesPrivateMachineTest, AdmitEveryProgramOfTheInstalledAppForEveryUser) {
    const std::string second = app->folder() + "/Second";
    copyProgram(HALVO_TEST_APP, second);
    makeSetGroupID(second, appGroup);
    EXPECT_EQ(verdictOn(connectionOf(second).get()), "admitted");
    for (const Credentials& person : {user, other, Credentials{0, 0}}) {
        const Descriptor connection = connectionAfter([&person] { become(person); });
        caller->send(SIGSTOP);
        const auto verdict = CallerRules(sampleIdentity).check(connection.get());
        ASSERT_TRUE(verdict) << verdict.error();
        EXPECT_EQ(*verdict, (HelperPeer{person.uid, app->path()}));
    }
}

TEST_F(CallerRulesPrivateMachineTest, RefuseWhoDoesNotHaveTheGroupOfAnExecutableThatGivesIt) {
    const std::string none = withoutGroup(app->executable());
    const Descriptor aside = connectionOf(app->executable(), {"drop-group", "connect", socketPath});
    EXPECT_EQ(verdictOn(aside.get()), none);
    const Descriptor connection = connectionOfApp();
    // To belong to another group loses the bit: chown(2).
    makeSetGroupID(app->executable(), user.gid);
    EXPECT_EQ(verdictOn(connection.get()), none);
    app->install(appGroup);
    ASSERT_EQ(chmod(app->executable().c_str(), 0755), 0);
    for (const gid_t group : {user.gid, appGroup}) {
        const Descriptor member = connectionAfter([&] { become({user.uid, group}); });
        EXPECT_EQ(verdictOn(member.get()), none);
    }
    const Descriptor system =
        connectionOf(HALVO_TEST_APP, {"connect-run", socketPath, "/usr/bin/sleep", "60"});
    ASSERT_TRUE(eventually([this] { return runs() == "/usr/bin/sleep"; }));
    EXPECT_EQ(verdictOn(system.get()), withoutGroup("/usr/bin/sleep"));
}

// Everything else is as with the app, and the kernel gave the group.
TEST_F(CallerRulesPrivateMachineTest, RefuseAGroupThatIsNotPrivate) {
    app->install(other.gid);
    EXPECT_THAT(verdictOnApp(), HasSubstr(" is the primary group of "));
    app->install(4'000'000);
    EXPECT_EQ(verdictOnApp(), "the group 4000000 has no name");
    app->install(0);
    EXPECT_EQ(verdictOnApp(), "the group 0 is root's");
}

// As with a user of a directory service, who is not in the local files.
TEST_F(CallerRulesPrivateMachineTest, RefuseAGroupThatTheCallerHasByItself) {
    const std::string byItself =
        "the private group of " + app->executable() + " is its real or a supplementary group";
    EXPECT_EQ(verdictOn(connectionAfter([this] { become({user.uid, appGroup}); }).get()), byItself);
    for (const gid_t one : {appGroup, other.gid}) {
        const Descriptor connection = connectionAfter([this, one] {
            std::vector<gid_t> groups(100, other.gid);
            groups[50] = one;
            ASSERT_EQ(setgroups(groups.size(), groups.data()), 0);
            ASSERT_EQ(setresgid(user.gid, user.gid, user.gid), 0);
            ASSERT_EQ(setresuid(user.uid, user.uid, user.uid), 0);
        });
        EXPECT_EQ(verdictOn(connection.get()), one == appGroup ? byItself : "admitted");
    }
}

TEST_F(CallerRulesPrivateMachineTest, RefuseAllCallersWhereTheAccountFilesCannotBeRead) {
    const Descriptor connection = connectionOfApp();
    const auto verdict = CallerRules(sampleIdentity, "/nowhere").check(connection.get());
    EXPECT_EQ(verdict.error(), "cannot look up group " + std::to_string(appGroup) +
                                   ": /nowhere/group: No such file or directory");
}

// Folders not even where they are sticky.
TEST_F(CallerRulesPrivateMachineTest, RefuseAnExecutableThatOthersThanRootCanChange) {
    const std::string path = app->executable();
    for (const std::string& item : {path, app->folder(), app->path() + "/Contents", app->path(),
                                    std::string("/Applications"), std::string("/")}) {
        SCOPED_TRACE(item);
        const mode_t usual = item == path ? 02755 : 0755;
        const gid_t group = item == path ? appGroup : 0;
        for (const mode_t mode : {usual | 020U, usual | 01002U}) {
            ASSERT_EQ(chmod(item.c_str(), mode), 0);
            EXPECT_EQ(verdictOnApp(), changeable()) << std::oct << mode;
        }
        for (const uid_t owner : {user.uid, uid_t{0}}) {
            ASSERT_EQ(chown(item.c_str(), owner, group), 0);
            ASSERT_EQ(chmod(item.c_str(), usual), 0);
            EXPECT_EQ(verdictOnApp(), owner == 0 ? "admitted" : changeable());
        }
    }
}

// By a path whose folder is a link by now, to the very same one.
TEST_F(CallerRulesPrivateMachineTest, RefuseAPathByWayOfALink) {
    const std::string real = "/Library/Real.app";
    fs::create_directory(real);
    ASSERT_EQ(mount(app->path().c_str(), real.c_str(), nullptr, MS_BIND, nullptr), 0);
    const Descriptor connection = connectionOfApp();
    ASSERT_EQ(mount("tmpfs", "/Applications", "tmpfs", 0, "mode=755"), 0);
    fs::create_directory_symlink(real, app->path());
    const std::string verdict = verdictOn(connection.get());
    ASSERT_EQ(umount("/Applications"), 0);
    EXPECT_EQ(verdict, changeable());
    EXPECT_EQ(verdictOn(connection.get()), "admitted");
    ASSERT_EQ(umount(real.c_str()), 0);
    fs::remove(real);
}

// Something lies over the path by now: everything else is as with the app.
TEST_F(CallerRulesPrivateMachineTest, RefuseAFileThatIsNoLongerTheOneAtItsPath) {
    const std::string second = "/Library/other";
    copyProgram(HALVO_TEST_APP, second);
    makeSetGroupID(second, appGroup);
    const Descriptor connection = connectionOfApp();
    EXPECT_EQ(verdictBelow(second, app->executable(), connection), forged());
    EXPECT_EQ(verdictOn(connection.get()), "admitted");
    fs::remove(second);
    // On another file system files have the same numbers again.
    const std::string twins = "/Library/twins";
    fs::create_directory(twins);
    ASSERT_EQ(mount("tmpfs", twins.c_str(), "tmpfs", 0, "mode=755"), 0);
    struct stat status{};
    ASSERT_EQ(stat(app->executable().c_str(), &status), 0);
    const std::string twin = copyProgramAsNumber(HALVO_TEST_APP, twins, status.st_ino);
    makeSetGroupID(twin, appGroup);
    EXPECT_EQ(verdictBelow(twin, app->executable(), connection), forged());
    ASSERT_EQ(umount(twins.c_str()), 0);
    fs::remove(twins);
}

TEST_F(CallerRulesPrivateMachineTest, RefuseWhereTheKernelDoesNotHonourTheBit) {
    const std::string folder = "/Applications/Sample.app";
    ASSERT_EQ(mount(folder.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr), 0);
    const Descriptor onMount = connectionOfApp();
    EXPECT_EQ(verdictOn(onMount.get()), "admitted");
    // "rw,nosuid", and with options after it.
    for (const unsigned long others :
         std::initializer_list<unsigned long>{MS_STRICTATIME, MS_NODEV | MS_NOEXEC | MS_NOATIME}) {
        ASSERT_EQ(mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_NOSUID | others,
                        nullptr),
                  0);
        EXPECT_EQ(verdictOn(onMount.get()),
                  "its executable lies on a file system mounted with nosuid, where the kernel "
                  "ignores the set-group-id bit")
            << others;
    }
    // A detached mount (MNT_DETACH) is not in mountinfo.
    ASSERT_EQ(mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_BIND, nullptr), 0);
    EXPECT_EQ(verdictOn(onMount.get()), "admitted");
    ASSERT_EQ(umount2(folder.c_str(), MNT_DETACH), 0);
    EXPECT_EQ(verdictOn(onMount.get()), elsewhere);
}

// The kernel escapes blanks, tabs, newlines and backslashes in the paths of mounts, nothing else.
TEST_F(CallerRulesPrivateMachineTest, TakeNoPathOfAMountForItsOptions) {
    for (const std::string separator : {"\f", "\v", "\r", " ", "\t", "\n"}) {
        const std::string folder = "/Library/mount" + separator + "rw,relatime";
        fs::create_directory(folder);
        ASSERT_EQ(mount(folder.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr), 0);
        copyProgram(HALVO_TEST_APP, folder + "/program");
        ASSERT_EQ(
            mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_NOSUID, nullptr), 0);
        EXPECT_EQ(verdictOn(connectionOf(folder + "/program").get()),
                  "its executable lies on a file system mounted with nosuid, where the kernel "
                  "ignores the set-group-id bit")
            << int{separator.front()};
        ASSERT_EQ(umount2(folder.c_str(), MNT_DETACH), 0);
    }
}

// In a mount namespace of its own, with everything else as it is with the app: even the group.
TEST_F(CallerRulesPrivateMachineTest, RefuseTheMountsOfACallersOwn) {
    const Descriptor connection = connectionAfter([&] {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        become(user);
    });
    EXPECT_EQ(verdictOn(connection.get()), elsewhere);
    // As any user can forge it.
    const std::string forgery = "/home/" + userName + "/forgery";
    copyProgram(HALVO_TEST_APP, forgery);
    const Descriptor forger =
        connectionOf(HALVO_TEST_APP, {"forge", forgery, app->executable(), "connect", socketPath});
    ASSERT_EQ(runs(), app->executable());
    EXPECT_EQ(verdictOn(forger.get()), elsewhere);
    fs::remove(forgery);
}

// As containers may have it.
TEST_F(CallerRulesPrivateMachineTest, RefuseAllCallersWhereTheMachinesMountsAreHidden) {
    const Descriptor connection = connectionOfApp();
    ASSERT_EQ(mount("tmpfs", "/proc/1", "tmpfs", 0, nullptr), 0);
    const std::string missing = verdictOn(connection.get());
    fs::create_directory("/proc/1/mountinfo");
    const std::string unreadable = verdictOn(connection.get());
    ASSERT_EQ(umount("/proc/1"), 0);
    const std::string hidden = "the machine's mounts cannot be read in /proc/1/mountinfo: ";
    EXPECT_EQ(missing, hidden + "No such file or directory");
    EXPECT_EQ(unreadable, hidden + "Is a directory");
    EXPECT_EQ(verdictOn(connection.get()), "admitted");
}

TEST_F(CallerRulesPrivateMachineTest, RefuseAnAppThatWasReplacedOrRemovedMeanwhile) {
    const std::string deleted = "its executable was replaced or removed since it started";
    const std::string replaced = "the app was replaced since it started; quit it and start it anew";
    const std::string old = app->executable() + ".old";
    const auto put = [this] { copyProgram(HALVO_TEST_APP, app->executable()); };
    const Descriptor connection = connectionOfApp();
    fs::rename(app->executable(), old);
    put();
    app->install(appGroup);
    // What runs has another path now, and is no longer set-group-id.
    ASSERT_EQ(chmod(old.c_str(), 0755), 0);
    EXPECT_EQ(verdictOn(connection.get()), withoutGroup(old));
    fs::rename(old, app->executable());
    fs::remove(app->executable());
    EXPECT_EQ(verdictOn(connection.get()), deleted);
    put();
    EXPECT_EQ(verdictOn(connection.get()), replaced);
    // And in whose place there is a file that is not the app's.
    app->writeInfo("com.example.other");
    EXPECT_EQ(verdictOn(connection.get()), deleted);
    app->writeInfo();
    ASSERT_EQ(chown(app->executable().c_str(), user.uid, 0), 0);
    EXPECT_EQ(verdictOn(connection.get()), deleted);
    // And one that is called as the kernel calls it now.
    const std::string called = app->executable() + " (deleted)";
    copyProgram(HALVO_TEST_APP, called);
    makeSetGroupID(called, appGroup);
    EXPECT_EQ(verdictOn(connection.get()), deleted);
}

// Longer than the kernel says any path.
TEST_F(CallerRulesPrivateMachineTest, RefuseAPathThatCannotBeTold) {
    const std::string top = "/Library/deep";
    const Descriptor connection = connectionOf("./Sample", {"connect", socketPath}, [&] {
        const std::string name(200, 'x');
        fs::create_directory(top);
        fs::current_path(top);
        for (int depth = 0; depth < 25; ++depth) {
            fs::create_directory(name);
            ASSERT_EQ(chdir(name.c_str()), 0);
        }
        copyProgram(HALVO_TEST_APP, "Sample");
        makeSetGroupID("Sample", appGroup);
        become(user);
    });
    EXPECT_EQ(verdictOn(connection.get()),
              "the path of its executable cannot be read: File name too long");
    caller.reset();
    fs::remove_all(top);
}

TEST_F(CallerRulesPrivateMachineTest, RefuseAProgramOutsideOfABundle) {
    const std::string program = "/Applications/Sample";
    copyProgram(HALVO_TEST_APP, program);
    makeSetGroupID(program, appGroup);
    EXPECT_EQ(verdictOn(connectionOf(program).get()),
              program + " is not in a bundle of this app and team");
}

TEST_F(CallerRulesPrivateMachineTest, RefuseAnotherAppOrAnotherTeam) {
    const Descriptor connection = connectionOfApp();
    EXPECT_EQ(verdictOn(connection.get(), {"com.example.other", "7QX4KD19MT"}), ofAnotherApp());
    EXPECT_EQ(verdictOn(connection.get(), {"com.example.app", "7QX4KD19MU"}), ofAnotherApp());
    for (const char* name : {"com.example.other", "com.example.app.helper", "com.example.ap",
                             "COM.EXAMPLE.APP", "", "com..example"}) {
        app->writeInfo(name);
        EXPECT_EQ(verdictOn(connection.get()), ofAnotherApp()) << name;
    }
    for (const char* team : {"7QX4KD19MU", "7qx4kd19mt", "7QX4KD19M", "7QX4KD19MTT", ""}) {
        app->writeInfo("com.example.app", team);
        EXPECT_EQ(verdictOn(connection.get()), ofAnotherApp()) << team;
    }
    app->writeInfo();
    EXPECT_EQ(verdictOn(connection.get()), "admitted");
}

TEST_F(CallerRulesPrivateMachineTest, RefuseAnInfoThatIsNotTheAppsOrNotRootOwnedPath) {
    const std::string info = app->info();
    const auto without = [&](const std::string& missing) {
        std::string text = infoText("Sample", "com.example.app", "7QX4KD19MT");
        text.replace(text.find(missing), missing.size(), "Other");
        replaceTestFile(info, text);
    };
    const std::pair<const char*, std::function<void()>> rows[] = {
        {"none", [&] { fs::remove(info); }},
        {"damaged", [&] { replaceTestFile(info, "com.example.app 7QX4KD19MT"); }},
        {"without the identifier", [&] { without("CFBundleIdentifier"); }},
        {"without the team", [&] { without("HalvoTeamID"); }},
        {"writable by its group", [&] { ASSERT_EQ(chmod(info.c_str(), 0664), 0); }},
        {"writable by others", [&] { ASSERT_EQ(chmod(info.c_str(), 0646), 0); }},
        {"another person's", [&] { ASSERT_EQ(chown(info.c_str(), user.uid, user.gid), 0); }},
        {"a link",
         [&] {
             fs::rename(info, app->path() + "/Contents/Real.plist");
             fs::create_symlink("Real.plist", info);
         }},
        {"a pipe",
         [&] {
             fs::remove(info);
             ASSERT_EQ(mkfifo(info.c_str(), 0644), 0);
         }},
        {"a folder",
         [&] {
             fs::remove(info);
             fs::create_directory(info);
         }},
    };
    for (const auto& [what, spoil] : rows) {
        spoil();
        EXPECT_EQ(verdictOnApp(), ofAnotherApp()) << what;
        fs::remove(info);
        app->writeInfo();
        EXPECT_EQ(verdictOnApp(), "admitted") << "after " << what;
    }
}

TEST_F(CallerRulesPrivateMachineTest, SayWhyALookUpFailed) {
    const Descriptor connection = connectionOfApp();
    const std::size_t before = callsMade(SystemCall::read);
    EXPECT_EQ(verdictOn(connection.get()), "admitted");
    // The Info.plist is read last, in one read and one more for its end.
    const int readsBefore = static_cast<int>(callsMade(SystemCall::read) - before) - 2;
    const std::string contents = app->path() + "/Contents";

    const struct {
        SystemCall call;
        int skip;
        int code;
        std::string verdict;
    } rows[] = {
        {SystemCall::getsockopt, 0, EIO, "its credentials cannot be read: Input/output error"},
        {SystemCall::getsockopt, 1, ESRCH,
         "cannot check whether the process still exists: No such process"},
        {SystemCall::open, 0, EMFILE, "its executable cannot be read: Too many open files"},
        {SystemCall::statx, 0, EIO, "its executable cannot be examined: Input/output error"},
        {SystemCall::readlink, 0, EIO,
         "the path of its executable cannot be read: Input/output error"},
        // "/", "Applications", the bundle, "Contents", "MacOS", the file; and that once more.
        {SystemCall::lstat, 3, EIO,
         app->executable() + " cannot be examined: " + contents + ": Input/output error"},
        {SystemCall::lstat, 6, EIO, app->executable() + " cannot be examined: Input/output error"},
        {SystemCall::getsockopt, 2, EIO, "its groups cannot be read: Input/output error"},
        {SystemCall::open, 1, EIO, "its groups cannot be read: Input/output error"},
        {SystemCall::lstat, 11, EIO, "its Info.plist cannot be read: Input/output error"},
        {SystemCall::open, 2, EMFILE, "its Info.plist cannot be read: Too many open files"},
        {SystemCall::read, readsBefore, EIO, "its Info.plist cannot be read: Input/output error"},
    };

    for (const auto& row : rows) {
        std::string verdict;
        {
            const Fault fault = Fault::failing(row.call, row.code, row.skip);
            verdict = verdictOn(connection.get());
        }
        EXPECT_EQ(verdict, row.verdict);
    }
    EXPECT_EQ(verdictOn(connection.get()), "admitted");
}

TEST_F(CallerRulesPrivateMachineTest, ReadAnInfoAgainOnlyAfterItHasChanged) {
    CallerRules rules(sampleIdentity);
    const TestBundle stranger("/Applications/Other.app");
    stranger.writeInfo("com.example.other");
    stranger.install(appGroup);
    const std::string ours = app->executable();
    const std::string theirs = stranger.executable();
    // How many files are opened for each caller.
    const auto opened = [&](const std::string& executable) {
        const Descriptor connection = connectionOf(executable);
        const std::size_t before = callsMade(SystemCall::open);
        EXPECT_EQ(rules.check(connection.get()).has_value(), executable == ours);
        return callsMade(SystemCall::open) - before;
    };
    // The executable, the groups, the Info.plist.
    EXPECT_EQ(opened(ours), 3U);
    sleep(3);  // until a change would show
    for (const std::size_t count : {3U, 2U, 2U}) {
        EXPECT_EQ(opened(ours), count);
        EXPECT_EQ(opened(theirs), count) << "one bundle displaces the other";
    }
    stranger.writeInfo("com.example.other", "");
    sleep(3);
    for (const std::size_t count : {3U, 3U}) {
        EXPECT_EQ(opened(theirs), count) << "a lack of memory, too, gives no identity";
    }
    app->writeInfo("com.example.other");
    EXPECT_FALSE(rules.check(connectionOf(ours).get()));
    app->writeInfo();
    EXPECT_EQ(opened(ours), 3U);
    sleep(3);
    opened(ours);
    EXPECT_EQ(opened(ours), 2U);
    // In place, of the same length, and with the previous times, which every user can set.
    struct stat status{};
    ASSERT_EQ(stat(app->info().c_str(), &status), 0);
    std::string text = readTestFile(app->info());
    text.replace(text.find("7QX4KD19MT"), 10, "7QX4KD19MU");
    overwriteTestFile(app->info(), text);
    const std::array<timespec, 2> times{status.st_atim, status.st_mtim};
    ASSERT_EQ(utimensat(AT_FDCWD, app->info().c_str(), times.data(), 0), 0);
    EXPECT_FALSE(rules.check(connectionOf(ours).get()));
}

TEST_F(CallerRulesPrivateMachineTest, RefuseAnAppThatBecameAnotherProgramAndOneThatBecameTheApp) {
    const std::string next = "/Library/next";
    copyProgram(HALVO_TEST_APP, next);
    for (const auto& [first, then] : {std::pair(app->executable(), next),
                                      std::pair(std::string(HALVO_TEST_APP), app->executable())}) {
        const Descriptor connection =
            connectionOf(first, {"connect-run", socketPath, then, "wait"});
        EXPECT_EQ(caller->readLine(), "waiting");
        ASSERT_EQ(runs(), then);
        EXPECT_EQ(verdictOn(connection.get()), withoutGroup(then));
    }
    fs::remove(next);
}

TEST_F(CallerRulesPrivateMachineTest, RefuseAConnectionThatTheAppLeftToAnother) {
    const Descriptor connection = connectionOf(app->executable(), {"connect-share", socketPath});
    EXPECT_EQ(caller->readLine(), "connected");
    // A zombie.
    siginfo_t end{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(caller->pid()), &end, WEXITED | WNOWAIT), 0);
    const std::string gone = "its executable cannot be read: No such file or directory";
    EXPECT_EQ(verdictOn(connection.get()), gone);
    // Reaped: the PID is free. Which look-up fails first depends on the kernel.
    caller->wait();
    EXPECT_THAT(verdictOn(connection.get()),
                AnyOf(gone, StartsWith("cannot check whether the process still exists: ")));
}

// Whether the kernel holds on to the process behind a connection: SO_PEERPIDFD, Linux 6.5.
bool isHeldByKernel(const Descriptor& connection) {
    constexpr int peerPidfd = 77;
    int number = -1;
    socklen_t size = sizeof number;
    const bool held = getsockopt(connection.get(), SOL_SOCKET, peerPidfd, &number, &size) == 0;
    const Descriptor pidfd(number);
    return held;
}

// SO_PEERPIDFD is of Linux 6.5.
TEST_F(CallerRulesPrivateMachineTest, AdmitOnAKernelWithoutPidfdsOfPeers) {
    const Descriptor connection = connectionOfApp();
    const Fault older = Fault::failing(SystemCall::getsockopt, ENOPROTOOPT, 1);
    EXPECT_EQ(verdictOn(connection.get()), "admitted");
}

TEST_F(CallerRulesPrivateMachineTest, RefuseACallerThatCannotBeHeldOnToOrEndsMeanwhile) {
    const Descriptor connection = connectionOfApp();
    if (!isHeldByKernel(connection)) {
        GTEST_SKIP() << "needs SO_PEERPIDFD (Linux 6.5)";
    }
    std::string verdict;
    {
        const FewDescriptors none(0);
        verdict = verdictOn(connection.get());
    }
    EXPECT_EQ(verdict, "cannot check whether the process still exists: Too many open files");
    const BeforeNext end(BeforeNext::Call::poll, [this] { caller->kill(); });
    EXPECT_EQ(verdictOn(connection.get()), "it ended meanwhile");
}

// Of a process in a machine within ours, or around it, there is no number.
TEST_F(CallerRulesPrivateMachineTest, RefuseACallerOfAnotherMachine) {
    const auto ends = connectedEnds();
    expectInChild([&] {
        ASSERT_EQ(unshare(CLONE_NEWPID), 0);
        expectInChild(
            [&] { EXPECT_EQ(verdictOn(ends[0].get()), "its credentials cannot be read"); });
        exitAtOnce();
    });
}

}  // namespace
}  // namespace halvo::testing
