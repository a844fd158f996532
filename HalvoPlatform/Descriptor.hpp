// Ownership of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace halvo {

// Owns at most one descriptor and closes it when destroyed. Movable, not copyable. One thread at a
// time.
class Descriptor {
  public:
    Descriptor() = default;

    // Takes ownership of `number`; a negative one, as failed calls return it, means none.
    explicit Descriptor(int number) : number_(number) {}

    Descriptor(Descriptor&& other) noexcept : number_(other.release()) {}

    Descriptor& operator=(Descriptor other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }

    Descriptor(const Descriptor&) = delete;

    ~Descriptor() {
        if (number_ >= 0) {
            close(number_);
        }
    }

    [[nodiscard]] bool isOpen() const { return number_ >= 0; }

    [[nodiscard]] int get() const { return number_; }

    // Releases ownership of the descriptor, and returns it.
    [[nodiscard]] int release() { return std::exchange(number_, -1); }

  private:
    int number_ = -1;
};

}  // namespace halvo
