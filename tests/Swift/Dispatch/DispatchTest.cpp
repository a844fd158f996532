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

class Questions {
  public:
    void ask() {
        askForOrder();
        askForTimers();
        queue_.onTermination(noting("term"));
        at(8.5, [this] { terminate("three", 3); });
        at(9.5, [this] { terminate("one", 1); });
        at(10.5, [this] { terminate("one", 1); });
        queue_.after(Seconds{3'155'695'200}, noting("a century has passed"));
        at(12.5, [this] { end(); });
        fake::endAt(60);
        queue_.run();
    }

  private:
    // On a loaded machine a turn is late by less than half of it.
    static constexpr Seconds beat{0.4};

    void note(const std::string& text) {
        const bool isInitial = std::this_thread::get_id() == initial_;
        notes_ += text + (!onMainActor() ? "(not main) " : isInitial ? "(initial) " : " ");
    }

    MainQueue::Work noting(std::string text) {
        return [this, text = std::move(text)] { note(text); };
    }

    void at(double beats, MainQueue::Work work) { queue_.after(beats * beat, std::move(work)); }

    // Work that notes `text`, and enqueues work that notes `next`.
    void noteBoth(const char* text, const char* next) {
        queue_.async(noting(next));
        note(text);
    }

    void askForOrder() {
        queue_.async([this] { noteBoth("b", "e"); });
        queue_.async(noting("c"));
        std::thread([this] { noteBoth("other", "d"); }).join();
        note("a");
        at(0.5, [this] {
            queue_.after(Seconds{0}, noting("delayed"));
            note("caller");
        });
    }

    void askForTimers() {
        at(1.5, [this] { noteBoth("n1", "n2"); });
        at(2.5, noting("n3"));
        at(6.5, noting("t4"));
        at(5.5, [this] { noteBoth("t3", "t5"); });
        at(3.5, [this] {
            noteBoth("t1", "t2");
            fake::keepBusy(4 * beat.count());
        });
        queue_.repeat(beat, 2 * beat, Seconds{0}, [this] {
            constexpr double rounding = 1e-6;
            const double beats = (queue_.now() - begin_) / beat;
            turns_ += std::to_string(static_cast<int>(beats + rounding)) + ' ';
        });
    }

    void terminate(const char* text, int count) {
        note(text);
        for (int i = 0; i < count; ++i) {
            fake::raise(SIGTERM);
        }
        // Until Dispatch has seen all of them.
        fake::keepBusy(beat.count() / 4);
    }

    void end() {
        const std::string found = notes_ + turns_;
        std::printf("expected %s\nfound    %s\n", answers.c_str(), found.c_str());
        queue_.exit(found == answers ? 0 : 1);
    }

    MainQueue& queue_ = liveMainQueue();
    const Seconds begin_ = queue_.now();
    const std::thread::id initial_ = std::this_thread::get_id();
    std::string notes_;
    std::string turns_ = "turns ";
};

}  // namespace
}  // namespace halvo

// Below main() directly, and not on its stack: on Linux dispatch_main() unwinds the thread's
// frames.
int main() {
    static halvo::Questions questions;
    questions.ask();
}
