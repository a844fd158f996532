// Loading any bytes as the state file does not crash, and a loaded commitment survives a round
// trip.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <variant>

#include "HalvoHelperCore/FileCommitmentStore.hpp"

namespace {

// On a tmpfs if there is one: the fuzzer writes the file a thousand times a second.
std::string makeFolder() {
    const bool inMemory = std::filesystem::is_directory("/dev/shm");
    std::string name = inMemory ? "/dev/shm/halvo-fuzz-XXXXXX" : "/tmp/halvo-fuzz-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        std::abort();
    }
    static std::string made;
    made = name;
    std::atexit([] { std::filesystem::remove_all(made); });
    return name;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string folder = makeFolder();
    std::ofstream(folder + "/commitment.json", std::ios::binary)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    halvo::FileCommitmentStore store(folder);
    const halvo::StoredCommitment loaded = store.load();
    if (std::holds_alternative<halvo::NoCommitment>(loaded)) {
        std::abort();  // the file exists
    }
    if (const auto* commitment = std::get_if<halvo::HelperCommitment>(&loaded)) {
        store.save(*commitment);
        if (store.load() != loaded) {
            std::abort();
        }
    }
    return 0;
}
