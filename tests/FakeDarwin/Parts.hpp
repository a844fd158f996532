// Internal to the fakes: threads, parts of reset(), and conversion of Foundation's values.
#pragma once

#include <functional>
#include <string>

namespace fake {

// Runs `work` on a new thread with an autorelease pool, waits for its end, and rethrows its
// exception.
void runElsewhere(const std::function<void()>& work);

void resetDispatch();
void resetXPC();
void resetMainBundle();

}  // namespace fake

#ifdef __OBJC__
#import <Foundation/Foundation.h>

namespace fake {

// In UTF-8; aborts when it cannot be encoded. Empty for nil.
std::string textOf(NSString* text);

// Nil when it is not UTF-8.
NSString* stringOf(const std::string& text);

NSData* dataOf(const std::string& bytes);

NSError* errorOf(const std::string& description);

// Aborts, where Foundation throws an exception that is not caught.
[[noreturn]] void refuse(const std::string& what);

}  // namespace fake
#endif
