// Foundation in a test. For Objective-C++ sources only.
#pragma once

#import <Foundation/Foundation.h>

namespace fake {

// Half of a surrogate pair: one character of UTF-16 that UTF-8 cannot hold.
NSString* loneSurrogate();

// What the main bundle's -infoDictionary is from now on, in the place of World::mainInfo.
void setMainInfo(NSDictionary<NSString*, id>* info);

}  // namespace fake
