// Between the stand-ins: threads, what reset() undoes, and Foundation's text as C++'s.
#pragma once

#include <functional>
#include <string>

namespace fake {

// Runs `work` on a new thread, under an autorelease pool that lasts as long as the thread, and
// waits for it. What it throws is thrown on.
void runElsewhere(const std::function<void()>& work);

void resetDispatch();
void resetXPC();
void resetMainBundle();

}  // namespace fake

#ifdef __OBJC__
#import <Foundation/Foundation.h>

namespace fake {

// In UTF-8; ends the process when it has none. Empty for nil.
std::string textOf(NSString* text);

// Nil when it is not UTF-8.
NSString* stringOf(const std::string& text);

NSData* dataOf(const std::string& bytes);

NSError* errorOf(const std::string& description);

// Ends the process: what Foundation does is throw an exception that nothing catches.
[[noreturn]] void refuse(const std::string& what);

}  // namespace fake
#endif
