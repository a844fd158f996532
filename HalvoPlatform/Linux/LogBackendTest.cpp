#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Log.hpp"
#include "LogBackend.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/PrivateMount.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo {
namespace {

using testing::Fault;
using testing::PrivateMount;
using testing::runInChild;
using testing::SystemCall;

// What `say` says to the log, in place of the system's.
std::string saidBy(void (*say)()) {
    static std::string received;
    received = "nothing";
    const LogSink before =
        std::exchange(logSink, [](const Logger&, LogLevel level, std::string_view message) {
            received = (level == LogLevel::Error ? "error: " : "") + std::string(message);
        });
    say();
    logSink = before;
    return received;
}

TEST(LogTest, PutsArgumentsInThePlacesOfTheirPlaceholders) {
    using Longs = std::numeric_limits<long>;
    using Ints = std::numeric_limits<int>;

    struct Row {
        void (*say)();
        const char* said;
    };

    for (const auto& [say, said] : {
             Row{[] { HALVO_LOG_DEFAULT(helperLog, "Locked again"); }, "Locked again"},
             Row{[] { HALVO_LOG_ERROR(helperLog, "Locked again"); }, "error: Locked again"},
             Row{[] { HALVO_LOG_DEFAULT(helperLog, "let go: %{public}s!", "ended"); },
                 "let go: ended!"},
             Row{[] { HALVO_LOG_DEFAULT(helperLog, "%{public}s", ""); }, ""},
             Row{[] { HALVO_LOG_DEFAULT(helperLog, "for %{public}ld s", Longs::min()); },
                 "for -9223372036854775808 s"},
             Row{[] { HALVO_LOG_DEFAULT(helperLog, "%d", Ints::min()); }, "-2147483648"},
             Row{[] { HALVO_LOG_DEFAULT(helperLog, "%d%{public}ld%{public}s%d", 1, 2L, "3", 4); },
                 "1234"},
             Row{[] { HALVO_LOG_DEFAULT(helperLog, "%{public}s", "%d %{public}s %n"); },
                 "%d %{public}s %n"},
             Row{[] { HALVO_LOG_DEFAULT(helperLog, "%{public}s", "a\nb\r\nc\x1B\x7F é"); },
                 "a b  c   é"},
         }) {
        EXPECT_EQ(saidBy(say), said);
    }
}

TEST(LogWithoutJournalTest, WritesToStandardErrorAndNeverFailsTowardsItsCaller) {
    const auto result = runInChild([] {
        const auto sayWithoutJournal = [](void (*say)()) {
            const Fault fault = Fault::failing(SystemCall::access, ENOENT);
            say();
        };
        sayWithoutJournal([] { HALVO_LOG_ERROR(helperLog, "errno %d", 13); });
        sayWithoutJournal([] { HALVO_LOG_DEFAULT(helperLog, "Locked Halvo's app again"); });
        const Fault unwritable = Fault::failing(SystemCall::write, EIO);
        sayWithoutJournal([] { HALVO_LOG_ERROR(helperLog, "no process reads this"); });
    });
    EXPECT_EQ(result.output,
              "app.halvo Helper: error: errno 13\napp.halvo Helper: Locked Halvo's app again\n");
    EXPECT_EQ(result.status, 0);
}

// A folder /run of our own, in which nothing but the journal's socket can be.
class LogToJournalTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!run_.isMounted()) {
            GTEST_SKIP() << "needs the permission to mount a file system";
        }
        std::filesystem::create_directories("/run/systemd/journal");
    }

    // Listens as the journal does.
    static Descriptor listen() {
        Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        const sockaddr_un address{AF_UNIX, "/run/systemd/journal/socket"};
        EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
        return socket;
    }

  private:
    PrivateMount run_{"tmpfs", "tmpfs", "/run"};
};

// The entry that arrived: one "FIELD=value" per line, with one newline in front and one behind.
std::string nextEntry(const Descriptor& journal) {
    std::array<char, 4096> buffer{'\n'};
    const ssize_t count = recv(journal.get(), buffer.data() + 1, buffer.size() - 1, 0);
    return count < 0 ? "nothing" : std::string(buffer.data(), static_cast<std::size_t>(count) + 1);
}

bool has(const std::string& entry, const std::string& part) {
    return entry.find(part) != std::string::npos;
}

TEST_F(LogToJournalTest, SendsTheMessageWithItsFieldsAndWhatIsKnownOfTheCommitment) {
    const Descriptor journal = listen();
    const auto expectEntry = [&journal](const std::vector<std::string>& fields) {
        const std::string entry = nextEntry(journal);
        for (const std::string& field : fields) {
            EXPECT_TRUE(has(entry, "\n" + field + "\n")) << entry;
        }
        EXPECT_FALSE(has(entry, "CODE_FILE")) << entry;
        return entry;
    };
    HALVO_LOG_ERROR(helperLog, "Couldn't: %{public}s", "a\nPRIORITY=0\x1B[31m");
    expectEntry({"MESSAGE=Couldn't: a PRIORITY=0 [31m", "PRIORITY=3", "SUBSYSTEM=app.halvo",
                 "CATEGORY=Helper"});
    const LogContext context{1000, "/Applications/My\nApp.app", wallDate(1e9 + 0.5)};
    setLogContext(&context);
    HALVO_LOG_DEFAULT(helperLog, "Locked Halvo's app again");
    const std::string entry = expectEntry({"MESSAGE=Locked Halvo's app again", "PRIORITY=5",
                                           "HALVO_UID=1000", "HALVO_END=2001-09-09T01:46:41Z"});
    EXPECT_TRUE(has(entry, "/Applications/My\nApp.app\n")) << entry;
    setLogContext(nullptr);
    HALVO_LOG_DEFAULT(helperLog, "Locked Halvo's app again");
    EXPECT_FALSE(has(nextEntry(journal), "HALVO_"));
    EXPECT_EQ(nextEntry(journal), "nothing");
}

TEST(LogContextTest, LeavesOutAnEndThatIsNoDate) {
    for (const double end : {-1.0, 253402300800.0, std::numeric_limits<double>::infinity(),
                             std::numeric_limits<double>::quiet_NaN()}) {
        const LogContext context{1, "", wallDate(end)};
        setLogContext(&context);
        EXPECT_EQ(logFields(), (std::vector<std::string>{"HALVO_UID=1", "HALVO_BUNDLE="}));
    }
    setLogContext(nullptr);
}

// A terminal as standard error of a process of its own.
class LogToTerminalTest : public LogToJournalTest {
  protected:
    void SetUp() override {
        LogToJournalTest::SetUp();
        ASSERT_TRUE(master_.isOpen() && grantpt(master_.get()) == 0 &&
                    unlockpt(master_.get()) == 0);
        std::array<char, 64> name{};
        ASSERT_EQ(ptsname_r(master_.get(), name.data(), name.size()), 0);
        terminal_ = Descriptor(open(name.data(), O_RDWR | O_NOCTTY | O_CLOEXEC));
        ASSERT_TRUE(terminal_.isOpen());
    }

    // How a process ends that does `work` on that terminal.
    testing::ChildResult onTerminal(const std::function<void()>& work) {
        return runInChild([&] {
            dup2(terminal_.get(), STDERR_FILENO);
            terminal_ = Descriptor{};
            logToTerminalToo();
            work();
        });
    }

    std::string shown() {
        std::array<char, 4096> buffer{};
        const ssize_t count = read(master_.get(), buffer.data(), buffer.size());
        return {buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }

    Descriptor master_{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)};
    Descriptor terminal_;
};

TEST_F(LogToTerminalTest, WritesEachLineThereAndToTheJournalIfThereIsOne) {
    Descriptor journal = listen();
    HALVO_LOG_ERROR(helperLog, "not asked for");
    EXPECT_TRUE(has(nextEntry(journal), "not asked for"));
    for (const bool isListening : {true, false}) {
        if (!isListening) {
            journal = Descriptor{};
        }
        EXPECT_EQ(onTerminal([] { HALVO_LOG_ERROR(helperLog, "errno %d", 13); }).status, 0);
        EXPECT_EQ(shown(), "app.halvo Helper: error: errno 13\r\n");
        EXPECT_EQ(isListening, isListening && has(nextEntry(journal), "\nMESSAGE=errno 13\n"));
    }
}

TEST_F(LogToTerminalTest, NeitherWaitsForATerminalThatIsStoppedNorEndsWithOneThatIsGone) {
    ASSERT_EQ(tcflow(terminal_.get(), TCOOFF), 0);
    for (const bool isGone : {false, true}) {
        if (isGone) {
            master_ = Descriptor{};
        }
        EXPECT_EQ(onTerminal([] {
                      alarm(30);
                      for (int i = 0; i < 5000; ++i) {
                          HALVO_LOG_ERROR(helperLog, "errno %d", i);
                      }
                  }).status,
                  0);
    }
}

TEST_F(LogToTerminalTest, IsNotStoppedInTheBackground) {
    EXPECT_EQ(onTerminal([] {
                  // The terminal is this session's, and stops background processes that write
                  // (TOSTOP).
                  ASSERT_GT(setsid(), 0);
                  ASSERT_EQ(ioctl(STDERR_FILENO, TIOCSCTTY, 0), 0);
                  termios settings{};
                  ASSERT_EQ(tcgetattr(STDERR_FILENO, &settings), 0);
                  settings.c_lflag |= TOSTOP;
                  ASSERT_EQ(tcsetattr(STDERR_FILENO, TCSANOW, &settings), 0);
                  const pid_t background = fork();
                  if (background == 0) {
                      setpgid(0, 0);
                      HALVO_LOG_ERROR(helperLog, "errno %d", 13);
                      _exit(7);
                  }
                  int status = 0;
                  ASSERT_EQ(waitpid(background, &status, WUNTRACED), background);
                  kill(background, SIGKILL);
                  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
              }).status,
              0);
    EXPECT_EQ(shown(), "app.halvo Helper: error: errno 13\r\n");
}

TEST_F(LogToJournalTest, TakesMessagesFromAnyThread) {
    constexpr int threadCount = 4;
    constexpr int messageCount = 25;
    const Descriptor journal = listen();
    // libsystemd opens its socket for the first message, and hands it from thread to thread in a
    // way that the thread sanitizer, which does not see into it, takes for a race.
    HALVO_LOG_ERROR(helperLog, "the first");
    ASSERT_TRUE(has(nextEntry(journal), "\nMESSAGE=the first\n"));
    std::vector<std::thread> threads;
    for (int thread = 0; thread < threadCount; ++thread) {
        threads.emplace_back([] {
            for (int i = 0; i < messageCount; ++i) {
                HALVO_LOG_ERROR(helperLog, "errno %d", i);
            }
        });
    }
    int arrived = 0;
    pollfd waiting{journal.get(), POLLIN, 0};
    while (arrived < threadCount * messageCount && poll(&waiting, 1, 10'000) > 0) {
        arrived += has(nextEntry(journal), "\nMESSAGE=errno ") ? 1 : 0;
    }
    std::ranges::for_each(threads, &std::thread::join);
    EXPECT_EQ(arrived, threadCount * messageCount);
}

TEST_F(LogToJournalTest, WritesToStandardErrorWhenTheJournalHasGone) {
    {
        // Its socket stays behind.
        const Descriptor journal = listen();
    }
    const auto result = runInChild([] { HALVO_LOG_ERROR(helperLog, "errno %d", 13); });
    EXPECT_EQ(result.output, "app.halvo Helper: error: errno 13\n");
    EXPECT_EQ(result.status, 0);
}

}  // namespace
}  // namespace halvo
