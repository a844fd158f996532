// Admission of connections over NSXPC. For Objective-C++ sources only.
#pragma once

#import <Foundation/Foundation.h>

#include "HalvoHelper/ConnectionAcceptor.hpp"

// The delegate of the listener: tells the acceptor who calls, and exports a HelperConnection to
// them. By then the system has turned away whoever does not meet the listener's code-signing
// requirement, so everybody who reaches this is admitted. Called on the listener's own queue.
@interface ConnectionAcceptor : NSObject <NSXPCListenerDelegate>

- (instancetype)init NS_UNAVAILABLE;

// Hands callers to `acceptor`, which must outlive every connection.
- (instancetype)initWithAcceptor:(halvo::ConnectionAcceptor&)acceptor NS_DESIGNATED_INITIALIZER;

@end
