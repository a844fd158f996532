#include "HalvoHelper/Linux/AccountFiles.hpp"

#include <fcntl.h>
#include <grp.h>
#include <gshadow.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>

#include "HalvoHelper/Linux/LineFile.hpp"
#include "HalvoPlatform/ErrorText.hpp"

namespace halvo {
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
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

// Whether somebody could know a password that fits. "x" in the group file stands for the shadow; to
// none at all no program lets anybody in who is no member, newgrp(1).
bool isPassword(const std::string& field) {
    return !field.empty() && field != "x" && !field.starts_with('!') && !field.starts_with('*');
}

// Gives `use` each entry of the file at `path`, as `next` (fgetgrent(3) and its like) reads them.
// The errno of what failed, or 0.
template <class Next, class Use>
int forEachEntry(const std::string& path, Next next, Use use) {
    const LineFile file = openLines(path);
    if (file == nullptr) {
        return errno;
    }
    while (const auto* entry = next(file.get())) {
        use(*entry);
    }
    // Nothing is also what these give when they fail.
    return std::feof(file.get()) != 0 ? 0 : errno;
}

// Each gives the errno of what failed, or 0.

int readEntries(const std::string& path, GroupFacts& facts) {
    return forEachEntry(path, fgetgrent, [&](const group& entry) {
        if (entry.gr_gid != facts.gid) {
            return;
        }
        if (!facts.name) {
            facts.name = entry.gr_name;
            facts.password = entry.gr_passwd == nullptr ? "" : entry.gr_passwd;
        }
        append(facts.members, entry.gr_mem);
    });
}

int readShadow(const std::string& path, GroupFacts& facts) {
    return forEachEntry(path, fgetsgent, [&](const sgrp& shadow) {
        if (facts.name && *facts.name == shadow.sg_namp) {
            facts.shadowPassword = shadow.sg_passwd == nullptr ? "" : shadow.sg_passwd;
            append(facts.members, shadow.sg_mem);
            append(facts.administrators, shadow.sg_adm);
        }
    });
}

int readOwners(const std::string& path, GroupFacts& facts) {
    return forEachEntry(path, fgetpwent, [&](const passwd& entry) {
        if (entry.pw_gid == facts.gid) {
            facts.owners.emplace_back(entry.pw_name);
        }
    });
}

std::unexpected<std::string> failure(const std::string& path, int code) {
    return std::unexpected(path + ": " + errorText(code));
}

constexpr std::array<const char*, 3> files{"/group", "/gshadow", "/passwd"};

}  // namespace

std::expected<GroupFacts, std::string> readGroup(gid_t gid, const std::string& folder) {
    GroupFacts facts;
    facts.gid = gid;
    std::string path = folder + files[0];
    if (const int code = readEntries(path, facts); code != 0) {
        return failure(path, code);
    }
    facts.hasShadow = geteuid() == 0;
    path = folder + files[1];
    if (const int code = facts.hasShadow ? readShadow(path, facts) : 0;
        code != 0 && code != ENOENT) {
        return failure(path, code);
    }
    path = folder + files[2];
    if (const int code = readOwners(path, facts); code != 0) {
        return failure(path, code);
    }
    return facts;
}

std::optional<GroupFlaw> flawOf(const GroupFacts& facts) {
    using Kind = GroupFlaw::Kind;
    const std::string number = "the group " + std::to_string(facts.gid);
    if (facts.gid == 0) {
        return GroupFlaw{Kind::roots, number + " is root's"};
    }
    if (!facts.name) {
        return GroupFlaw{Kind::unknown, number + " has no name"};
    }
    const std::string group = "the group " + *facts.name;
    if (!facts.members.empty()) {
        return GroupFlaw{Kind::members, group + " has members: " + listed(facts.members)};
    }
    if (!facts.owners.empty()) {
        return GroupFlaw{Kind::owners, group + " is the own group of " + listed(facts.owners)};
    }
    if (!facts.administrators.empty()) {
        return GroupFlaw{Kind::administrators,
                         group + " has administrators: " + listed(facts.administrators)};
    }
    if (isPassword(facts.password) || isPassword(facts.shadowPassword)) {
        return GroupFlaw{Kind::password, group + " has a password"};
    }
    return std::nullopt;
}

std::optional<std::string> PrivateGroups::problem(gid_t gid) {
    const Stamps stamps = stampsNow();
    if (gid_ == gid && stamps_ == stamps) {
        return problem_;
    }
    gid_.reset();
    const auto facts = readGroup(gid, folder_);
    if (!facts) {
        return "it cannot be told whose the group " + std::to_string(gid) + " is: " + facts.error();
    }
    const auto flaw = flawOf(*facts);
    problem_ = flaw ? std::optional(flaw->finding) : std::nullopt;
    if (std::ranges::all_of(stamps,
                            [](const auto& stamp) { return !stamp || stamp->isSettled(); })) {
        gid_ = gid;
        stamps_ = stamps;
    }
    return problem_;
}

PrivateGroups::Stamps PrivateGroups::stampsNow() const {
    Stamps stamps;
    std::ranges::transform(files, stamps.begin(), [this](const char* file) {
        return FileStamp::of((folder_ + file).c_str());
    });
    return stamps;
}

}  // namespace halvo
