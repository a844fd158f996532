#include "HalvoHelper/OpenAsUser.hpp"

namespace halvo::OpenAsUser {

Command commandFor(const Request& request, const User& user) {
    Command command{
        "/usr/bin/open", {"/usr/bin/open", "-g", "-a", request.appPath}, environment(user)};
    if (request.afterQuit) {
        command.arguments.emplace_back("--args");
        append(command.arguments, appArguments(true));
    }
    return command;
}

}  // namespace halvo::OpenAsUser
