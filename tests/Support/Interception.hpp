// System calls of the code under test in which a test has a hand. The linker puts them in the place
// of the real ones (--wrap).
#pragma once

#include <functional>

#include "HalvoPlatform/Time.hpp"

namespace halvo::testing {

// While it lives, a listing of a folder (getdents64(2)) brings a few entries at a time.
class ShortListings {
  public:
    ShortListings();
    ShortListings(const ShortListings&) = delete;
    ShortListings& operator=(const ShortListings&) = delete;
    ~ShortListings();
};

// While it lives, the next call of one kind first does this.
class BeforeNext {
  public:
    enum class Call { flock, poll };

    BeforeNext(Call call, std::function<void()> work);
    BeforeNext(const BeforeNext&) = delete;
    BeforeNext& operator=(const BeforeNext&) = delete;
    // Fails the test when there was none.
    ~BeforeNext();

  private:
    Call call_;
};

// While it lives, the next sd_bus_start(3) fails for want of memory.
class FailingBusStart {
  public:
    FailingBusStart();
    FailingBusStart(const FailingBusStart&) = delete;
    FailingBusStart& operator=(const FailingBusStart&) = delete;
    // Fails the test when there was none.
    ~FailingBusStart();
};

// Says while it lives that systemd runs the machine (sd_booted(3)). Otherwise it never does, or
// tests would start units on the machine they run on.
class BootedBySystemd {
  public:
    BootedBySystemd();
    BootedBySystemd(const BootedBySystemd&) = delete;
    BootedBySystemd& operator=(const BootedBySystemd&) = delete;
    ~BootedBySystemd();
};

}  // namespace halvo::testing
