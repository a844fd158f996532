// What of Foundation the macOS layer uses, declared from Apple's public documentation. For checking
// without a Mac only: on a Mac the real headers are used.
#pragma once

#if __has_include(<Foundation/NSObjCRuntime.h>)
#error "These declarations are for checking without a Mac only, and here are Apple's own"
#endif

#include <CoreFoundation/CoreFoundation.h>
#include <objc/NSObject.h>
#include <objc/objc.h>
#include <sys/types.h>

#define NS_ASSUME_NONNULL_BEGIN _Pragma("clang assume_nonnull begin")
#define NS_ASSUME_NONNULL_END _Pragma("clang assume_nonnull end")
#define NS_RETURNS_INNER_POINTER __attribute__((objc_returns_inner_pointer))
#ifndef NS_UNAVAILABLE
#define NS_UNAVAILABLE __attribute__((unavailable))
#endif
#ifndef NS_DESIGNATED_INITIALIZER
#define NS_DESIGNATED_INITIALIZER __attribute__((objc_designated_initializer))
#endif

NS_ASSUME_NONNULL_BEGIN

@class NSArray<Element>, NSData, NSDate, NSDictionary<Key, Value>, NSError, NSString, NSURL;
@class NSXPCConnection, NSXPCInterface, NSXPCListener;

typedef double NSTimeInterval;

typedef NSUInteger NSStringEncoding;

enum : NSStringEncoding { NSUTF8StringEncoding = 4 };

typedef NSUInteger NSSearchPathDirectory;

enum : NSSearchPathDirectory { NSApplicationSupportDirectory = 14 };

typedef NSUInteger NSSearchPathDomainMask;

enum : NSSearchPathDomainMask { NSUserDomainMask = 1 };

typedef NSString* NSFileAttributeKey;

typedef NSUInteger NSPropertyListFormat;

typedef NSUInteger NSPropertyListReadOptions;

enum : NSPropertyListReadOptions { NSPropertyListImmutable = 0 };

typedef struct {
    unsigned long state;
    id __unsafe_unretained _Nullable* _Nullable itemsPtr;
    unsigned long* _Nullable mutationsPtr;
    unsigned long extra[5];
} NSFastEnumerationState;

@protocol NSCopying
- (id)copyWithZone:(nullable struct _NSZone*)zone;
@end

@protocol NSFastEnumeration
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState*)state
                                  objects:(id __unsafe_unretained _Nullable[_Nonnull])buffer
                                    count:(NSUInteger)length;
@end

@interface NSString : NSObject <NSCopying>
@property(readonly) NSUInteger length;
- (nullable instancetype)initWithBytes:(const void*)bytes
                                length:(NSUInteger)length
                              encoding:(NSStringEncoding)encoding;
- (nullable NSData*)dataUsingEncoding:(NSStringEncoding)encoding;
- (BOOL)isEqualToString:(NSString*)other;
@end

@interface NSData : NSObject <NSCopying>
@property(readonly) NSUInteger length;
@property(readonly) const void* bytes NS_RETURNS_INNER_POINTER;
+ (instancetype)dataWithBytes:(nullable const void*)bytes length:(NSUInteger)length;
@end

@interface NSDate : NSObject <NSCopying>
@property(readonly) NSTimeInterval timeIntervalSince1970;
+ (instancetype)dateWithTimeIntervalSince1970:(NSTimeInterval)seconds;
@end

@interface NSArray<__covariant Element> : NSObject <NSCopying, NSFastEnumeration>
@property(readonly) NSUInteger count;
@property(nullable, readonly) Element firstObject;
+ (instancetype)array;
+ (instancetype)arrayWithObjects:(const Element _Nonnull[_Nonnull])objects count:(NSUInteger)count;
- (Element)objectAtIndexedSubscript:(NSUInteger)index;
@end

@interface NSMutableArray<Element> : NSArray <Element>
- (void)addObject:(Element)object;
@end

@interface NSDictionary<__covariant Key, __covariant Value>
    : NSObject <NSCopying, NSFastEnumeration>
@property(readonly) NSUInteger count;
- (nullable Value)objectForKeyedSubscript:(Key)key;
+ (instancetype)dictionaryWithObjects:(const Value _Nonnull[_Nullable])objects
                              forKeys:(const Key _Nonnull[_Nullable])keys
                                count:(NSUInteger)count;
@end

@interface NSError : NSObject <NSCopying>
@property(readonly, copy) NSString* localizedDescription;
@end

@interface NSURL : NSObject <NSCopying>
@property(nullable, readonly, copy) NSString* path;
@property(nullable, readonly, copy) NSURL* URLByStandardizingPath;
+ (NSURL*)fileURLWithPath:(NSString*)path;
- (nullable NSURL*)URLByAppendingPathComponent:(NSString*)component isDirectory:(BOOL)isDirectory;
@end

@interface NSBundle : NSObject
@property(class, readonly, strong) NSBundle* mainBundle;
@property(nullable, readonly, copy) NSDictionary<NSString*, id>* infoDictionary;
@property(nullable, readonly, copy) NSString* executablePath;
- (nullable instancetype)initWithPath:(NSString*)path;
@end

@interface NSPropertyListSerialization : NSObject
+ (nullable id)propertyListWithData:(NSData*)data
                            options:(NSPropertyListReadOptions)options
                             format:(nullable NSPropertyListFormat*)format
                              error:(NSError* _Nullable* _Nullable)error;
@end

@interface NSFileManager : NSObject
@property(class, readonly, strong) NSFileManager* defaultManager;
- (nullable NSURL*)containerURLForSecurityApplicationGroupIdentifier:(NSString*)group;
- (NSArray<NSURL*>*)URLsForDirectory:(NSSearchPathDirectory)directory
                           inDomains:(NSSearchPathDomainMask)domains;
- (BOOL)createDirectoryAtURL:(NSURL*)url
    withIntermediateDirectories:(BOOL)intermediate
                     attributes:(nullable NSDictionary<NSFileAttributeKey, id>*)attributes
                          error:(NSError* _Nullable* _Nullable)error;
@end

@interface NSTask : NSObject
@property(nullable, copy) NSURL* executableURL;
@property(nullable, copy) NSArray<NSString*>* arguments;
@property(nullable, copy) NSDictionary<NSString*, NSString*>* environment;
@property(nullable, copy) void (^terminationHandler)(NSTask*);
- (BOOL)launchAndReturnError:(NSError* _Nullable* _Nullable)error;
@end

@interface NSXPCInterface : NSObject
@property(assign) Protocol* protocol;
+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol;
@end

@interface NSXPCConnection : NSObject
@property(nullable, retain) NSXPCInterface* exportedInterface;
@property(nullable, retain) id exportedObject;
@property(nullable, copy) void (^invalidationHandler)(void);
@property(readonly) pid_t processIdentifier;
@property(readonly) uid_t effectiveUserIdentifier;
- (void)resume;
@end

@protocol NSXPCListenerDelegate <NSObject>
@optional
- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)connection;
@end

@interface NSXPCListener : NSObject
@property(nullable, weak) id<NSXPCListenerDelegate> delegate;
- (instancetype)initWithMachServiceName:(NSString*)name;
- (void)setConnectionCodeSigningRequirement:(NSString*)requirement;
- (void)resume;
@end

// Takes over what a function of Core Foundation has made (its "Create Rule").
static inline id _Nullable CFBridgingRelease(CFTypeRef _Nullable CF_CONSUMED object) {
    return (__bridge_transfer id)object;
}

NS_ASSUME_NONNULL_END
