#include <iconv.h>

#include <optional>

#include "../FakeFoundation.hpp"
#include "../ObjectiveC/Runtime.hpp"
#include "../Parts.hpp"

namespace {

// Converts `bytes` with iconv(3); nothing when they are not well-formed.
std::optional<std::string> converted(std::string bytes, const char* from, const char* to) {
    // All conversions here need at most twice the size.
    std::string result(2 * bytes.size(), '\0');
    char* input = bytes.data();
    char* output = result.data();
    std::size_t left = bytes.size();
    std::size_t room = result.size();
    const iconv_t converter = iconv_open(to, from);
    const bool isWhole = iconv(converter, &input, &left, &output, &room) == 0;
    iconv_close(converter);
    result.resize(result.size() - room);
    return isWhole ? std::optional(result) : std::nullopt;
}

}  // namespace

// A string created at run time.
@interface FakeString : NSString {
  @public
    // UTF-16, not necessarily well-formed.
    std::string _units;
}
@end

@implementation FakeString
@end

// A literal, as the compiler emits it: the class, flags, the text and its length in characters.
@interface FakeConstantString : NSString {
  @public
    int _flags;
    const char* _text;
    long _length;
}
@end

@implementation FakeConstantString
@end

// The name by which the compiler refers to the class of literals.
__asm__(R"(
.globl __CFConstantStringClassReference
.set __CFConstantStringClassReference, "OBJC_CLASS_$_FakeConstantString"
)");

namespace {

// The text in UTF-16.
std::string unitsOf(NSString* text) {
    if ([text isKindOfClass:[FakeString class]]) {
        return static_cast<FakeString*>(text)->_units;
    }
    // The flag of a UTF-16 literal; other literals are ASCII.
    constexpr int isUTF16 = 0x10;
    const auto* literal = static_cast<FakeConstantString*>(text);
    const auto length = static_cast<std::size_t>(literal->_length);
    if ((literal->_flags & isUTF16) != 0) {
        return {literal->_text, 2 * length};
    }
    return converted({literal->_text, length}, "ASCII", "UTF-16LE").value_or("");
}

NSString* stringOfUnits(const std::string& units) {
    FakeString* string = [[FakeString alloc] init];
    string->_units = units;
    return string;
}

}  // namespace

@implementation NSString

- (instancetype)initWithBytes:(const void*)bytes
                       length:(NSUInteger)length
                     encoding:(NSStringEncoding)encoding {
    return fake::stringOf(std::string(static_cast<const char*>(bytes), length));
}

- (NSUInteger)length {
    return unitsOf(self).size() / 2;
}

- (NSData*)dataUsingEncoding:(NSStringEncoding)encoding {
    const auto bytes = converted(unitsOf(self), "UTF-16LE", "UTF-8");
    return bytes ? fake::dataOf(*bytes) : nil;
}

- (BOOL)isEqualToString:(NSString*)other {
    return unitsOf(self) == unitsOf(other);
}

- (BOOL)isEqual:(id)other {
    return [other isKindOfClass:[NSString class]] && [self isEqualToString:other];
}

@end

namespace fake {

std::string textOf(NSString* text) {
    @autoreleasepool {
        NSData* bytes = [text dataUsingEncoding:NSUTF8StringEncoding];
        if (text != nil && bytes == nil) {
            refuse("a string without a UTF-8 encoding");
        }
        return {static_cast<const char*>(bytes.bytes), bytes.length};
    }
}

NSString* stringOf(const std::string& text) {
    const auto units = converted(text, "UTF-8", "UTF-16LE");
    return units ? stringOfUnits(*units) : nil;
}

NSString* loneSurrogate() { return stringOfUnits(std::string("\x00\xD8", 2)); }

void refuse(const std::string& what) { objc::fail("Foundation refuses %s", what.c_str()); }

}  // namespace fake
