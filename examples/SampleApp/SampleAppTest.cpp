#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/Support/Durations.hpp"
#include "tests/Support/FakeHelper.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

// All of the app but main().
#define main sampleAppMain
#include "examples/SampleApp/SampleApp.cpp"
#undef main

namespace halvo::testing {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

constexpr double notANumber = std::numeric_limits<double>::quiet_NaN();
// 2026-11-20, 11:00 UTC.
constexpr WallDate noon = wallDate(1795165200);
const std::string app = "/Applications/Halvo.app";

TEST(ArgumentsTest, AreParsedOrAUsageError) {
    const std::string again = LaunchReason::relaunchArgument;
    const std::unexpected onlyYes(again + " must be followed by YES.");
    std::vector<std::pair<std::vector<std::string>, std::expected<Arguments, std::string>>> rows{
        {{}, {}},
        {{"25"}, Arguments{Seconds{1500}}},
        {{"0.5"}, Arguments{Seconds{30}}},
        {{"007.250"}, Arguments{Seconds{435}}},
        {{"1440"}, Arguments{Seconds{86400}}},
        {{again, "YES"}, Arguments{std::nullopt, true}},
        {{again, "YES", "5"}, Arguments{Seconds{300}, true}},
        {{"--help"}, Arguments{std::nullopt, false, true}},
        {{"5", "-h"}, Arguments{Seconds{300}, false, true}},
        {{"5", "6"}, std::unexpected("Only one number of minutes is allowed, not 6 as well.")},
        {{again}, onlyYes},
        {{again, "NO"}, onlyYes},
        {{again, "5"}, onlyYes},
    };
    for (const std::string word :
         {"0",   "0.0",       "-1",    "+1",  "1440.01", "99999999999999999999",
          "1e3", "0x10",      "inf",   "nan", "",        ".",
          "5.",  ".5",        "1.2.3", "1,5", " 5",      "5 ",
          "5m",  "--minutes", "end",   "stop"}) {
        rows.emplace_back(
            std::vector{word},
            std::unexpected("'" + word + "' is not a number of minutes above 0, up to 1440."));
    }
    for (const auto& [words, expected] : rows) {
        EXPECT_EQ(parseArguments(words), expected) << ::testing::PrintToString(words);
    }
}

TEST(TextTest, SaysWhatHoldsAndWhatToDo) {
    namespace F = HelperFailures;
    setenv("TZ", "UTC", 1);
    tzset();
    const std::string until = "Ultra Hard mode holds until ";
    const std::pair<std::string, std::string> rows[] = {
        {timeLeft(Seconds{86400}), "24:00:00"},
        {timeLeft(Seconds{3723}), "1:02:03"},
        {timeLeft(Seconds{3599.5}), "1:00:00"},
        {timeLeft(Seconds{3599}), "59:59"},
        {timeLeft(Seconds{0.1}), "0:01"},
        {timeLeft(Seconds{0}), "0:00"},
        {timeLeft(Seconds{-5}), "0:00"},
        {timeLeft(Seconds{notANumber}), "0:00"},
        {timeLeft(Seconds{1e300}), "70389528:00:00"},
        {holding(HelperStatus::idle), "Nothing holds"},
        {holding({true, wallDate(1732199527.9), true}), until + "Thu 14:32:07, the app is locked"},
        {holding({true, std::nullopt, false}), until + "?, the app is not locked"},
        {holding({true, wallDate(-1e300), true}), until + "an unknown time, the app is locked"},
        {holding({true, wallDate(notANumber), true}), until + "an unknown time, the app is locked"},
        {advice(F::NotRunning{ENOENT}),
         description(F::NotRunning{ENOENT}) + " Is it installed, and is its service started?"},
        {advice(F::Refused{true}),
         description(F::Refused{true}) + " Quit Halvo and start it again."},
        {advice(F::TimedOut{}),
         description(F::TimedOut{}) + " It may be stopped, or the machine may be very busy."},
        {advice(F::Rejected{"a", "b"}),
         description(F::Rejected{"a", "b"}) +
             " If its version is not that of this app, update both."},
        {advice(F::NoResources{EMFILE}),
         description(F::NoResources{EMFILE}) + " Close some programs and try again."},
    };
    for (const auto& [said, expected] : rows) {
        EXPECT_EQ(said, expected);
    }
    EXPECT_THAT(advice(F::Refused{}), HasSubstr("owned by root and set-group-id. Install this"));
}

std::string displayed(bool terminal, const std::function<void(Display&)>& use) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&text, &size);
    Display display(stream, terminal);
    use(display);
    std::fclose(stream);
    const std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
    return {text, size};
}

TEST(DisplayTest, WritesALineForEachChangeToAFileAndOverTheLineOfATerminal) {
    const auto use = [](Display& display) {
        display.say("Hello.");
        display.show("Holds until five", ", 0:02 left");
        display.show("Holds until five", ", 0:02 left");
        display.show("Holds until five", ", 0:01 left");
        display.say("");
        display.say("The helper is away.");
        display.show("Holds until six", "");
    };
    EXPECT_EQ(displayed(false, use),
              "Hello.\nHolds until five\nThe helper is away.\nHolds until six\n");
    EXPECT_EQ(displayed(true, use),
              "Hello.\n\r\033[2KHolds until five, 0:02 left\r\033[2KHolds until five, 0:01 left"
              "\r\033[2KThe helper is away.\n\r\033[2KHolds until six");
}

TEST(DisplayTest, GoesOnWhenItsStreamIsFull) {
    std::FILE* full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    Display display(full, false);
    display.say("The helper is back.");
    EXPECT_EQ(std::ferror(full), 0);
    std::fclose(full);
}

// What logind says of the session of this process and of the user; null: it fails.
struct Login {
    const char* session;
    const char* seat;
    const char* user;
};

// Absent: logind itself is asked.
std::optional<Login> login;

TEST(SessionTest, IsClosingByItsOwnStateWhereItHasASeatElseByTheUsers) {
    struct Row {
        Login login;
        bool isClosing;
    };

    const Row rows[] = {
        {{nullptr, nullptr, nullptr}, false},
        {{"closing", "seat0", "active"}, true},
        {{"active", "seat0", "closing"}, false},
        {{nullptr, "seat0", "closing"}, true},
        // A remote login.
        {{"closing", nullptr, "active"}, false},
        {{"active", nullptr, "closing"}, true},
        {{nullptr, nullptr, "closing"}, true},
        {{nullptr, nullptr, "offline"}, false},
        {{nullptr, nullptr, "lingering"}, false},
        {{nullptr, nullptr, "online"}, false},
        {{nullptr, nullptr, "active"}, false},
    };
    for (const Row& row : rows) {
        login = row.login;
        EXPECT_EQ(isClosing(), row.isClosing) << &row - rows;
    }
    login.reset();
}

TEST(SignalTest, IsWaitedForNoShorterThanAsked) {
    sigset_t none;
    sigemptyset(&none);
    const Seconds before = timeNow();
    EXPECT_EQ(waitForSignal(none, Seconds{0.05}), 0);
    EXPECT_GE(timeNow() - before, Seconds{0.05});
}

// The app group's folder, empty. All tests have the same, since a process keeps its path. Not a
// TemporaryFolder, which each child process would remove at its exit.
class RecordsTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { setenv("XDG_DATA_HOME", dataFolder().c_str(), 1); }

    RecordsTest() { std::filesystem::create_directories(group()); }

    ~RecordsTest() override { std::filesystem::remove_all(dataFolder()); }

    static const std::string& dataFolder() {
        static const std::string path = ::testing::TempDir() + "halvo-" + std::to_string(getpid());
        return path;
    }

    static std::string group() {
        return std::filesystem::path(KeepAliveState::file().url()).parent_path();
    }

    const SharedFile<KeepAliveState>& keepAlive_ = KeepAliveState::file();
    const SharedFile<WidgetSnapshot>& widgets_ = WidgetSnapshot::file();
    const std::string writeFailure_ =
        "What the widgets show could not be written: " + keepAlive_.url() +
        ": No such file or directory.";
};

TEST_F(RecordsTest, SayWhatHoldsSinceWhenAndHowTheAppEnded) {
    using S = WidgetSnapshot;

    struct Row {
        // What the helper says; absent at the end.
        std::optional<HelperStatus> said;
        Seconds at;
        Seconds writtenAt;
        Seconds since{0};
        std::size_t phases = 2;
    };

    const HelperStatus hourly{true, noon + hour, true};
    const Row rows[] = {
        {hourly, Seconds{0}, Seconds{0}},
        {hourly, Seconds{29}, Seconds{0}},
        {hourly, Seconds{30}, Seconds{30}},
        {hourly, Seconds{59}, Seconds{30}},
        // The clock was set back.
        {hourly, Seconds{-7}, Seconds{-7}},
        // The same commitment goes on.
        {HelperStatus{true, noon + hour * 2, true}, Seconds{1}, Seconds{1}},
        {HelperStatus{true, std::nullopt, true}, Seconds{2}, Seconds{2}, Seconds{0}, 1},
        {HelperStatus::idle, hour, hour, hour, 1},
        {{}, hour * 2, hour * 2, hour, 1},
    };
    RecordKeeper keeper(app);
    EXPECT_EQ(keepAlive_.read(), std::nullopt);
    HelperStatus last;
    for (const auto& [said, at, writtenAt, since, phases] : rows) {
        SCOPED_TRACE(at.count());
        last = said.value_or(last);
        EXPECT_EQ(said ? keeper.update(*said, noon + at) : keeper.end(noon + at), "");
        EXPECT_EQ(keepAlive_.read(), (KeepAliveState{.pid = getpid(),
                                                     .appPath = app,
                                                     .clean = !said,
                                                     .commitmentUntil = last.until,
                                                     .ultraHard = last.holding,
                                                     .updatedAt = noon + writtenAt}));
        const S shown = widgets_.read().value();
        EXPECT_EQ(shown.writtenAt, noon + writtenAt);
        EXPECT_GT(shown.horizon, noon + hour);
        EXPECT_EQ(shown.isRunning, last.holding);
        EXPECT_EQ(shown.blocks.at(0).isRunning, last.holding);
        ASSERT_EQ(shown.phases.size(), phases);
        EXPECT_EQ(shown.phases[0].start, noon + since);
        const auto* block = std::get_if<S::Block>(&shown.phases[0].state);
        ASSERT_EQ(block != nullptr, last.holding);
        EXPECT_EQ(block != nullptr ? block->running.end : std::nullopt, last.until);
        if (last.until || !last.holding) {
            EXPECT_EQ(shown.phases.back().state, S::State(S::NothingScheduled{}));
            EXPECT_EQ(shown.phases.back().start, last.until.value_or(noon + since));
        }
    }
}

TEST_F(RecordsTest, ThatCannotBeWrittenAreReportedOnceAndAgainAfterASuccess) {
    RecordKeeper keeper(app);
    std::filesystem::remove_all(group());
    EXPECT_EQ(keeper.update(HelperStatus::idle, noon), writeFailure_);
    EXPECT_EQ(keeper.update(HelperStatus::idle, noon + hour), "");
    std::filesystem::create_directory(group());
    EXPECT_EQ(keeper.update(HelperStatus::idle, noon + hour * 2), "");
    std::filesystem::remove_all(group());
    EXPECT_EQ(keeper.end(noon + hour * 3), writeFailure_);
}

class AppSessionTest : public RecordsTest {
  protected:
    // A system bus of the test's own.
    void SetUp() override { setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + bus_).c_str(), 1); }

    void TearDown() override { unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

    // A helper that has never said anything else than that it holds for `span`.
    void startHelper(Seconds span) {
        helper_.emplace(path_ + ".new", std::vector{Behavior::Answer});
        hold(span);
        std::filesystem::rename(path_ + ".new", path_);
    }

    void hold(std::optional<Seconds> span) const {
        FakeHelper::Record& record = helper_->record();
        record.until = span ? secondsSince1970(wallNow() + *span) : 0;
        record.yes = record.locked = record.holding = span.has_value();
    }

    // Waits until the helper has answered `count` requests more.
    void awaitRequests(int count) const {
        const int enough = helper_->record().requests + count;
        EXPECT_TRUE(eventually([&] { return helper_->record().requests >= enough; }));
    }

    // Runs the app in a process of its own, with `meanwhile` beside it in this one.
    ChildResult run(
        const Arguments& arguments,
        const std::function<void(TestProcess& app)>& meanwhile = [](TestProcess&) {}) {
        TestProcess process(ProcessOptions{.body = [&] {
            HelperClient client(path_);
            Display display(stdout, /*isTerminal=*/false);
            const Pace hurried{Seconds{0.05}, Seconds{0.2}, Seconds{0.4}};
            return AppSession(client, display, app, hurried).run(arguments);
        }});
        meanwhile(process);
        const int status = process.wait();
        return {status, process.output()};
    }

    // Whether an app that `signal` ends while ten minutes hold announces the end of the session.
    bool announcesAt(int signal, const std::function<void()>& justBefore = [] {}) {
        startHelper(Seconds{600});
        const ChildResult ended = run({}, [&](TestProcess& process) {
            awaitRequests(6);
            justBefore();
            process.send(signal);
        });
        EXPECT_EQ(ended.status, 0);
        const bool announced =
            helper_->record().lastRequest.data() == std::string("Heartbeat true");
        EXPECT_THAT(ended.output, EndsWith(announced ? "The session is ending; the helper knows.\n"
                                                     : "the helper opens it again.\n"));
        return announced;
    }

    TemporaryFolder folder_;
    std::string path_ = folder_ / "helper.sock";
    std::string bus_ = folder_ / "bus";
    std::optional<FakeHelper> helper_;
};

TEST_F(AppSessionTest, EndsAtOnceWhereNothingHolds) {
    struct Row {
        std::optional<Behavior> helper;
        std::optional<Seconds> commitment;
        int status;
        std::string said;
    };

    const Row rows[] = {
        {Behavior::Answer, {}, 0, "Nothing holds. Commit yourself with: Halvo MINUTES\n"},
        {Behavior::Answer, minute, 1,
         "The helper did not take the commitment. Another person's may hold, or " + app +
             " is not where the helper sees this app.\n"},
        {Behavior::CloseAtAccept, {}, 77, advice(HelperFailures::Refused{}) + "\n"},
        {{}, {}, 69, advice(HelperFailures::NotRunning{ENOENT}) + "\n"},
        {{}, minute, 69, advice(HelperFailures::NotRunning{ENOENT}) + "\n"},
    };
    for (const Row& row : rows) {
        helper_.reset();
        if (row.helper) {
            helper_.emplace(path_, std::vector{*row.helper});
            helper_->record().yes = false;
        }
        EXPECT_EQ(run({row.commitment}), (ChildResult{row.status, row.said}));
        EXPECT_EQ(keepAlive_.read(), std::nullopt);
        EXPECT_EQ(widgets_.read(), std::nullopt);
        if (row.status == 1) {
            EXPECT_THAT(helper_->record().lastRequest.data(), StartsWith("Begin " + app + " "));
        }
    }
}

TEST_F(AppSessionTest, StaysUntilTheHelperLetsGo) {
    struct Row {
        std::optional<Seconds> commitment;
        bool writesRecords;
        int begins;
        std::string says;
    };

    const Row rows[] = {
        {{},
         true,
         0,
         "Ultra Hard mode holds until .*, the app is locked\n"
         "Ultra Hard mode is over. Halvo exits in 0 seconds.\nNothing holds\n"},
        {minute, true, 0, "What holds already ends later; the later end stays.\n.*"},
        {Seconds{900}, true, 1, "The helper allows no later end: a day after the .*"},
        {{}, false, 0, ".*" + writeFailure_ + "\n.*"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.says);
        startHelper(Seconds{600});
        if (!row.writesRecords) {
            std::filesystem::remove_all(group());
        }
        const ChildResult result = run({row.commitment}, [&](TestProcess&) {
            awaitRequests(8);
            hold(std::nullopt);
        });
        EXPECT_EQ(result.status, 0);
        EXPECT_THAT(result.output, MatchesRegex(row.says));
        EXPECT_EQ(helper_->record().begins, row.begins);
        if (row.writesRecords) {
            EXPECT_TRUE(keepAlive_.read()->clean);
            EXPECT_EQ(keepAlive_.read()->commitmentUntil, std::nullopt);
            EXPECT_FALSE(widgets_.read()->isRunning);
        }
    }
}

TEST_F(AppSessionTest, ShowsAnEndOnceThatMovesByLessThanTheTolerance) {
    startHelper(Seconds{600});
    const ChildResult result = run({}, [&](TestProcess& process) {
        awaitRequests(4);
        // The last move is two seconds.
        for (const double by : {1.4, -2.8, 3.4}) {
            helper_->record().until = helper_->record().until + by;
            awaitRequests(4);
        }
        process.send(SIGINT);
    });
    const std::string line = "Ultra Hard mode holds until [^\n]*\n";
    EXPECT_THAT(result.output, MatchesRegex(line + line + "Halvo exits[^\n]*\n"));
}

TEST_F(AppSessionTest, SendsHeartbeatsNoFasterThanItsPace) {
    startHelper(Seconds{600});
    const Seconds before = timeNow();
    run({}, [&](TestProcess& process) {
        awaitRequests(41);
        process.send(SIGINT);
    });
    // A status, then a heartbeat and a status each time.
    const double beats = 1 + (timeNow() - before) / Seconds{0.05};
    EXPECT_LE(helper_->record().requests, 1 + 2 * beats);
}

TEST_F(AppSessionTest, OutlivesTheHelperUntilTheCommitmentMustBeOver) {
    startHelper(Seconds{600});
    const ChildResult back = run({}, [&](TestProcess&) {
        awaitRequests(4);
        helper_.reset();
        sleepFor(Seconds{0.3});
        startHelper(Seconds{600});
        awaitRequests(4);
        hold(std::nullopt);
    });
    EXPECT_EQ(back.status, 0);
    EXPECT_THAT(back.output, HasSubstr("Halvo keeps trying.\nThe helper is back.\n"));
    startHelper(Seconds{0.3});
    const ChildResult alone = run({}, [&](TestProcess&) {
        awaitRequests(3);
        helper_.reset();
    });
    EXPECT_EQ(alone.status, 69);
    EXPECT_THAT(alone.output, EndsWith("Halvo exits: the helper has been away for too long.\n"));
}

TEST_F(AppSessionTest, LooksForTheHelperThatOpenedIt) {
    const ChildResult alone = run({std::nullopt, /*isReopened=*/true});
    EXPECT_EQ(alone.status, 69);
    EXPECT_THAT(alone.output, StartsWith("The helper opened Halvo again after it was quit.\n"));
    const ChildResult result = run({std::nullopt, /*isReopened=*/true}, [&](TestProcess&) {
        sleepFor(Seconds{0.15});
        startHelper(Seconds{600});
        awaitRequests(4);
        hold(std::nullopt);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_THAT(result.output, HasSubstr("The helper is back.\nUltra Hard mode holds until "));
}

TEST_F(AppSessionTest, AnnouncesAShutdownButNotAnInterrupt) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        EXPECT_FALSE(announcesAt(signal)) << "without logind, " << signal;
    }
    FakeHelper const bus(bus_, {Behavior::AnswerForLogind});
    EXPECT_TRUE(announcesAt(SIGTERM));
    EXPECT_FALSE(announcesAt(SIGINT));
    bus.record().yes = false;
    EXPECT_FALSE(announcesAt(SIGTERM)) << "logind says no";
}

// In the files that logind keeps of a person who belongs to no session.
TEST_F(AppSessionTest, AnnouncesTheEndOfASessionThatWasOpenBefore) {
    const PrivateMount run("tmpfs", "run", "/run");
    if (!run.isMounted()) {
        GTEST_SKIP() << "needs the permission to mount a file system";
    }
    std::filesystem::create_directories("/run/systemd/users");
    const auto state = [](const std::string& text) {
        writeTestFile("/run/systemd/users/" + std::to_string(getuid()), "STATE=" + text + "\n");
    };
    state("active");
    EXPECT_TRUE(announcesAt(SIGTERM, [&] { state("closing"); }));
    EXPECT_FALSE(announcesAt(SIGTERM)) << "a program that is left behind keeps it closing";
}

}  // namespace

namespace {

// As sd-login(3): a copy of `text`.
int answer(const char* text, char** copy) {
    *copy = text == nullptr ? nullptr : strdup(text);
    return text == nullptr ? -ENODATA : 0;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names; ld(1), --wrap.
extern "C" {
int __real_sd_session_get_seat(const char* session, char** seat);
int __real_sd_session_get_state(const char* session, char** state);
int __real_sd_uid_get_state(uid_t user, char** state);

int __wrap_sd_session_get_seat(const char* session, char** seat) {
    return login ? answer(login->seat, seat) : __real_sd_session_get_seat(session, seat);
}

int __wrap_sd_session_get_state(const char* session, char** state) {
    return login ? answer(login->session, state) : __real_sd_session_get_state(session, state);
}

int __wrap_sd_uid_get_state(uid_t user, char** state) {
    return login ? answer(login->user, state) : __real_sd_uid_get_state(user, state);
}
}
// NOLINTEND(bugprone-reserved-identifier)

}  // namespace halvo::testing
