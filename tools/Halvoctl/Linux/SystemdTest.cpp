#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <string>

#include "HalvoPlatform/Descriptor.hpp"
#include "tests/Support/ControlMachine.hpp"
#include "tests/Support/TestProcess.hpp"
#include "tools/Halvoctl/Linux/Systemd.hpp"

namespace halvo::control {
namespace {

using ::testing::EndsWith;
using Clock = std::chrono::steady_clock;

const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};

// The other side of the bus, which is systemd.
class Peer {
  public:
    // Answers one conversation on `listener`. What it does with calls of the manager, `manage`
    // says.
    Peer(const Descriptor& listener, std::function<int(sd_bus_message*)> manage)
        : manage_(std::move(manage)) {
        const int connection = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        sd_id128_t id{};
        sd_bus_new(&bus_);
        sd_bus_set_fd(bus_, connection, connection);
        sd_bus_set_server(bus_, 1, id);
        sd_bus_add_filter(bus_, nullptr, answer, this);
        sd_bus_start(bus_);
        while (sd_bus_process(bus_, nullptr) >= 0 && sd_bus_wait(bus_, UINT64_MAX) >= 0) {
        }
    }

  private:
    static int answer(sd_bus_message* call, void* peer, sd_bus_error*) {
        if (sd_bus_message_is_method_call(call, "org.freedesktop.DBus.Properties", "Get") > 0) {
            return property(call);
        }
        // Else it is the library's word that the connection has ended.
        return sd_bus_message_is_method_call(call, nullptr, nullptr) > 0
                   ? static_cast<Peer*>(peer)->manage_(call)
                   : 0;
    }

    // Each is one that tells from which unit, interface and property it came.
    static int property(sd_bus_message* call) {
        const char* interface = nullptr;
        const char* name = nullptr;
        sd_bus_message_read(call, "ss", &interface, &name);
        if (std::string(name) == "ReadWritePaths") {
            return sd_bus_reply_method_return(call, "v", "as", 4, "/Applications",
                                              "/Library/Application Support", "-/srv/B C",
                                              "-+/srv/D");
        }
        char* unit = nullptr;
        sd_bus_path_decode(sd_bus_message_get_path(call), "/org/freedesktop/systemd1/unit", &unit);
        const std::string text = std::string(name) == "ProtectSystem"
                                     ? "strict"
                                     : std::string(unit) + " " + interface + " " + name;
        std::free(unit);
        return sd_bus_reply_method_return(call, "v", "s", text.c_str());
    }

    std::function<int(sd_bus_message*)> manage_;
    sd_bus* bus_ = nullptr;
};

class SystemdTest : public ::testing::Test {
  protected:
    SystemdTest() {
        listener = Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
        listen(listener.get(), 1);
    }

    [[nodiscard]] LiveSystemd systemd(Seconds limit = Seconds{10}) {
        return {waiter, {{"unix:path=/nowhere/bus", false}, {"unix:path=" + path, false}}, limit};
    }

    // A process that is systemd for one conversation.
    [[nodiscard]] testing::TestProcess peer(const std::function<int(sd_bus_message*)>& manage =
                                                [](sd_bus_message*) { return 0; }) {
        return testing::TestProcess([&] { Peer(listener, manage); });
    }

    static int endJob(sd_bus_message* call, const std::string& job, const std::string& unit,
                      const char* result) {
        sd_bus_reply_method_return(call, "o", job.c_str());
        return sd_bus_emit_signal(sd_bus_message_get_bus(call), "/org/freedesktop/systemd1",
                                  "org.freedesktop.systemd1.Manager", "JobRemoved", "uoss", 7U,
                                  job.c_str(), unit.c_str(), result);
    }

    const testing::TemporaryFolder folder;
    const std::string path = folder / "bus";
    Descriptor listener;
    Waiter waiter;
};

TEST_F(SystemdTest, TellsOfTheUnits) {
    const auto process = peer();
    const auto units = systemd().units(identity);
    ASSERT_TRUE(units) << units.error();
    const auto expected = [](const std::string& name, const std::string& kind) {
        const std::string unit = name + " org.freedesktop.systemd1.Unit ";
        return Unit{unit + "LoadState", unit + "ActiveState", unit + "UnitFileState",
                    name + " org.freedesktop.systemd1." + kind + " Result", unit + "SubState"};
    };
    EXPECT_EQ(units->socket, expected("com.example.app.helper.socket", "Socket"));
    EXPECT_EQ(units->service, expected("com.example.app.helper.service", "Service"));
    EXPECT_EQ(units->resume, expected("com.example.app.helper-resume.service", "Service"));
    EXPECT_EQ(
        units->sandbox,
        (Sandbox{true, {"/Applications", "/Library/Application Support", "/srv/B C", "/srv/D"}}));
}

TEST(UnitTest, IsJudgedByItsStates) {
    EXPECT_TRUE((Unit{"loaded", "activating", "", "", "auto-restart"}).isActive());
    EXPECT_TRUE((Unit{"loaded", "activating", "", "", "auto-restart"}).isRestarting());
    EXPECT_FALSE((Unit{"loaded", "active", "", "", "running"}).isRestarting());
    EXPECT_FALSE((Unit{"loaded", "failed", "", "", ""}).isActive());
    EXPECT_TRUE((Unit{"masked", "deactivating", "", "", ""}).isUp());
    EXPECT_FALSE((Unit{"masked", "deactivating", "", "", ""}).isLoaded());
    for (const char* active : {"", "inactive", "failed"}) {
        EXPECT_FALSE((Unit{"loaded", active, "", "", ""}).isUp());
    }
}

TEST_F(SystemdTest, CannotBeReached) {
    EXPECT_EQ(LiveSystemd(waiter, {{"unix:path=/nowhere/bus", true}}, Seconds{1}).units(identity),
              std::unexpected("systemd does not answer: No such file or directory"));
}

TEST_F(SystemdTest, IsNotWaitedForWithoutEnd) {
    const auto expectTimeOut = [this] {
        const auto start = Clock::now();
        EXPECT_EQ(systemd(Seconds{0.3}).units(identity),
                  std::unexpected("systemd does not answer: Connection timed out"));
        EXPECT_GE(Clock::now() - start, std::chrono::milliseconds{300});
        EXPECT_LT(Clock::now() - start, std::chrono::seconds{5});
    };
    // Which takes no connection, then one that it does not answer, then some calls of.
    expectTimeOut();
    const testing::TestProcess mute([this] {
        accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        pause();
    });
    expectTimeOut();
}

TEST_F(SystemdTest, StopsAndStartsUnits) {
    const auto process = peer([](sd_bus_message* call) {
        const char* unit = nullptr;
        const char* mode = nullptr;
        sd_bus_message_read(call, "ss", &unit, &mode);
        const std::string method = sd_bus_message_get_member(call);
        const bool isAsked = method == "StopUnit" && std::string(mode) == "replace";
        return endJob(call, "/job/" + std::string(1, unit[0]), unit, isAsked ? "done" : "failed");
    });
    EXPECT_TRUE(systemd().stop({"a.socket", "b.service"}, Seconds{10}, ""));
    const auto next = peer([](sd_bus_message* call) {
        const std::string method = sd_bus_message_get_member(call);
        return endJob(call, "/job/7", "a.socket", method == "StartUnit" ? "dependency" : "done");
    });
    EXPECT_EQ(systemd().start({"a.socket"}, Seconds{10}, "").error(),
              "the job of a.socket ended as dependency");
}

TEST_F(SystemdTest, SaysWhyItRefuses) {
    const auto process = peer([](sd_bus_message* call) {
        return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "Access\ndenied");
    });
    EXPECT_EQ(systemd().stop({"a.socket", "b.service"}, Seconds{10}, ""),
              std::unexpected("Access\\ndenied"));
}

TEST_F(SystemdTest, WaitsForTheEndOfEachJob) {
    const auto process = peer([](sd_bus_message* call) {
        const char* unit = nullptr;
        sd_bus_message_read(call, "s", &unit);
        if (unit[0] == 'b') {
            return sd_bus_reply_method_return(call, "o", "/job/8");
        }
        return endJob(call, "/job/7", unit, "done");
    });
    const auto start = Clock::now();
    EXPECT_EQ(systemd().stop({"a.socket", "b.service"}, Seconds{0.3}, ""),
              std::unexpected("it takes too long"));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds{300});
}

TEST_F(SystemdTest, MayHangUp) {
    const auto process = peer([](sd_bus_message* call) {
        sd_bus_reply_method_return(call, "o", "/job/7");
        sd_bus_flush(sd_bus_message_get_bus(call));
        _exit(0);
        return 0;
    });
    EXPECT_THAT(systemd().stop({"a.socket"}, Seconds{10}, "").error(),
                EndsWith("Connection reset by peer"));
}

}  // namespace
}  // namespace halvo::control
