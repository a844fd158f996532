// What DispatchTest needs beside Dispatch itself: the functions of FakeDarwin.hpp that it calls, in
// real time, and one of Darwin's that the main queue calls.
#include <pthread.h>
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

int pthread_main_np() { return getpid() == gettid() ? 1 : 0; }
