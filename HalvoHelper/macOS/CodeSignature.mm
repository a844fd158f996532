#include "HalvoHelper/macOS/CodeSignature.hpp"

#import <Foundation/Foundation.h>
#import <Security/Security.h>

#include "HalvoPlatform/macOS/FoundationText.hpp"

namespace halvo {
namespace {

std::string errorText(OSStatus status) {
    NSString* text = CFBridgingRelease(SecCopyErrorMessageString(status, nullptr));
    return textOf(text).value_or("code signing error " + std::to_string(status));
}

OSStatus check(NSURL* place, NSString* requirement) {
    SecStaticCodeRef code = nullptr;
    if (const OSStatus status =
            SecStaticCodeCreateWithPath((__bridge CFURLRef)place, kSecCSDefaultFlags, &code);
        status != errSecSuccess) {
        return status;
    }
    const id ownedCode = CFBridgingRelease(code);
    SecRequirementRef demand = nullptr;
    // Without a requirement any signature would do.
    if (const OSStatus status = SecRequirementCreateWithString((__bridge CFStringRef)requirement,
                                                               kSecCSDefaultFlags, &demand);
        status != errSecSuccess) {
        return status;
    }
    const id ownedDemand = CFBridgingRelease(demand);
    // By default only the architecture of this process is looked at, and not all of the file.
    constexpr SecCSFlags whole = SecCSFlags{kSecCSStrictValidate} |
                                 SecCSFlags{kSecCSCheckAllArchitectures} |
                                 SecCSFlags{kSecCSNoNetworkAccess};
    return SecStaticCodeCheckValidity((__bridge SecStaticCodeRef)ownedCode, whole,
                                      (__bridge SecRequirementRef)ownedDemand);
}

}  // namespace

std::expected<void, std::string> checkCodeSignature(const std::string& path,
                                                    const std::string& requirement) {
    @autoreleasepool {
        const OSStatus status = check([NSURL fileURLWithPath:knownFoundationText(path)],
                                      knownFoundationText(requirement));
        if (status != errSecSuccess) {
            return std::unexpected(path + ": " + errorText(status));
        }
        return {};
    }
}

}  // namespace halvo
