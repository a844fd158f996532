// Text files that are read line by line, by the C library.
#pragma once

#include <fcntl.h>

#include <cstdio>
#include <memory>
#include <string>

#include "HalvoPlatform/Descriptor.hpp"

namespace halvo {

using LineFile = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

// The file at `path`, to be read; null with the errno of what failed.
inline LineFile openLines(const std::string& path) {
    Descriptor descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::FILE* file = descriptor.isOpen() ? fdopen(descriptor.get(), "r") : nullptr;
    if (file != nullptr) {
        static_cast<void>(descriptor.release());
    }
    return {file, &std::fclose};
}

}  // namespace halvo
