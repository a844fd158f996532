// Runs the measurements inside a private machine, and says on standard output, as JSON, what each
// round took; benchmarks/run starts it and makes a table of that. Usage: Benchmark BUILD-FOLDER
// full|quick [NAME]

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string_view>
#include <system_error>
#include <utility>

#include "HalvoClient/PrivateGroup.hpp"
#include "HalvoHelperCore/Linux/HelperBus.hpp"
#include "benchmarks/Benchmark.hpp"
#include "tests/Support/TestBundle.hpp"

namespace halvo::benchmark {
namespace {

constexpr std::array<std::pair<std::string_view, void (*)(Run&)>, 7> measurements{
    {{"search", measureAppSearch},
     {"status", measureStatusCall},
     {"save", measureSave},
     {"tick", measureTick},
     {"memory", measureMemory},
     {"ready", measureReady},
     {"records", measureRecords}}};

unsigned idFromEnvironment(const char* name) {
    const char* text = std::getenv(name);
    return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10))
                           : throw CannotMeasure(std::string(name) +
                                                 " is not set: start this with benchmarks/run");
}

// The helper serves the app's own executable only. So this program installs itself as the app, and
// goes on from there, in the app's private group.
void becomeTheApp(const std::string& path, char** arguments) {
    const testing::TestBundle app(path, "Halvo");
    app.writeInfo(HALVO_APP_BUNDLE_ID, HALVO_TEAM_ID);
    app.install(idFromEnvironment("HALVO_APP_GID"));
    execv(app.executable().c_str(), arguments);
    require(false, app.executable());
}

nlohmann::json report(const Run& run) {
    nlohmann::json list = nlohmann::json::array();
    for (const Row& row : run.rows) {
        auto& object = list.emplace_back(
            nlohmann::json{{"what", row.what}, {"unit", row.unit}, {"ours", row.ours}});
        if (!row.peer.empty()) {
            object["peer"] = row.peer;
            object["theirs"] = row.theirs;
        }
        if (row.ratioAtMost) {
            object["ratioAtMost"] = *row.ratioAtMost;
        }
        if (row.oursAtMost) {
            object["oursAtMost"] = *row.oursAtMost;
        }
    }
    return {{"rows", list}, {"notes", run.notes}};
}

}  // namespace

void require(bool ok, const std::string& what) {
    if (!ok) {
        throw CannotMeasure(what + ": " + std::generic_category().message(errno));
    }
}

void progress(const std::string& what) { std::cerr << "benchmarks: " << what << std::endl; }

double medianOf(std::vector<double> values) {
    const auto middle = values.begin() + std::ssize(values) / 2;
    std::ranges::nth_element(values, middle);
    return *middle;
}

void Run::add(const Row& row) {
    const auto known = std::ranges::find(rows, row.what, &Row::what);
    if (known == rows.end() || known->peer != row.peer) {
        rows.push_back(row);
        return;
    }
    known->ours.insert(known->ours.end(), row.ours.begin(), row.ours.end());
    known->theirs.insert(known->theirs.end(), row.theirs.begin(), row.theirs.end());
}

void Run::compare(const std::string& what, const std::string& peer, std::size_t rounds,
                  const Measure& ours, const Measure& theirs, std::optional<double> ratioAtMost) {
    constexpr double longest = 20e6;
    constexpr std::size_t fewest = 20;
    const std::size_t most = isQuick ? rounds / 8 : rounds;
    Row row{.what = what, .unit = "us", .peer = peer, .ratioAtMost = ratioAtMost};
    double taken = 0;
    for (std::size_t round = 0; round < most && (round < fewest || taken < longest); ++round) {
        taken += microsecondsOf(1, [&] {
            const bool oursFirst = round % 2 == 0;
            const double first = oursFirst ? ours() : theirs();
            const double second = oursFirst ? theirs() : ours();
            row.ours.push_back(oursFirst ? first : second);
            row.theirs.push_back(oursFirst ? second : first);
        });
    }
    add(row);
}

}  // namespace halvo::benchmark

int main(int count, char** arguments) {
    using namespace halvo;
    using namespace halvo::benchmark;
    PrivateGroup::setAside();
    try {
        const std::vector<std::string> words(arguments, arguments + count);
        Run run{.build = words.at(1),
                .isQuick = words.at(2) == "quick",
                .person = idFromEnvironment("HALVO_UID"),
                .socket = HelperBus::socketPath(HALVO_APP_BUNDLE_ID ".helper")};
        if (!std::filesystem::read_symlink("/proc/self/exe").string().starts_with(run.bundle)) {
            becomeTheApp(run.bundle, arguments);
        }
        // Lets the machine's other work wait, for this process and all that it starts, ours and
        // peers alike. Where that is refused the rounds only differ more.
        const sched_param lowest{.sched_priority = 1};
        sched_setscheduler(0, SCHED_RR, &lowest);
        for (const auto& [name, measure] : measurements) {
            if (words.size() < 4 || words[3] == name) {
                measure(run);
            }
        }
        std::cout << report(run) << "\n";
    } catch (const std::exception& failure) {
        std::cerr << "benchmarks: cannot measure: " << failure.what() << std::endl;
        return EXIT_FAILURE;
    }
}
