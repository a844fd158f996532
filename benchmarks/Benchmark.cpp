// Does for benchmarks/run what only a program in C++ can: see Benchmark.hpp. Usage: Benchmark GROUP
// [ARGUMENT]...

#include <sched.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <system_error>

#include "HalvoClient/HelperClient.hpp"
#include "HalvoClient/OwnBundle.hpp"
#include "HalvoClient/PrivateGroup.hpp"
#include "benchmarks/Benchmark.hpp"

namespace halvo::benchmark {
namespace {

auto now() { return std::chrono::steady_clock::now().time_since_epoch(); }

// Asks in a tight loop until there is a reply: a server that is measured must not be charged for
// our sleep.
std::size_t awaitReply(HelperClient client) {
    const auto end = now() + std::chrono::seconds{20};
    while (now() < end) {
        if (client.status()) {
            return 1;
        }
        sched_yield();
    }
    return 0;
}

// PEER-SOCKET: requests of the app that this program is, to its helper and to the bare server.
void serveClient(const std::vector<std::string>& words) {
    HelperClient ours(ownBundle().value().identity);
    HelperClient theirs(words.at(0));
    const auto status = [](HelperClient& client) -> Work {
        return [&client] { return client.status() ? 1 : 0; };
    };
    const auto begin = [&] {
        const auto span = [](const HelperStatus&) {
            const WallDate started = wallNow();
            return CommitmentSpan{started + Seconds{3600}, started};
        };
        return ours.begin(ownBundle().value().path, span) == true ? 1 : 0;
    };
    serve({{"status", status(ours)},
           {"statusBarely", status(theirs)},
           {"reply", [&] { return awaitReply(HelperClient(ownBundle().value().identity)); }},
           {"replyBarely", [&] { return awaitReply(HelperClient(words.at(0))); }},
           {"begin", begin},
           {"end", [&] { return ours.end() == true ? 1 : 0; }}});
}

const std::map<std::string, void (*)(const std::vector<std::string>&)> groups{
    {"search", serveSearch},
    {"save", serveSave},
    {"records", serveRecords},
    {"client", serveClient}};

}  // namespace

void serve(const std::map<std::string, Work>& works) {
    std::string name;
    for (std::size_t times = 0; std::cin >> name >> times;) {
        const Work& work = works.at(name);
        std::size_t done = 0;
        const auto start = now();
        for (std::size_t i = 0; i < times; ++i) {
            done += work();
        }
        std::cout << start.count() << ' ' << now().count() << ' ' << done << std::endl;
    }
}

void require(bool ok, const std::string& what) {
    if (!ok) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

}  // namespace halvo::benchmark

int main(int count, char** arguments) {
    halvo::PrivateGroup::setAside();
    const std::vector<std::string> words(arguments, arguments + count);
    try {
        halvo::benchmark::groups.at(words.at(1))({words.begin() + 2, words.end()});
    } catch (const std::exception& failure) {
        std::cerr << "Benchmark: " << failure.what() << std::endl;
        return EXIT_FAILURE;
    }
}
