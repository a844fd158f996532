#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "HalvoHelperCore/SystemHelperClock.hpp"
#include "tests/Support/FaultInjection.hpp"
#include "tests/Support/TemporaryFolder.hpp"

namespace halvo {
namespace {

using testing::Fault;
using testing::SystemCall;

constexpr const char* bootIDFile = "/proc/sys/kernel/random/boot_id";

TEST(LinuxClockTest, NamesTheBootAsTheKernelDoesWithoutTheNewline) {
    std::string text = testing::readTestFile(bootIDFile);
    ASSERT_EQ(text.size(), 37U);
    ASSERT_EQ(text.back(), '\n');
    text.pop_back();
    EXPECT_EQ(readBootID().text(), text);
    EXPECT_EQ(SystemHelperClock().reading().bootID.text(), text);
}

TEST(LinuxClockTest, DoesNotKnowTheBootWhenTheKernelDoesNotTell) {
    {
        const Fault fault = Fault::failing(SystemCall::open, ENOENT);
        EXPECT_EQ(readBootID(), "unknown");
    }
    const Fault fault = Fault::failing(SystemCall::read, EIO);
    EXPECT_EQ(readBootID(), "unknown");
}

}  // namespace
}  // namespace halvo
