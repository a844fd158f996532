#include "tools/Halvoctl/Linux/Group.hpp"

#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::control {
namespace {

std::string adviceFor(GroupFlaw::Kind kind, const std::string& group) {
    switch (kind) {
        case GroupFlaw::Kind::roots:
            return "Give the app a group of its own: groupadd --system NAME, chgrp NAME, chmod "
                   "2755.";
        case GroupFlaw::Kind::unknown:
            return "Whoever makes that group next could pass for the app. Install the app again, "
                   "or "
                   "put the group into /etc/group.";
        case GroupFlaw::Kind::members:
            return "Take them out: gpasswd --delete USER " + group;
        case GroupFlaw::Kind::owners:
            return "Give the app a group that is nobody's.";
        case GroupFlaw::Kind::administrators:
            return "They can make anybody a member. Take them out: gpasswd --administrators '' " +
                   group;
        case GroupFlaw::Kind::password:
            return "Lock it: gpasswd --restrict " + group;
    }
    return "";
}

}  // namespace

Check checkGroup(const GroupFacts& facts) {
    const std::string name = "app's group";
    const std::string group = records::printable(facts.name.value_or(""));
    if (const auto flaw = flawOf(facts)) {
        return isProblem(name,
                         records::printable(flaw->finding) + ", so the helper refuses the app",
                         adviceFor(flaw->kind, group));
    }
    return isOk(name, group + " (" + std::to_string(facts.gid) + ") is nobody's" +
                          (facts.hasShadow ? "" : ", as far as can be seen without root"));
}

}  // namespace halvo::control
