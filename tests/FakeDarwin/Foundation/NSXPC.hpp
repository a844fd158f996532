// What the tests' end of NSXPC knows of the stand-ins. For Objective-C++ sources only.
#pragma once

#import <Foundation/Foundation.h>

#include <string>
#include <vector>

#include "../FakeXPC.hpp"

@interface NSXPCListener (Fake)
+ (nullable NSXPCListener*)fakeListenerNamed:(const std::string&)service;
- (const fake::ListenerState&)fakeState;
@end

@interface NSXPCConnection (Fake)
- (nonnull instancetype)initFakePeer:(pid_t)pid user:(uid_t)uid;
- (const std::vector<std::string>&)fakeSteps;
- (BOOL)fakeIsResumed;
// Calls the handler, and lets go of everything.
- (void)fakeInvalidate;
@end
