#include "tests/Support/FakeHelper.hpp"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sstream>
#include <utility>

#include "HalvoPlatform/Descriptor.hpp"
#include "HalvoPlatform/Fatal.hpp"
#include "HalvoPlatform/Linux/SocketAddress.hpp"

namespace halvo::testing {
namespace {

using Record = FakeHelper::Record;

void require(bool holds, const char* what) {
    if (!holds) {
        fatal(std::string("FakeHelper: ") + what);
    }
}

struct Serving {
    Record& record;
    Behavior behavior{};
    bool over = false;
};

void note(Record& record, sd_bus_message* request) {
    std::ostringstream text;
    text.precision(17);
    text << sd_bus_message_get_member(request);
    const char* path = nullptr;
    double until = 0;
    double started = 0;
    int ending = 0;
    if (sd_bus_message_has_signature(request, "sdd") > 0 &&
        sd_bus_message_read(request, "sdd", &path, &until, &started) > 0) {
        text << ' ' << path << ' ' << until << ' ' << started;
    } else if (sd_bus_message_has_signature(request, "b") > 0 &&
               sd_bus_message_read(request, "b", &ending) > 0) {
        text << (ending != 0 ? " true" : " false");
    }
    std::snprintf(record.lastRequest.data(), record.lastRequest.size(), "%s", text.str().c_str());
    ++record.requests;
    if (std::strcmp(sd_bus_message_get_member(request), "Begin") == 0) {
        ++record.begins;
    }
}

int replyWithDates(sd_bus_message* request, const Record& record,
                   const std::vector<double>& dates) {
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_return(request, &reply);
    sd_bus_message_append(reply, "b", static_cast<int>(record.holding));
    sd_bus_message_append_array(reply, 'd', dates.data(), dates.size() * sizeof(double));
    sd_bus_message_append(reply, "b", static_cast<int>(record.locked));
    const int result = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return result;
}

int answer(sd_bus_message* request, const Record& record) {
    if (std::strcmp(sd_bus_message_get_member(request), "Status") != 0) {
        return sd_bus_reply_method_return(request, "b", static_cast<int>(record.yes));
    }
    const double until = record.until;
    return replyWithDates(request, record,
                          until == 0 ? std::vector<double>{} : std::vector<double>{until});
}

int answerForLogind(sd_bus_message* request, const Record& record) {
    if (std::strcmp(sd_bus_message_get_member(request), "Hello") == 0) {
        return sd_bus_reply_method_return(request, "s", ":1.1");
    }
    return sd_bus_reply_method_return(request, "v", "b", static_cast<int>(record.yes));
}

int handle(sd_bus_message* request, void* userdata, sd_bus_error*) {
    auto& serving = *static_cast<Serving*>(userdata);
    if (sd_bus_message_is_method_call(request, nullptr, nullptr) <= 0) {
        return 0;
    }
    note(serving.record, request);
    int result = 0;
    switch (serving.behavior) {
        case Behavior::AnswerLate:
            usleep(300'000);
            [[fallthrough]];
        case Behavior::Answer:
        case Behavior::AnswerOnce:
            result = answer(request, serving.record);
            break;
        case Behavior::Reject:
            result = sd_bus_reply_method_errorf(request, SD_BUS_ERROR_UNKNOWN_METHOD,
                                                "There is no %s here",
                                                sd_bus_message_get_member(request));
            break;
        case Behavior::AnswerText:
            result = sd_bus_reply_method_return(request, "s", "yes");
            break;
        case Behavior::AnswerTwoDates:
            result = replyWithDates(request, serving.record, {1, 2});
            break;
        case Behavior::AnswerForLogind:
            result = answerForLogind(request, serving.record);
            break;
        case Behavior::CloseAtAccept:
        case Behavior::CloseOnRequest:
        case Behavior::NeverAuthenticate:
        case Behavior::NeverAnswer:
            break;
    }
    // A client that disconnected early is no error.
    serving.over = result < 0 || serving.behavior == Behavior::AnswerOnce ||
                   serving.behavior == Behavior::CloseOnRequest;
    return 1;
}

void serveBus(Descriptor peer, Serving& serving) {
    sd_bus* bus = newServerBus(peer.release());
    require(sd_bus_add_filter(bus, nullptr, handle, &serving) >= 0, "setting up the connection");
    bool open = sd_bus_start(bus) >= 0;
    while (open && !serving.over) {
        const int progress = sd_bus_process(bus, nullptr);
        open = progress >= 0 && sd_bus_is_open(bus) > 0;
        if (open && !serving.over && progress == 0) {
            open = sd_bus_wait(bus, UINT64_MAX) >= 0;
        }
    }
    sd_bus_flush(bus);
    sd_bus_close_unref(bus);
}

void serve(Descriptor peer, Serving& serving) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    require(getsockopt(peer.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0,
            "SO_PEERCRED");
    serving.record.group = credentials.gid;
    ++serving.record.connections;
    if (serving.behavior == Behavior::CloseAtAccept) {
        return;
    }
    if (serving.behavior == Behavior::NeverAuthenticate) {
        std::array<char, 256> buffer{};
        while (read(peer.get(), buffer.data(), buffer.size()) > 0) {
        }
        return;
    }
    serveBus(std::move(peer), serving);
}

[[noreturn]] void runHelper(int listener, const std::vector<Behavior>& behaviors, Record& record) {
    for (std::size_t i = 0;; ++i) {
        Descriptor peer(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
        require(peer.isOpen(), "accept");
        Serving serving{record, behaviors[std::min(i, behaviors.size() - 1)]};
        serve(std::move(peer), serving);
    }
}

}  // namespace

FakeHelper::FakeHelper(std::string path, const std::vector<Behavior>& behaviors)
    : path_(std::move(path)) {
    void* memory =
        mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    require(memory != MAP_FAILED, "mmap");
    record_ = new (memory) Record;
    const auto address = socketAddress(path_);
    require(address.has_value(), "the path is too long");
    unlink(path_.c_str());
    const Descriptor listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    constexpr int queue = 16;
    // Unprivileged clients connect too; connect(2) needs write permission.
    require(bind(listener.get(), generic(*address), sizeof *address) == 0 &&
                chmod(path_.c_str(), 0666) == 0 && listen(listener.get(), queue) == 0,
            "listening");
    process_.emplace(ProcessOptions{.body = [&, test = getpid()]() -> int {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // The test may have died before prctl(2).
        if (getppid() != test) {
            return EXIT_FAILURE;
        }
        runHelper(listener.get(), behaviors, *record_);
    }});
}

FakeHelper::~FakeHelper() {
    process_.reset();
    unlink(path_.c_str());
    munmap(record_, sizeof(Record));
}

}  // namespace halvo::testing
