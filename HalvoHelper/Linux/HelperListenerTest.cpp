#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "HalvoHelper/HelperService.hpp"
#include "HalvoHelper/Linux/Limits.hpp"
#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"
#include "HalvoPlatform/MainQueue.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/LogCapture.hpp"
#include "tests/Support/MallocCount.hpp"
#include "tests/Support/PrivateMachine.hpp"
#include "tests/Support/SimulatedWorld.hpp"
#include "tests/Support/TestBundle.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

const std::string helperName = "com.example.app.helper";
const std::string socketPath = "/run/com.example.app.helper.sock";
const std::string lockPath = socketPath + ".lock";

// Serves the main thread's event loop until `condition` holds, for 20 s at most. Whether it came to
// hold.
bool serveUntil(const std::function<bool()>& condition) {
    sd_event* loop = nullptr;
    if (sd_event_default(&loop) < 0) {
        return false;
    }
    constexpr std::uint64_t hundredthOfASecond = 10'000;
    const bool met = eventually([&] {
        while (sd_event_run(loop, hundredthOfASecond) > 0) {
        }
        return condition();
    });
    sd_event_unref(loop);
    return met;
}

// Lets the event loop do what it has to do by now.
void serveWhatComes() {
    int turns = 0;
    EXPECT_TRUE(serveUntil([&turns] { return ++turns == 10; }));
}

// Whether a process listens at `path`: 0, or the errno of connect(2).
int tryToConnect(const std::string& path) {
    const auto address = socketAddress(path).value();
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect(socket.get(), generic(address), sizeof address) == 0 ? 0 : errno;
}

mode_t modeOf(const std::string& path) {
    struct stat status{};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

void bindTo(const std::string& path, int socket) {
    const auto address = socketAddress(path).value();
    EXPECT_EQ(bind(socket, generic(address), sizeof address), 0);
}

// Everything in a child process: a listener is removed when its process exits, and the event loop
// belongs to the process.
class HelperListenerPrivateMachineTest : public PrivateMachineTest {
  protected:
    void cleanUp() override {
        fs::remove_all(socketPath);
        fs::remove_all(lockPath);
    }
};

// Expects that there is no listener after `prepare`, but an end of the process.
void expectNone(const std::function<void()>& prepare, int status, const std::string& message) {
    const ChildResult result = runInChild([&prepare] {
        prepare();
        makeListener(sampleIdentity);
    });
    EXPECT_EQ(result.status, status);
    EXPECT_THAT(result.output, HasSubstr("error: " + message + "\n"));
}

TEST_F(HelperListenerPrivateMachineTest, MakesASocketThatAllUsersCanReachUntilItsProcessExits) {
    expectInChild([] {
        umask(077);
        const auto listener = makeListener(sampleIdentity);
        EXPECT_EQ(modeOf(socketPath), S_IFSOCK | 0666U);
        EXPECT_EQ(modeOf(lockPath), S_IFREG | 0600U);
        EXPECT_EQ(tryToConnect(socketPath), ECONNREFUSED) << "it serves before its time";
    });
    EXPECT_FALSE(fs::exists(socketPath));
    EXPECT_FALSE(fs::exists(lockPath));
}

TEST_F(HelperListenerPrivateMachineTest, IsTheOnlyOneOfItsNameAndTakesThePlaceOfOneThatWasKilled) {
    TestProcess first([] {
        const auto listener = makeListener(sampleIdentity);
        std::puts("made");
        std::fflush(stdout);
        pause();
    });
    ASSERT_EQ(first.readLine(), "made");
    expectNone([] {}, 71, "Another helper already runs: it holds " + lockPath);
    expectInChild([] { EXPECT_TRUE(makeListener({"com.example.other", "7QX4KD19MT"})); });
    first.kill();
    EXPECT_TRUE(fs::exists(socketPath)) << "the second one took the first one's";
    EXPECT_TRUE(fs::exists(lockPath));
    expectInChild([] { EXPECT_TRUE(makeListener(sampleIdentity)); });
    bindTo(socketPath, Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)).get());
    expectInChild(
        [] { EXPECT_TRUE(makeListener(sampleIdentity)) << "in the place of a stale socket"; });
}

TEST_F(HelperListenerPrivateMachineTest, LeavesAloneWhatIsNoSocket) {
    const std::function<void()> items[] = {
        [] { replaceTestFile(socketPath, "kept"); },
        [] { fs::create_directory(socketPath); },
        [] { fs::create_symlink("/run/elsewhere", socketPath); },
        [] { ASSERT_EQ(mkfifo(socketPath.c_str(), 0600), 0); },
    };
    for (const auto& make : items) {
        make();
        const mode_t before = modeOf(socketPath);
        expectNone(
            [] {}, 78,
            socketPath + " exists and is not a socket; remove it and start the helper again");
        EXPECT_EQ(modeOf(socketPath), before);
        fs::remove(socketPath);
    }
}

TEST_F(HelperListenerPrivateMachineTest, RefusesANameThatIsTooLong) {
    // sockaddr_un has room for 107 characters and a zero byte.
    const std::string longest(107 - std::string("/run/.helper.sock").size(), 'x');
    expectInChild([&] { EXPECT_TRUE(makeListener({longest, sampleIdentity.teamID})); });
    expectNone([&] { makeListener({longest + "x", sampleIdentity.teamID}); }, 78,
               "The app's identifier is too long for a socket: /run/" + longest + "x.helper.sock");
    fs::remove("/run/" + longest + "x.helper.sock.lock");
}

TEST_F(HelperListenerPrivateMachineTest, SaysWhatItCannotMake) {
    fs::create_symlink("/run/elsewhere", lockPath);
    expectNone([] {}, 71, "Couldn't open " + lockPath + ": Too many levels of symbolic links");
    EXPECT_FALSE(fs::exists("/run/elsewhere"));
    fs::remove(lockPath);
    // Until exit(3), at which sanitizers need some.
    expectNone([] { static const FewDescriptors forTheLockOnly(1); }, 71,
               "Couldn't make the socket " + socketPath + ": Too many open files");
}

// Hands these descriptors over as systemd does, to process `pid`.
void handOver(const std::vector<int>& descriptors, pid_t pid) {
    int next = 3;
    for (const int descriptor : descriptors) {
        ASSERT_EQ(dup2(descriptor, next), next);
        ++next;
    }
    ASSERT_EQ(setenv("LISTEN_PID", std::to_string(pid).c_str(), 1), 0);
    ASSERT_EQ(setenv("LISTEN_FDS", std::to_string(descriptors.size()).c_str(), 1), 0);
}

// A socket with a high number, out of the way of those handed over.
int newSocket(int family, int type) {
    const Descriptor socket(::socket(family, type, 0));
    return fcntl(socket.get(), F_DUPFD, 100);
}

int boundSocket() {
    const int number = newSocket(AF_UNIX, SOCK_STREAM);
    bindTo(socketPath, number);
    return number;
}

TEST_F(HelperListenerPrivateMachineTest, TakesTheSocketOfSystemd) {
    expectInChild([] {
        handOver({boundSocket()}, getpid());
        EXPECT_TRUE(makeListener(sampleIdentity));
        EXPECT_FALSE(fs::exists(lockPath)) << "systemd starts only one";
        EXPECT_EQ(std::getenv("LISTEN_FDS"), nullptr) << "children would believe it";
        EXPECT_NE(fcntl(3, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_NE(fcntl(3, F_GETFD) & FD_CLOEXEC, 0);
    });
    EXPECT_TRUE(fs::exists(socketPath)) << "it is systemd's to remove";
}

// A shell that systemd started, say, has its variables too.
TEST_F(HelperListenerPrivateMachineTest, TakesNoSocketThatIsForAnotherProcess) {
    expectInChild([] {
        handOver({newSocket(AF_UNIX, SOCK_STREAM)}, getpid() + 1);
        ASSERT_EQ(setenv("SYSTEMD_EXEC_PID", std::to_string(getppid()).c_str(), 1), 0);
        EXPECT_TRUE(makeListener(sampleIdentity));
        EXPECT_TRUE(fs::is_socket(socketPath));
        EXPECT_TRUE(fs::exists(lockPath));
    });
}

TEST_F(HelperListenerPrivateMachineTest, RefusesWhatSystemdMustNotHandOver) {
    const std::function<std::vector<int>()> rows[] = {
        [] {
            return std::vector{newSocket(AF_UNIX, SOCK_STREAM), newSocket(AF_UNIX, SOCK_STREAM)};
        },
        [] { return std::vector{newSocket(AF_UNIX, SOCK_DGRAM)}; },
        [] { return std::vector{newSocket(AF_UNIX, SOCK_SEQPACKET)}; },
        [] { return std::vector{newSocket(AF_INET, SOCK_STREAM)}; },
        [] { return std::vector{open("/dev/null", O_RDWR)}; },
    };
    const std::string message = "systemd must hand over exactly one Unix stream socket";
    for (const auto& make : rows) {
        expectNone([&] { handOver(make(), getpid()); }, 78, message);
    }
    expectNone(
        [] {
            handOver({}, getpid());
            ASSERT_EQ(setenv("LISTEN_FDS", "nonsense", 1), 0);
        },
        78, message);
    expectNone(
        [] { ASSERT_EQ(setenv("SYSTEMD_EXEC_PID", std::to_string(getpid()).c_str(), 1), 0); }, 78,
        "systemd handed over no socket: systemctl restart " + helperName + ".socket");
    EXPECT_FALSE(fs::exists(socketPath));
}

// A listener that serves, on a simulated world.
struct Service {
    void serve() { listener->serve(helper); }

    LogCapture log;
    SimulatedWorld world;
    std::unique_ptr<HelperListener> listener = makeListener(sampleIdentity);
    HelperService helper{{world.clock, world.flags, world.store, world.session, world.opener},
                         *listener,
                         liveMainQueue()};
};

class HelperListenerCallerPrivateMachineTest : public HelperListenerPrivateMachineTest {
  protected:
    void prepare() override {
        app = std::make_unique<TestBundle>("/Applications/Sample.app");
        app->writeInfo();
        app->install(appGroup);
    }

    void cleanUp() override {
        HelperListenerPrivateMachineTest::cleanUp();
        fs::remove_all("/Applications/Sample.app");
    }

    // A process of the app, or of another program.
    [[nodiscard]] std::unique_ptr<TestProcess> start(const std::vector<std::string>& words) const {
        return startAs(user, app->executable(), words);
    }

    // One that asks for the status.
    [[nodiscard]] std::unique_ptr<TestProcess> startAsking() const {
        return start({"ask", socketPath, "status"});
    }

    [[nodiscard]] static std::unique_ptr<TestProcess> startAs(
        const Credentials& person, const std::string& program,
        const std::vector<std::string>& words) {
        return std::make_unique<TestProcess>([&] {
            become(person);
            execute(program, words);
        });
    }

    // The app of as many people as take all places but one; each has connected as often as it may.
    [[nodiscard]] std::vector<std::unique_ptr<TestProcess>> startCrowd() const {
        std::vector<std::unique_ptr<TestProcess>> crowd;
        for (std::size_t left = Limits::connections - 1; left > 0;) {
            const std::size_t count = std::min(left, Limits::connectionsOfUser);
            const auto id = static_cast<uid_t>(62'000 + crowd.size());
            crowd.push_back(startAs({id, id}, app->executable(),
                                    {"connect-many", socketPath, std::to_string(count)}));
            left -= count;
        }
        return crowd;
    }

    std::unique_ptr<TestBundle> app;
};

// Does `body` in a child process, with a listener that serves.
void serving(const std::function<void(Service&)>& body) {
    expectInChild([&body] {
        Service service;
        service.serve();
        body(service);
    });
}

constexpr const char* idle = "idle without end unlocked";
const auto isServed = ElementsAre(idle);
const auto isTurnedAway = ElementsAre(::testing::Not(HasSubstr("idle")));

// Serves until the caller has said as many lines.
std::vector<std::string> answersTo(TestProcess& caller, std::size_t count = 1) {
    std::vector<std::string> lines;
    EXPECT_TRUE(serveUntil([&] {
        while (lines.size() < count && caller.hasLine()) {
            lines.push_back(caller.readLine());
        }
        return lines.size() == count;
    }));
    return lines;
}

TEST_F(HelperListenerCallerPrivateMachineTest, TellsTheServiceManagerWhenItServes) {
    expectInChild([] {
        // sd_notify(3).
        const std::string path = "/run/notify";
        const Descriptor manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        bindTo(path, manager.get());
        ASSERT_EQ(setenv("NOTIFY_SOCKET", path.c_str(), 1), 0);
        const auto heard = [&manager] {
            std::array<char, 100> text{};
            const ssize_t size = recv(manager.get(), text.data(), text.size(), MSG_DONTWAIT);
            return size < 0 ? "" : std::string(text.data(), static_cast<std::size_t>(size));
        };
        Service service;
        EXPECT_EQ(heard(), "");
        service.serve();
        EXPECT_EQ(heard(), "READY=1");
        fs::remove(path);
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, ServesTheApp) {
    serving([this](Service& service) {
        const auto caller = start({"ask", socketPath, "status", "begin=" + app->path(), "status",
                                   "heartbeat", "end", "status"});
        EXPECT_THAT(answersTo(*caller, 6),
                    ElementsAre(idle, "yes", "holding until unlocked", "yes", "yes", idle));
        EXPECT_EQ(service.helper.connections(), 1);
        caller->closeInput();
        EXPECT_TRUE(serveUntil([&] { return service.helper.connections() == 0; }));
        EXPECT_THAT(service.log.errors(), IsEmpty());
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, ServesTheAppOnTheSocketOfSystemd) {
    expectInChild([this] {
        const int socket = boundSocket();
        ASSERT_EQ(chmod(socketPath.c_str(), 0666), 0);
        // It is already listening when it is handed over, and the first caller may be waiting.
        ASSERT_EQ(listen(socket, 1), 0);
        handOver({socket}, getpid());
        close(socket);
        const auto caller = startAsking();
        Service service;
        service.serve();
        EXPECT_THAT(answersTo(*caller), isServed);
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, TurnsStrangersAwayAndSaysWhy) {
    serving([](Service& service) {
        // What one sent is lost with the connection, which is more than an end of it: unix(7).
        const auto address = socketAddress(socketPath).value();
        const Descriptor stranger(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(connect(stranger.get(), generic(address), sizeof address), 0);
        ASSERT_EQ(send(stranger.get(), "hello", 5, MSG_NOSIGNAL), 5);
        serveWhatComes();
        char byte = 0;
        EXPECT_EQ(read(stranger.get(), &byte, 1), -1);
        EXPECT_EQ(errno, ECONNRESET);
        EXPECT_EQ(service.helper.connections(), 0);
        EXPECT_THAT(service.log.errors(), ElementsAre(StartsWith("Refused a caller: ")));
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, HasRoomForSoManyConnections) {
    serving([this](Service& service) {
        constexpr int most = static_cast<int>(Limits::connections);
        const auto many = startCrowd();
        EXPECT_TRUE(serveUntil([&] { return service.helper.connections() == most - 1; }));
        // One goes, one may come; without the others.
        for (int turn = 0; turn < 2; ++turn) {
            const auto last = startAsking();
            EXPECT_THAT(answersTo(*last), isServed);
            EXPECT_EQ(service.helper.connections(), most);
            EXPECT_TRUE(service.log.isEmpty());
            EXPECT_THAT(answersTo(*startAsking()), isTurnedAway);
            EXPECT_THAT(service.log.errors(),
                        ElementsAre("Refused a caller: too many connections are open"));
            EXPECT_EQ(service.helper.connections(), most);
            service.log.clear();
            last->send(SIGKILL);
            EXPECT_TRUE(serveUntil([&] { return service.helper.connections() == most - 1; }));
            serveWhatComes();
        }
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, KeepsNothingOfAConnectionThatIsGone) {
    serving([this](Service& service) {
        const auto serveSome = [&](int count) {
            const auto caller = start({"ask-often", socketPath, std::to_string(count)});
            EXPECT_THAT(answersTo(*caller, 1), ElementsAre("asked"));
            EXPECT_TRUE(serveUntil([&] { return service.helper.connections() == 0; }));
            serveWhatComes();
            service.world.calls.clear();
        };
        constexpr int many = 100;
        serveSome(many);  // what grows once, the world's notes among it, has its size by now
        const std::size_t before = bytesAllocated();
        serveSome(many);
        const std::size_t after = bytesAllocated();
        EXPECT_LT(after, before + many * std::size_t{50})
            << (after - before) / many << " bytes for each";
    });
}

// Whatever it is that keeps it from accepting, the socket stays readable.
TEST_F(HelperListenerCallerPrivateMachineTest, WaitsASecondAfterAnAcceptError) {
    for (const int code : {EACCES, EPERM, EMFILE}) {
        serving([this, code](Service& service) {
            const auto caller = startAsking();
            const auto expectPatience = [&] {
                EXPECT_TRUE(serveUntil([&] { return !service.log.isEmpty(); }));
                const std::size_t calls = callsMade(SystemCall::accept4);
                serveWhatComes();
                // One more on a machine that is so busy that the second has passed.
                EXPECT_LE(callsMade(SystemCall::accept4), calls + 1) << code;
            };
            if (code == EMFILE) {
                const FewDescriptors none(0);
                expectPatience();
            } else {
                const Fault fault = Fault::failing(SystemCall::accept4, code);
                expectPatience();
            }
            EXPECT_THAT(service.log.errors(), AllOf(SizeIs(::testing::Le(2U)),
                                                    Each("Couldn't accept a caller: " +
                                                         std::generic_category().message(code))));
            EXPECT_THAT(answersTo(*caller), isServed);
        });
    }
}

TEST_F(HelperListenerCallerPrivateMachineTest, GoesOnAtOnceWhenOneCallerCannotBeAccepted) {
    serving([this](Service& service) {
        for (const int code : {EAGAIN, EINTR, ECONNABORTED}) {
            const auto caller = startAsking();
            const Fault fault = Fault::failing(SystemCall::accept4, code);
            EXPECT_THAT(answersTo(*caller), isServed) << code;
        }
        EXPECT_TRUE(service.log.isEmpty()) << "it says so when it waits";
    });
}

// What is no authentication may have come before the caller is accepted.
TEST_F(HelperListenerCallerPrivateMachineTest, LetsACallerGoThatItCannotServe) {
    serving([this](Service& service) {
        const auto expectRefusal = [&](const std::vector<std::string>& words) {
            service.log.clear();
            const auto caller = start(words);
            EXPECT_EQ(caller->readLine(), "connected");
            EXPECT_TRUE(serveUntil([&] { return !service.log.isEmpty(); }));
            EXPECT_EQ(service.helper.connections(), 0) << "it was never of use";
            EXPECT_THAT(service.log.errors(),
                        ElementsAre("Refused a caller: it did not authenticate as D-Bus requires, "
                                    "or memory or file descriptors ran out"));
        };
        expectRefusal({"connect", socketPath, "GET / HTTP/1.1"});
        {
            const Fault once = Fault::returning(SystemCall::sd_bus_start, -ENOMEM);
            expectRefusal({"connect", socketPath});
        }
        EXPECT_THAT(answersTo(*startAsking()), isServed);
        // Nor one that is gone already.
        serveWhatComes();
        service.log.clear();
        EXPECT_EQ(start({"connect", socketPath})->readLine(), "connected");
        serveWhatComes();
        EXPECT_EQ(service.helper.connections(), 0);
        EXPECT_THAT(service.log.errors(), ElementsAre("Refused a caller: its executable cannot be "
                                                      "read: No such file or directory"));
        EXPECT_THAT(answersTo(*startAsking()), isServed);
    });
}

TEST_F(HelperListenerPrivateMachineTest, EndsTheProcessWhenItCannotListen) {
    const ChildResult result = runInChild([] {
        handOver({boundSocket()}, getpid());
        Service service;
        close(3);
        service.serve();
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output, HasSubstr("Fatal error: The helper cannot listen on its socket\n"));
}

TEST(RefusalLogTest, SaysTenLinesAMinuteAndThenHowManyMoreThereWere) {
    struct Row {
        double time;
        int refused;
        // The lines that follow, after "Refused 2 more callers" with that number.
        int more;
        std::size_t lines;
    };

    const std::vector<Row> rows[] = {
        {{1000, 1000, 0, 10}, {1059.999, 1000, 0, 0}, {1060, 1, 1990, 1}, {1120, 1, 0, 1}},
        {{0, 10, 0, 10}, {60, 1, 0, 1}},
        // The minute begins with its first line.
        {{1000, 5, 0, 5},
         {1059, 5, 0, 5},
         {1059.5, 1, 0, 0},
         {1060, 9, 1, 9},
         {1119.9, 2, 0, 1},
         {1120, 1, 1, 1}},
        {{5, 10, 0, 10}, {1'000'000, 11, 0, 10}},
    };
    // Nothing in it is taken for a format.
    const std::string why = "it is %d not 50% of the %{public}s app";
    for (const auto& history : rows) {
        RefusalLog refusals;
        for (const Row& row : history) {
            SCOPED_TRACE(row.time);
            const LogCapture log;
            for (int i = 0; i < row.refused; ++i) {
                refusals.refused(Seconds{row.time}, why);
            }
            std::vector<std::string> expected(row.lines, "Refused a caller: " + why);
            if (row.more > 0) {
                expected.insert(expected.begin(),
                                "Refused " + std::to_string(row.more) + " more callers");
            }
            EXPECT_EQ(log.errors(), expected);
            EXPECT_EQ(log.messages().size(), expected.size());
        }
    }
}

}  // namespace
}  // namespace halvo::testing
