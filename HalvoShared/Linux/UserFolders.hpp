// Where the apps of a user keep their data, by the XDG Base Directory rules.
#pragma once

#include <optional>
#include <string>

namespace halvo {

// What the system says of where a user's things lie. A value that is absent was not said.
struct UserPlaces {
    // $XDG_DATA_HOME.
    std::optional<std::string> dataHome;
    // $HOME.
    std::optional<std::string> home;
    // The home folder of the account (getpwuid_r(3)).
    std::optional<std::string> accountHome;

    bool operator==(const UserPlaces&) const = default;

    // Those of this process: of its environment as it is now, and of the account that it runs as
    // (getuid(2)). The account is only asked for when the environment does not tell where. Any
    // thread, as long as none changes the environment (getenv(3)).
    static UserPlaces current();
};

// The folder where the user's apps keep their data: `dataHome`, else ".local/share" in `home`, else
// in `accountHome`, else in the root folder, of which only an absolute path counts. Nothing is
// looked up or made.
std::string userDataFolder(const UserPlaces& places);

// The folder of the group `identifier` in `dataFolder`. "Halvo-NoGroup" in there without a group,
// or when the identifier is no plain name of one folder: empty, ".", "..", or with a "/" or a zero
// byte. Nothing is looked up or made.
std::string groupFolder(const std::string& dataFolder,
                        const std::optional<std::string>& identifier);

}  // namespace halvo
