// The root class, as far as the stand-ins have it.
#pragma once

#include <objc/objc.h>

@class NSString, Protocol;

@protocol NSObject
@property(readonly) NSUInteger hash;
- (BOOL)isEqual:(id)other;
- (Class)class;
- (instancetype)self;
- (BOOL)isKindOfClass:(Class)wanted;
- (BOOL)conformsToProtocol:(Protocol*)protocol;
- (BOOL)respondsToSelector:(SEL)selector;
- (instancetype)retain OBJC_ARC_UNAVAILABLE;
- (oneway void)release OBJC_ARC_UNAVAILABLE;
- (instancetype)autorelease OBJC_ARC_UNAVAILABLE;
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
