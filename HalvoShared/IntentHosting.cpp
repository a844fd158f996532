#include "HalvoShared/IntentHosting.hpp"

#include <filesystem>
#include <utility>

namespace halvo {

IntentHosting::IntentHosting(MainQueue& queue, bool isAppProcess, Clock clock)
    : queue_(queue), isAppProcess_(isAppProcess), clock_(std::move(clock)) {}

IntentHosting& IntentHosting::shared() {
    // Never destroyed: the queue may still call it while the process exits.
    static IntentHosting& hosting = *new IntentHosting(liveMainQueue(), isApp(Bundle::main()));
    return hosting;
}

bool IntentHosting::isApp(const Bundle& bundle) {
    const std::filesystem::path path(bundle.path());
    return (path.has_filename() ? path : path.parent_path()).extension() == ".app";
}

void IntentHosting::registerHost(std::shared_ptr<HalvoIntentHost> host) { host_ = std::move(host); }

void IntentHosting::current(Seconds waitingUpTo, Completion completion) {
    queue_.async([this, waitingUpTo, completion = std::move(completion)] {
        if (isAppProcess_) {
            look(clock_() + waitingUpTo, completion);
        } else {
            completion(nullptr);
        }
    });
}

void IntentHosting::look(WallDate deadline, Completion completion) {
    constexpr Seconds betweenLooks{0.05};
    const bool mayWait = clock_() < deadline;  // false for not-a-number
    if (host_ != nullptr || !mayWait) {
        completion(host_);
        return;
    }
    queue_.after(betweenLooks, [this, deadline, completion = std::move(completion)] {
        look(deadline, completion);
    });
}

}  // namespace halvo
