// Security and SystemConfiguration: code signatures, and the console user. A file is signed when
// World::signedFiles has its contents, which are read at the check and not before.
#import <Foundation/Foundation.h>
#import <Security/Security.h>
#import <SystemConfiguration/SystemConfiguration.h>

#include <fstream>
#include <iterator>

#include "../FakeDarwin.hpp"
#include "../Parts.hpp"

namespace {

// Security's objects are strings here: the path of the code, or the text of the requirement.
std::string handedOut(const void* object) { return fake::textOf((__bridge NSString*)object); }

}  // namespace

extern "C" {

OSStatus SecStaticCodeCreateWithPath(CFURLRef path, SecCSFlags, SecStaticCodeRef* code) {
    const std::string file = fake::textOf(((__bridge NSURL*)path).path);
    if (!std::ifstream(file)) {
        return errSecCSStaticCodeNotFound;
    }
    *code = (__bridge_retained SecStaticCodeRef)fake::stringOf(file);
    return errSecSuccess;
}

OSStatus SecRequirementCreateWithString(CFStringRef text, SecCSFlags,
                                        SecRequirementRef* requirement) {
    const std::string words = fake::textOf((__bridge NSString*)text);
    if (!words.starts_with("anchor apple generic and identifier ")) {
        return errSecCSReqInvalid;
    }
    *requirement = (__bridge_retained SecRequirementRef)fake::stringOf(words);
    return errSecSuccess;
}

// Without a requirement any valid signature suffices.
OSStatus SecStaticCodeCheckValidity(SecStaticCodeRef code, SecCSFlags flags,
                                    SecRequirementRef requirement) {
    fake::World& world = fake::world();
    const std::string path = handedOut(code);
    world.signatureChecks.push_back({path, flags});
    if (world.onSignatureCheck) {
        world.onSignatureCheck();
    }
    std::ifstream file(path, std::ios::binary);
    const auto found = world.signedFiles.find({std::istreambuf_iterator<char>(file), {}});
    if (found == world.signedFiles.end()) {
        return errSecCSUnsigned;
    }
    const bool isMet = requirement == nullptr || handedOut(requirement) == found->second;
    return isMet ? errSecSuccess : errSecCSReqFailed;
}

CFStringRef SecCopyErrorMessageString(OSStatus status, void*) {
    if (!fake::world().errorsHaveTexts) {
        return nullptr;
    }
    return (__bridge_retained CFStringRef)fake::stringOf(
        status == errSecCSUnsigned    ? "code object is not signed at all"
        : status == errSecCSReqFailed ? "code failed to satisfy specified code requirement(s)"
                                      : "code signing error " + std::to_string(status));
}

CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef, uid_t* uid, gid_t*) {
    if (!fake::world().consoleUser) {
        return nullptr;
    }
    *uid = fake::world().consoleUID;
    return (__bridge_retained CFStringRef)fake::stringOf(*fake::world().consoleUser);
}
}
