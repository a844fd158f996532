// Test access to the fake Foundation. For Objective-C++ sources only.
#pragma once

#import <Foundation/Foundation.h>

namespace fake {

// A string of one unpaired surrogate, which has no UTF-8 encoding.
NSString* loneSurrogate();

// Sets the main bundle's -infoDictionary, in place of World::mainInfo.
void setMainInfo(NSDictionary<NSString*, id>* info);

}  // namespace fake
