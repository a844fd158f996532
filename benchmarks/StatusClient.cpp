// The app of the benchmarks: speaks with the helper, or with what answers like it, as it is told.
// One order a line on standard input, one answer a line on standard output:
//
//     reply SOCKET                  asks for the status as soon as it can; answers with the time
//                                   of the reply, CLOCK_MONOTONIC in ns
//     calls COUNT SOCKET            asks so often, over a connection that it keeps; answers with
//                                   the median of the round trips in ns
//     begin SOCKET BUNDLE SECONDS   commits to BUNDLE; answers "held" or "refused"

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "HalvoClient/HelperClient.hpp"
#include "HalvoClient/PrivateGroup.hpp"
#include "HalvoPlatform/Fatal.hpp"

namespace {

using halvo::HelperClient;

std::int64_t now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

// Tries in a tight loop: the server that is measured must not be charged for our sleep.
std::int64_t firstReply(const std::string& path) {
    HelperClient client(path);
    const halvo::Deadline end = halvo::deadlineAfter(halvo::Seconds{20});
    while (!client.status()) {
        if (halvo::BootClock::now() > end) {
            halvo::fatal("no helper answers");
        }
        sched_yield();
    }
    return now();
}

std::int64_t medianRoundTrip(HelperClient& client, std::size_t calls) {
    std::vector<std::int64_t> spans(calls);
    for (std::int64_t& span : spans) {
        const std::int64_t start = now();
        if (!client.status()) {
            halvo::fatal("no status");
        }
        span = now() - start;
    }
    const auto middle = spans.begin() + static_cast<std::ptrdiff_t>(calls / 2);
    std::ranges::nth_element(spans, middle);
    return *middle;
}

bool begin(const std::string& path, const std::string& bundle, double seconds) {
    const auto held = HelperClient(path).begin(bundle, [&](const halvo::HelperStatus&) {
        const halvo::WallDate started = halvo::wallNow();
        return halvo::CommitmentSpan{started + halvo::Seconds{seconds}, started};
    });
    return held.value_or(false);
}

}  // namespace

int main() {
    halvo::PrivateGroup::setAside();
    std::map<std::string, HelperClient> kept;
    std::string order;
    std::string path;
    while (std::cin >> order) {
        std::size_t count = 0;
        std::string bundle;
        double seconds = 0;
        if (order == "reply" && std::cin >> path) {
            std::cout << firstReply(path) << std::endl;
        } else if (order == "calls" && std::cin >> count >> path) {
            auto& client = kept.try_emplace(path, path).first->second;
            std::cout << medianRoundTrip(client, count) << std::endl;
        } else if (order == "begin" && std::cin >> path >> bundle >> seconds) {
            std::cout << (begin(path, bundle, seconds) ? "held" : "refused") << std::endl;
        } else {
            halvo::fatal("unknown order");
        }
    }
}
