// The helper as a process, beside its peers: how soon it answers, what it keeps of the memory, and
// what it asks of the system.

#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string_view>
#include <utility>

#include "HalvoClient/HelperClient.hpp"
#include "benchmarks/Benchmark.hpp"
#include "tests/Support/TestProcess.hpp"

namespace halvo::benchmark {
namespace {

using Processors = std::vector<int>;

// The numbers of those that this process was given at its start.
const Processors& processors() {
    static const Processors numbers = [] {
        cpu_set_t given;
        CPU_ZERO(&given);
        sched_getaffinity(0, sizeof given, &given);
        Processors list;
        for (int number = 0; number < CPU_SETSIZE; ++number) {
            if (CPU_ISSET(number, &given)) {
                list.push_back(number);
            }
        }
        return list;
    }();
    return numbers;
}

// Binds this process to some of them.
void pin(const Processors& some) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (const int number : some) {
        CPU_SET(number, &set);
    }
    require(sched_setaffinity(0, sizeof set, &set) == 0, "sched_setaffinity");
}

// Nanoseconds of the monotonic clock, the same in every process of the machine.
std::int64_t now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

// When the program that was started last was about to begin; in memory that its process shares.
std::int64_t& startedAt() {
    static void* const memory = mmap(nullptr, sizeof(std::int64_t), PROT_READ | PROT_WRITE,
                                     MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *static_cast<std::int64_t*>(memory);
}

// While it lives, this process is the person's to all that it connects to, and bound to some
// processors.
struct AsThePerson {
    explicit AsThePerson(const Run& run, const Processors& some = processors()) {
        pin(some);
        require(seteuid(run.person) == 0, "seteuid");
    }

    ~AsThePerson() {
        require(seteuid(0) == 0, "seteuid");
        pin(processors());
    }
};

// A running program, root's, bound to some processors.
class Program : public testing::TestProcess {
  public:
    explicit Program(const std::vector<std::string>& words, const Processors& some = processors(),
                     const std::vector<std::string>& environment = {})
        : TestProcess(testing::Start{.words = words,
                                     .environment = environment,
                                     .prepare = [&some, &instant = startedAt()] {
                                         setresuid(0, 0, 0);
                                         setresgid(0, 0, 0);
                                         pin(some);
                                         instant = now();
                                     }}) {}

    // A helper that is asked to end takes its socket along.
    ~Program() {
        send(SIGTERM);
        wait();
    }
};

// Asks for the status in a tight loop until there is one: a server that is measured must not be
// charged for our sleep.
void awaitReply(HelperClient& client) {
    const Seconds end = testing::timeNow() + testing::timeLimit;
    while (!client.status()) {
        if (testing::timeNow() > end) {
            throw CannotMeasure("no helper answers");
        }
        sched_yield();
    }
}

// ------------------------------------------------------------------------------------------ memory

struct Memory {
    // KiB that only this process has, and has written to.
    double privateDirty = -1;
    // KiB that would be free if this process ended.
    double unique = -1;
};

Memory memoryOf(const Program& process) {
    std::ifstream file("/proc/" + std::to_string(process.pid()) + "/smaps_rollup");
    Memory memory;
    double clean = -1;
    for (std::string line; std::getline(file, line);) {
        std::sscanf(line.c_str(), "Private_Dirty: %lf", &memory.privateDirty);
        std::sscanf(line.c_str(), "Private_Clean: %lf", &clean);
    }
    if (memory.privateDirty < 0 || clean < 0) {
        throw CannotMeasure("smaps_rollup cannot be read; proc(5)");
    }
    memory.unique = memory.privateDirty + clean;
    return memory;
}

// Where the loader puts a program's parts changes by a few pages each time, and so what the kernel
// maps around the pages that are used; this takes little time, so it is done often.
Memory emptyProgram(const std::string& path, const std::vector<std::string>& environment) {
    std::vector<double> privateDirty;
    std::vector<double> unique;
    for (int time = 0; time < 9; ++time) {
        Program program({path}, processors(), environment);
        program.readLine();
        testing::sleepFor(Seconds{0.05});
        const Memory memory = memoryOf(program);
        privateDirty.push_back(memory.privateDirty);
        unique.push_back(memory.unique);
    }
    return {medianOf(privateDirty), medianOf(unique)};
}

Memory helper(const Run& run, const std::vector<std::string>& environment, bool isHolding) {
    const Program helper({run.helper()}, processors(), environment);
    HelperClient client(run.socket);
    const auto begin = [&](Seconds span) {
        return client.begin(run.bundle, [&](const HelperStatus&) {
            const WallDate started = wallNow();
            return CommitmentSpan{started + span, started};
        });
    };
    {
        const AsThePerson app(run);
        awaitReply(client);
        if (isHolding && begin(Seconds{3600}) != true) {
            throw CannotMeasure("the helper does not hold the commitment");
        }
        // Long enough for a tick, or for those that look for the app, which gives no further sign
        // of life.
        testing::sleepFor(Seconds{isHolding ? 9 : 2.5});
    }
    const Memory memory = memoryOf(helper);
    if (isHolding) {
        // An end that is past already lets it go: the lock is off, and the next helper starts idle.
        begin(Seconds{-1}).value();
    }
    return memory;
}

// -------------------------------------------------------------------------------------------- tick

constexpr const char* trace = "/tmp/tick.trace";

// What the last tick under a mark of TickProbe's did.
struct Tick {
    // As strace(1) writes them.
    std::vector<std::string> calls{};
    double allocations{};
};

Tick tickUnder(const std::string& mark) {
    constexpr std::string_view end = "access(\"/mark/end/";
    std::ifstream file(trace);
    std::optional<Tick> tick;
    bool isInside = false;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("access(\"/mark/" + mark + "\"")) {
            tick.emplace();
            isInside = true;
        } else if (isInside && line.starts_with(end)) {
            tick->allocations = std::stod(line.substr(end.size()));
            isInside = false;
        } else if (isInside) {
            tick->calls.push_back(line);
        }
    }
    return tick && !isInside ? *tick : throw CannotMeasure("the trace does not show " + mark);
}

// How often each call was made.
std::string counted(const std::vector<std::string>& calls) {
    std::map<std::string, int> counts;
    for (const std::string& call : calls) {
        ++counts[call.substr(0, call.find('('))];
    }
    std::string line;
    for (const auto& [name, count] : counts) {
        line += (line.empty() ? "    " : ", ") + std::to_string(count) + " " + name;
    }
    return line;
}

}  // namespace

void measureStatusCall(Run& run) {
    progress("asking for the status");
    const Processors one{processors().front()};
    const Processors other{processors().back()};
    const Program helper({run.helper()}, one);
    const Program peer({run.program("BareBusServer"), run.peerSocket}, one);
    const auto measure = [&](const std::string& where, const Processors& client) {
        const AsThePerson app(run, client);
        HelperClient ours(run.socket);
        HelperClient theirs(run.peerSocket);
        // Over connections that are kept from here on.
        awaitReply(ours);
        awaitReply(theirs);
        const auto roundTrip = [](HelperClient& asked) {
            std::vector<double> spans(200);
            for (double& span : spans) {
                span = microsecondsOf(1, [&] { asked.status().value(); });
            }
            return medianOf(spans);
        };
        constexpr double limit = 1.3;
        run.compare(
            "status call, round trip, " + where, "bare sd-bus server", 200,
            [&] { return roundTrip(ours); }, [&] { return roundTrip(theirs); }, limit);
    };
    measure("all on one processor", one);
    if (other != one) {
        measure("client on another processor", other);
    }
}

void measureReady(Run& run) {
    progress("starting the helper again and again");
    const Processors server{processors().front()};
    const AsThePerson app(run, {processors().back()});
    const auto sinceStart = [](std::int64_t instant) {
        constexpr double nanosecondsPerMicrosecond = 1000;
        return static_cast<double>(instant - startedAt()) / nanosecondsPerMicrosecond;
    };
    const auto untilReply = [&](const std::vector<std::string>& words, const std::string& socket) {
        const Program program(words, server);
        HelperClient client(socket);
        awaitReply(client);
        return sinceStart(now());
    };
    const auto ours = [&] { return untilReply({run.helper()}, run.socket); };
    const auto bareServer = [&] {
        return untilReply({run.program("BareBusServer"), run.peerSocket}, run.peerSocket);
    };
    const auto emptyProgram = [&] {
        Program empty({run.program("EmptyProgram")}, server);
        return sinceStart(std::stoll(empty.readLine()));
    };
    constexpr double limit = 1.5;
    const std::string what = "start to the first status reply";
    run.compare(what, "bare sd-bus server to its first reply", 400, ours, bareServer, limit);
    run.compare(what, "empty program to main(), serves nobody", 400, ours, emptyProgram);
    run.notes.insert(
        run.notes.end(),
        {"The start is judged beside the bare server, which binds a socket and answers as the",
         "helper does. The empty program only loads the same libraries: not like with like."});
}

void measureMemory(Run& run) {
    // benchmarks/run copies both: what a process shares with others is not its own, so its USS
    // depends on who else runs. Copies of the libraries settle that, on any machine: only the
    // program that is weighed uses them. So does another file that holds the empty program.
    const std::vector<std::string> alone{"LD_LIBRARY_PATH=" + run.program("libraries")};
    const std::string empty = run.program("EmptyProgram");
    Program other({run.program("sharing/EmptyProgram")});
    other.readLine();
    const auto add = [&run](const std::string& what, double ours, double theirs,
                            std::optional<double> ratioAtMost, std::optional<double> oursAtMost) {
        run.add({what,
                 "KiB",
                 "empty program, same libraries",
                 {ours},
                 {theirs},
                 ratioAtMost,
                 oursAtMost});
    };
    constexpr double dirtyLimit = 750'000.0 / 1024;
    constexpr double uniqueLimit = 1.15;
    const int rounds = run.isQuick ? 2 : 5;
    for (int round = 1; round <= rounds; ++round) {
        progress("weighing the helper, 15 seconds, " + std::to_string(round) + " of " +
                 std::to_string(rounds));
        const Memory theirs = emptyProgram(empty, alone);
        for (const bool isHolding : {false, true}) {
            const std::string state = isHolding ? "holding" : "idle";
            const Memory ours = helper(run, alone, isHolding);
            add("private dirty memory, " + state, ours.privateDirty, theirs.privateDirty, {},
                dirtyLimit);
            add("USS, " + state + ", libraries used by nobody else", ours.unique, theirs.unique,
                uniqueLimit, {});
        }
        add("USS, idle, libraries used by others too", helper(run, {}, false).unique,
            emptyProgram(empty, {}).unique, {}, {});
    }
    run.notes.insert(
        run.notes.end(),
        {"The empty program calls sd_bus_new and plist_from_memory once, as the helper does.",
         "USS depends on who else uses the libraries. It is judged where nobody does, when it is",
         "largest. Where all of them are shared, what is left is mostly the program itself."});
}

void measureTick(Run& run) {
    progress("counting what a tick does, 13 seconds");
    const testing::TestProcess running(
        testing::Start{.person = run.person, .body = [] { return pause(); }});
    const auto probe = testing::runInChild(testing::Start{
        .words = {"/usr/bin/strace", "-o", trace, "-s", "256", run.program("TickProbe"), run.bundle,
                  std::to_string(run.person)}});
    // A count that does not work would say 0 as well. The first search is known to look things up.
    if (probe.status != 0 || tickUnder("first-search").allocations == 0) {
        throw CannotMeasure("allocations are not counted: " + probe.output);
    }
    const auto addRows = [&](const std::string& mark, const std::string& what) {
        const Tick tick = tickUnder(mark);
        const auto calls = static_cast<double>(tick.calls.size());
        run.add({.what = what + ": allocations",
                 .unit = "",
                 .ours = {tick.allocations},
                 .oursAtMost = 0});
        run.add({.what = what + ": system calls", .unit = "", .ours = {calls}});
        return tick.calls;
    };
    const auto quiet = addRows("quiet", "tick while holding, nothing to do");
    const auto search = addRows("search", "the same, in which isAppRunning finds the app");
    run.notes.emplace_back(
        "The system calls of the tick with nothing to do (reading the clocks takes none):");
    for (const std::string& call : quiet) {
        run.notes.push_back("    " + call.substr(0, call.find(", {")));
    }
    run.notes.emplace_back(
        "Of the tick that looks for the app, one readlinkat for each process before it:");
    run.notes.push_back(counted(search));
}

}  // namespace halvo::benchmark
