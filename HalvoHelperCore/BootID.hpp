// The name of one boot of the machine.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace halvo {

// A text that never changes, equal by content. Copies share it, so that a clock reading, taken at
// every tick, allocates nothing. Any thread.
class BootID {
  public:
    // The empty name.
    BootID() = default;

    BootID(std::string text) : text_(std::make_shared<const std::string>(std::move(text))) {}

    BootID(const char* text) : BootID(std::string(text)) {}

    [[nodiscard]] const std::string& text() const {
        static const std::string empty;
        return text_ == nullptr ? empty : *text_;
    }

    bool operator==(const BootID& other) const {
        return text_ == other.text_ || text() == other.text();
    }

  private:
    std::shared_ptr<const std::string> text_;
};

}  // namespace halvo

template <>
struct std::hash<halvo::BootID> {
    std::size_t operator()(const halvo::BootID& value) const {
        return std::hash<std::string>{}(value.text());
    }
};
