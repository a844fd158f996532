#include <sys/stat.h>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoHelper/macOS/HelperCopy.hpp"
#include "tools/HalvoRecords/Wording.hpp"
#include "tools/Halvoctl/Doctor.hpp"
#include "tools/Halvoctl/Observation.hpp"
#include "tools/Halvoctl/macOS/LaunchdService.hpp"

namespace halvo::control {

using records::printable;

// From the bundle downwards: /Applications itself belongs to the administrators there.
HelperFiles helperFiles(const std::string& helper) {
    const std::string folder = folderOf(helper);
    const std::size_t bundle = helper.rfind("/Contents/");
    return {
        {helper, folder + "/halvoctl"},
        bundle == std::string::npos ? folder : helper.substr(0, bundle),
        "Whoever can change the helper can keep it from starting, and whoever can change halvoctl "
        "becomes root when an administrator runs it."};
}

Check checkOpening(const std::string& helper, const HelperIdentity& identity) {
    const std::string name = "opening";
    const auto problem = RootOwnedPath::problem(helper);
    if (!problem) {
        return isOk(name, "by the helper's own executable, which is root's alone");
    }
    const auto checked = checkCodeSignature(helper, identity.helperRequirement());
    if (!checked) {
        return isProblem(name,
                         printable(checked.error()) + "; so the app is not opened again, since " +
                             printable(*problem),
                         "Install the app again.");
    }
    const std::string folder = HelperCopy::folder(identity);
    struct stat status{};
    if (lstat(folder.c_str(), &status) == 0) {
        if (const auto wrong = RootOwnedPath::problem(folder, RootOwnedPath::Item::folder)) {
            return isProblem(name, printable(*wrong) + "; so the app is not opened again",
                             "rm -r " + shellWord(folder));
        }
    }
    return isOk(name, "through a checked copy of the helper in " + printable(folder) + ", since " +
                          printable(*problem));
}

std::string clearCommand(const std::string& path) { return "chflags noschg " + shellWord(path); }

}  // namespace halvo::control
