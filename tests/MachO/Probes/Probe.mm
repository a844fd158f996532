// A minimal program that uses each framework. Each definition but HALVO_ProbeSound puts one fault
// into it, or into its build.
#import <Foundation/Foundation.h>
#import <SystemConfiguration/SystemConfiguration.h>
#include <os/log.h>

#ifdef HALVO_ProbeWrongArgument
using UserID = int;
#else
using UserID = uid_t;
#endif

int main() {
    @autoreleasepool {
        UserID user = 0;
        NSString* name = CFBridgingRelease(SCDynamicStoreCopyConsoleUser(nullptr, &user, nullptr));
#ifdef HALVO_ProbeWrongSelector
        NSString* path = [NSBundle.mainBundle executablePathOf:name];
#else
        NSString* path = NSBundle.mainBundle.executablePath;
#endif
        return name.length == path.length ? 0 : 1;
    }
}
