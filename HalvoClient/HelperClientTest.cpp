#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "HalvoClient/HelperClient.hpp"
#include "HalvoClient/PrivateGroup.hpp"
#include "tests/Support/FakeHelper.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

using namespace HelperFailures;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::Ge;
using ::testing::Lt;

constexpr Seconds shortLimit{0.4};
// A machine that is busy with other tests may be late.
constexpr Seconds lateness{2};

Seconds durationOf(const std::function<void()>& work) {
    const auto before = std::chrono::steady_clock::now();
    work();
    return std::chrono::steady_clock::now() - before;
}

std::vector<int> openDescriptors() {
    std::vector<int> numbers;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        numbers.push_back(std::stoi(entry.path().filename()));
    }
    // One of them was the iterator's own.
    std::erase_if(numbers, [](int number) { return fcntl(number, F_GETFD) < 0; });
    return numbers;
}

// Decides for this span whatever holds.
HelperClient::Decision anyway(WallDate until, WallDate started) {
    return [=](const HelperStatus&) { return CommitmentSpan{until, started}; };
}

class HelperClientTest : public ::testing::Test {
  protected:
    // Expects that `client` gets no answer and gives up in time.
    static void expectTimeOut(HelperClient& client) {
        const Seconds taken = durationOf([&client] {
            EXPECT_EQ(client.status(shortLimit), std::unexpected(HelperFailure(TimedOut{})));
        });
        EXPECT_THAT(taken, AllOf(Ge(shortLimit), Lt(shortLimit + lateness)));
    }

    TemporaryFolder folder_;
    std::string path_ = folder_ / "helper.sock";
};

TEST_F(HelperClientTest, AsksTheSocketOfItsApp) {
    EXPECT_EQ(HelperClient(HelperIdentity{"com.example.nobody", "7QX4KD19MT"}).status(),
              std::unexpected(HelperFailure(NotRunning{ENOENT})));
}

TEST_F(HelperClientTest, CarriesTheArgumentsOfABegin) {
    FakeHelper helper(path_, {Conduct::Answer});
    HelperClient client(path_);
    EXPECT_EQ(
        client.begin("/Applications/Hälvo.app", anyway(wallDate(1732143600.125), wallDate(-0.5))),
        true);
    EXPECT_STREQ(helper.record().lastRequest.data(),
                 "Begin /Applications/Hälvo.app 1732143600.125 -0.5");
}

TEST_F(HelperClientTest, CarriesDatesThatAreNone) {
    FakeHelper helper(path_, {Conduct::Answer});
    HelperClient client(path_);
    constexpr double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(client.begin("x", anyway(wallDate(infinity),
                                       wallDate(std::numeric_limits<double>::quiet_NaN()))),
              true);
    EXPECT_STREQ(helper.record().lastRequest.data(), "Begin x inf nan");
}

TEST_F(HelperClientTest, RejectsAPathThatDBusCannotCarry) {
    FakeHelper helper(path_, {Conduct::Answer});
    HelperClient client(path_);
    for (const std::string& path : {std::string("/a\0b.app", 8), std::string("/\xFF.app")}) {
        const auto answer = client.begin(path, anyway(wallDate(2), wallDate(1)));
        ASSERT_FALSE(answer.has_value());
        EXPECT_EQ(std::get<Rejected>(answer.error()).name,
                  "org.freedesktop.DBus.Error.InvalidArgs");
    }
    EXPECT_EQ(helper.record().connections, 0);
}

TEST_F(HelperClientTest, SaysWhetherTheSessionIsEnding) {
    FakeHelper helper(path_, {Conduct::Answer});
    HelperClient client(path_);
    EXPECT_EQ(client.heartbeat(false), true);
    EXPECT_STREQ(helper.record().lastRequest.data(), "Heartbeat false");
    EXPECT_EQ(client.heartbeat(true), true);
    EXPECT_STREQ(helper.record().lastRequest.data(), "Heartbeat true");
}

TEST_F(HelperClientTest, GivesTheHelpersNo) {
    FakeHelper helper(path_, {Conduct::Answer});
    helper.record().yes = false;
    HelperClient client(path_);
    EXPECT_EQ(client.begin("/Applications/Halvo.app", anyway(wallDate(2), wallDate(1))), false);
    EXPECT_EQ(client.heartbeat(false), false);
    EXPECT_EQ(client.end(), false);
    EXPECT_STREQ(helper.record().lastRequest.data(), "End");
}

TEST_F(HelperClientTest, GivesWhatHolds) {
    FakeHelper helper(path_, {Conduct::Answer});
    HelperClient client(path_);
    EXPECT_EQ(client.status(), HelperStatus::idle);
    helper.record().holding = true;
    helper.record().until = 1732143600.125;
    helper.record().locked = true;
    EXPECT_EQ(client.status(), (HelperStatus{true, wallDate(1732143600.125), true}));
    EXPECT_STREQ(helper.record().lastRequest.data(), "Status");
}

TEST_F(HelperClientTest, KeepsItsConnection) {
    FakeHelper helper(path_, {Conduct::Answer});
    HelperClient client(path_);
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(client.status().has_value());
    }
    EXPECT_EQ(helper.record().connections, 1);
}

TEST_F(HelperClientTest, WaitsForALateAnswer) {
    FakeHelper const helper(path_, {Conduct::AnswerLate});
    EXPECT_EQ(HelperClient(path_).heartbeat(false), true);
}

// No helper.

TEST_F(HelperClientTest, FindsNoHelper) {
    HelperClient client(path_);
    EXPECT_EQ(client.status(), std::unexpected(HelperFailure(NotRunning{ENOENT})));
    const std::string longest(200, 'x');
    EXPECT_EQ(HelperClient("/" + longest).status(),
              std::unexpected(HelperFailure(NotRunning{ENAMETOOLONG})));
    // The same object finds one that has come meanwhile.
    FakeHelper const helper(path_, {Conduct::Answer});
    EXPECT_TRUE(client.status().has_value());
}

// A socket at `path`, on which it listens when `queue` says for how many.
Descriptor socketAt(const std::string& path, std::optional<int> queue) {
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::ranges::copy(path, address.sun_path);
    EXPECT_EQ(bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    if (queue) {
        EXPECT_EQ(listen(socket.get(), *queue), 0);
    }
    return socket;
}

TEST_F(HelperClientTest, FindsASocketOnWhichNobodyListens) {
    const Descriptor socket = socketAt(path_, std::nullopt);
    EXPECT_EQ(HelperClient(path_).status(),
              std::unexpected(HelperFailure(NotRunning{ECONNREFUSED})));
}

TEST_F(HelperClientTest, TakesASocketThatItMayNotConnectToForARefusal) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become somebody else";
    }
    FakeHelper const helper(path_, {Conduct::Answer});
    ASSERT_EQ(chmod(folder_.path().c_str(), 0700), 0);
    const ChildResult child = runInChild([this] {
        // The uid alone is enough to lose root's right to go anywhere.
        ASSERT_EQ(seteuid(64001), 0);
        EXPECT_EQ(HelperClient(path_).status(), std::unexpected(HelperFailure(Refused{})));
        ASSERT_EQ(seteuid(0), 0);
    });
    EXPECT_EQ(child.status, 0) << child.output;
}

TEST_F(HelperClientTest, SaysWhenThisProcessHasNoDescriptorLeft) {
    FakeHelper const helper(path_, {Conduct::Answer});
    const ChildResult child = runInChild([this] {
        const std::vector<int> open = openDescriptors();
        const auto next = static_cast<rlim_t>(*std::ranges::max_element(open)) + 1;
        std::vector<Descriptor> fillers;
        rlimit before{};
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
        const rlimit limit{next, before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        do {
            fillers.emplace_back(dup(STDOUT_FILENO));
        } while (fillers.back().isOpen());
        const auto answer = HelperClient(path_).status();
        fillers.clear();
        // What looks for leaks at the end needs some, too.
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
        EXPECT_EQ(answer, std::unexpected(HelperFailure(NoResources{EMFILE})));
    });
    EXPECT_EQ(child.status, 0) << child.output;
}

// A helper that does not answer.

TEST_F(HelperClientTest, GivesUpOnAHelperThatNeverAnswers) {
    FakeHelper helper(path_, {Conduct::NeverAnswer});
    HelperClient client(path_);
    expectTimeOut(client);
    expectTimeOut(client);
    EXPECT_EQ(helper.record().connections, 2);
}

TEST_F(HelperClientTest, GivesUpOnAHelperThatNeverAuthenticates) {
    FakeHelper const helper(path_, {Conduct::NeverAuthenticate});
    HelperClient client(path_);
    expectTimeOut(client);
}

TEST_F(HelperClientTest, GivesUpOnAStoppedHelperAndComesBackToIt) {
    FakeHelper const helper(path_, {Conduct::Answer});
    HelperClient client(path_);
    helper.stop();
    expectTimeOut(client);
    helper.resume();
    EXPECT_TRUE(client.status().has_value());
    helper.stop();
    expectTimeOut(client);
    helper.resume();
    EXPECT_TRUE(client.status().has_value());
}

TEST_F(HelperClientTest, GivesUpOnAFullQueue) {
    const Descriptor listener = socketAt(path_, 0);
    std::vector<Descriptor> waiting;
    while (true) {
        auto socket = connectAsApp(path_, deadlineAfter(Seconds{0}));
        if (!socket) {
            EXPECT_EQ(socket.error(), ETIMEDOUT);
            break;
        }
        waiting.push_back(std::move(*socket));
    }
    HelperClient client(path_);
    expectTimeOut(client);
}

TEST_F(HelperClientTest, TakesAnImpossibleLimitForNone) {
    FakeHelper const helper(path_, {Conduct::NeverAnswer});
    HelperClient client(path_);
    for (const double limit : {0.0, -1e300, std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_EQ(client.status(Seconds{limit}), std::unexpected(HelperFailure(TimedOut{})));
    }
}

TEST_F(HelperClientTest, TakesAnEndlessLimitForALongOne) {
    FakeHelper const helper(path_, {Conduct::AnswerLate});
    EXPECT_TRUE(
        HelperClient(path_).status(Seconds{std::numeric_limits<double>::infinity()}).has_value());
}

// A helper that refuses.

TEST_F(HelperClientTest, BelievesTheSecondRefusal) {
    FakeHelper helper(path_, {Conduct::CloseAtAccept});
    HelperClient client(path_);
    EXPECT_EQ(client.status(), std::unexpected(HelperFailure(Refused{})));
    EXPECT_EQ(helper.record().connections, 2);
}

TEST_F(HelperClientTest, DoesNotBelieveTheFirstRefusal) {
    FakeHelper helper(path_, {Conduct::CloseAtAccept, Conduct::Answer});
    HelperClient client(path_);
    EXPECT_TRUE(client.status().has_value());
    EXPECT_EQ(helper.record().connections, 2);
}

TEST_F(HelperClientTest, HasNoTimeToTryARefusalAgain) {
    FakeHelper helper(path_, {Conduct::CloseAtAccept});
    EXPECT_EQ(HelperClient(path_).status(Seconds{0.05}),
              std::unexpected(HelperFailure(TimedOut{})));
    EXPECT_EQ(helper.record().connections, 1);
}

// A helper that goes away.

TEST_F(HelperClientTest, ConnectsAnewToARestartedHelper) {
    std::optional<FakeHelper> helper;
    helper.emplace(path_, std::vector{Conduct::Answer});
    HelperClient client(path_);
    EXPECT_TRUE(client.status().has_value());
    helper.reset();
    helper.emplace(path_, std::vector{Conduct::Answer});
    EXPECT_TRUE(client.status().has_value());
    EXPECT_EQ(helper->record().connections, 1);
    helper.reset();
    EXPECT_EQ(client.status(), std::unexpected(HelperFailure(NotRunning{ENOENT})));
    helper.emplace(path_, std::vector{Conduct::Answer});
    EXPECT_TRUE(client.status().has_value());
}

TEST_F(HelperClientTest, ConnectsAnewWhenTheHelperClosedMeanwhile) {
    FakeHelper helper(path_, {Conduct::AnswerOnce, Conduct::AnswerOnce});
    HelperClient client(path_);
    for (int i = 1; i <= 3; ++i) {
        EXPECT_TRUE(client.status().has_value());
        EXPECT_EQ(helper.record().connections, i);
    }
}

TEST_F(HelperClientTest, AsksAgainOnceWhenTheHelperDiesOnARequest) {
    FakeHelper helper(path_, {Conduct::CloseOnRequest, Conduct::Answer});
    HelperClient client(path_);
    EXPECT_EQ(client.end(), true);
    EXPECT_EQ(helper.record().connections, 2);
    EXPECT_EQ(helper.record().requests, 2);
}

TEST_F(HelperClientTest, GivesUpOnAHelperThatDiesOnEveryRequest) {
    FakeHelper helper(path_, {Conduct::CloseOnRequest});
    HelperClient client(path_);
    EXPECT_EQ(client.status(), std::unexpected(HelperFailure(NotRunning{ECONNRESET})));
    EXPECT_EQ(helper.record().requests, 2);
}

TEST_F(HelperClientTest, IsRefusedByARestartedHelper) {
    FakeHelper helper(path_, {Conduct::AnswerOnce, Conduct::CloseAtAccept});
    HelperClient client(path_);
    EXPECT_TRUE(client.status().has_value());
    EXPECT_EQ(client.status(), std::unexpected(HelperFailure(Refused{})));
    EXPECT_EQ(helper.record().connections, 3);
}

TEST_F(HelperClientTest, OutlivesAHelperThatIsRestartedAllTheTime) {
    FakeHelper const helper(path_,
                            {Conduct::CloseAtAccept, Conduct::CloseOnRequest, Conduct::Answer});
    EXPECT_TRUE(HelperClient(path_).status().has_value());
}

// A begin, which is only as good as the status on which it was decided.

// Decides, and notes on what.
struct Decided {
    HelperClient::Decision decision() {
        return [this](const HelperStatus& held) -> std::optional<CommitmentSpan> {
            on.push_back(held.holding);
            meanwhile();
            return held.holding ? std::nullopt
                                : std::optional(CommitmentSpan{wallDate(2), wallDate(1)});
        };
    }

    std::vector<bool> on;
    // Done between the status and the begin.
    std::function<void()> meanwhile = [] {};
};

TEST_F(HelperClientTest, SendsABeginOverTheConnectionOfItsStatus) {
    FakeHelper helper(path_, {Conduct::Answer});
    Decided decided;
    EXPECT_EQ(HelperClient(path_).begin("x", decided.decision()), true);
    EXPECT_THAT(decided.on, ElementsAre(false));
    EXPECT_EQ(helper.record().connections, 1);
    EXPECT_EQ(helper.record().requests, 2);
}

TEST_F(HelperClientTest, SendsNoBeginOverANewConnectionButDecidesAnew) {
    FakeHelper helper(path_, {Conduct::AnswerOnce, Conduct::Answer});
    Decided decided;
    decided.meanwhile = [&helper] { helper.record().holding = true; };
    EXPECT_EQ(HelperClient(path_).begin("x", decided.decision()), true) << "something holds";
    EXPECT_THAT(decided.on, ElementsAre(false, true));
    EXPECT_STREQ(helper.record().lastRequest.data(), "Status");
    EXPECT_EQ(helper.record().requests, 2);
    EXPECT_EQ(helper.record().connections, 2);
}

TEST_F(HelperClientTest, BeginsNothingOnceTheLimitIsOver) {
    FakeHelper helper(path_, {Conduct::Answer});
    Decided decided;
    decided.meanwhile = [] { waitBefore(deadlineAfter(Seconds{60}), shortLimit); };
    EXPECT_EQ(HelperClient(path_).begin("x", decided.decision(), shortLimit),
              std::unexpected(HelperFailure(TimedOut{})));
    EXPECT_STREQ(helper.record().lastRequest.data(), "Status");
}

TEST_F(HelperClientTest, BeginsNothingWhereEveryStatusIsTheLastOfItsConnection) {
    FakeHelper helper(path_, {Conduct::AnswerOnce});
    Decided decided;
    EXPECT_EQ(HelperClient(path_).begin("x", decided.decision(), Seconds{2}),
              std::unexpected(HelperFailure(TimedOut{})));
    EXPECT_GE(decided.on.size(), 2U);
    EXPECT_EQ(helper.record().begins, 0);
}

TEST_F(HelperClientTest, NeedsAStatusForABegin) {
    Decided decided;
    EXPECT_EQ(HelperClient(path_).begin("x", decided.decision()),
              std::unexpected(HelperFailure(NotRunning{ENOENT})));
    EXPECT_THAT(decided.on, ElementsAre());
}

// A helper that speaks otherwise.

TEST_F(HelperClientTest, GivesTheErrorOfTheHelperAndStaysConnected) {
    FakeHelper helper(path_, {Conduct::Reject});
    HelperClient client(path_);
    const HelperFailure expected =
        Rejected{"org.freedesktop.DBus.Error.UnknownMethod", "There is no End here"};
    EXPECT_EQ(client.end(), std::unexpected(expected));
    EXPECT_EQ(client.end(), std::unexpected(expected));
    EXPECT_EQ(helper.record().connections, 1);
}

TEST_F(HelperClientTest, RejectsAnswersThatItDoesNotUnderstand) {
    FakeHelper const helper(path_, {Conduct::AnswerText});
    HelperClient client(path_);
    const auto nameOf = [](const auto& answer) {
        return answer ? "none" : std::get<Rejected>(answer.error()).name;
    };
    constexpr const char* inconsistent = "org.freedesktop.DBus.Error.InconsistentMessage";
    EXPECT_EQ(nameOf(client.heartbeat(false)), inconsistent);
    EXPECT_EQ(nameOf(client.status()), inconsistent);
    FakeHelper const other(path_ + "2", {Conduct::AnswerTwoDates});
    EXPECT_EQ(nameOf(HelperClient(path_ + "2").status()), inconsistent);
}

// What it leaves behind, and what it does to the process.

TEST_F(HelperClientTest, LeaksNoDescriptorHoweverACallEnds) {
    const auto before = openDescriptors().size();
    const std::vector<Conduct> all{
        Conduct::CloseAtAccept, Conduct::CloseOnRequest,    Conduct::AnswerOnce,
        Conduct::Reject,        Conduct::NeverAuthenticate, Conduct::NeverAnswer,
    };
    for (const Conduct conduct : all) {
        FakeHelper const helper(path_, {conduct});
        HelperClient client(path_);
        for (int i = 0; i < 3; ++i) {
            [[maybe_unused]] const auto answer = client.status(Seconds{0.15});
        }
    }
    [[maybe_unused]] const auto answer = HelperClient(path_).status();
    EXPECT_EQ(openDescriptors().size(), before);
}

TEST_F(HelperClientTest, ClosesItsDescriptorsOnExec) {
    FakeHelper const helper(path_, {Conduct::Answer});
    const std::vector<int> before = openDescriptors();
    HelperClient client(path_);
    EXPECT_TRUE(client.status().has_value());
    std::vector<int> flags;
    for (const int number : openDescriptors()) {
        if (std::ranges::find(before, number) == before.end()) {
            flags.push_back(fcntl(number, F_GETFD));
        }
    }
    EXPECT_FALSE(flags.empty());
    EXPECT_THAT(flags, Each(FD_CLOEXEC));
}

TEST_F(HelperClientTest, HasThePrivateGroupInEffectOnlyToConnect) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to give a process a group as the kernel does";
    }
    static constexpr gid_t ownGroup = 64002;
    static constexpr gid_t privateGroup = 64003;
    FakeHelper helper(path_, {Conduct::AnswerOnce, Conduct::Answer});
    ASSERT_EQ(chmod(folder_.path().c_str(), 0755), 0);
    const ChildResult child = runInChild([this, &helper] {
        ASSERT_EQ(setgroups(0, nullptr), 0);
        ASSERT_EQ(setresgid(ownGroup, privateGroup, privateGroup), 0);
        ASSERT_EQ(setresuid(64001, 64001, 64001), 0);
        PrivateGroup::setAside();
        HelperClient client(path_);
        for (int i = 0; i < 2; ++i) {
            helper.record().group = 0;
            EXPECT_TRUE(client.status().has_value());
            EXPECT_EQ(helper.record().group, privateGroup);
            EXPECT_EQ(getegid(), ownGroup);
        }
        // LeakSanitizer aborts in such a process, so it must not get to run.
        std::fflush(nullptr);
        _exit(HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
    });
    EXPECT_EQ(child.status, 0) << child.output;
}

// What a person and a shell are told.

TEST(HelperFailureTest, IsDescribedInASentence) {
    EXPECT_EQ(description(NotRunning{ENOENT}),
              "The helper is not running: No such file or directory.");
    EXPECT_EQ(description(Refused{}),
              "The helper refused the connection before reading a request.");
    EXPECT_EQ(description(Refused{true}),
              "The helper refused the connection: this app was replaced since it started.");
    EXPECT_EQ(description(TimedOut{}), "The helper did not answer in time.");
    EXPECT_EQ(description(Rejected{"a.b.Error", "What is that"}),
              "The helper rejected the request: What is that (a.b.Error).");
    EXPECT_EQ(description(NoResources{EMFILE}), "The helper cannot be asked: Too many open files.");
}

TEST(HelperFailureTest, HasAnExitStatusOfItsOwn) {
    EXPECT_EQ(exitStatus(NotRunning{}), 69);
    EXPECT_EQ(exitStatus(Refused{}), 77);
    EXPECT_EQ(exitStatus(TimedOut{}), 75);
    EXPECT_EQ(exitStatus(Rejected{}), 65);
    EXPECT_EQ(exitStatus(NoResources{}), 71);
}

}  // namespace
}  // namespace halvo::testing
