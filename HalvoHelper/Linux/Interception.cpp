#include "HalvoHelper/Linux/Interception.hpp"

#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <limits>
#include <utility>

namespace halvo::testing {
namespace {

// Room for a few entries of any kind.
constexpr std::size_t shortListing = 512;

std::size_t longestListing = std::numeric_limits<std::size_t>::max();
std::function<void()> beforePoll;
bool failsBusStart = false;

}  // namespace

ShortListings::ShortListings() { longestListing = shortListing; }

ShortListings::~ShortListings() { longestListing = std::numeric_limits<std::size_t>::max(); }

BeforeNextPoll::BeforeNextPoll(std::function<void()> work) { beforePoll = std::move(work); }

BeforeNextPoll::~BeforeNextPoll() {
    EXPECT_EQ(beforePoll, nullptr) << "nobody polled";
    beforePoll = nullptr;
}

FailingBusStart::FailingBusStart() { failsBusStart = true; }

FailingBusStart::~FailingBusStart() {
    EXPECT_FALSE(failsBusStart) << "no bus was started";
    failsBusStart = false;
}

}  // namespace halvo::testing

// The linker's names: __wrap_x is called in the place of x, which is called __real_x.
extern "C" {

ssize_t __real_getdents64(int folder, void* entries, std::size_t size);
int __real_poll(pollfd* descriptors, nfds_t count, int limit);
int __real_sd_bus_start(sd_bus* bus);

ssize_t __wrap_getdents64(int folder, void* entries, std::size_t size) {
    return __real_getdents64(folder, entries, std::min(size, halvo::testing::longestListing));
}

int __wrap_poll(pollfd* descriptors, nfds_t count, int limit) {
    if (const auto work = std::exchange(halvo::testing::beforePoll, nullptr)) {
        work();
    }
    return __real_poll(descriptors, count, limit);
}

int __wrap_sd_bus_start(sd_bus* bus) {
    return std::exchange(halvo::testing::failsBusStart, false) ? -ENOMEM : __real_sd_bus_start(bus);
}
}
