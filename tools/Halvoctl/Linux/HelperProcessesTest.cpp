#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

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

class HelperProcessesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "needs root";
        }
        // Those of cat are its own, which ends with its input.
        testing::copyProgram("/bin/sleep", helper);
        ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
        processes = liveProcesses(helper);
    }

    // A process that runs the program at `path`, for long enough.
    static std::unique_ptr<TestProcess> start(
        const std::string& path, const std::function<void()>& prepare = [] {},
        const std::string& word = "60") {
        auto process = std::make_unique<TestProcess>([&] {
            prepare();
            execl(path.c_str(), path.c_str(), word.c_str(), "60", nullptr);
        });
        for (int i = 0; i < 2000; ++i) {
            std::error_code ignored;
            if (fs::read_symlink("/proc/" + std::to_string(process->pid()) + "/exe", ignored) ==
                path) {
                break;
            }
            usleep(5000);
        }
        return process;
    }

    const testing::TemporaryFolder folder;
    const std::string helper = folder / "HalvoHelper";
    std::unique_ptr<HelperProcesses> processes;
};

TEST_F(HelperProcessesTest, AreThoseThatRunTheHelper) {
    EXPECT_THAT(processes->running(), IsEmpty());
    const auto one = start(helper);
    EXPECT_THAT(processes->running(), ElementsAre(one->pid()));
    const auto two = start(helper);
    EXPECT_THAT(processes->running(),
                ElementsAre(std::min(one->pid(), two->pid()), std::max(one->pid(), two->pid())));
}

TEST_F(HelperProcessesTest, MayBeStopped) {
    const auto goesOn = start(helper);
    const auto stops = start(helper);
    EXPECT_FALSE(processes->isStopped(stops->pid()));
    stops->send(SIGSTOP);
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(stops->pid()), nullptr, WSTOPPED | WNOWAIT), 0);
    EXPECT_TRUE(processes->isStopped(stops->pid()));
    EXPECT_FALSE(processes->isStopped(goesOn->pid()));
    EXPECT_FALSE(processes->isStopped(-1)) << "which is gone by now";
}

TEST_F(HelperProcessesTest, AreNoOtherProgramAtTheSamePlace) {
    testing::copyProgram("/bin/sleep", helper + "2");
    const auto other = start(helper + "2");
    EXPECT_THAT(processes->running(), IsEmpty());
}

TEST_F(HelperProcessesTest, AreAlsoThoseWhoseProgramWasReplaced) {
    const auto old = start(helper);
    testing::copyProgram("/bin/sleep", folder / "new");
    fs::rename(folder / "new", helper);
    EXPECT_THAT(processes->running(), ElementsAre(old->pid()));
    processes->terminate(old->pid());
    EXPECT_EQ(old->wait(), 128 + SIGTERM);
}

TEST_F(HelperProcessesTest, AreNobodysButRoots) {
    constexpr uid_t nobody = 65534;
    const auto theirs = start(helper, [] { ASSERT_EQ(setuid(nobody), 0); });
    EXPECT_THAT(processes->running(), IsEmpty());
    processes->terminate(theirs->pid());
    usleep(100'000);
    EXPECT_TRUE(fs::exists("/proc/" + std::to_string(theirs->pid()) + "/exe"));
    theirs->send(SIGKILL);
    EXPECT_EQ(theirs->wait(), 128 + SIGKILL);
}

TEST_F(HelperProcessesTest, AreNotThoseOfAnotherRoot) {
    const std::string self = fs::read_symlink("/proc/self/exe");
    const TestProcess elsewhere([this] {
        ASSERT_EQ(chroot(folder.path().c_str()), 0);
        testing::writeTestFile("/there", "");
        pause();
    });
    for (int i = 0; i < 2000 && !fs::exists(folder / "there"); ++i) {
        usleep(5000);
    }
    ASSERT_TRUE(fs::exists(folder / "there"));
    // Other tests may run beside this one.
    EXPECT_THAT(liveProcesses(self)->running(),
                AllOf(Contains(getpid()), Not(Contains(elsewhere.pid()))));
}

TEST_F(HelperProcessesTest, AreNotThoseOfAnotherFileAtTheSamePath) {
    testing::copyProgram("/bin/sleep", folder / "Other");
    const std::string other = folder / "Other";
    const auto process = start(helper, [&] {
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(other.c_str(), helper.c_str(), nullptr, MS_BIND, nullptr) != 0) {
            _exit(1);
        }
    });
    if (!fs::exists("/proc/" + std::to_string(process->pid()) + "/exe")) {
        GTEST_SKIP() << "needs to mount a file over another";
    }
    EXPECT_THAT(processes->running(), IsEmpty());
}

TEST_F(HelperProcessesTest, AreNotThoseThatOpenTheApp) {
    const std::string shell = folder / "Shell";
    testing::copyProgram("/bin/sh", shell);
    const auto opening = std::make_unique<TestProcess>(
        [&] { execl(shell.c_str(), shell.c_str(), "--open-as-user", nullptr); });
    const auto plain = std::make_unique<TestProcess>(
        [&] { execl(shell.c_str(), shell.c_str(), "-c", "read line", nullptr); });
    usleep(300'000);
    EXPECT_THAT(liveProcesses(shell)->running(), ElementsAre(plain->pid()));
}

TEST_F(HelperProcessesTest, AreAskedToEnd) {
    const auto one = start(helper);
    const auto two = start(helper);
    processes->terminate(two->pid());
    EXPECT_EQ(two->wait(), 128 + SIGTERM);
    EXPECT_THAT(processes->running(), ElementsAre(one->pid()));
    processes->terminate(two->pid());
}

}  // namespace
}  // namespace halvo::control
