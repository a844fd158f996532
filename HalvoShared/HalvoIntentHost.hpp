// What the app does for intents that run inside it.
#pragma once

#include <optional>
#include <string>

#include "HalvoPlatform/Time.hpp"
#include "HalvoShared/HalvoLink.hpp"

namespace halvo {

// The app's side of its intents, which reach it through IntentHosting. The app implements it;
// nothing in this module calls it. An object has an identity and is never copied; whoever holds it
// shares in owning it. Every operation is called on the main queue, has been carried out or refused
// when it returns, and gives whether it was carried out. None throws.
class HalvoIntentHost {
  public:
    HalvoIntentHost() = default;
    HalvoIntentHost(const HalvoIntentHost&) = delete;
    HalvoIntentHost& operator=(const HalvoIntentHost&) = delete;
    virtual ~HalvoIntentHost() = default;

    // Starts a focus run of `length`, or of the app's usual length. Refused while one runs.
    virtual bool startFocus(std::optional<Seconds> length) = 0;

    // Ends the focus run. Refused when none runs, or when it may not be ended yet.
    virtual bool endFocus() = 0;

    // Shows the breathing exercise and starts it, as a link to it would. Refused for a style that
    // the app does not know.
    virtual bool startBreathing(const HalvoLink::Breathe& exercise) = 0;

    // Turns the block that the app knows as `block` on or off; carried out also when it is so
    // already. Refused for an unknown block, or one that may not be turned off now.
    virtual bool setBlock(const std::string& block, bool on) = 0;
};

}  // namespace halvo
