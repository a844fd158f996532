// App bundles on a real disk.
#pragma once

#include <sys/types.h>

#include <string>

namespace halvo::testing {

// A bundle made for a test, with the test app as its executable. Folders are 0755, files 0644, and
// the executable 0755, whatever the umask; all belong to whoever runs the tests.
class TestBundle {
  public:
    // At `path`, with the executable `name`. No Info.plist yet. The folders above must be there.
    explicit TestBundle(std::string path, std::string name = "Sample");

    // Writes an Info.plist that names the executable, and the identity as the caller rules read it.
    // Replaces one that is there, as installers do.
    void writeInfo(const std::string& identifier = "com.example.app",
                   const std::string& team = "7QX4KD19MT") const;

    // Makes the executable set-group-id to `group`.
    void install(gid_t group) const;

    [[nodiscard]] const std::string& path() const { return path_; }

    [[nodiscard]] std::string folder() const { return path_ + "/Contents/MacOS"; }

    [[nodiscard]] std::string executable() const { return folder() + "/" + name_; }

    [[nodiscard]] std::string info() const { return path_ + "/Contents/Info.plist"; }

  private:
    std::string path_;
    std::string name_;
};

// An Info.plist with these members.
std::string infoText(const std::string& executable, const std::string& identifier,
                     const std::string& team);

// Puts `bytes` in the place of the file at `path` by rename(2).
void replaceTestFile(const std::string& path, const std::string& bytes);

// Makes the file that is at `path` hold `bytes`, which stays the same file.
void overwriteTestFile(const std::string& path, const std::string& bytes);

// Copies the program at `from` into the folder of a file system of its own at `folder`, as a file
// that has the number `number` there. The path of the copy.
std::string copyProgramAsNumber(const std::string& from, const std::string& folder, ino_t number);

// Copies the program at `from` to `to`, with the permissions 0755.
void copyProgram(const std::string& from, const std::string& to);

}  // namespace halvo::testing
