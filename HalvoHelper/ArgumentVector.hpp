// Strings as execve(2) takes them.
#pragma once

#include <string>
#include <vector>

namespace halvo {

// A null-terminated array of pointers to copies of `strings`. Valid as long as the object lives.
class ArgumentVector {
  public:
    explicit ArgumentVector(std::vector<std::string> strings) : strings_(std::move(strings)) {
        for (std::string& string : strings_) {
            pointers_.push_back(string.data());
        }
        pointers_.push_back(nullptr);
    }

    ArgumentVector(const ArgumentVector&) = delete;
    ArgumentVector& operator=(const ArgumentVector&) = delete;

    [[nodiscard]] char* const* data() const { return pointers_.data(); }

  private:
    std::vector<std::string> strings_;
    std::vector<char*> pointers_;
};

}  // namespace halvo
