// Clock readings, and the engine's only source of them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "HalvoHelperCore/Hash.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

// The identifier of one boot of the machine: an immutable text, compared by content. Copies share
// it, so that a clock reading, taken at every tick, allocates nothing. Any thread.
class BootID {
  public:
    // The empty identifier.
    BootID() = default;

    BootID(std::string text) : text_(std::make_shared<const std::string>(std::move(text))) {}

    BootID(const char* text) : BootID(std::string(text)) {}

    [[nodiscard]] const std::string& text() const {
        static const std::string empty;
        return text_ == nullptr ? empty : *text_;
    }

    bool operator==(const BootID& other) const { return text() == other.text(); }

  private:
    std::shared_ptr<const std::string> text_;
};

struct ClockReading {
    // Which boot of the machine; another one after every boot.
    BootID bootID;
    // Time since that boot. It cannot be set, and counts while the machine sleeps.
    Seconds sinceBoot{};
    // The wall clock, which can be set.
    WallDate wall;

    bool operator==(const ClockReading&) const = default;
};

class HelperClock {
  public:
    virtual ~HelperClock() = default;

    // The present moment. Never fails. Any thread.
    virtual ClockReading reading() = 0;
};

}  // namespace halvo

template <>
struct std::hash<halvo::ClockReading> {
    std::size_t operator()(const halvo::ClockReading& value) const {
        return halvo::hashOf(value.bootID.text(), value.sinceBoot.count(),
                             halvo::secondsSince1970(value.wall));
    }
};
