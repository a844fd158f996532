// Who has the console.
#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>

#include "../FakeDarwin.hpp"
#include "../Foundation/Foundation.hpp"

extern "C" CFStringRef SCDynamicStoreCopyConsoleUser(SCDynamicStoreRef, uid_t* uid, gid_t* gid) {
    const fake::World& world = fake::world();
    if (!world.consoleUser) {
        return nullptr;
    }
    if (uid != nullptr) {
        *uid = world.consoleUID;
    }
    if (gid != nullptr) {
        constexpr gid_t staff = 20;
        *gid = staff;
    }
    return (__bridge_retained CFStringRef)fake::stringOf(*world.consoleUser);
}
