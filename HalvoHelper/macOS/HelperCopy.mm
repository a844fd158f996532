#include "HalvoHelper/macOS/HelperCopy.hpp"

#import <Foundation/Foundation.h>
#import <Security/Security.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <tuple>

#include "HalvoHelper/RootOwnedPath.hpp"
#include "HalvoPlatform/ErrorText.hpp"
#include "HalvoPlatform/Files.hpp"
#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace halvo {
namespace {

std::string signatureText(OSStatus status) {
    NSString* text = CFBridgingRelease(SecCopyErrorMessageString(status, nullptr));
    return textOf(text).value_or("code signing error " + std::to_string(status));
}

}  // namespace

std::expected<void, std::string> checkCodeSignature(const std::string& path,
                                                    const std::string& requirement) {
    @autoreleasepool {
        NSURL* place = [NSURL fileURLWithPath:knownFoundationText(path)];
        SecStaticCodeRef code = nullptr;
        OSStatus status =
            SecStaticCodeCreateWithPath((__bridge CFURLRef)place, kSecCSDefaultFlags, &code);
        const id ownedCode = CFBridgingRelease(code);
        SecRequirementRef demand = nullptr;
        // Without a requirement any signature would be valid.
        if (status == errSecSuccess) {
            status = SecRequirementCreateWithString(
                (__bridge CFStringRef)knownFoundationText(requirement), kSecCSDefaultFlags,
                &demand);
        }
        const id ownedDemand = CFBridgingRelease(demand);
        // By default only the architecture of this process is checked, and not the whole file.
        constexpr SecCSFlags whole = SecCSFlags{kSecCSStrictValidate} |
                                     SecCSFlags{kSecCSCheckAllArchitectures} |
                                     SecCSFlags{kSecCSNoNetworkAccess};
        if (status == errSecSuccess) {
            status = SecStaticCodeCheckValidity((__bridge SecStaticCodeRef)ownedCode, whole,
                                                (__bridge SecRequirementRef)ownedDemand);
        }
        return status == errSecSuccess ? std::expected<void, std::string>()
                                       : std::unexpected(path + ": " + signatureText(status));
    }
}

namespace HelperCopy {
namespace {

// Several times what it takes, for both architectures.
constexpr std::size_t longestExecutable = 16777216;

// Removes the folder when the process ends, which has one identity only.
void removeAtExit(const std::string& folder) {
    static const std::string& place = *new std::string(folder);
    [[maybe_unused]] static const int once = std::atexit([] { std::ignore = removeItem(place); });
}

}  // namespace

std::string folder(const HelperIdentity& identity) { return identity.stateFolder() + ".copy"; }

std::expected<std::string, std::string> make(const std::string& executable,
                                             const HelperIdentity& identity) {
    const std::string place = folder(identity);
    const auto bytes = readFile(executable, longestExecutable);
    if (!bytes) {
        return std::unexpected(bytes.error().message);
    }
    removeAtExit(place);
    if (const auto made = createFolder(place, 0700); !made) {
        return std::unexpected(made.error().message);
    }
    if (auto problem = RootOwnedPath::problem(place, RootOwnedPath::Item::folder)) {
        return std::unexpected(*std::move(problem));
    }
    // A new file each time: the kernel caches the signature of a vnode, and kills a process whose
    // executable was overwritten.
    if (const auto written = replaceFile(place, "HalvoHelper.unchecked", *bytes, 0700); !written) {
        return std::unexpected(written.error().message);
    }
    const std::string unchecked = place + "/HalvoHelper.unchecked";
    if (const auto checked = checkCodeSignature(unchecked, identity.helperRequirement());
        !checked) {
        std::ignore = removeItem(place);
        return std::unexpected(checked.error());
    }
    // Only now: the process of the last opening may not have called execve(2) yet.
    std::string copy = place + "/HalvoHelper";
    if (std::rename(unchecked.c_str(), copy.c_str()) != 0) {
        return std::unexpected(copy + ": " + errorText(errno));
    }
    return copy;
}

// A copy that cannot be removed is in a folder of root's, and replaced by the next one.
void remove(const HelperIdentity& identity) { std::ignore = removeItem(folder(identity)); }

}  // namespace HelperCopy
}  // namespace halvo
