// The whole helper on the stand-ins.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <string>

#include "FakeDarwin.hpp"
#include "FakeXPC.hpp"
#include "tests/Support/TestProcess.hpp"

extern "C" int halvoHelperMain(int count, char** words);

namespace {

using halvo::testing::ChildResult;
using halvo::testing::runInChild;

constexpr auto service = "com.example.app.helper";

constexpr auto info = R"(<plist version="1.0"><dict>
    <key>HalvoAppBundleID</key><string>com.example.app</string>
    <key>HalvoTeamID</key><string>7QX4KD19MT</string>
</dict></plist>)";

void runHelper() {
    std::string name = "HalvoHelper";
    std::array<char*, 2> words{name.data(), nullptr};
    halvoHelperMain(1, words.data());
}

// The helper changes its process: umask, folder, signals.
void inHelper(const std::function<void()>& script) {
    const ChildResult result = runInChild([&] {
        fake::world().mainInfo = info;
        script();
    });
    EXPECT_EQ(result.status, 0) << result.output;
}

TEST(HelperSmokeTest, ServesTheAppUntilTheScriptIsOver) {
    inHelper([] {
        fake::at(1, [] {
            EXPECT_TRUE(fake::listener(service).has_value());
            NSXPCConnection* connection = fake::connect(service, 100, 501);
            ASSERT_NE(connection, nil);
            EXPECT_EQ(fake::exportedProtocol(connection), "HalvoHelperXPC");
        });
        fake::endAt(10);
        EXPECT_THROW(runHelper(), fake::Over);
        EXPECT_EQ(fake::timers().size(), 1U);
    });
}

TEST(HelperSmokeTest, EndsWhenItIsIdle) {
    const ChildResult result = runInChild([] {
        fake::world().mainInfo = info;
        fake::endAt(100);
        EXPECT_THROW(runHelper(), fake::Over) << "not reached";
        std::exit(1);
    });
    EXPECT_EQ(result.status, 0) << result.output;
}

}  // namespace
