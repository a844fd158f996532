// A helper for tests: a process of its own that serves a socket the way each test tells it to.
#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>

#include <array>
#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "tests/Support/TestProcess.hpp"

namespace halvo::testing {

// What it does with one connection.
enum class Conduct {
    // Answers as `FakeHelper::Record` says.
    Answer,
    // Answers the first request, then closes.
    AnswerOnce,
    // Answers 0.3 s after the request.
    AnswerLate,
    // Replies with a D-Bus error.
    Reject,
    // Replies with a string.
    AnswerText,
    // Replies to a status request with two dates.
    AnswerTwoDates,
    // Is the system's bus, with a logind on it that says `FakeHelper::Record::yes`.
    AnswerForLogind,
    // Closes before a byte is read.
    CloseAtAccept,
    // Closes when the first request has come.
    CloseOnRequest,
    // Reads and says nothing at all.
    NeverAuthenticate,
    // Authenticates, then never answers.
    NeverAnswer,
};

// One connection at a time, in the order in which they come. Killed at the end, or when the test
// dies.
class FakeHelper {
  public:
    // Listens on `path`, in the place of whatever is there. `conducts` are those of the first
    // connections; the last one is that of all that follow.
    FakeHelper(std::string path, const std::vector<Conduct>& conducts);
    ~FakeHelper();
    FakeHelper(const FakeHelper&) = delete;
    FakeHelper& operator=(const FakeHelper&) = delete;

    // Shared with the process: what it saw, and what it answers.
    struct Record {
        std::atomic<int> connections;
        std::atomic<int> requests;
        // Of these, how many were a Begin.
        std::atomic<int> begins;
        // Of the last connection.
        std::atomic<gid_t> group;
        // Of the last request: the member and its arguments, "Begin /a/b.app 1.5 2".
        std::array<char, 512> lastRequest{};
        // What it answers.
        std::atomic<bool> yes{true};
        std::atomic<bool> holding;
        // As seconds since 1970; zero means absent.
        std::atomic<double> until;
        std::atomic<bool> locked;
    };

    [[nodiscard]] Record& record() const { return *record_; }

    // SIGSTOP, which has taken effect when this returns; SIGCONT.
    void stop() const { process_->stop(); }

    void resume() const { process_->goOn(); }

  private:
    std::string path_;
    Record* record_;
    std::optional<TestProcess> process_;
};

// A bus that serves the client behind the socket `connection`, which it owns; not started.
inline sd_bus* newServerBus(int connection) {
    sd_bus* bus = nullptr;
    sd_id128_t id{};
    sd_id128_randomize(&id);
    sd_bus_new(&bus);
    sd_bus_set_fd(bus, connection, connection);
    sd_bus_set_server(bus, 1, id);
    return bus;
}

}  // namespace halvo::testing
