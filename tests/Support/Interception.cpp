#include "tests/Support/Interception.hpp"

#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <utility>

namespace halvo::testing {
namespace {

// Room for a few entries of any kind.
constexpr std::size_t shortListing = 512;

std::size_t longestListing = std::numeric_limits<std::size_t>::max();
std::map<BeforeNext::Call, std::function<void()>> workBefore;
bool failsBusStart = false;
bool booted = false;

void doWorkBefore(BeforeNext::Call call) {
    if (auto node = workBefore.extract(call)) {
        node.mapped()();
    }
}

}  // namespace

ShortListings::ShortListings() { longestListing = shortListing; }

ShortListings::~ShortListings() { longestListing = std::numeric_limits<std::size_t>::max(); }

BeforeNext::BeforeNext(Call call, std::function<void()> work) : call_(call) {
    workBefore[call] = std::move(work);
}

BeforeNext::~BeforeNext() { EXPECT_EQ(workBefore.erase(call_), 0U) << "there was no such call"; }

FailingBusStart::FailingBusStart() { failsBusStart = true; }

FailingBusStart::~FailingBusStart() {
    EXPECT_FALSE(failsBusStart) << "no bus was started";
    failsBusStart = false;
}

BootedBySystemd::BootedBySystemd() { booted = true; }

BootedBySystemd::~BootedBySystemd() { booted = false; }

}  // namespace halvo::testing

// The linker's names: __wrap_x is called in the place of x, which is called __real_x.
extern "C" {

ssize_t __real_getdents64(int folder, void* entries, std::size_t size);
int __real_flock(int file, int operation);
int __real_poll(pollfd* descriptors, nfds_t count, int limit);
int __real_sd_bus_start(sd_bus* bus);

ssize_t __wrap_getdents64(int folder, void* entries, std::size_t size) {
    return __real_getdents64(folder, entries, std::min(size, halvo::testing::longestListing));
}

int __wrap_poll(pollfd* descriptors, nfds_t count, int limit) {
    halvo::testing::doWorkBefore(halvo::testing::BeforeNext::Call::poll);
    return __real_poll(descriptors, count, limit);
}

int __wrap_flock(int file, int operation) {
    halvo::testing::doWorkBefore(halvo::testing::BeforeNext::Call::flock);
    return __real_flock(file, operation);
}

int __wrap_sd_bus_start(sd_bus* bus) {
    return std::exchange(halvo::testing::failsBusStart, false) ? -ENOMEM : __real_sd_bus_start(bus);
}

int __wrap_sd_booted() { return halvo::testing::booted ? 1 : 0; }
}
