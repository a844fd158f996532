#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/MainQueue.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/TemporaryFolder.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using namespace std::chrono_literals;
using testing::ChildResult;
using testing::Fault;
using testing::SystemCall;

// Ends the child: with 0 when all its expectations held.
void finish() { liveMainQueue().exit(::testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS); }

// Lets `prepare` set up the queue of a child, serves it until finish() is called, and expects
// that all went well there.
void serve(const std::function<void(MainQueue&)>& prepare) {
    const ChildResult result = testing::runInChild([&] {
        MainQueue& queue = liveMainQueue();
        prepare(queue);
        queue.run();
    });
    EXPECT_EQ(result.status, 0) << result.output << " signal " << result.signal;
}

TEST(MainActorTest, IsTheInitialThreadAlsoInAChild) {
    EXPECT_TRUE(onMainActor());
    assumeMainActor();
    bool answer = true;
    std::thread([&] { answer = onMainActor(); }).join();
    EXPECT_FALSE(answer);
    testing::expectInChild([] { EXPECT_TRUE(onMainActor()); });
}

TEST(MainQueueTest, RunsWorkLaterAndInOrder) {
    serve([](MainQueue& queue) {
        static std::string order;
        EXPECT_EQ(&queue, &liveMainQueue());
        queue.async([&queue] {
            order += 'a';
            queue.async([&queue] {
                order += 'c';
                queue.async([] {
                    EXPECT_EQ(order, "abc");
                    finish();
                });
            });
            EXPECT_EQ(order, "a");
        });
        queue.async([] { order += 'b'; });
        EXPECT_EQ(order, "");
    });
}

TEST(MainQueueTest, WakesUpForTheWorkOfEveryThreadAndRunsItInItsOrder) {
    serve([](MainQueue& queue) {
        static constexpr std::size_t threadCount = 4;
        static constexpr int workCount = 500;
        static std::vector<int> done(threadCount, 0);
        static std::vector<std::thread> threads;
        for (std::size_t index = 0; index < threadCount; ++index) {
            threads.emplace_back([&queue, index] {
                for (int number = 0; number < workCount; ++number) {
                    // Long enough, at times, for the loop to have gone to sleep.
                    std::this_thread::sleep_for(number % 100 == 0 ? 10ms : 0ms);
                    queue.async([index, number] {
                        EXPECT_TRUE(onMainActor());
                        EXPECT_EQ(done[index], number);
                        ++done[index];
                        if (std::ranges::count(done, workCount) == threadCount) {
                            std::ranges::for_each(threads, &std::thread::join);
                            finish();
                        }
                    });
                }
            });
        }
    });
}

TEST(MainQueueTest, RunsWorkBeforeATimerThatIsDueAtOnce) {
    serve([](MainQueue& queue) {
        static std::string order;
        queue.repeat(Seconds{0.01}, Seconds{10}, Seconds{0}, [] {
            EXPECT_EQ(order, "ab");
            finish();
        });
        queue.async([&queue] {
            std::this_thread::sleep_for(30ms);
            order += 'a';
            queue.async([] { order += 'b'; });
        });
    });
}

// Checks the deadlines passed to sd-event: on a busy machine the turns themselves come late.
TEST(MainQueueTest, KeepsATimerOnItsGridAndMakesUpForNoMissedTurn) {
    serve([](MainQueue& queue) {
        constexpr std::uint64_t interval = 20'000;
        static int turns = 0;
        static std::uint64_t second = 0;
        queue.repeat(Seconds{0.02}, Seconds{0.02}, Seconds{0}, [] {
            if (++turns == 1) {
                second = testing::lastTurnAsked();
                // Over the second turn and two more.
                std::this_thread::sleep_for(70ms);
                return;
            }
            timespec time{};
            clock_gettime(CLOCK_MONOTONIC, &time);
            const auto now =
                static_cast<std::uint64_t>(time.tv_sec * 1'000'000 + time.tv_nsec / 1000);
            const std::uint64_t third = testing::lastTurnAsked();
            EXPECT_EQ((third - second) % interval, 0U);
            EXPECT_GE(third - second, 3 * interval) << "a turn that was missed is made up for";
            EXPECT_LE(third, now + interval) << "a turn is left out";
            finish();
        });
    });
}

// The order is unspecified: on a busy machine all are due when the loop first looks.
TEST(MainQueueTest, TurnsSeveralTimersEachNeverBeforeItIsDue) {
    serve([](MainQueue& queue) {
        static std::map<double, int> turns;
        const Seconds start = queue.now();
        for (const double interval : {0.06, 0.03, 0.09}) {
            queue.repeat(Seconds{interval}, Seconds{interval}, Seconds{0}, [&, start, interval] {
                EXPECT_TRUE(onMainActor());
                // The loop counts whole microseconds.
                const Seconds passed = queue.now() - start + Seconds{2e-6};
                EXPECT_GE(passed.count(), interval * ++turns[interval]);
                if (turns.size() == 3 && turns[0.03] >= 3) {
                    finish();
                }
            });
        }
    });
}

TEST(MainQueueTest, LetsTheSystemDelayATurnByTheLeewayAndNoMore) {
    serve([](MainQueue& queue) {
        queue.repeat(Seconds{2}, Seconds{2}, Seconds{0.2}, [] {});
        EXPECT_EQ(testing::lastTimerAsked(), (testing::TimerAsked{2'000'000, 200'000}));
        // The loop takes 0 for "as you like".
        queue.repeat(Seconds{2}, Seconds{2}, Seconds{0}, [] {});
        EXPECT_EQ(testing::lastTimerAsked(), (testing::TimerAsked{2'000'000, 1}));
        queue.async(finish);
    });
}

// What the work holds is let go when it has run, not when the process ends.
TEST(MainQueueTest, RunsDelayedWorkOnceNeverBeforeItIsDueAndLetsGoOfIt) {
    serve([](MainQueue& queue) {
        static int runs = 0;
        const Seconds start = queue.now();
        auto held = std::make_shared<int>(1);
        const std::weak_ptr<int> seen = held;
        queue.after(Seconds{0.02}, [&queue, start, held = std::move(held), seen] {
            EXPECT_TRUE(onMainActor());
            // The loop counts whole microseconds.
            const Seconds passed = queue.now() - start + Seconds{2e-6};
            EXPECT_GE(passed.count(), 0.02);
            ++runs;
            queue.after(Seconds{0.05}, [seen] {
                EXPECT_EQ(runs, 1);
                EXPECT_TRUE(seen.expired());
                finish();
            });
        });
        EXPECT_EQ(runs, 0);
        EXPECT_FALSE(seen.expired());
    });
}

TEST(MainQueueTest, CountsADelayOnTheClockThatCountsSleepWithoutLeeway) {
    serve([](MainQueue& queue) {
        for (const double delay : {3'155'695'200.0, 0.05, 0.0}) {
            queue.after(Seconds{delay}, [delay] {
                EXPECT_EQ(delay, 0);
                finish();
            });
            const auto microseconds = static_cast<std::uint64_t>(delay * 1e6);
            EXPECT_EQ(testing::lastTimerAsked(),
                      (testing::TimerAsked{microseconds, 1, CLOCK_BOOTTIME}));
        }
    });
}

TEST(MainQueueTest, TellsTheTimeSinceBoot) {
    serve([](MainQueue& queue) {
        const testing::StoppedClock stopped(1, 500'000'000);
        EXPECT_EQ(queue.now().count(), 1.5);
        queue.async(finish);
    });
}

TEST(MainQueueTest, RunsTheTerminationForEverySIGTERM) {
    serve([](MainQueue& queue) {
        static int signals = 0;
        queue.onTermination([&queue] {
            EXPECT_TRUE(onMainActor());
            if (++signals == 2) {
                finish();
            }
            queue.async([] { kill(getpid(), SIGTERM); });
        });
        kill(getpid(), SIGTERM);
        EXPECT_EQ(signals, 0);
    });
}

// How a child ends that sends itself `signal` from its queue.
ChildResult afterSignal(int signal, bool isAskedFor) {
    return testing::runInChild([=] {
        // A shell's background jobs ignore SIGINT.
        std::signal(signal, SIG_DFL);
        MainQueue& queue = liveMainQueue();
        if (isAskedFor) {
            queue.onTermination([&queue] { queue.exit(75); });
        }
        queue.async([=] { kill(getpid(), signal); });
        queue.run();
    });
}

TEST(MainQueueTest, TakesSIGTERMAloneAndOnlyOnceItIsAskedFor) {
    EXPECT_EQ(afterSignal(SIGTERM, true).status, 75);
    EXPECT_EQ(afterSignal(SIGINT, true).signal, SIGINT);
    EXPECT_EQ(afterSignal(SIGTERM, false).signal, SIGTERM);
}

// Where the service manager listens, as NOTIFY_SOCKET names it; sd_notify(3).
class NotifySocket {
  public:
    NotifySocket() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
    }

    [[nodiscard]] const std::string& path() const { return path_; }

    // The next message, of those that have come already.
    [[nodiscard]] std::string next() const {
        std::array<char, 100> text{};
        const ssize_t size = recv(socket_.get(), text.data(), text.size(), MSG_DONTWAIT);
        return size < 0 ? "" : std::string(text.data(), static_cast<std::size_t>(size));
    }

  private:
    testing::TemporaryFolder folder_;
    std::string path_ = folder_ / "notify";
    Descriptor socket_;
};

// What the manager hears of a queue that was served for half a second.
std::string heardWithWatchdog(const char* microseconds) {
    const NotifySocket manager;
    testing::expectInChild([&] {
        setenv("NOTIFY_SOCKET", manager.path().c_str(), 1);
        if (microseconds != nullptr) {
            setenv("WATCHDOG_USEC", microseconds, 1);
        }
        MainQueue& queue = liveMainQueue();
        queue.after(Seconds{0.5}, finish);
        queue.run();
    });
    return manager.next();
}

TEST(MainQueueTest, TellsTheServiceManagerThatItIsServedWhereItWantsToKnow) {
    EXPECT_EQ(heardWithWatchdog("200000"), "WATCHDOG=1");
    EXPECT_EQ(heardWithWatchdog(nullptr), "");
}

TEST(MainQueueTest, IsMadeAndServedOnTheMainThreadOnly) {
    const std::function<void()> uses[] = {[] { assumeMainActor(); }, [] { liveMainQueue(); },
                                          [&] { liveMainQueue().run(); }};
    for (const auto& use : uses) {
        const auto result = testing::runInChild([&] {
            if (&use == &uses[2]) {
                liveMainQueue();
            }
            std::thread(use).join();
        });
        EXPECT_EQ(result.signal, SIGABRT);
        EXPECT_EQ(result.output,
                  "Fatal error: Incorrect actor executor assumption; Expected same executor as "
                  "MainActor.\n");
    }
}

TEST(MainQueueTest, EndsTheProcessWhenThereCanBeNoLoop) {
    struct Row {
        SystemCall call;
        std::string name;
    };

    for (const Row& row :
         {Row{SystemCall::eventfd, "eventfd"},
          Row{SystemCall::sd_event_default, "sd_event_default"},
          Row{SystemCall::sd_event_add_time_relative, "sd_event_add_time_relative"},
          Row{SystemCall::sd_event_loop, "sd_event_loop"}}) {
        const auto result = testing::runInChild([&row] {
            // The fault outlives the body: nothing after a fatal error is of interest.
            const Fault fault = row.call == SystemCall::eventfd
                                    ? Fault::failing(row.call, ENOMEM)
                                    : Fault::returning(row.call, -ENOMEM);
            MainQueue& queue = liveMainQueue();
            queue.repeat(Seconds{1}, Seconds{1}, Seconds{0}, [] {});
            queue.run();
        });
        EXPECT_EQ(result.signal, SIGABRT);
        EXPECT_EQ(result.output, "Fatal error: " + row.name + ": Cannot allocate memory\n");
    }
}

}  // namespace
}  // namespace halvo
