// What DispatchTest needs beside Dispatch itself: the functions of FakeDarwin.hpp that it calls, in
// real time, and Darwin's two that the main queue calls.
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "tests/FakeDarwin/FakeDarwin.hpp"

void fake::endAt(double seconds) { alarm(static_cast<unsigned>(seconds)); }

void fake::keepBusy(double seconds) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

// Not raise(3): the signal would be the thread's own.
bool fake::raise(int signal) { return kill(getpid(), signal) == 0; }

// Darwin's CLOCK_MONOTONIC counts sleep.
uint64_t clock_gettime_nsec_np(clockid_t) {
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    const auto span = std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    return static_cast<uint64_t>(span.count());
}

int pthread_main_np() { return getpid() == gettid() ? 1 : 0; }
