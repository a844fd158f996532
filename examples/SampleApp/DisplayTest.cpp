#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "examples/SampleApp/Display.hpp"

namespace halvo::testing {
namespace {

std::string written(bool terminal, const std::function<void(Display&)>& use) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&text, &size);
    Display display(stream, terminal);
    use(display);
    std::fclose(stream);
    const std::unique_ptr<char, decltype(&std::free)> owned(text, &std::free);
    return {text, size};
}

TEST(DisplayTest, WritesALineForEachChangeToAFile) {
    EXPECT_EQ(written(false,
                      [](Display& display) {
                          display.show("Holds until five", ", 0:02 left");
                          display.show("Holds until five", ", 0:01 left");
                          display.show("Holds until six", ", 0:59 left");
                          display.say("The helper is back.");
                          display.show("Holds until six", ", 0:58 left");
                      }),
              "Holds until five\nHolds until six\nThe helper is back.\n");
}

TEST(DisplayTest, WritesOverTheLineOfATerminal) {
    EXPECT_EQ(written(true,
                      [](Display& display) {
                          display.show("Holds", ", 0:02 left");
                          display.show("Holds", ", 0:02 left");
                          display.show("Holds", ", 0:01 left");
                      }),
              "\r\033[2KHolds, 0:02 left\r\033[2KHolds, 0:01 left");
}

TEST(DisplayTest, LeavesWhatIsSaidOnATerminal) {
    EXPECT_EQ(written(true,
                      [](Display& display) {
                          display.say("Hello.");
                          display.show("Holds", "");
                          display.say("The helper is away.");
                          display.show("Holds", "");
                      }),
              "Hello.\n\r\033[2KHolds\r\033[2KThe helper is away.\n\r\033[2KHolds");
}

TEST(DisplayTest, OutlivesItsStream) {
    std::FILE* full = std::fopen("/dev/full", "w");
    ASSERT_NE(full, nullptr);
    Display display(full, false);
    display.say("Is anybody there?");
    display.show("Holds", "");
    std::fclose(full);
}

}  // namespace
}  // namespace halvo::testing
