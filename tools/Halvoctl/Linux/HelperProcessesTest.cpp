#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "HalvoHelper/OpenAsUser.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestBundle.hpp"
#include "tests/Support/TestProcess.hpp"
#include "tools/Halvoctl/Machine.hpp"

namespace halvo::control {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using testing::TestProcess;

constexpr int ended = 128 + SIGTERM;

// The helper is a copy of sleep.
class HelperProcessesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root";
        }
        testing::copyProgram("/bin/sleep", helper);
        ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    }

    static TestProcess start(const std::string& program) {
        return TestProcess({.words = {program, "60"}});
    }

    const testing::TemporaryFolder folder;
    const std::string helper = folder / "HalvoHelper";
    HelperProcesses processes{helper};
};

TEST_F(HelperProcessesTest, FindsProcessesOfTheExecutable) {
    EXPECT_THAT(processes.running(), IsEmpty());
    testing::copyProgram("/bin/sleep", helper + "2");
    const TestProcess other = start(helper + "2");
    const TestProcess one = start(helper);
    EXPECT_THAT(processes.running(), ElementsAre(one.pid()));
    const TestProcess two = start(helper);
    EXPECT_THAT(processes.running(),
                ElementsAre(std::min(one.pid(), two.pid()), std::max(one.pid(), two.pid())));
}

TEST_F(HelperProcessesTest, DetectsStoppedProcesses) {
    const TestProcess goesOn = start(helper);
    const TestProcess stops = start(helper);
    EXPECT_FALSE(processes.isStopped(stops.pid()));
    stops.stop();
    EXPECT_TRUE(processes.isStopped(stops.pid()));
    EXPECT_FALSE(processes.isStopped(goesOn.pid()));
    EXPECT_FALSE(processes.isStopped(-1)) << "no such process";
}

TEST_F(HelperProcessesTest, TerminatesAlsoAfterTheExecutableWasReplaced) {
    const TestProcess one = start(helper);
    TestProcess two = start(helper);
    processes.terminate(two.pid());
    EXPECT_EQ(two.wait(), ended);
    EXPECT_THAT(processes.running(), ElementsAre(one.pid()));
    processes.terminate(two.pid());

    TestProcess old = start(helper);
    processes.terminate(one.pid());
    testing::copyProgram("/bin/sleep", folder / "new");
    fs::rename(folder / "new", helper);
    EXPECT_THAT(processes.running(), Contains(old.pid()));
    processes.terminate(old.pid());
    EXPECT_EQ(old.wait(), ended);
}

TEST_F(HelperProcessesTest, IgnoresOtherUsers) {
    constexpr uid_t nobody = 65534;
    TestProcess theirs({.words = {helper, "60"}, .person = nobody});
    EXPECT_THAT(processes.running(), IsEmpty());
    processes.terminate(theirs.pid());
    EXPECT_TRUE(testing::always(Seconds{0.1}, [&] { return theirs.isRunning(); }));
}

TEST_F(HelperProcessesTest, IgnoresAChangedRoot) {
    const std::string self = fs::read_symlink("/proc/self/exe");
    const TestProcess elsewhere([this] {
        ASSERT_EQ(chroot(folder.path().c_str()), 0);
        testing::writeTestFile("/there", "");
        pause();
    });
    ASSERT_TRUE(testing::eventually([this] { return fs::exists(folder / "there"); }));
    // Other tests may run beside this one.
    EXPECT_THAT(HelperProcesses(self).running(),
                AllOf(Contains(getpid()), Not(Contains(elsewhere.pid()))));
}

TEST_F(HelperProcessesTest, IgnoresAnotherFileMountedAtThePath) {
    const std::string other = folder / "Other";
    testing::copyProgram("/bin/sleep", other);
    TestProcess process({.words = {helper, "60"}, .prepare = [&] {
                             if (unshare(CLONE_NEWNS) != 0 ||
                                 mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                                 mount(other.c_str(), helper.c_str(), nullptr, MS_BIND, nullptr) !=
                                     0) {
                                 _exit(1);
                             }
                         }});
    if (!process.isRunning()) {
        GTEST_SKIP() << "needs to mount a file over another";
    }
    EXPECT_THAT(processes.running(), IsEmpty());
}

TEST_F(HelperProcessesTest, IgnoresOpenAsUserMode) {
    // The loader blocks while it opens the FIFO, so the program runs whatever its arguments are.
    const std::string library = folder / "library";
    ASSERT_EQ(mkfifo(library.c_str(), 0600), 0);
    const auto wait = [&](const std::string& argument) {
        return TestProcess({.words = {helper, argument}, .environment = {"LD_PRELOAD=" + library}});
    };
    TestProcess opening = wait(OpenAsUser::modeWord);
    const TestProcess plain = wait("--open");
    EXPECT_EQ(testing::processWords(opening.pid()),
              (std::vector<std::string>{helper, OpenAsUser::modeWord}));
    EXPECT_THAT(processes.running(), ElementsAre(plain.pid()));
    EXPECT_TRUE(opening.isRunning());
}

}  // namespace
}  // namespace halvo::control
