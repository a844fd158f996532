#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "HalvoShared/IntentHosting.hpp"
#include "tests/Support/BundledProgram.hpp"
#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using testing::BundledProgram;
using testing::ManualMainQueue;

// Takes on everything.
class WillingHost final : public HalvoIntentHost {
  public:
    bool startFocus(std::optional<Seconds>) override { return true; }

    bool endFocus() override { return true; }

    bool startBreathing(const HalvoLink::Breathe&) override { return true; }

    bool setBlock(const std::string&, bool) override { return true; }
};

using HostPointer = std::shared_ptr<HalvoIntentHost>;

// An answer, and how long after the start it came.
struct Answer {
    HostPointer host;
    double at{};

    bool operator==(const Answer&) const = default;
};

// The simulated clock counts in doubles: steps of 50 ms do not add up to the last bit.
double rounded(double seconds) { return std::round(seconds * 1000) / 1000; }

// A process whose two clocks go alike until one of them is set.
class IntentHostingTest : public ::testing::Test {
  protected:
    [[nodiscard]] IntentHosting::Completion keep(std::vector<Answer>& kept) {
        return [this, &kept](const HostPointer& found) {
            kept.push_back({found, rounded((queue.now() - start).count())});
        };
    }

    // Asks `hosting`, which waits for `seconds` at most.
    void ask(double seconds) { hosting.current(Seconds{seconds}, keep(answers)); }

    void pass(double seconds) { queue.advance(Seconds{seconds}); }

    // Makes the next look fall on exactly `wall`, in seconds since 1970.
    void lookAt(double wall) {
        clock.setSinceBoot(clock.now().sinceBoot + Seconds{0.05});
        clock.setWallClock(wallDate(wall));
        pass(0);
    }

    testing::CallLog calls;
    testing::SimulatedClock clock{calls};
    ManualMainQueue queue{clock};
    Seconds start = queue.now();
    IntentHosting hosting{queue, true, [this] { return clock.now().wall; }};
    HostPointer host = std::make_shared<WillingHost>();
    std::vector<Answer> answers;
};

// An object of its own, and never a value.
static_assert(std::is_abstract_v<HalvoIntentHost>);
static_assert(std::has_virtual_destructor_v<HalvoIntentHost>);
static_assert(!std::is_copy_constructible_v<HalvoIntentHost>);
static_assert(!std::is_copy_assignable_v<HalvoIntentHost>);

TEST_F(IntentHostingTest, KeepsTheHostThatWasRegisteredLast) {
    EXPECT_EQ(hosting.host(), nullptr);
    const std::weak_ptr<HalvoIntentHost> seen = host;
    hosting.registerHost(std::move(host));
    ASSERT_FALSE(seen.expired());
    EXPECT_EQ(hosting.host(), seen.lock());
    const auto other = std::make_shared<WillingHost>();
    hosting.registerHost(other);
    EXPECT_EQ(hosting.host(), other);
    EXPECT_TRUE(seen.expired());
    ask(1);
    pass(0);
    EXPECT_EQ(answers, (std::vector<Answer>{{other, 0}}));
}

TEST_F(IntentHostingTest, GivesAHostWithoutWaitingOnceTheQueueGetsToIt) {
    ask(5);
    hosting.registerHost(host);
    std::thread([this] { ask(0); }).join();
    EXPECT_TRUE(answers.empty());
    queue.runPending();
    EXPECT_EQ(answers, (std::vector<Answer>{{host, 0}, {host, 0}}));
    EXPECT_TRUE(queue.delays().empty());
}

TEST_F(IntentHostingTest, WaitsForAHostUntilTheTimeIsOut) {
    const struct {
        double upTo;
        // When a host comes; after the answer, where there is to be none.
        double comes;
        Answer answer;
        std::size_t looks;
    } rows[] = {{5, 0.12, {host, 0.15}, 3},
                {0.12, 10, {nullptr, 0.15}, 3},
                {0.12, 0.14, {host, 0.15}, 3},
                {1e-6, 10, {nullptr, 0.05}, 1},
                {std::numeric_limits<double>::infinity(), 61.12, {host, 61.15}, 1223}};

    for (const auto& row : rows) {
        SCOPED_TRACE(row.upTo);
        const std::size_t before = queue.delays().size();
        hosting.registerHost(nullptr);
        answers.clear();
        start = queue.now();
        ask(row.upTo);
        pass(std::min(row.answer.at - 0.001, row.comes));
        EXPECT_TRUE(answers.empty());
        pass(std::max(0.0, (start - queue.now()).count() + row.comes));
        hosting.registerHost(host);
        pass(10);
        EXPECT_EQ(answers, std::vector<Answer>{row.answer});
        EXPECT_EQ(queue.delays().size() - before, row.looks);
        EXPECT_EQ(queue.delays().back(), Seconds{0.05});
    }
}

TEST_F(IntentHostingTest, LooksForTheLastTimeAtTheDeadlineItself) {
    const struct {
        double lookedAt;
        HostPointer host;
        std::vector<Answer> answers;
    } rows[] = {{1000.25, nullptr, {{nullptr, 0.05}}},
                {1000.25, host, {{host, 0.05}}},
                {std::nextafter(1000.25, 0), nullptr, {}}};

    for (const auto& row : rows) {
        const std::size_t before = queue.delays().size();
        hosting.registerHost(nullptr);
        answers.clear();
        start = queue.now();
        clock.setWallClock(wallDate(1000));
        ask(0.25);
        queue.runPending();
        hosting.registerHost(row.host);
        lookAt(row.lookedAt);
        EXPECT_EQ(answers, row.answers) << row.lookedAt;
        EXPECT_EQ(queue.delays().size() - before, row.answers.empty() ? 2U : 1U);
    }
}

TEST_F(IntentHostingTest, LooksOnceWhenItMayNotWait) {
    for (const double seconds :
         {0.0, -0.0, -1.0, -std::numeric_limits<double>::infinity(), std::nan("")}) {
        answers.clear();
        ask(seconds);
        queue.runPending();
        EXPECT_EQ(answers, (std::vector<Answer>{{nullptr, 0}})) << seconds;
    }
    EXPECT_TRUE(queue.delays().empty());
}

TEST_F(IntentHostingTest, WaitsByTheWallClockEvenWhenThatIsSet) {
    const struct {
        double upTo;
        double move;
        double answered;
    } rows[] = {{60, 3600, 0.15}, {1, -10, 11.05}};

    for (const auto& [upTo, move, answered] : rows) {
        answers.clear();
        start = queue.now();
        ask(upTo);
        pass(0.12);
        clock.moveWallClock(Seconds{move});
        pass(std::max(0.0, answered - 0.2));
        EXPECT_TRUE(answers.empty());
        pass(1);
        ASSERT_EQ(answers.size(), 1U);
        EXPECT_NEAR(answers[0].at, answered, 0.051);
    }
}

TEST_F(IntentHostingTest, AnswersEachOfSeveralWhoWait) {
    std::vector<Answer> others;
    ask(0.12);
    hosting.current(Seconds{5}, keep(others));
    pass(1);
    hosting.registerHost(host);
    pass(10);
    EXPECT_EQ(answers, (std::vector<Answer>{{nullptr, 0.15}}));
    ASSERT_EQ(others.size(), 1U);
    EXPECT_EQ(others[0].host, host);
    EXPECT_NEAR(others[0].at, 1.05, 0.051);
}

TEST_F(IntentHostingTest, LetsAnAnswerAskAgainAndRegister) {
    const auto other = std::make_shared<WillingHost>();
    hosting.registerHost(host);
    hosting.current(Seconds{5}, [&](const HostPointer& found) {
        EXPECT_EQ(found, host);
        hosting.registerHost(other);
        ask(0);
    });
    queue.runPending();
    EXPECT_EQ(answers, (std::vector<Answer>{{other, 0}}));
}

TEST_F(IntentHostingTest, HasNoHostOutsideTheApp) {
    IntentHosting extension(queue, false, [this] { return clock.now().wall; });
    EXPECT_FALSE(extension.isAppProcess());
    extension.current(Seconds{5}, keep(answers));
    extension.registerHost(host);
    extension.current(Seconds{5}, keep(answers));
    extension.current(Seconds{0}, keep(answers));
    queue.runPending();
    EXPECT_EQ(answers, (std::vector<Answer>{{nullptr, 0}, {nullptr, 0}, {nullptr, 0}}));
    EXPECT_TRUE(queue.delays().empty());
    EXPECT_EQ(extension.host(), host);
}

TEST(IntentHostingBundleTest, IsTheAppInABundleWithTheExtensionApp) {
    EXPECT_TRUE(IntentHosting::isApp(Bundle("/Applications/Halvo.app")));
    EXPECT_TRUE(IntentHosting::isApp(Bundle("/Applications/a.b.app")));
    EXPECT_TRUE(IntentHosting::isApp(Bundle("/Applications/Halvo.app/")));
    for (const char* path :
         {"/Halvo.app/Contents/PlugIns/Widget.appex", "/Applications/Halvo", "/Applications/.app",
          "/Applications/Halvo.App", "/Applications/Halvo.app.old", "/Halvo.app/tools", "/", ""}) {
        EXPECT_FALSE(IntentHosting::isApp(Bundle(path))) << path;
    }
}

TEST(IntentHostingBundleTest, KnowsTheAppFromItsExtensions) {
    EXPECT_EQ(BundledProgram("Halvo.app", "").says("process"), "app");
    EXPECT_EQ(BundledProgram("Halvo.app/Contents/PlugIns/W.appex", "").says("process"),
              "extension");
}

TEST(IntentHostingBundleTest, IsOneForTheProcessAndAnswersOnItsMainQueue) {
    testing::expectInChild([] {
        IntentHosting& hosting = IntentHosting::shared();
        EXPECT_EQ(&hosting, &IntentHosting::shared());
        // The tests lie in no app.
        EXPECT_FALSE(hosting.isAppProcess());
        hosting.current(Seconds{60}, [](const HostPointer& host) {
            EXPECT_EQ(host, nullptr);
            EXPECT_TRUE(onMainActor());
            liveMainQueue().exit(::testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
        });
        liveMainQueue().run();
    });
}

TEST(IntentHostingBundleTest, WaitsOnTheLiveQueueByTheWallClock) {
    testing::expectInChild([] {
        static IntentHosting hosting(liveMainQueue(), true);
        static const auto host = std::make_shared<WillingHost>();
        hosting.current(Seconds{3600}, [](const HostPointer& found) {
            EXPECT_EQ(found, host);
            liveMainQueue().exit(::testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
        });
        liveMainQueue().after(Seconds{0.06}, [] { hosting.registerHost(host); });
        liveMainQueue().run();
    });
}

}  // namespace
}  // namespace halvo
