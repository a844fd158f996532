// Where the app shows how things stand: a terminal's one line, or a growing file.
#pragma once

#include <cstdio>
#include <string>

namespace halvo {

// Borrows a stream. A write that fails is nobody's concern: the app must live on when its terminal
// is gone. One thread at a time.
class Display {
  public:
    // On a terminal the state of things is one line that is written over; elsewhere it is one new
    // line each time it changes.
    Display(std::FILE* stream, bool terminal) : stream_(stream), terminal_(terminal) {}

    // Whether `passing` of show() is ever seen.
    [[nodiscard]] bool isTerminal() const { return terminal_; }

    // Shows how things stand: `lasting`, followed on a terminal by `passing`, which may change with
    // every call.
    void show(const std::string& lasting, const std::string& passing);

    // Says something once, on a line of its own that stays.
    void say(const std::string& text);

  private:
    void write(const std::string& text);

    std::FILE* stream_;
    bool terminal_;
    std::string shown_;
};

}  // namespace halvo
