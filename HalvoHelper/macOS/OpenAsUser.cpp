#include "HalvoHelper/OpenAsUser.hpp"

#include <utility>

namespace halvo::OpenAsUser {

Command commandFor(const Request& request, const User& user) {
    std::vector<std::string> words{"/usr/bin/open", "-g", "-a", request.appPath};
    if (request.afterQuit) {
        words.emplace_back("--args");
    }
    return {"/usr/bin/open", withAppArguments(std::move(words), request.afterQuit),
            environment(user)};
}

}  // namespace halvo::OpenAsUser
