#include "tools/Halvoctl/Linux/Units.hpp"

#include <sstream>

namespace halvo::control {

std::string socketUnit(const HelperIdentity& identity) {
    return identity.helperBundleID() + ".socket";
}

std::string serviceUnit(const HelperIdentity& identity) {
    return identity.helperBundleID() + ".service";
}

std::string resumeUnit(const HelperIdentity& identity) {
    return identity.helperBundleID() + "-resume.service";
}

std::vector<Properties> parseProperties(const std::string& output) {
    std::vector<Properties> all(1);
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t equals = line.find('=');
        if (line.empty()) {
            all.emplace_back();
        } else if (equals != std::string::npos) {
            all.back()[line.substr(0, equals)] = line.substr(equals + 1);
        }
    }
    return all;
}

std::map<std::string, Unit> parseUnits(const std::string& output) {
    std::map<std::string, Unit> units;
    for (Properties& properties : parseProperties(output)) {
        if (const auto name = properties.find("Id"); name != properties.end()) {
            units[name->second] = {properties["LoadState"], properties["ActiveState"],
                                   properties["UnitFileState"], properties["Result"],
                                   properties["SubState"]};
        }
    }
    return units;
}

std::expected<Units, std::string> readUnits(const HelperIdentity& identity, Programs& programs) {
    constexpr Seconds limit{10};
    const auto shown =
        programs.run({systemctl, "show", "--no-pager",
                      "--property=Id,LoadState,ActiveState,SubState,UnitFileState,Result", "--",
                      socketUnit(identity), serviceUnit(identity), resumeUnit(identity)},
                     {limit, {}});
    if (!shown) {
        return std::unexpected(shown.error());
    }
    auto units = parseUnits(shown->output);
    const auto socket = units.find(socketUnit(identity));
    const auto service = units.find(serviceUnit(identity));
    const auto resume = units.find(resumeUnit(identity));
    if (shown->status != 0 || socket == units.end() || service == units.end() ||
        resume == units.end()) {
        const std::string said = shown->output.substr(0, shown->output.find('\n'));
        return std::unexpected(std::string(systemctl) + " does not tell of the helper's units" +
                               (said.empty() ? "" : ": " + said));
    }
    return Units{socket->second, service->second, resume->second};
}

}  // namespace halvo::control
