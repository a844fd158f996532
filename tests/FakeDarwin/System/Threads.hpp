// Threads of which only one runs at a time.
#pragma once

#include <functional>

namespace fake {

// Runs `work` on a new thread, under an autorelease pool that lasts as long as the thread, and
// waits for it. What it throws is thrown on.
void runElsewhere(const std::function<void()>& work);

}  // namespace fake
