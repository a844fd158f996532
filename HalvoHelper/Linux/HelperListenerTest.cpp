#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <expected>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "HalvoHelper/ConnectionAcceptor.hpp"
#include "HalvoHelper/HelperListener.hpp"
#include "HalvoHelper/Linux/Limits.hpp"
#include "HalvoPlatform/Descriptor.hpp"
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
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

const std::string name = "com.example.app.helper";
const std::string socketPath = "/run/com.example.app.helper.sock";
const std::string lockPath = socketPath + ".lock";
const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};

constexpr int exitConfig = 78;
constexpr int exitSystem = 71;

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

class NotingCount final : public ConnectionCount {
  public:
    void connectionOpened() override { ++opened; }

    void connectionClosed() override { ++closed; }

    int opened = 0;
    int closed = 0;
};

// Whether somebody listens at `path`: 0, or the errno of connect(2).
int tryToConnect(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0
               ? 0
               : errno;
}

mode_t modeOf(const std::string& path) {
    struct stat status{};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

void leaveAStaleSocket() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
}

// Everything in a child process: a listener is removed when its process exits, and the event loop
// belongs to the process.
void inChild(const std::function<void()>& body) {
    const ChildResult result = runInChild(body);
    EXPECT_EQ(result.status, 0) << result.output;
}

class HelperListenerPrivateMachineTest : public PrivateMachineTest {
  protected:
    void cleanUp() override {
        fs::remove_all(socketPath);
        fs::remove_all(lockPath);
    }
};

// ------------------------------------------------------------------------------- a place to listen

TEST_F(HelperListenerPrivateMachineTest, MakesASocketThatEverybodyCanReach) {
    inChild([] {
        umask(077);
        const auto listener = makeListener(name);
        ASSERT_TRUE(listener) << listener.error().message;
        EXPECT_EQ(modeOf(socketPath), S_IFSOCK | 0666U);
        EXPECT_EQ(modeOf(lockPath), S_IFREG | 0600U);
        EXPECT_EQ(tryToConnect(socketPath), ECONNREFUSED) << "it serves before its time";
    });
}

TEST_F(HelperListenerPrivateMachineTest, LeavesNothingWhenItsProcessExits) {
    inChild([] { ASSERT_TRUE(makeListener(name)); });
    EXPECT_FALSE(fs::exists(socketPath));
    EXPECT_FALSE(fs::exists(lockPath));
}

TEST_F(HelperListenerPrivateMachineTest, TakesThePlaceOfAHelperThatWasKilled) {
    TestProcess killed([] {
        const auto listener = makeListener(name);
        ASSERT_TRUE(listener);
        std::puts("made");
        std::fflush(stdout);
        pause();
    });
    ASSERT_EQ(killed.readLine(), "made");
    killed.send(SIGKILL);
    killed.wait();
    ASSERT_TRUE(fs::exists(socketPath));
    ASSERT_TRUE(fs::exists(lockPath));
    inChild([] {
        const auto listener = makeListener(name);
        EXPECT_TRUE(listener) << listener.error().message;
    });
}

TEST_F(HelperListenerPrivateMachineTest, TakesThePlaceOfAStaleSocket) {
    leaveAStaleSocket();
    inChild([] {
        const auto listener = makeListener(name);
        EXPECT_TRUE(listener) << listener.error().message;
    });
}

TEST_F(HelperListenerPrivateMachineTest, IsTheOnlyOneOfItsName) {
    TestProcess first([] {
        const auto listener = makeListener(name);
        ASSERT_TRUE(listener);
        std::puts("made");
        std::fflush(stdout);
        pause();
    });
    ASSERT_EQ(first.readLine(), "made");
    inChild([] {
        const auto second = makeListener(name);
        ASSERT_FALSE(second);
        EXPECT_EQ(second.error().exitStatus, exitSystem);
        EXPECT_EQ(second.error().message, "Another helper already runs: it holds " + lockPath);
        // Of another app there may be one.
        EXPECT_TRUE(makeListener("com.example.other.helper"));
    });
    EXPECT_TRUE(fs::exists(socketPath)) << "the second one took the first one's";
    EXPECT_TRUE(fs::exists(lockPath));
}

TEST_F(HelperListenerPrivateMachineTest, LeavesAloneWhatIsNoSocket) {
    const std::pair<const char*, std::function<void()>> items[] = {
        {"a file", [] { replaceTestFile(socketPath, "kept"); }},
        {"a folder", [] { fs::create_directory(socketPath); }},
        {"a link", [] { fs::create_symlink("/run/elsewhere", socketPath); }},
        {"a pipe", [] { ASSERT_EQ(mkfifo(socketPath.c_str(), 0600), 0); }},
    };
    for (const auto& [what, make] : items) {
        make();
        const mode_t before = modeOf(socketPath);
        inChild([&] {
            const auto listener = makeListener(name);
            ASSERT_FALSE(listener) << what;
            EXPECT_EQ(listener.error().exitStatus, exitConfig);
            EXPECT_EQ(listener.error().message, "Something that is no socket lies at " +
                                                    socketPath +
                                                    "; remove it and start the helper again");
        });
        EXPECT_EQ(modeOf(socketPath), before) << what;
        fs::remove(socketPath);
    }
}

TEST_F(HelperListenerPrivateMachineTest, RefusesANameThatIsTooLong) {
    // sockaddr_un has room for 107 characters and a zero byte.
    const std::string longest(107 - std::string("/run/.sock").size(), 'x');
    inChild([&] {
        const auto listener = makeListener(longest);
        EXPECT_TRUE(listener) << listener.error().message;
    });
    inChild([&] {
        const auto listener = makeListener(longest + "x");
        ASSERT_FALSE(listener);
        EXPECT_EQ(listener.error().exitStatus, exitConfig);
        EXPECT_EQ(listener.error().message,
                  "The app's identifier is too long for a socket: /run/" + longest + "x.sock");
    });
    fs::remove("/run/" + longest + "x.sock.lock");
}

// One that ends takes the file away that the next one has opened already.
TEST_F(HelperListenerPrivateMachineTest, HoldsAFileThatIsStillThere) {
    inChild([] {
        std::optional<std::expected<std::unique_ptr<HelperListener>, ListenerFailure>> listener;
        {
            const BeforeNext end(BeforeNext::Call::flock, [] { fs::remove(lockPath); });
            listener = makeListener(name);
        }
        ASSERT_TRUE(*listener);
        EXPECT_EQ(modeOf(lockPath), S_IFREG | 0600U);
        const Descriptor lock(open(lockPath.c_str(), O_RDWR | O_CLOEXEC));
        EXPECT_EQ(flock(lock.get(), LOCK_EX | LOCK_NB), -1) << "another helper could hold it";
    });
}

// And another one may have put its own in the place meanwhile.
TEST_F(HelperListenerPrivateMachineTest, DoesNotHoldAFileBesidesThatOfAnother) {
    inChild([] {
        const BeforeNext change(BeforeNext::Call::flock, [] {
            fs::remove(lockPath);
            // Held until this process ends.
            const int file = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
            ASSERT_EQ(flock(file, LOCK_EX | LOCK_NB), 0);
        });
        const auto listener = makeListener(name);
        ASSERT_FALSE(listener);
        EXPECT_EQ(listener.error().exitStatus, exitSystem);
        EXPECT_THAT(listener.error().message, StartsWith("Another helper already runs"));
    });
}

TEST_F(HelperListenerPrivateMachineTest, DoesNotFollowALinkInThePlaceOfItsLock) {
    fs::create_symlink("/run/elsewhere", lockPath);
    inChild([] {
        const auto listener = makeListener(name);
        ASSERT_FALSE(listener);
        EXPECT_EQ(listener.error().exitStatus, exitSystem);
        EXPECT_EQ(listener.error().message,
                  "Couldn't open " + lockPath + ": Too many levels of symbolic links");
    });
    EXPECT_FALSE(fs::exists("/run/elsewhere"));
}

TEST_F(HelperListenerPrivateMachineTest, SaysThatTheSystemHasNothingLeft) {
    inChild([] {
        std::optional<ListenerFailure> failure;
        {
            const FewDescriptors forTheLockOnly(1);
            const auto listener = makeListener(name);
            failure = listener ? std::nullopt : std::optional(listener.error());
        }
        ASSERT_TRUE(failure);
        EXPECT_EQ(failure->exitStatus, exitSystem);
        EXPECT_EQ(failure->message,
                  "Couldn't make the socket " + socketPath + ": Too many open files");
    });
}

// ------------------------------------------------------------------------------------ from systemd

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
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(number, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    return number;
}

TEST_F(HelperListenerPrivateMachineTest, TakesTheSocketOfSystemd) {
    inChild([] {
        handOver({boundSocket()}, getpid());
        const auto listener = makeListener(name);
        ASSERT_TRUE(listener) << listener.error().message;
        EXPECT_FALSE(fs::exists(lockPath)) << "systemd starts only one";
        EXPECT_EQ(std::getenv("LISTEN_FDS"), nullptr) << "children would believe it";
        EXPECT_NE(fcntl(3, F_GETFL) & O_NONBLOCK, 0);
        EXPECT_NE(fcntl(3, F_GETFD) & FD_CLOEXEC, 0);
    });
    EXPECT_TRUE(fs::exists(socketPath)) << "it is systemd's to remove";
}

TEST_F(HelperListenerPrivateMachineTest, TakesNoSocketThatIsForAnotherProcess) {
    inChild([] {
        handOver({newSocket(AF_UNIX, SOCK_STREAM)}, getpid() + 1);
        ASSERT_TRUE(makeListener(name));
        EXPECT_TRUE(fs::is_socket(socketPath));
        EXPECT_TRUE(fs::exists(lockPath));
    });
}

TEST_F(HelperListenerPrivateMachineTest, RefusesWhatSystemdMustNotHandOver) {
    const std::pair<const char*, std::function<std::vector<int>()>> rows[] = {
        {"two",
         [] {
             return std::vector{newSocket(AF_UNIX, SOCK_STREAM), newSocket(AF_UNIX, SOCK_STREAM)};
         }},
        {"datagrams", [] { return std::vector{newSocket(AF_UNIX, SOCK_DGRAM)}; }},
        {"packets", [] { return std::vector{newSocket(AF_UNIX, SOCK_SEQPACKET)}; }},
        {"the network", [] { return std::vector{newSocket(AF_INET, SOCK_STREAM)}; }},
        {"no socket", [] { return std::vector{open("/dev/null", O_RDWR)}; }},
    };
    for (const auto& [what, make] : rows) {
        inChild([&] {
            handOver(make(), getpid());
            const auto listener = makeListener(name);
            ASSERT_FALSE(listener) << what;
            EXPECT_EQ(listener.error().exitStatus, exitConfig);
            EXPECT_EQ(listener.error().message,
                      "systemd must hand over exactly one Unix stream socket");
        });
        EXPECT_FALSE(fs::exists(socketPath)) << what;
    }
}

TEST_F(HelperListenerPrivateMachineTest, MakesNoSocketInTheStartedUnit) {
    inChild([] {
        ASSERT_EQ(setenv("SYSTEMD_EXEC_PID", std::to_string(getpid()).c_str(), 1), 0);
        const auto listener = makeListener(name);
        ASSERT_FALSE(listener);
        EXPECT_EQ(listener.error().exitStatus, exitConfig);
        EXPECT_EQ(listener.error().message, "systemd handed over no socket: systemctl restart " +
                                                std::string(name) + ".socket");
        EXPECT_FALSE(fs::exists(socketPath));
    });
    // A shell that systemd started, say.
    inChild([] {
        ASSERT_EQ(setenv("SYSTEMD_EXEC_PID", std::to_string(getppid()).c_str(), 1), 0);
        EXPECT_TRUE(makeListener(name));
        EXPECT_TRUE(fs::exists(socketPath));
    });
}

TEST_F(HelperListenerPrivateMachineTest, RefusesDescriptorsThatAreNotThere) {
    inChild([] {
        ASSERT_EQ(setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1), 0);
        ASSERT_EQ(setenv("LISTEN_FDS", "nonsense", 1), 0);
        const auto listener = makeListener(name);
        ASSERT_FALSE(listener);
        EXPECT_EQ(listener.error().exitStatus, exitConfig);
    });
}

// ------------------------------------------------------------------------------------- its callers

// A listener that serves, on a simulated world.
struct Service {
    Service() {
        auto made = makeListener(name);
        EXPECT_TRUE(made) << made.error().message;
        listener = *std::move(made);
    }

    void resume() {
        listener->setRequirement(identity);
        listener->resume(acceptor);
    }

    LogCapture log;
    SimulatedWorld world;
    HelperEngine engine = world.makeEngine();
    NotingCount count;
    ConnectionAcceptor acceptor{liveMainQueue(), engine, count};
    std::unique_ptr<HelperListener> listener;
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

    // A process of the app.
    [[nodiscard]] std::unique_ptr<TestProcess> start(const std::vector<std::string>& words) const {
        return start(app->executable(), words);
    }

    [[nodiscard]] std::unique_ptr<TestProcess> start(const std::string& program,
                                                     const std::vector<std::string>& words) const {
        return startAs(user, program, words);
    }

    [[nodiscard]] static std::unique_ptr<TestProcess> startAs(
        const Person& person, const std::string& program, const std::vector<std::string>& words) {
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

// Serves until the caller has said as many lines.
std::vector<std::string> answersTo(TestProcess& caller, std::size_t count) {
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
    inChild([] {
        // sd_notify(3).
        const std::string path = "/run/notify";
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const Descriptor manager(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(bind(manager.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
        ASSERT_EQ(setenv("NOTIFY_SOCKET", path.c_str(), 1), 0);
        const auto heard = [&manager] {
            std::array<char, 100> text{};
            const ssize_t size = recv(manager.get(), text.data(), text.size(), MSG_DONTWAIT);
            return size < 0 ? "" : std::string(text.data(), static_cast<std::size_t>(size));
        };
        Service service;
        EXPECT_EQ(heard(), "");
        service.resume();
        EXPECT_EQ(heard(), "READY=1");
        fs::remove(path);
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, ServesTheApp) {
    inChild([this] {
        Service service;
        service.resume();
        const auto caller = start({"ask", socketPath, "status", "begin=" + app->path(), "status",
                                   "heartbeat", "end", "status"});
        EXPECT_THAT(answersTo(*caller, 6),
                    ElementsAre("idle without end unlocked", "yes", "holding until unlocked", "yes",
                                "yes", "idle without end unlocked"));
        EXPECT_EQ(service.count.opened, 1);
        EXPECT_EQ(service.count.closed, 0);
        caller->closeInput();
        EXPECT_TRUE(serveUntil([&] { return service.count.closed == 1; }));
        serveWhatComes();
        EXPECT_EQ(service.count.opened, 1);
        EXPECT_EQ(service.count.closed, 1);
        EXPECT_THAT(service.log.errors(), IsEmpty());
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, ServesTheAppOnTheSocketOfSystemd) {
    inChild([this] {
        const int socket = boundSocket();
        ASSERT_EQ(chmod(socketPath.c_str(), 0666), 0);
        // It is already listening when it is handed over, and the first caller may be waiting.
        ASSERT_EQ(listen(socket, 1), 0);
        handOver({socket}, getpid());
        close(socket);
        const auto caller = start({"ask", socketPath, "status"});
        Service service;
        service.resume();
        EXPECT_THAT(answersTo(*caller, 1), ElementsAre("idle without end unlocked"));
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, TellsTheAppsItServesApart) {
    inChild([this] {
        Service service;
        service.resume();
        const auto mine = start({"ask", socketPath, "begin=" + app->path()});
        EXPECT_THAT(answersTo(*mine, 1), ElementsAre("yes"));
        TestProcess theirs([this] {
            become(other);
            execute(app->executable(),
                    {"ask", socketPath, "status", "begin=" + app->path(), "end"});
        });
        EXPECT_THAT(answersTo(theirs, 3), ElementsAre("idle without end unlocked", "no", "no"));
        EXPECT_EQ(service.count.opened, 2);
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, TurnsStrangersAwayAndSaysWhy) {
    inChild([this] {
        Service service;
        service.resume();
        const auto stranger = start(HALVO_TEST_APP, {"ask", socketPath, "status"});
        const auto lines = answersTo(*stranger, 1);
        EXPECT_THAT(lines, ElementsAre(::testing::Not(HasSubstr("idle"))));
        EXPECT_EQ(service.log.errors().size(), 1U);
        EXPECT_THAT(service.log.errors(), ElementsAre(StartsWith("Refused a caller: ")));
        serveWhatComes();
        EXPECT_EQ(service.count.opened, 0);
        EXPECT_EQ(service.count.closed, 0);
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, ReadsNothingOfAStranger) {
    inChild([] {
        Service service;
        service.resume();
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socketPath.copy(address.sun_path, sizeof address.sun_path - 1);
        const Descriptor stranger(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(
            connect(stranger.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
            0);
        ASSERT_EQ(send(stranger.get(), "hello", 5, MSG_NOSIGNAL), 5);
        serveWhatComes();
        // What was sent is lost with the connection, which is more than an end of it: unix(7).
        char byte = 0;
        EXPECT_EQ(read(stranger.get(), &byte, 1), -1);
        EXPECT_EQ(errno, ECONNRESET);
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, BoundsWhatItSaysOfStrangers) {
    inChild([] {
        Service service;
        service.resume();
        for (int i = 0; i < 30; ++i) {
            EXPECT_EQ(tryToConnect(socketPath), 0);
        }
        serveWhatComes();
        EXPECT_EQ(service.log.errors().size(), Limits::refusalLines);
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, AdmitsNobodyWithoutARequirement) {
    inChild([this] {
        Service service;
        service.listener->resume(service.acceptor);
        const auto caller = start({"ask", socketPath, "status"});
        EXPECT_THAT(answersTo(*caller, 1), ElementsAre(::testing::Not(HasSubstr("idle"))));
        EXPECT_THAT(service.log.errors(),
                    ElementsAre("Refused a caller: nothing is known of the app"));
        EXPECT_EQ(service.count.opened, 0);
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, LetsOneConnectionEndWithoutTheOthers) {
    inChild([this] {
        Service service;
        service.resume();
        const auto first = start({"ask", socketPath, "status"});
        answersTo(*first, 1);
        const auto second = start({"ask", socketPath, "status"});
        answersTo(*second, 1);
        EXPECT_EQ(service.count.opened, 2);
        first->send(SIGKILL);
        EXPECT_TRUE(serveUntil([&] { return service.count.closed == 1; }));
        serveWhatComes();
        EXPECT_EQ(service.count.closed, 1);
        second->send(SIGKILL);
        EXPECT_TRUE(serveUntil([&] { return service.count.closed == 2; }));
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, HasRoomForSoManyConnections) {
    inChild([this] {
        Service service;
        service.resume();
        constexpr int most = static_cast<int>(Limits::connections);
        const auto many = startCrowd();
        EXPECT_TRUE(serveUntil([&] { return service.count.opened == most - 1; }));
        auto last = start({"ask", socketPath, "status"});
        EXPECT_THAT(answersTo(*last, 1), ElementsAre("idle without end unlocked"));
        EXPECT_EQ(service.count.opened, most);
        EXPECT_TRUE(service.log.isEmpty());

        const auto tooMany = start({"ask", socketPath, "status"});
        EXPECT_THAT(answersTo(*tooMany, 1), ElementsAre(::testing::Not(HasSubstr("idle"))));
        EXPECT_THAT(service.log.errors(),
                    ElementsAre("Refused a caller: too many connections are open"));
        EXPECT_EQ(service.count.opened, most);

        // One goes, one may come.
        last->send(SIGKILL);
        EXPECT_TRUE(serveUntil([&] { return service.count.closed == 1; }));
        serveWhatComes();
        const auto next = start({"ask", socketPath, "status"});
        EXPECT_THAT(answersTo(*next, 1), ElementsAre("idle without end unlocked"));
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, HasSoManyPlacesForOneUserAndTheOthersForOthers) {
    inChild([this] {
        Service service;
        service.resume();
        constexpr int most = static_cast<int>(Limits::connectionsOfUser);
        const auto many = start({"connect-many", socketPath, std::to_string(3 * most)});
        const std::string refusal = "Refused a caller: too many connections of user " +
                                    std::to_string(user.uid) + " are open";
        EXPECT_TRUE(serveUntil(
            [&] { return service.log.count(refusal) == std::size_t{Limits::refusalLines}; }));
        EXPECT_EQ(service.count.opened, most);
        const auto theirs = startAs(other, app->executable(), {"ask", socketPath, "status"});
        EXPECT_THAT(answersTo(*theirs, 1), ElementsAre("idle without end unlocked"));
        EXPECT_EQ(service.count.opened, most + 1);

        // As many go, as many may come.
        many->send(SIGKILL);
        EXPECT_TRUE(serveUntil([&] { return service.count.closed == most; }));
        serveWhatComes();
        const auto next = start({"ask", socketPath, "status"});
        EXPECT_THAT(answersTo(*next, 1), ElementsAre("idle without end unlocked"));
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, KeepsNothingOfAConnectionThatIsGone) {
    inChild([this] {
        Service service;
        service.resume();
        const auto serveSome = [&](int count) {
            const int before = service.count.closed;
            const auto caller = start({"ask-often", socketPath, std::to_string(count)});
            EXPECT_THAT(answersTo(*caller, 1), ElementsAre("asked"));
            EXPECT_TRUE(serveUntil([&] { return service.count.closed == before + count; }));
            serveWhatComes();
            service.world.calls.clear();
        };
        constexpr int many = 400;
        serveSome(many);  // what grows once, the world's notes among it, has its size by now
        const std::size_t before = bytesAllocated();
        serveSome(many);
        const std::size_t after = bytesAllocated();
        EXPECT_LT(after, before + many * std::size_t{50})
            << (after - before) / many << " bytes for each";
    });
}

// Whatever it is that keeps it from accepting, the socket stays readable.
TEST_F(HelperListenerCallerPrivateMachineTest, WaitsASecondWhenItCannotAcceptAnybody) {
    for (const int code : {EACCES, EPERM, EMFILE}) {
        inChild([this, code] {
            Service service;
            service.resume();
            const auto caller = start({"ask", socketPath, "status"});
            {
                const Fault fault = Fault::failing(SystemCall::accept4, code);
                EXPECT_TRUE(serveUntil([&] { return !service.log.isEmpty(); }));
            }
            const std::size_t calls = callsMade(SystemCall::accept4);
            serveWhatComes();
            // One more on a machine that is so busy that the second has passed.
            EXPECT_LE(callsMade(SystemCall::accept4), calls + 1) << code;
            EXPECT_THAT(service.log.errors(), ElementsAre("Couldn't accept a caller: " +
                                                          std::generic_category().message(code)));
            EXPECT_THAT(answersTo(*caller, 1), ElementsAre("idle without end unlocked"));
        });
    }
}

TEST_F(HelperListenerCallerPrivateMachineTest, GoesOnAtOnceWhenOneCallerCannotBeAccepted) {
    inChild([this] {
        Service service;
        service.resume();
        for (const int code : {EAGAIN, EINTR, ECONNABORTED, EPROTO, EHOSTUNREACH}) {
            const auto caller = start({"ask", socketPath, "status"});
            const Fault fault = Fault::failing(SystemCall::accept4, code);
            EXPECT_THAT(answersTo(*caller, 1), ElementsAre("idle without end unlocked")) << code;
        }
        EXPECT_TRUE(service.log.isEmpty()) << "it says so when it waits";
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, WaitsWhenTheSystemHasNoDescriptorLeft) {
    inChild([this] {
        Service service;
        service.resume();
        const auto caller = start({"ask", socketPath, "status"});
        {
            const FewDescriptors none(0);
            EXPECT_TRUE(serveUntil([&] { return !service.log.isEmpty(); }));
            // A socket that stays readable would be accepted from, and spoken of, over and over.
            serveWhatComes();
        }
        EXPECT_THAT(service.log.errors(),
                    ElementsAre("Couldn't accept a caller: Too many open files"));
        EXPECT_THAT(answersTo(*caller, 1), ElementsAre("idle without end unlocked"));
    });
}

TEST_F(HelperListenerCallerPrivateMachineTest, LetsACallerGoThatItHasNoMemoryFor) {
    inChild([this] {
        Service service;
        service.resume();
        {
            const Fault once = Fault::returning(SystemCall::sd_bus_start, -ENOMEM);
            const auto caller = start({"connect", socketPath});
            EXPECT_TRUE(serveUntil([&] { return !service.log.isEmpty(); }));
        }
        EXPECT_EQ(service.count.opened, 0) << "it was never of use";
        EXPECT_THAT(service.log.errors(),
                    ElementsAre("Refused a caller: what it sent is not D-Bus, or memory or "
                                "descriptors ran out"));
        const auto caller = start({"ask", socketPath, "status"});
        EXPECT_THAT(answersTo(*caller, 1), ElementsAre("idle without end unlocked"));
    });
}

// What is no authentication may have come before the caller is accepted.
TEST_F(HelperListenerCallerPrivateMachineTest, LetsAnAppGoThatTalksNonsense) {
    inChild([this] {
        Service service;
        service.resume();
        const auto caller = start({"connect-say", socketPath, "GET / HTTP/1.1"});
        EXPECT_EQ(caller->readLine(), "connected");
        EXPECT_TRUE(serveUntil([&] { return !service.log.isEmpty(); }));
        EXPECT_EQ(service.count.opened, 0) << "it was never of use";
        EXPECT_THAT(service.log.errors(),
                    ElementsAre("Refused a caller: what it sent is not D-Bus, or memory or "
                                "descriptors ran out"));
    });
}

TEST_F(HelperListenerPrivateMachineTest, EndsTheProcessWhenItCannotListen) {
    const ChildResult result = runInChild([] {
        handOver({boundSocket()}, getpid());
        Service service;
        close(3);
        service.resume();
    });
    EXPECT_EQ(result.signal, SIGABRT);
    EXPECT_THAT(result.output, HasSubstr("Fatal error: The helper cannot listen on its socket\n"));
}

TEST_F(HelperListenerCallerPrivateMachineTest, SurvivesACallerWhoIsGoneBeforeItIsAccepted) {
    inChild([this] {
        Service service;
        service.resume();
        {
            const auto gone = start({"connect", socketPath});
            EXPECT_EQ(gone->readLine(), "connected");
        }
        serveWhatComes();
        EXPECT_EQ(service.count.opened, 0);
        EXPECT_THAT(service.log.errors(),
                    ElementsAre("Refused a caller: its executable cannot be read: No such file or "
                                "directory"));
        const auto caller = start({"ask", socketPath, "status"});
        EXPECT_THAT(answersTo(*caller, 1), ElementsAre("idle without end unlocked"));
    });
}

}  // namespace
}  // namespace halvo::testing
