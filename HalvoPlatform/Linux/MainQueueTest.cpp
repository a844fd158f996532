#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <limits>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/MainActor.hpp"
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

constexpr auto noMemory = "Cannot allocate memory";

// Ends the child: with 0 when all its expectations held.
void finish() { liveMainQueue().exit(::testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS); }

// Lets `prepare` set up the queue of a child, serves it until somebody calls finish(), and expects
// that all went well there.
void serve(const std::function<void(MainQueue&)>& prepare) {
    const ChildResult result = testing::runInChild([&] {
        MainQueue& queue = liveMainQueue();
        prepare(queue);
        queue.run();
    });
    EXPECT_EQ(result.status, 0) << result.output << " signal " << result.signal;
}

TEST(MainQueueTest, IsOne) {
    serve([](MainQueue& queue) {
        EXPECT_EQ(&queue, &liveMainQueue());
        queue.async(finish);
    });
}

TEST(MainQueueTest, RunsWorkLaterAndInOrder) {
    serve([](MainQueue& queue) {
        static std::string order;
        queue.async([] { order += 'a'; });
        queue.async([] { order += 'b'; });
        queue.async([] { order += 'c'; });
        EXPECT_EQ(order, "");
        queue.async([] {
            EXPECT_EQ(order, "abc");
            finish();
        });
    });
}

TEST(MainQueueTest, RunsWorkOfWorkAfterWhatIsEnqueuedAlready) {
    serve([](MainQueue& queue) {
        static std::string order;
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
    });
}

TEST(MainQueueTest, RunsWorkOnTheMainActor) {
    serve([](MainQueue& queue) {
        std::thread([&queue] {
            queue.async([] {
                EXPECT_TRUE(onMainActor());
                finish();
            });
        }).join();
    });
}

TEST(MainQueueTest, RunsTheWorkOfEveryThreadInItsOrder) {
    serve([](MainQueue& queue) {
        static constexpr std::size_t threadCount = 4;
        static constexpr int workCount = 500;
        static std::vector<int> done(threadCount, 0);
        static std::vector<std::thread> threads;
        for (std::size_t index = 0; index < threadCount; ++index) {
            threads.emplace_back([&queue, index] {
                for (int number = 0; number < workCount; ++number) {
                    queue.async([index, number] {
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

TEST(MainQueueTest, WakesUpForTheWorkOfAThread) {
    serve([](MainQueue& queue) {
        static std::thread thread;
        thread = std::thread([&queue] {
            // Long enough for the loop to have gone to sleep.
            std::this_thread::sleep_for(50ms);
            queue.async([] {
                thread.join();
                finish();
            });
        });
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

TEST(MainQueueTest, TurnsATimerNeverBeforeItIsDue) {
    serve([](MainQueue& queue) {
        static int turns = 0;
        const Seconds start = queue.now();
        queue.repeat(Seconds{0.04}, Seconds{0.02}, Seconds{0}, [&queue, start] {
            EXPECT_TRUE(onMainActor());
            // The loop counts whole microseconds.
            const Seconds passed = queue.now() - start + Seconds{2e-6};
            EXPECT_GE(passed.count(), 0.04 + 0.02 * turns);
            if (++turns == 5) {
                finish();
            }
        });
    });
}

// The grid is looked at as the loop is told of it: turns themselves come late on a busy machine.
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

// In which order is nobody's promise: on a busy machine all are due when the loop first looks.
TEST(MainQueueTest, TurnsSeveralTimersEachWhenItIsDue) {
    serve([](MainQueue& queue) {
        static std::set<double> turned;
        const Seconds start = queue.now();
        for (const double first : {0.06, 0.03, 0.09}) {
            queue.repeat(Seconds{first}, Seconds{3600}, Seconds{0}, [&queue, start, first] {
                // The loop counts whole microseconds.
                const Seconds passed = queue.now() - start + Seconds{2e-6};
                EXPECT_GE(passed.count(), first);
                EXPECT_TRUE(turned.insert(first).second);
                if (turned.size() == 3) {
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

TEST(MainQueueTest, RunsDelayedWorkOnceAndNeverBeforeItIsDue) {
    serve([](MainQueue& queue) {
        static int runs = 0;
        const Seconds start = queue.now();
        queue.after(Seconds{0.02}, [&queue, start] {
            EXPECT_TRUE(onMainActor());
            // The loop counts whole microseconds.
            const Seconds passed = queue.now() - start + Seconds{2e-6};
            EXPECT_GE(passed.count(), 0.02);
            ++runs;
            queue.after(Seconds{0.05}, [] {
                EXPECT_EQ(runs, 1);
                finish();
            });
        });
        EXPECT_EQ(runs, 0);
    });
}

TEST(MainQueueTest, LetsDelayedWorkAskForMore) {
    serve([](MainQueue& queue) {
        static int runs = 0;
        static std::function<void()> step = [&queue] {
            if (++runs == 100) {
                finish();
            }
            queue.after(Seconds{0}, step);
        };
        queue.after(Seconds{0}, step);
        EXPECT_EQ(runs, 0);
    });
}

// What the work holds is let go when it has run, not when the process ends.
TEST(MainQueueTest, LetsGoOfDelayedWorkThatHasRun) {
    serve([](MainQueue& queue) {
        auto held = std::make_shared<int>(1);
        const std::weak_ptr<int> seen = held;
        queue.after(Seconds{0.01}, [&queue, held = std::move(held), seen] {
            EXPECT_EQ(held.use_count(), 1);
            queue.after(Seconds{0}, [seen] {
                EXPECT_TRUE(seen.expired());
                finish();
            });
        });
        EXPECT_FALSE(seen.expired());
    });
}

TEST(MainQueueTest, CountsADelayOnTheClockThatCountsSleepWithoutLeeway) {
    serve([](MainQueue& queue) {
        queue.after(Seconds{0.05}, [] {});
        EXPECT_EQ(testing::lastTimerAsked(), (testing::TimerAsked{50'000, 1, CLOCK_BOOTTIME}));
        queue.async(finish);
    });
}

TEST(MainQueueTest, TakesAnyDelay) {
    serve([](MainQueue& queue) {
        static int runs = 0;
        constexpr double infinity = std::numeric_limits<double>::infinity();
        const auto count = [] {
            if (++runs == 4) {
                finish();
            }
        };
        for (const double delay : {0.0, -1.0, -infinity, std::nan("")}) {
            queue.after(Seconds{delay}, count);
            EXPECT_EQ(testing::lastTimerAsked(), (testing::TimerAsked{0, 1, CLOCK_BOOTTIME}))
                << delay;
        }
        for (const double delay : {infinity, 1e300, 1e10}) {
            queue.after(Seconds{delay}, [] { ADD_FAILURE() << "due in a century"; });
            EXPECT_EQ(testing::lastTimerAsked(),
                      (testing::TimerAsked{3'155'695'200'000'000, 1, CLOCK_BOOTTIME}))
                << delay;
        }
    });
}

TEST(MainQueueTest, TellsTimeOnTheClockThatCountsSleep) {
    serve([](MainQueue& queue) {
        const auto sinceBoot = [] {
            timespec time{};
            clock_gettime(CLOCK_BOOTTIME, &time);
            return Seconds{std::chrono::seconds{time.tv_sec} +
                           std::chrono::nanoseconds{time.tv_nsec}};
        };
        const Seconds before = sinceBoot();
        const Seconds now = queue.now();
        EXPECT_GE(now, before);
        EXPECT_LE(now, sinceBoot());
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

TEST(MainQueueTest, ExitsWithTheStatusThatTheTerminationChooses) {
    const auto result = testing::runInChild([] {
        MainQueue& queue = liveMainQueue();
        queue.onTermination([&queue] { queue.exit(75); });
        queue.async([] { kill(getpid(), SIGTERM); });
        queue.run();
    });
    EXPECT_EQ(result.status, 75) << result.output;
}

TEST(MainQueueTest, LeavesOtherSignalsAsTheyAre) {
    const auto result = testing::runInChild([] {
        MainQueue& queue = liveMainQueue();
        queue.onTermination([] {});
        queue.async([] { kill(getpid(), SIGINT); });
        queue.run();
    });
    EXPECT_EQ(result.signal, SIGINT);
}

TEST(MainQueueTest, LeavesSIGTERMAsItIsUntilSomebodyAsksForIt) {
    const auto result = testing::runInChild([] {
        MainQueue& queue = liveMainQueue();
        queue.async([] { kill(getpid(), SIGTERM); });
        queue.run();
    });
    EXPECT_EQ(result.signal, SIGTERM);
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
    const ChildResult result = testing::runInChild([&] {
        setenv("NOTIFY_SOCKET", manager.path().c_str(), 1);
        if (microseconds != nullptr) {
            setenv("WATCHDOG_USEC", microseconds, 1);
        }
        MainQueue& queue = liveMainQueue();
        queue.after(Seconds{0.5}, finish);
        queue.run();
    });
    EXPECT_EQ(result.status, 0) << result.output;
    return manager.next();
}

TEST(MainQueueTest, TellsTheServiceManagerThatItIsServed) {
    EXPECT_EQ(heardWithWatchdog("200000"), "WATCHDOG=1");
}

TEST(MainQueueTest, TellsTheServiceManagerNothingThatItDoesNotWantToKnow) {
    EXPECT_EQ(heardWithWatchdog(nullptr), "");
}

TEST(MainQueueTest, IsMadeOnTheMainThreadOnly) {
    const auto result = testing::runInChild([] { std::thread(liveMainQueue).join(); });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.output.find("Incorrect actor executor assumption"), std::string::npos);
}

TEST(MainQueueTest, IsServedOnTheMainThreadOnly) {
    const auto result = testing::runInChild([] {
        MainQueue& queue = liveMainQueue();
        std::thread([&queue] { queue.run(); }).join();
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_NE(result.output.find("Incorrect actor executor assumption"), std::string::npos);
}

// What a child says that makes the queue, sets a timer and serves it, when `call` fails.
std::string fatalErrorWhen(SystemCall call, int code) {
    const auto result = testing::runInChild([&] {
        // The fault outlives the body: nothing after a fatal error is of interest.
        const Fault fault = call == SystemCall::eventfd ? Fault::failing(call, code)
                                                        : Fault::returning(call, -code);
        MainQueue& queue = liveMainQueue();
        queue.repeat(Seconds{1}, Seconds{1}, Seconds{0}, [] {});
        queue.run();
    });
    EXPECT_EQ(result.signal, SIGABRT);
    return result.output;
}

TEST(MainQueueTest, EndsTheProcessWhenThereCanBeNoLoop) {
    const std::string error = "Fatal error: ";
    EXPECT_EQ(fatalErrorWhen(SystemCall::sd_event_default, ENOMEM),
              error + "sd_event_default: " + noMemory + "\n");
    EXPECT_EQ(fatalErrorWhen(SystemCall::eventfd, EMFILE),
              error + "eventfd: Too many open files\n");
    EXPECT_EQ(fatalErrorWhen(SystemCall::sd_event_add_time_relative, ENOMEM),
              error + "sd_event_add_time_relative: " + noMemory + "\n");
    EXPECT_EQ(fatalErrorWhen(SystemCall::sd_event_loop, ENOMEM),
              error + "sd_event_loop: " + noMemory + "\n");
}

}  // namespace
}  // namespace halvo
