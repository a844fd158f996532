// The commands that open the app on Linux.
#pragma once

#include <string>

#include "HalvoHelper/OpenAsUser.hpp"

namespace halvo::OpenAsUser {

// What LiveOpener starts: where systemd runs the machine, the mode in a unit
// of its own (systemd-run(1)), so that nothing of the helper's sandbox, limits and cgroup reaches
// the app, and nothing that the user can tell their own manager; elsewhere the mode itself. What
// the mode becomes: when the user's own systemd manager answers, and the request does not leave it
// out, that runs the app inside the session; else the app. `unitSuffix` keeps two openings from
// clashing; `appID` names the unit.
Command systemCommand(const std::string& helperExecutable, const Request& request,
                      const std::string& unitSuffix);
Command helperCommand(const std::string& helperExecutable, const Request& request);
Command managerCommand(const Request& request, const User& user, const std::string& executable,
                       const std::string& appID, const std::string& unitSuffix);
Command directCommand(const Request& request, const User& user, const std::string& executable);

// Eight random hexadecimal digits, which keep one unit's name from another's. Where the system has
// no randomness to give (getrandom(2)) they are the same for the life of the process. Any thread.
std::string randomUnitSuffix();

}  // namespace halvo::OpenAsUser
