// Between the stand-ins: Foundation's text as C++'s, and what reset() undoes.
#pragma once

#include <string>

#ifdef __OBJC__
#import <Foundation/Foundation.h>

namespace fake {

// In UTF-8; ends the process when it has none. Empty for nil.
std::string textOf(NSString* text);

// Nil when it is not UTF-8.
NSString* stringOf(const std::string& text);

NSData* dataOf(const std::string& bytes);

NSError* errorOf(const std::string& description);

// The dictionary in a property list of any form; nil when there is none. Strings become NSString,
// everything else plain objects.
NSDictionary<NSString*, id>* dictionaryOf(const std::string& propertyList);

// Ends the process: what Foundation does is throw an exception that nobody catches.
[[noreturn]] void refuse(const std::string& what);

}  // namespace fake
#endif

namespace fake {

void resetXPC();
void resetMainBundle();

}  // namespace fake
