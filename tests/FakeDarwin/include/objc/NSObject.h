// The basic types of Objective-C as in Apple's headers for x86_64, and the root class as far as the
// fakes implement it.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

typedef signed char BOOL;
#define YES ((BOOL)1)
#define NO ((BOOL)0)

typedef unsigned long NSUInteger;

typedef struct objc_class* Class;

struct objc_object {
    Class isa;
};

typedef struct objc_object* id;
typedef struct objc_selector* SEL;

#ifndef nil
#define nil nullptr
#endif

@class Protocol;

@protocol NSObject
- (BOOL)isEqual:(id)other;
- (BOOL)isKindOfClass:(Class)wanted;
- (BOOL)conformsToProtocol:(Protocol*)protocol;
@end

__attribute__((objc_root_class))
@interface NSObject<NSObject> {
    Class isa;
}
+ (instancetype)alloc;
+ (instancetype)new;
+ (Class)class;
- (instancetype)init __attribute__((objc_designated_initializer));
- (void)dealloc;
- (id)copy;
@end
