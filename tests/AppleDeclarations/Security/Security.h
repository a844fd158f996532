// The part of Security that the macOS layer uses, declared from Apple's public documentation.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <stdint.h>

typedef const struct __attribute__((objc_bridge(id))) __SecCode* SecStaticCodeRef;
typedef struct __attribute__((objc_bridge(id))) __SecRequirement* SecRequirementRef;

typedef uint32_t SecCSFlags;

enum : SecCSFlags {
    kSecCSDefaultFlags = 0,
    kSecCSCheckAllArchitectures = 1U << 0,
    kSecCSStrictValidate = 1U << 4,
    kSecCSNoNetworkAccess = 1U << 29,
};

enum : OSStatus {
    errSecSuccess = 0,
    errSecCSStaticCodeNotFound = -67068,
    errSecCSUnsigned = -67062,
    errSecCSReqInvalid = -67052,
    errSecCSReqFailed = -67050,
};

extern "C" {

OSStatus SecStaticCodeCreateWithPath(CFURLRef _Nonnull path, SecCSFlags flags,
                                     SecStaticCodeRef _Nullable* _Nonnull CF_RETURNS_RETAINED code);
OSStatus SecStaticCodeCheckValidity(SecStaticCodeRef _Nonnull code, SecCSFlags flags,
                                    SecRequirementRef _Nullable requirement);
OSStatus SecRequirementCreateWithString(
    CFStringRef _Nonnull text, SecCSFlags flags,
    SecRequirementRef _Nullable* _Nonnull CF_RETURNS_RETAINED requirement);
CFStringRef _Nullable SecCopyErrorMessageString(OSStatus status,
                                                void* _Nullable reserved) CF_RETURNS_RETAINED;
}
