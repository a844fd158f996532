// The smallest program that takes something from each framework. Each definition but
// HALVO_ProbeSound puts one fault in it, or into what it is built with.
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
