#include "tools/Halvoctl/Linux/Group.hpp"

#include <grp.h>
#include <gshadow.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>

#include "tools/HalvoRecords/Wording.hpp"

namespace halvo::control {
namespace {

void append(std::vector<std::string>& list, char* const* names) {
    for (; names != nullptr && *names != nullptr; ++names) {
        if (std::ranges::find(list, *names) == list.end()) {
            list.emplace_back(*names);
        }
    }
}

std::string listed(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + records::printable(name);
    }
    return text;
}

// Whether somebody could know a password that fits. "x" in the group file stands for the shadow.
bool isPassword(const std::string& field) {
    return !field.empty() && field != "x" && !field.starts_with('!') && !field.starts_with('*');
}

}  // namespace

GroupFacts readGroup(gid_t gid) {
    GroupFacts facts;
    facts.gid = gid;
    setgrent();
    while (const group* entry = getgrent()) {
        if (entry->gr_gid == gid) {
            if (!facts.name) {
                facts.name = entry->gr_name;
                facts.password = entry->gr_passwd == nullptr ? "" : entry->gr_passwd;
            }
            append(facts.members, entry->gr_mem);
        }
    }
    endgrent();
    facts.hasShadow = geteuid() == 0;
    if (const sgrp* shadow =
            facts.name && facts.hasShadow ? getsgnam(facts.name->c_str()) : nullptr) {
        facts.shadowPassword = shadow->sg_passwd == nullptr ? "" : shadow->sg_passwd;
        append(facts.members, shadow->sg_mem);
        append(facts.administrators, shadow->sg_adm);
    }
    setpwent();
    while (const passwd* entry = getpwent()) {
        if (entry->pw_gid == gid) {
            facts.owners.emplace_back(entry->pw_name);
        }
    }
    endpwent();
    return facts;
}

Check checkGroup(const GroupFacts& facts) {
    const std::string name = "app's group";
    const std::string number = "group " + std::to_string(facts.gid);
    if (facts.gid == 0) {
        return isProblem(
            name, "the app's executable has root's group",
            "Give it a group of its own: groupadd --system NAME, chgrp NAME, chmod 2755.");
    }
    if (!facts.name) {
        return isProblem(
            name, "the app's executable has the " + number + ", which has no name",
            "Whoever makes that group next can pass for the app. Install the app again.");
    }
    const std::string group = records::printable(*facts.name);
    if (!facts.members.empty()) {
        return isProblem(
            name, group + " has members: " + listed(facts.members),
            "Their programs pass for the app. Take them out: gpasswd --delete USER " + group);
    }
    if (!facts.owners.empty()) {
        return isProblem(name, group + " is the own group of " + listed(facts.owners),
                         "Their programs pass for the app. Give the app a group that is nobody's.");
    }
    if (!facts.administrators.empty()) {
        return isProblem(
            name, group + " has administrators: " + listed(facts.administrators),
            "They can make anybody a member. Take them out: gpasswd --administrators '' " + group);
    }
    if (isPassword(facts.password) || isPassword(facts.shadowPassword)) {
        return isProblem(name, group + " has a password",
                         "Who knows it passes for the app. Lock it: gpasswd --restrict " + group);
    }
    return isOk(name, group + " (" + std::to_string(facts.gid) + ") is nobody's" +
                          (facts.hasShadow ? "" : ", as far as can be seen without root"));
}

}  // namespace halvo::control
