#include <cstdint>
#include <string_view>

#include "../FakeFoundation.hpp"
#include "../ObjectiveC/Runtime.hpp"
#include "Foundation.hpp"

namespace {

// Well-formed UTF-8 as Unicode's table 3-7 has it: no overlong form, no surrogate, nothing above
// U+10FFFF.
bool isUTF8(std::string_view text) {
    while (!text.empty()) {
        const auto byte = [&](std::size_t i) {
            return i < text.size() ? static_cast<unsigned char>(text[i]) : 0;
        };
        const int first = byte(0);
        const int second = byte(1);
        std::size_t size = 1;
        int low = 0x80;
        int high = 0xBF;
        if (first >= 0xC2 && first <= 0xDF) {
            size = 2;
        } else if (first >= 0xE0 && first <= 0xEF) {
            size = 3;
            low = first == 0xE0 ? 0xA0 : low;
            high = first == 0xED ? 0x9F : high;
        } else if (first >= 0xF0 && first <= 0xF4) {
            size = 4;
            low = first == 0xF0 ? 0x90 : low;
            high = first == 0xF4 ? 0x8F : high;
        } else if (first > 0x7F) {
            return false;
        }
        if (size > 1 && (second < low || second > high)) {
            return false;
        }
        for (std::size_t i = 2; i < size; ++i) {
            if (byte(i) < 0x80 || byte(i) > 0xBF) {
                return false;
            }
        }
        text.remove_prefix(size);
    }
    return true;
}

// In UTF-16: four bytes of UTF-8 are a surrogate pair.
NSUInteger unitsOf(std::string_view utf8) {
    NSUInteger units = 0;
    for (const char c : utf8) {
        const auto byte = static_cast<unsigned char>(c);
        units += (byte & 0xC0) == 0x80 ? 0 : byte >= 0xF0 ? 2 : 1;
    }
    return units;
}

std::string utf8Of(const std::uint16_t* units, std::size_t count) {
    std::string text;
    const auto continued = [&](std::uint32_t bits) {
        text += static_cast<char>(0x80 | (bits & 0x3F));
    };
    for (std::size_t i = 0; i < count; ++i) {
        std::uint32_t point = units[i];
        if (point >= 0xD800 && point < 0xDC00 && i + 1 < count) {
            point = 0x10000 + ((point - 0xD800) << 10) + (units[++i] - 0xDC00U);
        }
        if (point < 0x80) {
            text += static_cast<char>(point);
        } else if (point < 0x800) {
            text += static_cast<char>(0xC0 | (point >> 6));
            continued(point);
        } else if (point < 0x10000) {
            text += static_cast<char>(0xE0 | (point >> 12));
            continued(point >> 6);
            continued(point);
        } else {
            text += static_cast<char>(0xF0 | (point >> 18));
            continued(point >> 12);
            continued(point >> 6);
            continued(point);
        }
    }
    return text;
}

}  // namespace

// A text made at run time.
@interface FakeString : NSString
- (instancetype)initWithText:(std::string)text;
@end

// A literal. The compiler lays these out: behind the class, what kind of text it is, the text and
// its length in characters.
@interface FakeConstantString : NSString {
    int _flags;
    const void* _text;
    long _length;
}
@end

@interface FakeLoneSurrogate : NSString
@end

@implementation NSString

- (instancetype)initWithBytes:(const void*)bytes
                       length:(NSUInteger)length
                     encoding:(NSStringEncoding)encoding {
    if (encoding != NSUTF8StringEncoding) {
        fake::refuse("a text in another encoding than UTF-8");
    }
    return fake::stringOf(std::string(static_cast<const char*>(bytes), length));
}

- (NSUInteger)length {
    return unitsOf(fake::textOf(self));
}

- (NSData*)dataUsingEncoding:(NSStringEncoding)encoding {
    fake::refuse("a string that is only a string");
}

- (BOOL)isEqualToString:(NSString*)other {
    NSData* mine = [self dataUsingEncoding:NSUTF8StringEncoding];
    NSData* theirs = [other dataUsingEncoding:NSUTF8StringEncoding];
    if (mine == nil || theirs == nil) {
        return self == other;
    }
    return fake::textOf(self) == fake::textOf(other);
}

- (BOOL)isEqual:(id)other {
    return [other isKindOfClass:[NSString class]] && [self isEqualToString:other];
}

- (NSUInteger)hash {
    return std::hash<std::string>()(fake::textOf(self));
}

- (id)copyWithZone:(struct _NSZone*)zone {
    return self;
}

@end

@implementation FakeString {
    std::string _text;
}

- (instancetype)initWithText:(std::string)text {
    self = [super init];
    if (self != nil) {
        _text = std::move(text);
    }
    return self;
}

- (NSData*)dataUsingEncoding:(NSStringEncoding)encoding {
    return fake::dataOf(_text);
}

@end

@implementation FakeConstantString

- (NSData*)dataUsingEncoding:(NSStringEncoding)encoding {
    // Which of two representations the compiler chose.
    constexpr int isUTF16 = 0x10;
    const auto length = static_cast<std::size_t>(_length);
    return fake::dataOf((_flags & isUTF16) != 0
                            ? utf8Of(static_cast<const std::uint16_t*>(_text), length)
                            : std::string(static_cast<const char*>(_text), length));
}

@end

@implementation FakeLoneSurrogate

- (NSUInteger)length {
    return 1;
}

- (NSUInteger)hash {
    return 0;
}

- (NSData*)dataUsingEncoding:(NSStringEncoding)encoding {
    return nil;
}

@end

// The class of literals, as the compiler names it.
__asm__(R"(
.globl __CFConstantStringClassReference
.set __CFConstantStringClassReference, "OBJC_CLASS_$_FakeConstantString"
)");

namespace fake {

std::string textOf(NSString* text) {
    @autoreleasepool {
        NSData* bytes = [text dataUsingEncoding:NSUTF8StringEncoding];
        if (text != nil && bytes == nil) {
            refuse("a text that has no UTF-8");
        }
        return text == nil ? std::string()
                           : std::string(static_cast<const char*>(bytes.bytes), bytes.length);
    }
}

NSString* stringOf(const std::string& text) {
    return isUTF8(text) ? [[FakeString alloc] initWithText:text] : nil;
}

NSString* loneSurrogate() { return [[FakeLoneSurrogate alloc] init]; }

void refuse(const std::string& what) { objc::fail("Foundation refuses %s", what.c_str()); }

}  // namespace fake
