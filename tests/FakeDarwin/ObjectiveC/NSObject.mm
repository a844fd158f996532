// The root class, and the classes of protocols and blocks. Without ARC, which it is the ground of.
#include <objc/NSObject.h>
#include <objc/objc.h>

extern "C" {
Class object_getClass(id object);
id fakeAllocate(Class type);
void fakeDeallocate(id object);
BOOL fakeResponds(Class type, SEL selector);
BOOL fakeConforms(Class type, Protocol* protocol);
BOOL objc_opt_isKindOfClass(id object, Class wanted);
id objc_retain(id object);
void objc_release(id object);
id objc_autorelease(id object);
void* _Block_copy(const void* block);
}

@implementation NSObject

+ (instancetype)alloc {
    return fakeAllocate(self);
}

+ (instancetype)new {
    return [[self alloc] init];
}

+ (Class)class {
    return self;
}

- (instancetype)init {
    return self;
}

- (void)dealloc {
    fakeDeallocate(self);
}

// Nothing but what cannot change is copied here, and blocks.
- (id)copy {
    return [self retain];
}

- (NSUInteger)hash {
    return reinterpret_cast<NSUInteger>(self);
}

- (BOOL)isEqual:(id)other {
    return self == other;
}

- (Class)class {
    return object_getClass(self);
}

- (instancetype)self {
    return self;
}

- (BOOL)isKindOfClass:(Class)wanted {
    return objc_opt_isKindOfClass(self, wanted);
}

- (BOOL)conformsToProtocol:(Protocol*)protocol {
    return fakeConforms(object_getClass(self), protocol);
}

- (BOOL)respondsToSelector:(SEL)selector {
    return fakeResponds(object_getClass(self), selector);
}

- (instancetype)retain {
    return objc_retain(self);
}

- (oneway void)release {
    objc_release(self);
}

- (instancetype)autorelease {
    return objc_autorelease(self);
}

@end

@interface Protocol : NSObject
@end

@implementation Protocol
@end

@interface FakeBlock : NSObject
@end

@implementation FakeBlock

- (id)copy {
    return static_cast<id>(_Block_copy(self));
}

@end

@interface FakeStackBlock : FakeBlock
@end

@implementation FakeStackBlock
@end

@interface FakeMallocBlock : FakeBlock
@end

@implementation FakeMallocBlock
@end

@interface FakeGlobalBlock : FakeBlock
@end

@implementation FakeGlobalBlock
@end

// The names under which the compiler knows the classes of blocks.
__asm__(R"(
.globl _NSConcreteStackBlock
.set _NSConcreteStackBlock, "OBJC_CLASS_$_FakeStackBlock"
.globl _NSConcreteMallocBlock
.set _NSConcreteMallocBlock, "OBJC_CLASS_$_FakeMallocBlock"
.globl _NSConcreteGlobalBlock
.set _NSConcreteGlobalBlock, "OBJC_CLASS_$_FakeGlobalBlock"
)");
