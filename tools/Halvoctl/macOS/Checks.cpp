#include <sys/stat.h>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelper/macOS/CodeSignature.hpp"
#include "HalvoHelper/macOS/HelperCopy.hpp"
#include "tools/HalvoRecords/Wording.hpp"
#include "tools/Halvoctl/Doctor.hpp"
#include "tools/Halvoctl/ShellWord.hpp"

namespace halvo::control {

using records::printable;

// From the bundle downwards: /Applications itself belongs to the administrators there.
HelperFiles helperFiles(const Machine& machine) {
    const std::string inside = "/Contents/";
    const std::string folder = machine.helper.substr(0, machine.helper.find_last_of('/'));
    const std::size_t bundle = machine.helper.rfind(inside);
    return {
        {machine.helper, folder + "/halvoctl"},
        bundle == std::string::npos ? folder : machine.helper.substr(0, bundle),
        "Whoever can change the helper can keep it from starting, and whoever can change halvoctl "
        "becomes root when an administrator runs it."};
}

std::vector<std::string> otherApplications(Machine&) { return homeApplications(); }

// What of the helper's it starts as root to open the app. What launchd has is said where the helper
// does not run.
Checks examineService(Machine& machine) {
    const std::string name = "opening";
    const auto problem = RootOwnedPath::problem(machine.helper);
    if (!problem) {
        return {isOk(name, "by the helper's own executable, which is root's alone")};
    }
    const auto checked = checkCodeSignature(machine.helper, machine.identity.helperRequirement());
    if (!checked) {
        return {isProblem(name,
                          printable(checked.error()) + "; so the app is not opened again, since " +
                              printable(*problem),
                          "Install the app again.")};
    }
    const std::string folder = HelperCopy::folder(machine.identity);
    struct stat status{};
    if (lstat(folder.c_str(), &status) == 0) {
        if (const auto wrong = RootOwnedPath::problem(folder, RootOwnedPath::Item::folder)) {
            return {isProblem(name, printable(*wrong) + "; so the app is not opened again",
                              "rm -r " + shellWord(folder))};
        }
    }
    return {isOk(name, "through a checked copy of the helper in " + printable(folder) + ", since " +
                           printable(*problem))};
}

Checks examineApp(Machine&, const std::string&) { return {}; }

Checks examineSession(Machine&, std::uint32_t) { return {}; }

}  // namespace halvo::control
