#include "HalvoPlatform/Bundle.hpp"

#include <plist/plist.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <utility>

#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/Linux/InfoFile.hpp"
#include "HalvoPlatform/Paths.hpp"

namespace halvo {
namespace {

// libplist recurses for nested members: within this limit they cannot exhaust the stack.
constexpr std::size_t infoLimit = std::size_t{1} << 17U;

// `bytes` are at most infoLimit.
std::optional<InfoDictionary> parsePropertyList(const std::string& bytes) {
    plist_t raw = nullptr;
    const auto length = static_cast<std::uint32_t>(bytes.size());
    // Not plist_from_memory(): in libplist 2.6 it reads other formats too, and has another type.
    const auto parse =
        plist_is_binary(bytes.data(), length) != 0 ? &plist_from_bin : &plist_from_xml;
    parse(bytes.data(), length, &raw);
    const std::unique_ptr<void, decltype(&plist_free)> root(raw, &plist_free);
    if (root == nullptr || plist_get_node_type(root.get()) != PLIST_DICT) {
        return std::nullopt;
    }
    InfoDictionary info;
    plist_dict_iter rawPosition = nullptr;
    plist_dict_new_iter(root.get(), &rawPosition);
    const std::unique_ptr<void, decltype(&std::free)> position(rawPosition, &std::free);
    while (true) {
        char* rawKey = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(root.get(), position.get(), &rawKey, &value);
        const std::unique_ptr<char, decltype(&std::free)> key(rawKey, &std::free);
        if (key == nullptr || value == nullptr) {
            return info;
        }
        // Null for a node of another type.
        if (const char* text = plist_get_string_ptr(value, nullptr)) {
            info.insert_or_assign(key.get(), text);
        }
    }
}

}  // namespace

std::expected<std::optional<InfoDictionary>, FileError> readInfoFile(const std::string& path) {
    const auto bytes = readFile(path, infoLimit);
    if (!bytes) {
        return std::unexpected(bytes.error());
    }
    return parsePropertyList(*bytes);
}

Bundle Bundle::main() { return ofProcess(linkTarget("/proc/self/exe").value_or("")); }

std::optional<InfoDictionary> Bundle::info() const {
    return readInfoFile(infoPath_).value_or(std::nullopt);
}

std::optional<std::string> Bundle::executablePath() const {
    if (ownExecutable_) {
        return ownExecutable_->empty() ? std::nullopt : ownExecutable_;
    }
    const auto name = infoString(info(), "CFBundleExecutable");
    // A name with a slash would lead out of the folder.
    if (!name || name->empty() || name->contains('/')) {
        return std::nullopt;
    }
    std::string path = path_ + "/Contents/MacOS/" + *name;
    return itemExists(path) ? std::optional(std::move(path)) : std::nullopt;
}

}  // namespace halvo
