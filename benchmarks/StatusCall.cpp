#include <sstream>

#include "benchmarks/Benchmarks.hpp"
#include "benchmarks/CannotMeasure.hpp"
#include "benchmarks/RunningHelper.hpp"

namespace halvo::benchmark {
namespace {

constexpr const char* peerSocket = "/run/bare.sock";

Comparison compare(Child& client, std::size_t rounds) {
    const std::string ours = RunningHelper::socket();
    const std::string calls = "compare 200 ";
    Comparison measured;
    // The first round only makes the connections.
    for (std::size_t round = 0; round <= rounds; ++round) {
        const bool oursFirst = round % 2 == 0;
        client.tell(calls + (oursFirst ? ours + " " + peerSocket : peerSocket + (" " + ours)));
        double first = 0;
        double second = 0;
        std::istringstream(client.hear()) >> first >> second;
        if (round > 0) {
            constexpr double perMicrosecond = 1000;
            measured.add((oursFirst ? first : second) / perMicrosecond,
                         (oursFirst ? second : first) / perMicrosecond);
        }
    }
    return measured;
}

}  // namespace

void measureStatusCall(Table& table, const Places& places, const InstalledApp& app, Effort effort) {
    progress("asking for the status");
    const auto one = processor(0);
    const auto other = processor(1);
    const RunningHelper helper(places, one);
    const Child peer({{places.programs + "/BareBusServer", peerSocket}, {}, one});
    const auto client = app.start(one);
    constexpr double limit = 1.3;
    const auto measure = [&](const std::string& where) {
        table.add(Row::compared("status call, round trip, " + where, "us", "bare sd-bus server",
                                compare(*client, effort.rounds(200)), {limit, {}}));
    };
    measure("all on one processor");
    if (other) {
        require(pin(client->pid(), *other), "sched_setaffinity");
        measure("client on another processor");
    }
    client->tell("close");
    client->hear();
}

}  // namespace halvo::benchmark
