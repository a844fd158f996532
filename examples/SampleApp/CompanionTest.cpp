#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "examples/SampleApp/Companion.hpp"
#include "tests/Support/ChildProcess.hpp"
#include "tests/Support/FakeHelper.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo::testing {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

constexpr Pace hurried{Seconds{0.05}, Seconds{0.5}, Seconds{0.2}, Seconds{0.4}};

// How the app ended, and what it said.
struct Outcome {
    int status = -1;
    std::string said;
};

class CompanionTest : public ::testing::Test {
  protected:
    // Runs the app in a process of its own, with `meanwhile` beside it in this one.
    Outcome run(
        const Arguments& arguments,
        const std::function<void(pid_t app)>& meanwhile = [](pid_t) {}) {
        const std::string output = folder_ / "output";
        std::fflush(nullptr);
        const pid_t app = fork();
        if (app == 0) {
            std::FILE* stream = std::fopen(output.c_str(), "w");
            HelperClient client(path_);
            Display display(stream, /*terminal=*/false);
            RecordKeeper records(keepAlive_, widgets_, "/Applications/Halvo.app");
            const int status =
                Companion(client, display, records, "/Applications/Halvo.app", hurried)
                    .run(arguments);
            std::fclose(stream);
            _exit(status);
        }
        meanwhile(app);
        int status = 0;
        waitpid(app, &status, 0);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readTestFile(output)};
    }

    // Waits until the helper has answered `count` requests more.
    static void awaitRequests(const FakeHelper& helper, int count) {
        const int enough = helper.record().requests + count;
        for (int i = 0; i < 400 && helper.record().requests < enough; ++i) {
            usleep(25'000);
        }
        EXPECT_GE(helper.record().requests, enough);
    }

    static void hold(const FakeHelper& helper, Seconds span) {
        helper.record().until = secondsSince1970(wallNow() + span);
        helper.record().locked = true;
        helper.record().holding = true;
    }

    static void letGo(const FakeHelper& helper) {
        helper.record().yes = false;
        helper.record().holding = false;
        helper.record().until = 0.0;
        helper.record().locked = false;
    }

    TemporaryFolder folder_;
    std::string path_ = folder_ / "helper.sock";
    SharedFile<KeepAliveState> keepAlive_{"keepalive.json", folder_.path()};
    SharedFile<WidgetSnapshot> widgets_{"widgets.json", folder_.path()};
};

TEST_F(CompanionTest, SaysThatNothingHolds) {
    FakeHelper const helper(path_, {Conduct::Answer});
    const Outcome result = run({});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.said, "Nothing holds. Commit yourself with: Halvo MINUTES\n");
}

TEST_F(CompanionTest, StaysWhileACommitmentHoldsAndEndsAfterIt) {
    FakeHelper helper(path_, {Conduct::Answer});
    hold(helper, Seconds{600});
    const Outcome result = run({}, [&helper](pid_t) {
        awaitRequests(helper, 6);
        letGo(helper);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(
        result.said,
        AllOf(StartsWith("Ultra Hard mode holds until "), HasSubstr(", the app is locked\n"),
              HasSubstr("Ultra Hard mode is over. Halvo ends by itself in 0 seconds.\n"),
              EndsWith("Nothing holds\n")));
}

TEST_F(CompanionTest, LeavesRecordsOfWhatHolds) {
    FakeHelper helper(path_, {Conduct::Answer});
    hold(helper, Seconds{600});
    run({}, [&](pid_t app) {
        awaitRequests(helper, 4);
        const auto state = keepAlive_.read();
        ASSERT_TRUE(state);
        EXPECT_EQ(state->pid, app);
        EXPECT_FALSE(state->clean);
        EXPECT_TRUE(state->shouldRelaunch(wallNow()));
        const auto snapshot = widgets_.read();
        ASSERT_TRUE(snapshot);
        EXPECT_TRUE(snapshot->isRunning);
        kill(app, SIGKILL);
    });
    EXPECT_TRUE(keepAlive_.read()->shouldRelaunch(wallNow())) << "it was killed";
}

TEST_F(CompanionTest, LeavesRecordsOfACleanEnd) {
    FakeHelper helper(path_, {Conduct::Answer});
    hold(helper, Seconds{600});
    run({}, [&](pid_t) {
        awaitRequests(helper, 6);
        letGo(helper);
    });
    EXPECT_TRUE(keepAlive_.read()->clean);
    EXPECT_EQ(keepAlive_.read()->commitmentUntil, std::nullopt);
    EXPECT_FALSE(widgets_.read()->isRunning);
}

TEST_F(CompanionTest, GoesOnWhenARecordCannotBeWritten) {
    FakeHelper helper(path_, {Conduct::Answer});
    hold(helper, Seconds{600});
    const std::string elsewhere = folder_ / "none";
    keepAlive_ = SharedFile<KeepAliveState>("keepalive.json", elsewhere);
    const Outcome result = run({}, [&](pid_t) {
        awaitRequests(helper, 6);
        letGo(helper);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.said, HasSubstr("What the widgets show could not be written: " + elsewhere +
                                       "/keepalive.json: No such file or directory.\n"));
}

TEST_F(CompanionTest, LeavesNoRecordWhenNothingHolds) {
    FakeHelper const helper(path_, {Conduct::Answer});
    run({});
    EXPECT_EQ(keepAlive_.read(), std::nullopt);
    EXPECT_EQ(widgets_.read(), std::nullopt);
}

TEST_F(CompanionTest, SaysWhenTheHelperTakesNoCommitment) {
    FakeHelper const helper(path_, {Conduct::Answer});
    helper.record().yes = false;
    const Outcome result = run({Seconds{60}});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.said, HasSubstr("/Applications/Halvo.app is not where"));
    EXPECT_THAT(helper.record().lastRequest.data(), StartsWith("Begin /Applications/Halvo.app "));
}

TEST_F(CompanionTest, NeverAsksForAnEarlierEnd) {
    FakeHelper helper(path_, {Conduct::AnswerOnce, Conduct::CloseAtAccept});
    hold(helper, Seconds{600});
    const Outcome result = run({Seconds{60}}, [](pid_t app) {
        usleep(300'000);
        kill(app, SIGINT);
    });
    EXPECT_THAT(result.said, HasSubstr("What holds already ends later; the later end stays.\n"));
    // One answer only, and that was for the status.
    EXPECT_STREQ(helper.record().lastRequest.data(), "Status");
}

TEST_F(CompanionTest, SaysThatTheHelperAllowsNoLaterEnd) {
    FakeHelper helper(path_, {Conduct::Answer});
    hold(helper, Seconds{600});
    const Outcome result = run({Seconds{900}}, [&helper](pid_t) {
        awaitRequests(helper, 6);
        letGo(helper);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.said, HasSubstr("The helper allows no later end"));
}

TEST_F(CompanionTest, SaysWhatIsTheMatterWhenItCannotBegin) {
    EXPECT_EQ(run({}).status, 69);
    EXPECT_THAT(run({Seconds{60}}).said, StartsWith("The helper is not running: "));
    FakeHelper const helper(path_, {Conduct::CloseAtAccept});
    EXPECT_EQ(run({}).status, 77);
}

TEST_F(CompanionTest, OutlivesTheHelper) {
    std::optional<FakeHelper> helper;
    helper.emplace(path_, std::vector{Conduct::Answer});
    hold(*helper, Seconds{600});
    const Outcome result = run({}, [this, &helper](pid_t) {
        awaitRequests(*helper, 4);
        helper.reset();
        usleep(300'000);
        helper.emplace(path_, std::vector{Conduct::Answer});
        hold(*helper, Seconds{600});
        awaitRequests(*helper, 4);
        letGo(*helper);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.said, HasSubstr("Halvo keeps trying.\nThe helper is back.\n"));
}

TEST_F(CompanionTest, EndsWithoutTheHelperWhenTheCommitmentMustBeOver) {
    std::optional<FakeHelper> helper;
    helper.emplace(path_, std::vector{Conduct::Answer});
    hold(*helper, Seconds{0.3});
    const Outcome result = run({}, [&helper](pid_t) {
        awaitRequests(*helper, 3);
        helper.reset();
    });
    EXPECT_EQ(result.status, 69);
    EXPECT_THAT(result.said, EndsWith("Halvo ends: the helper has been away for too long.\n"));
}

TEST_F(CompanionTest, LooksForTheHelperThatBroughtItBack) {
    const Outcome alone = run({std::nullopt, /*broughtBack=*/true});
    EXPECT_EQ(alone.status, 69);
    EXPECT_THAT(alone.said, StartsWith("The helper opened Halvo again after it was quit.\n"));
    std::optional<FakeHelper> helper;
    const Outcome result = run({std::nullopt, /*broughtBack=*/true}, [this, &helper](pid_t) {
        usleep(150'000);
        helper.emplace(path_, std::vector{Conduct::Answer});
        hold(*helper, Seconds{600});
        awaitRequests(*helper, 4);
        letGo(*helper);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.said, HasSubstr("The helper is back.\nUltra Hard mode holds until "));
}

TEST_F(CompanionTest, EndsOnASignalWithoutAnExcuse) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        FakeHelper helper(path_, {Conduct::Answer});
        hold(helper, Seconds{600});
        const Outcome result = run({}, [&helper, signal](pid_t app) {
            awaitRequests(helper, 4);
            kill(app, signal);
        });
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.said, EndsWith("the helper opens it again.\n"));
        EXPECT_THAT(helper.record().lastRequest.data(), Not(HasSubstr("true")));
    }
}

}  // namespace
}  // namespace halvo::testing
