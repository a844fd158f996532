// What the main queue of macOS expects of Dispatch, asked in one process. Runs with Dispatch
// itself, which Debian's Swift contains, and with the stand-in of tests/FakeDarwin, which must give
// the same answers.
//
// Not asked: a SIGTERM before MainQueue::run(). On Linux the kernel drops an ignored signal that no
// thread blocks, as Dispatch's threads do (signal(7)); on a Mac a source sees it (kqueue(2),
// EVFILT_SIGNAL).
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>
#include <utility>

#include "HalvoPlatform/MainQueue.hpp"
#include "tests/FakeDarwin/FakeDarwin.hpp"

namespace halvo {
namespace {

const std::string answers =
    // Work runs later and in order, from other threads too, which are not the main actor. The
    // initial thread is; from run() on it is another.
    "other(not main) a(initial) b c d e "
    // After a delay of nothing it runs later too.
    "caller delayed "
    // It runs before a timer that is not yet due.
    "n1 n2 n3 "
    // It runs before timers that come due later, which run in their order, and after those that are
    // due when it is enqueued.
    "t1 t2 t3 t4 t5 "
    // Several signals at once are one turn.
    "three term one term one term "
    // Of the turns that are missed from the 3.5th to the 7.5th beat one is made up for, and the
    // next are in their time.
    "turns 1 3 7 9 11 ";

// On a loaded machine a turn is late by less than half of it.
constexpr Seconds beat{0.4};

// Nothing is on main()'s stack: on Linux dispatch_main() unwinds the thread's frames.
const std::thread::id initial = std::this_thread::get_id();
std::string notes;
std::string turns = "turns ";

void note(const std::string& text) {
    const bool isInitial = std::this_thread::get_id() == initial;
    notes += text + (!onMainActor() ? "(not main) " : isInitial ? "(initial) " : " ");
}

MainQueue::Work noting(std::string text) {
    return [text = std::move(text)] { note(text); };
}

// Work that notes `text`, and enqueues work that notes `next`.
MainQueue::Work notingBoth(const char* text, const char* next) {
    return [=] {
        liveMainQueue().async(noting(next));
        note(text);
    };
}

MainQueue::Work terminating(const char* text, int count) {
    return [=] {
        note(text);
        for (int i = 0; i < count; ++i) {
            fake::raise(SIGTERM);
        }
        // Until Dispatch has seen all of them.
        fake::keepBusy(beat.count() / 4);
    };
}

void at(double beats, MainQueue::Work work) {
    liveMainQueue().after(beats * beat, std::move(work));
}

void ask(MainQueue& queue) {
    queue.async(notingBoth("b", "e"));
    queue.async(noting("c"));
    std::thread(notingBoth("other", "d")).join();
    note("a");
    at(0.5, [&] {
        queue.after(Seconds{0}, noting("delayed"));
        note("caller");
    });
    at(1.5, notingBoth("n1", "n2"));
    at(2.5, noting("n3"));
    at(6.5, noting("t4"));
    at(5.5, notingBoth("t3", "t5"));
    at(3.5, [] {
        notingBoth("t1", "t2")();
        fake::keepBusy(4 * beat.count());
    });
    queue.repeat(beat, 2 * beat, Seconds{0}, [&queue, begin = queue.now()] {
        constexpr double rounding = 1e-6;
        turns += std::to_string(static_cast<int>((queue.now() - begin) / beat + rounding)) + ' ';
    });
    queue.onTermination(noting("term"));
    at(8.5, terminating("three", 3));
    at(9.5, terminating("one", 1));
    at(10.5, terminating("one", 1));
    queue.after(Seconds{3'155'695'200}, noting("a century has passed"));
    at(12.5, [&] {
        const std::string found = notes + turns;
        std::printf("expected %s\nfound    %s\n", answers.c_str(), found.c_str());
        queue.exit(found == answers ? 0 : 1);
    });
}

}  // namespace
}  // namespace halvo

int main() {
    halvo::ask(halvo::liveMainQueue());
    fake::endAt(60);
    halvo::liveMainQueue().run();
}
