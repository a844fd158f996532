// Text between Foundation and the rest. For Objective-C++ sources only.
#pragma once

#import <Foundation/Foundation.h>

#include <optional>
#include <string>

namespace halvo {

// `text` in UTF-8, zero bytes included; nothing for nil and for a text that UTF-8 cannot hold (half
// of a surrogate pair). Any thread.
std::optional<std::string> textOf(NSString* _Nullable text);

// `text` for Foundation; nil when it is not UTF-8. Any thread.
NSString* _Nullable foundationText(const std::string& text);

// The same for a text that our own code has made, or has taken from Foundation before: anything but
// UTF-8 is fatal. Any thread.
NSString* _Nonnull knownFoundationText(const std::string& text);

}  // namespace halvo
