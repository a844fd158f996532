// A scripted helper: a child process that serves the helper's socket as a test prescribes.
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

// How it handles one connection.
enum class Behavior {
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
    // Acts as the system bus, with a logind that answers `FakeHelper::Record::yes`.
    AnswerForLogind,
    // Closes before a byte is read.
    CloseAtAccept,
    // Closes when it has received the first request.
    CloseOnRequest,
    // Reads and never writes a byte.
    NeverAuthenticate,
    // Authenticates, then never answers.
    NeverAnswer,
};

// Serves one connection at a time, in the order of arrival. Killed by the destructor, or when the
// test's process dies.
class FakeHelper {
  public:
    // Listens on `path`, replacing what is there. `behaviors` apply to the connections in order,
    // the last one to all further connections.
    FakeHelper(std::string path, const std::vector<Behavior>& behaviors);
    ~FakeHelper();
    FakeHelper(const FakeHelper&) = delete;
    FakeHelper& operator=(const FakeHelper&) = delete;

    // In memory shared with the child: what it received, and what it answers.
    struct Record {
        std::atomic<int> connections;
        std::atomic<int> requests;
        // The Begin requests among them.
        std::atomic<int> begins;
        // The peer's group of the last connection (SO_PEERCRED).
        std::atomic<gid_t> group;
        // The member and the arguments of the last request: "Begin /a/b.app 1.5 2".
        std::array<char, 512> lastRequest{};
        // The answers.
        std::atomic<bool> yes{true};
        std::atomic<bool> holding;
        // As seconds since 1970; zero means absent.
        std::atomic<double> until;
        std::atomic<bool> locked;
    };

    [[nodiscard]] Record& record() const { return *record_; }

    // SIGSTOP, returning once it has taken effect; SIGCONT.
    void stop() const { process_->stop(); }

    void resume() const { process_->goOn(); }

  private:
    std::string path_;
    Record* record_;
    std::optional<TestProcess> process_;
};

// A server-side bus on the socket `connection`, which it takes over; not started (sd_bus_start(3)).
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
