// One request: its round trip, and the first one after a start.

#include <unistd.h>

#include <sstream>

#include "benchmarks/Benchmark.hpp"

namespace halvo::benchmark {
namespace {

constexpr double perMicrosecond = 1000;

Rounds roundTrips(Program& client, const Machine& machine) {
    const auto medianOf = [&](const std::string& socket) {
        client.tell("calls 200 " + socket);
        return std::stod(client.hear()) / perMicrosecond;
    };
    const auto ours = [&] { return medianOf(machine.socket); };
    const auto theirs = [&] { return medianOf(machine.peerSocket); };
    // The first one only makes the connections.
    takeTurns(1, ours, theirs);
    return takeTurns(machine.rounds(200), ours, theirs);
}

}  // namespace

void measureStatusCall(Table& table, const Machine& machine) {
    progress("asking for the status");
    const auto one = processor(0);
    const auto other = processor(1);
    const Program helper({machine.helper()}, {.processor = one});
    const Program peer({machine.program("BareBusServer"), machine.peerSocket}, {.processor = one});
    Program client({machine.executable}, {machine.person, one});
    constexpr double limit = 1.3;
    const auto measure = [&](const std::string& where) {
        table.compare("status call, round trip, " + where, "bare sd-bus server",
                      roundTrips(client, machine), limit);
    };
    measure("all on one processor");
    if (other) {
        require(pin(client.pid(), *other), "sched_setaffinity");
        measure("client on another processor");
    }
}

void measureReady(Table& table, const Machine& machine) {
    progress("starting the helper again and again");
    const RunAs server{.processor = processor(0)};
    Program client({machine.executable}, {machine.person, processor(1)});
    // From the start of the program to the instant that `speaker` tells of.
    const auto until = [](Program& speaker, const Program& program) {
        return static_cast<double>(std::stoll(speaker.hear()) - program.startedAt()) /
               perMicrosecond;
    };
    const auto ours = [&] {
        client.tell("reply " + machine.socket);
        const Program helper({machine.helper()}, server);
        return until(client, helper);
    };
    const auto bareServer = [&] {
        unlink(machine.peerSocket.c_str());
        client.tell("reply " + machine.peerSocket);
        const Program bare({machine.program("BareBusServer"), machine.peerSocket}, server);
        return until(client, bare);
    };
    const auto emptyProgram = [&] {
        Program empty({machine.program("EmptyProgram")}, server);
        return until(empty, empty);
    };
    constexpr double limit = 1.5;
    const std::string what = "start to the first status reply";
    const std::size_t rounds = machine.rounds(400);
    table.compare(what, "bare sd-bus server to its first reply",
                  takeTurns(rounds, ours, bareServer), limit);
    table.compare(what, "empty program to main(), serves nobody",
                  takeTurns(rounds, ours, emptyProgram));
    table.notes.insert(
        table.notes.end(),
        {"The start is judged beside the bare server, which binds a socket and answers as the",
         "helper does. The empty program only loads the same libraries: not like with like."});
}

}  // namespace halvo::benchmark
