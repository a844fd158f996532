#include "HalvoHelper/OpenAsUser.hpp"

namespace halvo::OpenAsUser {

Command commandFor(const Request& request, const User& user) { return openCommand(request, user); }

}  // namespace halvo::OpenAsUser
