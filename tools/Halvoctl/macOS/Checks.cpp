#include <sys/stat.h>

#include "tools/Halvoctl/Doctor.hpp"

namespace halvo::control {

// From the bundle downwards: /Applications itself belongs to the administrators there.
HelperFiles helperFiles(const Machine& machine) {
    const std::string inside = "/Contents/";
    const std::string folder = machine.helper.substr(0, machine.helper.find_last_of('/'));
    const std::size_t bundle = machine.helper.rfind(inside);
    return {{machine.helper, folder + "/halvoctl"},
            bundle == std::string::npos ? folder : machine.helper.substr(0, bundle)};
}

std::vector<std::string> otherApplications(Machine&) { return homeApplications(); }

// What launchd has is said where the helper does not run.
Checks examineService(Machine&) { return {}; }

Checks examineApp(Machine&, const std::string&) { return {}; }

Checks examineSession(Machine&, std::uint32_t) { return {}; }

}  // namespace halvo::control
