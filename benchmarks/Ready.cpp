#include <unistd.h>

#include <csignal>
#include <cstdlib>

#include "benchmarks/Benchmarks.hpp"
#include "benchmarks/RunningHelper.hpp"

namespace halvo::benchmark {
namespace {

constexpr const char* peerSocket = "/run/bare.sock";
constexpr double perMicrosecond = 1000;

// From the start of `server` to its reply to `client`, who waits for its socket already.
double untilReply(const Child& server, Child& client) {
    const auto repliedAt = std::strtoll(client.hear().c_str(), nullptr, 10);
    return static_cast<double>(repliedAt - server.startedAt()) / perMicrosecond;
}

}  // namespace

void measureReady(Table& table, const Places& places, const InstalledApp& app, Effort effort) {
    progress("starting the helper again and again");
    const auto servers = processor(0);
    const auto client = app.start(processor(1));
    const auto ours = [&] {
        client->tell("reply " + RunningHelper::socket());
        const RunningHelper helper(places, servers);
        return untilReply(helper.process(), *client);
    };
    const auto bareServer = [&] {
        unlink(peerSocket);
        client->tell(std::string("reply ") + peerSocket);
        const Child server({{places.programs + "/BareBusServer", peerSocket}, {}, servers});
        return untilReply(server, *client);
    };
    const auto emptyProgram = [&] {
        Child program({{places.programs + "/EmptyProgram"}, {}, servers});
        program.hear();
        return static_cast<double>(monotonicNow() - program.startedAt()) / perMicrosecond;
    };
    const std::string what = "start to the first status reply";
    const std::size_t rounds = effort.rounds(400);
    constexpr double limit = 1.5;
    table.add(Row::compared(what, "us", "bare sd-bus server to its first reply",
                            takeTurns(rounds, ours, bareServer), {limit, {}}));
    table.add(Row::compared(what, "us", "empty program to main(), serves nobody",
                            takeTurns(rounds, ours, emptyProgram), {}));
    table.note(
        "The start is judged beside the bare server, which binds a socket and answers as the");
    table.note("helper does. The empty program only loads the same libraries: not like with like.");
}

}  // namespace halvo::benchmark
