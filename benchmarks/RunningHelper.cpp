#include "benchmarks/RunningHelper.hpp"

#include <csignal>
#include <utility>

#include "HalvoHelperCore/Linux/HelperBus.hpp"

namespace halvo::benchmark {

RunningHelper::RunningHelper(const Places& places, std::optional<int> processor)
    : process_({{places.helper}, {}, processor}) {}

RunningHelper::RunningHelper(const Places& places, std::vector<std::string> launcher)
    : process_({[&] {
                    launcher.push_back(places.helper);
                    return std::move(launcher);
                }(),
                {},
                {}}) {}

RunningHelper::~RunningHelper() { process_.end(SIGTERM); }

std::string RunningHelper::socket() { return HelperBus::socketPath(HALVO_APP_BUNDLE_ID ".helper"); }

}  // namespace halvo::benchmark
