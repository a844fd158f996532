#include "examples/SampleApp/Display.hpp"

namespace halvo {
namespace {

// Back to the start of the line, and erase it; console_codes(4).
constexpr const char* clearLine = "\r\033[2K";

}  // namespace

void Display::show(const std::string& lasting, const std::string& passing) {
    const std::string text = terminal_ ? lasting + passing : lasting;
    if (text != shown_) {
        write(terminal_ ? clearLine + text : text + "\n");
        shown_ = text;
    }
}

void Display::say(const std::string& text) {
    if (terminal_ && !shown_.empty()) {
        write(clearLine);
        shown_.clear();
    }
    write(text + "\n");
}

void Display::write(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stream_);
    std::fflush(stream_);
    std::clearerr(stream_);
}

}  // namespace halvo
