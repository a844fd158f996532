// What the app may ask of the helper.
#pragma once

#include <expected>
#include <functional>
#include <string>

#include "HalvoHelperCore/HelperStatus.hpp"
#include "HalvoPlatform/Time.hpp"

namespace halvo {

// An argument that no request may carry, and what is wrong with it.
struct BadArgument {
    std::string name;
    std::string problem;

    bool operator==(const BadArgument&) const = default;
};

// The four requests. Every reply is called exactly once, on the main queue.
class HalvoHelperXPC {
  public:
    using Reply = std::function<void(bool ok)>;
    using BeginReply = std::function<void(std::expected<bool, BadArgument> ok)>;
    using StatusReply = std::function<void(const HelperStatus& status)>;

    virtual ~HalvoHelperXPC() = default;

    // Commits the caller to keep its own bundle. For that bundle a date that is not finite is a bad
    // argument, and so is a `started` after the year 9999.
    virtual void begin(const std::string& appPath, WallDate until, WallDate started,
                       BeginReply reply) = 0;

    // A sign of life, or the announcement that the session is ending.
    virtual void heartbeat(bool sessionEnding, Reply reply) = 0;

    // Lets the caller's commitment go.
    virtual void end(Reply reply) = 0;

    // What holds for the caller.
    virtual void status(StatusReply reply) = 0;
};

}  // namespace halvo
