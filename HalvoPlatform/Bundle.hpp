// App bundles and property lists.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace halvo {

// The strings at the top level of an Info.plist; members of other types are left out.
using InfoDictionary = std::map<std::string, std::string>;

// The string under `key` in the Info.plist `info`, if there are both.
std::optional<std::string> infoString(const std::optional<InfoDictionary>& info,
                                      const std::string& key);

// A folder with an Info.plist and an executable. A value, which reads the disk in info() and
// executablePath() only. An Info.plist that is longer than 128 KiB, damaged, or no dictionary at
// its top level counts as missing. On macOS the system reads it instead (-[NSBundle
// infoDictionary]): of any length, once for each bundle and process; a bundle that exists has
// members even without an Info.plist, the system's own. There an Info.plist that is embedded in
// this program
// (__TEXT,__info_plist) overrides that of its bundle. Any thread.
class Bundle {
  public:
    // The bundle at `path`, which need not exist.
    explicit Bundle(std::string path);

    // The bundle of this process, as ofProcess() finds it; on macOS the main bundle.
    static Bundle main();

    // The bundle folder of `executable`: X for X/Contents/MacOS/NAME; nothing for any other path.
    static std::optional<std::string> folderOf(const std::string& executable);

    // The bundle of a process that runs the program at the absolute path `executable`: folderOf();
    // for any other program its own folder, with the Info.plist beside the program. "" stands for
    // an unknown program.
    static Bundle ofProcess(const std::string& executable);

    // The bundle's folder. It has no slash at its end unless the bundle was made with one or is the
    // root folder.
    [[nodiscard]] const std::string& path() const { return path_; }

    // The Info.plist's path: "Contents/Info.plist" in the bundle, or "Info.plist" in the folder of
    // a program that lies in no bundle.
    [[nodiscard]] const std::string& infoPath() const { return infoPath_; }

    // The Info.plist's members; nothing when it is missing or cannot be read.
    [[nodiscard]] std::optional<InfoDictionary> info() const;

    // The path of the executable: for main() the process's own, for ofProcess() the one given, else
    // the file in "Contents/MacOS" that "CFBundleExecutable" names. Nothing when there is none.
    [[nodiscard]] std::optional<std::string> executablePath() const;

  private:
    Bundle(std::string path, std::string infoPath, std::string executable);

    std::string path_;
    std::string infoPath_;
    std::optional<std::string> ownExecutable_;
};

}  // namespace halvo
