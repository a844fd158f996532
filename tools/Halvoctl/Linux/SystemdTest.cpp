#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <string>

#include "HalvoPlatform/Descriptor.hpp"
#include "tests/Support/ControlMachine.hpp"
#include "tests/Support/TestProcess.hpp"
#include "tools/Halvoctl/Linux/Systemd.hpp"

namespace halvo::control {
namespace {

using Clock = std::chrono::steady_clock;

const HelperIdentity identity{"com.example.app", "7QX4KD19MT"};

// The other side of the bus, which is systemd, for one conversation.
class Peer {
  public:
    // Allows `method` of the manager, which makes a unit `state` a tenth of a second later; hangs
    // up where that is empty.
    Peer(const Descriptor& listener, std::string method, std::string state)
        : method_(std::move(method)), state_(std::move(state)) {
        const int connection = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        sd_bus* bus = nullptr;
        sd_bus_new(&bus);
        sd_bus_set_fd(bus, connection, connection);
        sd_bus_set_server(bus, 1, sd_id128_t{});
        sd_bus_add_filter(bus, nullptr, answer, this);
        sd_bus_start(bus);
        while (sd_bus_process(bus, nullptr) >= 0 && sd_bus_wait(bus, UINT64_MAX) >= 0) {
        }
        sd_bus_unref(bus);
    }

  private:
    static int answer(sd_bus_message* call, void* peer, sd_bus_error*) {
        if (sd_bus_message_is_method_call(call, "org.freedesktop.DBus.Properties", "Get") > 0) {
            return static_cast<Peer*>(peer)->property(call);
        }
        // Else it is the library's word that the connection has ended.
        return sd_bus_message_is_method_call(call, nullptr, nullptr) > 0
                   ? static_cast<Peer*>(peer)->manage(call)
                   : 0;
    }

    // Each tells of which unit and interface it is.
    int property(sd_bus_message* call) {
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
        std::string text = std::string(unit) + " " + interface + " " + name;
        std::free(unit);
        if (std::string(name) == "ProtectSystem") {
            text = "strict";
        } else if (managed_) {
            text = Clock::now() - *managed_ > std::chrono::milliseconds{100} ? state_ : "changing";
        }
        return sd_bus_reply_method_return(call, "v", "s", text.c_str());
    }

    int manage(sd_bus_message* call) {
        const char* unit = nullptr;
        const char* mode = nullptr;
        sd_bus_message_read(call, "ss", &unit, &mode);
        if (state_.empty()) {
            _exit(0);
        }
        if (method_ != sd_bus_message_get_member(call) || std::string(mode) != "replace") {
            return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "Access\ndenied");
        }
        managed_ = Clock::now();
        return sd_bus_reply_method_return(call, "o", "/job/7");
    }

    std::string method_;
    std::string state_;
    std::optional<Clock::time_point> managed_;
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
    [[nodiscard]] testing::TestProcess peer(const std::string& method = "",
                                            const std::string& state = "") {
        return testing::TestProcess([&] { Peer(listener, method, state); });
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

TEST_F(SystemdTest, StopsUnitsAndWaitsForTheirEnd) {
    const auto process = peer("StopUnit", "inactive");
    const auto start = Clock::now();
    EXPECT_TRUE(systemd().stop({"a.socket", "b.service"}, Seconds{10}, ""));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds{100});
}

TEST_F(SystemdTest, StartsUnits) {
    const auto process = peer("StartUnit", "active");
    EXPECT_TRUE(systemd().start({"a.socket"}, Seconds{10}, ""));
}

TEST_F(SystemdTest, SaysThatAUnitIsNotWhatItShouldBe) {
    const auto process = peer("StartUnit", "failed");
    EXPECT_EQ(systemd().start({"a.socket"}, Seconds{1}, "").error(),
              "it takes too long, and is still failed");
}

TEST_F(SystemdTest, SaysWhySystemdRefuses) {
    const auto process = peer("StartUnit", "inactive");
    EXPECT_EQ(systemd().stop({"a.socket", "b.service"}, Seconds{10}, ""),
              std::unexpected("Access\\ndenied"));
}

TEST_F(SystemdTest, SaysThatSystemdHangsUp) {
    const auto process = peer("StopUnit", "");
    EXPECT_FALSE(systemd().stop({"a.socket"}, Seconds{10}, ""));
}

}  // namespace
}  // namespace halvo::control
