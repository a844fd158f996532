#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "HalvoClient/HelperClient.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"
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

TEST_F(HelperClientTest, CarriesArgumentsAndTheHelpersAnswer) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    constexpr double none = std::numeric_limits<double>::quiet_NaN();
    const auto begin = [](const char* path, double until, double started) {
        return [=](HelperClient& client) {
            return client.begin(path, anyway(wallDate(until), wallDate(started)));
        };
    };
    const auto heartbeat = [](bool ending) {
        return [=](HelperClient& client) { return client.heartbeat(ending); };
    };

    struct Row {
        std::function<HelperClient::Result<bool>(HelperClient&)> request;
        const char* sent;
    };

    const Row rows[] = {
        {begin("/Applications/Hälvo.app", 1732143600.125, -0.5),
         "Begin /Applications/Hälvo.app 1732143600.125 -0.5"},
        {begin("x", infinity, none), "Begin x inf nan"},
        {heartbeat(false), "Heartbeat false"},
        {heartbeat(true), "Heartbeat true"},
        {[](HelperClient& client) { return client.end(); }, "End"},
    };
    FakeHelper helper(path_, {Behavior::Answer});
    HelperClient client(path_);
    for (const auto& [request, sent] : rows) {
        for (const bool yes : {true, false}) {
            helper.record().yes = yes;
            EXPECT_EQ(request(client), yes) << sent;
            EXPECT_STREQ(helper.record().lastRequest.data(), sent);
        }
    }
}

TEST_F(HelperClientTest, RejectsAPathThatDBusCannotCarry) {
    FakeHelper helper(path_, {Behavior::Answer});
    HelperClient client(path_);
    for (const std::string& path : {std::string("/a\0b.app", 8), std::string("/\xFF.app")}) {
        const auto answer = client.begin(path, anyway(wallDate(2), wallDate(1)));
        ASSERT_FALSE(answer.has_value());
        EXPECT_EQ(std::get<Rejected>(answer.error()).name,
                  "org.freedesktop.DBus.Error.InvalidArgs");
    }
    EXPECT_EQ(helper.record().connections, 0);
}

TEST_F(HelperClientTest, GivesWhatHolds) {
    FakeHelper helper(path_, {Behavior::Answer});
    HelperClient client(path_);
    EXPECT_EQ(client.status(), HelperStatus::idle);
    helper.record().holding = true;
    helper.record().until = 1732143600.125;
    helper.record().locked = true;
    EXPECT_EQ(client.status(), (HelperStatus{true, wallDate(1732143600.125), true}));
    EXPECT_STREQ(helper.record().lastRequest.data(), "Status");
}

// What comes of asking for the status, whatever the helper does with each connection.
TEST_F(HelperClientTest, ConnectsAnewAndGivesUpByRule) {
    using enum Behavior;
    constexpr double usual = 5;
    constexpr double endless = std::numeric_limits<double>::infinity();
    constexpr double none = std::numeric_limits<double>::quiet_NaN();
    // None or one: the limit ends the call while the helper may be about to accept.
    constexpr int either = -1;
    const std::optional<HelperFailure> answered;
    const HelperFailure refused = Refused{};
    const HelperFailure timedOut = TimedOut{};
    const HelperFailure unknownForm = Rejected{"org.freedesktop.DBus.Error.InconsistentMessage",
                                               "The helper answered Status in an unknown form"};

    struct Row {
        const char* rule;
        std::vector<Behavior> behaviors;
        int timesAsked;
        double limit;
        std::optional<HelperFailure> last;
        int connections;
        int requests;
    };

    const Row rows[] = {
        {"keeps its connection", {Answer}, 5, usual, answered, 1, 5},
        {"waits for a late answer", {AnswerLate}, 1, endless, answered, 1, 1},
        {"no limit is none", {AnswerLate}, 1, 0, timedOut, either, 0},
        {"nor is one in the past", {AnswerLate}, 1, -1e300, timedOut, either, 0},
        {"nor is not-a-number", {AnswerLate}, 1, none, timedOut, either, 0},
        {"believes the second refusal", {CloseAtAccept}, 1, usual, refused, 2, 0},
        {"not the first one", {CloseAtAccept, Answer}, 1, usual, answered, 2, 1},
        {"no time to try again", {CloseAtAccept}, 1, 0.05, timedOut, 1, 0},
        {"closed after each answer", {AnswerOnce}, 3, usual, answered, 3, 3},
        {"died on the request", {CloseOnRequest, Answer}, 1, usual, answered, 2, 2},
        {"dies on every request", {CloseOnRequest}, 1, usual, NotRunning{ECONNRESET}, 2, 2},
        {"a restarted one refuses", {AnswerOnce, CloseAtAccept}, 2, usual, refused, 3, 1},
        {"restarted all the time",
         {CloseAtAccept, CloseOnRequest, Answer},
         1,
         usual,
         answered,
         3,
         2},
        {"says an error, and stays connected",
         {Reject},
         2,
         usual,
         Rejected{"org.freedesktop.DBus.Error.UnknownMethod", "There is no Status here"},
         1,
         2},
        {"answers a text", {AnswerText}, 1, usual, unknownForm, 1, 1},
        {"answers two dates", {AnswerTwoDates}, 1, usual, unknownForm, 1, 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.rule);
        FakeHelper helper(path_, row.behaviors);
        HelperClient client(path_);
        for (int left = row.timesAsked; left > 1; --left) {
            [[maybe_unused]] const auto earlier = client.status();
        }
        const auto answer = client.status(Seconds{row.limit});
        EXPECT_EQ(answer ? std::nullopt : std::optional(answer.error()), row.last);
        const auto connections = [&] { return helper.record().connections.load(); };
        if (row.connections == either) {
            EXPECT_LE(connections(), 1);
        } else {
            // The last may wait to be accepted when the client has given up.
            EXPECT_TRUE(eventually(Seconds{5}, [&] { return connections() >= row.connections; }));
            EXPECT_EQ(connections(), row.connections);
        }
        EXPECT_EQ(helper.record().requests, row.requests);
    }
}

TEST_F(HelperClientTest, RejectsAYesThatItDoesNotUnderstand) {
    FakeHelper const helper(path_, {Behavior::AnswerText});
    const auto answer = HelperClient(path_).heartbeat(false);
    ASSERT_FALSE(answer.has_value());
    EXPECT_EQ(std::get<Rejected>(answer.error()).name,
              "org.freedesktop.DBus.Error.InconsistentMessage");
}

// No helper.

// A socket at `path`, on which it listens when `queue` says for how many.
Descriptor socketAt(const std::string& path, std::optional<int> queue) {
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const auto address = socketAddress(path);
    EXPECT_EQ(bind(socket.get(), generic(*address), sizeof *address), 0);
    if (queue) {
        EXPECT_EQ(listen(socket.get(), *queue), 0);
    }
    return socket;
}

TEST_F(HelperClientTest, FindsNoHelper) {
    const auto expectNone = [](HelperClient client, int code) {
        EXPECT_EQ(client.status(), std::unexpected(HelperFailure(NotRunning{code})));
    };
    const Descriptor deaf = socketAt(folder_ / "deaf", std::nullopt);
    expectNone(HelperClient(folder_ / "deaf"), ECONNREFUSED);
    expectNone(HelperClient("/" + std::string(200, 'x')), ENAMETOOLONG);
    expectNone(HelperClient(HelperIdentity{"com.example.nobody", "7QX4KD19MT"}), ENOENT);
}

TEST_F(HelperClientTest, TakesASocketThatItMayNotConnectToForARefusal) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs root to become another user";
    }
    FakeHelper const helper(path_, {Behavior::Answer});
    ASSERT_EQ(chmod(folder_.path().c_str(), 0700), 0);
    expectInChild([this] {
        // The uid alone is enough to lose root's right to go anywhere.
        ASSERT_EQ(seteuid(64001), 0);
        EXPECT_EQ(HelperClient(path_).status(), std::unexpected(HelperFailure(Refused{})));
        ASSERT_EQ(seteuid(0), 0);
    });
}

TEST_F(HelperClientTest, SaysWhenThisProcessHasNoDescriptorLeft) {
    FakeHelper const helper(path_, {Behavior::Answer});
    expectInChild([this] {
        const auto answer = [this] {
            const FewDescriptors none(0);
            return HelperClient(path_).status();
        }();
        EXPECT_EQ(answer, std::unexpected(HelperFailure(NoResources{EMFILE})));
    });
}

// A helper that does not answer.

TEST_F(HelperClientTest, GivesUpOnAHelperThatIsSilent) {
    for (const Behavior behavior : {Behavior::NeverAnswer, Behavior::NeverAuthenticate}) {
        FakeHelper helper(path_, {behavior});
        HelperClient client(path_);
        expectTimeOut(client);
        expectTimeOut(client);
        EXPECT_EQ(helper.record().connections, 2) << "the first one is of no more use";
    }
}

TEST_F(HelperClientTest, GivesUpOnAStoppedHelperAndComesBackToIt) {
    FakeHelper const helper(path_, {Behavior::Answer});
    HelperClient client(path_);
    for (int time = 0; time < 2; ++time) {
        helper.stop();
        expectTimeOut(client);
        helper.resume();
        EXPECT_TRUE(client.status().has_value());
    }
}

TEST_F(HelperClientTest, GivesUpOnAFullQueue) {
    const Descriptor listener = socketAt(path_, 0);
    std::vector<Descriptor> waiting;
    while (true) {
        auto socket = connectToHelper(path_, deadlineAfter(Seconds{0}));
        if (!socket) {
            EXPECT_EQ(socket.error(), ETIMEDOUT);
            break;
        }
        waiting.push_back(std::move(*socket));
    }
    HelperClient client(path_);
    expectTimeOut(client);
}

// A helper that goes away.

TEST_F(HelperClientTest, ConnectsAnewToARestartedHelper) {
    HelperClient client(path_);
    for (int time = 0; time < 2; ++time) {
        EXPECT_EQ(client.status(), std::unexpected(HelperFailure(NotRunning{ENOENT})));
        for (int start = 0; start < 2; ++start) {
            FakeHelper helper(path_, {Behavior::Answer});
            EXPECT_TRUE(client.status().has_value());
            EXPECT_EQ(helper.record().connections, 1);
        }
    }
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
    FakeHelper helper(path_, {Behavior::Answer});
    Decided decided;
    EXPECT_EQ(HelperClient(path_).begin("x", decided.decision()), true);
    EXPECT_THAT(decided.on, ElementsAre(false));
    EXPECT_EQ(helper.record().connections, 1);
    EXPECT_EQ(helper.record().requests, 2);
}

TEST_F(HelperClientTest, SendsNoBeginOverANewConnectionButDecidesAnew) {
    FakeHelper helper(path_, {Behavior::AnswerOnce, Behavior::Answer});
    Decided decided;
    decided.meanwhile = [&helper] { helper.record().holding = true; };
    EXPECT_EQ(HelperClient(path_).begin("x", decided.decision()), true) << "something holds";
    EXPECT_THAT(decided.on, ElementsAre(false, true));
    EXPECT_STREQ(helper.record().lastRequest.data(), "Status");
    EXPECT_EQ(helper.record().requests, 2);
    EXPECT_EQ(helper.record().connections, 2);
}

TEST_F(HelperClientTest, BeginsNothingOnceTheLimitIsOver) {
    FakeHelper helper(path_, {Behavior::Answer});
    Decided decided;
    decided.meanwhile = [] { waitBefore(deadlineAfter(Seconds{60}), shortLimit); };
    EXPECT_EQ(HelperClient(path_).begin("x", decided.decision(), shortLimit),
              std::unexpected(HelperFailure(TimedOut{})));
    EXPECT_STREQ(helper.record().lastRequest.data(), "Status");
}

TEST_F(HelperClientTest, BeginsNothingWhereEveryStatusIsTheLastOfItsConnection) {
    FakeHelper helper(path_, {Behavior::AnswerOnce});
    Decided decided;
    EXPECT_EQ(HelperClient(path_).begin("x", decided.decision(), Seconds{2}),
              std::unexpected(HelperFailure(TimedOut{})));
    EXPECT_GE(decided.on.size(), 2U);
    EXPECT_EQ(helper.record().begins, 0);
}

TEST_F(HelperClientTest, HasOneLimitForAllAttemptsOfABegin) {
    const FakeHelper helper(path_, {Behavior::AnswerOnce, Behavior::NeverAnswer});
    static constexpr Seconds total{2.5};
    Decided decided;
    decided.meanwhile = [] { waitBefore(deadlineAfter(Seconds{60}), Seconds{2.2}); };
    const Seconds taken = durationOf([&] {
        EXPECT_EQ(HelperClient(path_).begin("x", decided.decision(), total),
                  std::unexpected(HelperFailure(TimedOut{})));
    });
    EXPECT_LT(taken, total + lateness);
}

// What it leaves behind, and what it does to the process.

TEST_F(HelperClientTest, LeaksNoDescriptorHoweverACallEnds) {
    const auto before = openDescriptors().size();
    const std::vector<Behavior> all{
        Behavior::CloseAtAccept, Behavior::CloseOnRequest,    Behavior::AnswerOnce,
        Behavior::Reject,        Behavior::NeverAuthenticate, Behavior::NeverAnswer,
    };
    for (const Behavior behavior : all) {
        FakeHelper const helper(path_, {behavior});
        HelperClient client(path_);
        for (int i = 0; i < 3; ++i) {
            [[maybe_unused]] const auto answer = client.status(Seconds{0.15});
        }
    }
    [[maybe_unused]] const auto answer = HelperClient(path_).status();
    EXPECT_EQ(openDescriptors().size(), before);
}

TEST_F(HelperClientTest, ClosesItsDescriptorsOnExec) {
    FakeHelper const helper(path_, {Behavior::Answer});
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

TEST(HelperFailureTest, HasASentenceForAPersonAndAnExitStatusForAShell) {
    struct Row {
        HelperFailure failure;
        const char* sentence;
        int exitStatus;
    };

    const Row rows[] = {
        {NotRunning{ENOENT}, "The helper is not running: No such file or directory.", 69},
        {Refused{}, "The helper refused the connection before reading a request.", 77},
        {Refused{true},
         "The helper refused the connection: this app was replaced since it started.", 77},
        {TimedOut{}, "The helper did not answer in time.", 75},
        {Rejected{"a.b.Error", "What is that"},
         "The helper rejected the request: What is that (a.b.Error).", 65},
        {NoResources{EMFILE}, "The helper cannot be asked: Too many open files.", 71},
    };
    for (const auto& [failure, sentence, status] : rows) {
        EXPECT_EQ(description(failure), sentence);
        EXPECT_EQ(exitStatus(failure), status) << sentence;
    }
}

std::string infoOf(const std::string& bundleID, const std::string& teamID) {
    return "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>" + bundleID +
           "</string><key>HalvoTeamID</key><string>" + teamID + "</string></dict></plist>";
}

TEST(OwnBundleTest, HasAPathAndAnIdentityOrIsNothing) {
    const TemporaryFolder folder;
    const std::string path = folder / "Halvo.app";
    const std::string executable = path + "/Contents/MacOS/Halvo";
    const std::string info = path + "/Contents/Info.plist";
    std::filesystem::create_directories(path + "/Contents/MacOS");
    writeTestFile(executable, "");
    writeTestFile(folder / "Halvo", "");
    std::filesystem::create_symlink(executable, folder / "link");
    writeTestFile(info, infoOf("com.example.app", "7QX4KD19MT"));

    const OwnBundle expected{path, {"com.example.app", "7QX4KD19MT"}};
    EXPECT_EQ(bundleOf(executable), expected);
    EXPECT_EQ(bundleOf(folder / "link"), expected);
    EXPECT_EQ(bundleOf(path + "/Contents/MacOS/Other"), std::nullopt) << "no such executable";
    EXPECT_EQ(bundleOf(folder / "Halvo"), std::nullopt) << "in no bundle";
    EXPECT_EQ(ownBundle(), std::nullopt) << "nor are the tests";
    writeTestFile(info, infoOf("com.example_app", "7QX4KD19MT"));
    EXPECT_EQ(bundleOf(executable), std::nullopt) << "no bundle's identifier";
    writeTestFile(info, infoOf("com.example.app", "short"));
    EXPECT_EQ(bundleOf(executable), std::nullopt) << "no team's identifier";
    std::filesystem::remove(info);
    EXPECT_EQ(bundleOf(executable), std::nullopt) << "no Info.plist";
}

}  // namespace
}  // namespace halvo::testing
