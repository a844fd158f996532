// One connection of the app over NSXPC. For Objective-C++ sources only.
#pragma once

#import <Foundation/Foundation.h>

#include <memory>

#include "HalvoHelper/HelperConnection.hpp"
#include "HalvoHelperCore/macOS/HalvoHelperXPC.h"

// The object that a connection exports. It converts what NSXPC brings and hands it on; replies go
// back from the main queue. Its methods are called on the connection's own queue.
@interface HelperConnection : NSObject <HalvoHelperXPC>

- (instancetype)init NS_UNAVAILABLE;

// Serves requests with `requests`.
- (instancetype)initWithRequests:(std::unique_ptr<halvo::HelperConnection>)requests
    NS_DESIGNATED_INITIALIZER;

@end
