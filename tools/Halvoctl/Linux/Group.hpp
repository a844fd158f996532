// The app's private group.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "tools/Halvoctl/Check.hpp"

namespace halvo::control {

// What the machine's account files say of one group; group(5), gshadow(5), passwd(5).
struct GroupFacts {
    gid_t gid{};
    // Nothing when no entry has the number.
    std::optional<std::string> name;
    // The field of the password, of the entry and of its shadow. Neither is shown to anybody.
    std::string password;
    std::string shadowPassword;
    std::vector<std::string> members;
    std::vector<std::string> administrators;
    // Those whose own group it is.
    std::vector<std::string> owners;
    // The shadow file could be read; only root can.
    bool hasShadow{};
};

// Asks the system's account files and services.
GroupFacts readGroup(gid_t gid);

// Whoever could take the group on would pass for the app.
Check checkGroup(const GroupFacts& facts);

}  // namespace halvo::control
