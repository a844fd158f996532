// The basic types of Objective-C, as Apple's header of this name declares them for x86_64.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

typedef signed char BOOL;
#define YES ((BOOL)1)
#define NO ((BOOL)0)

typedef long NSInteger;
typedef unsigned long NSUInteger;

#if __has_feature(objc_arc)
#define OBJC_ARC_UNAVAILABLE __attribute__((unavailable("not available under ARC")))
#else
#define OBJC_ARC_UNAVAILABLE
#endif

typedef struct objc_class* Class;

struct objc_object {
    Class isa;
};

typedef struct objc_object* id;
typedef struct objc_selector* SEL;

#ifndef nil
#define nil nullptr
#define Nil nullptr
#endif
