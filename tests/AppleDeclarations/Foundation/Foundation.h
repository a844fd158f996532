// The part of Foundation that the macOS layer uses, declared from Apple's public documentation.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <objc/NSObject.h>
#include <sys/types.h>

#define NS_ASSUME_NONNULL_BEGIN _Pragma("clang assume_nonnull begin")
#define NS_ASSUME_NONNULL_END _Pragma("clang assume_nonnull end")
#define NS_RETURNS_INNER_POINTER __attribute__((objc_returns_inner_pointer))

NS_ASSUME_NONNULL_BEGIN

@class NSArray<Element>, NSData, NSDictionary<Key, Value>, NSError, NSString, NSURL;
@class NSXPCConnection, NSXPCListener;

typedef double NSTimeInterval;
typedef NSUInteger NSStringEncoding;
typedef NSUInteger NSSearchPathDomainMask;
typedef NSUInteger NSPropertyListReadOptions;

enum : NSStringEncoding { NSUTF8StringEncoding = 4 };

enum : NSSearchPathDomainMask { NSUserDomainMask = 1 };

enum : NSPropertyListReadOptions { NSPropertyListImmutable = 0 };

enum NSSearchPathDirectory : NSUInteger { NSApplicationSupportDirectory = 14 };
enum NSPropertyListFormat : NSUInteger;

typedef struct {
    unsigned long state;
    id __unsafe_unretained _Nullable* _Nullable itemsPtr;
    unsigned long* _Nullable mutationsPtr;
    unsigned long extra[5];
} NSFastEnumerationState;

@protocol NSFastEnumeration
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState*)state
                                  objects:(id __unsafe_unretained _Nullable[_Nonnull])buffer
                                    count:(NSUInteger)length;
@end

@interface NSString : NSObject
@property(readonly) NSUInteger length;
- (nullable instancetype)initWithBytes:(const void*)bytes
                                length:(NSUInteger)length
                              encoding:(NSStringEncoding)encoding;
- (nullable NSData*)dataUsingEncoding:(NSStringEncoding)encoding;
- (BOOL)isEqualToString:(NSString*)other;
@end

@interface NSData : NSObject
@property(readonly) NSUInteger length;
@property(readonly) const void* bytes NS_RETURNS_INNER_POINTER;
+ (instancetype)dataWithBytes:(nullable const void*)bytes length:(NSUInteger)length;
@end

@interface NSDate : NSObject
@property(readonly) NSTimeInterval timeIntervalSince1970;
+ (instancetype)dateWithTimeIntervalSince1970:(NSTimeInterval)seconds;
@end

@interface NSArray<__covariant Element> : NSObject <NSFastEnumeration>
@property(nullable, readonly) Element firstObject;
+ (instancetype)array;
@end

@interface NSMutableArray<Element> : NSArray <Element>
- (void)addObject:(Element)object;
@end

@interface NSDictionary<__covariant Key, __covariant Value> : NSObject <NSFastEnumeration>
- (nullable Value)objectForKeyedSubscript:(Key)key;
+ (instancetype)dictionaryWithObjects:(const Value _Nonnull[_Nullable])objects
                              forKeys:(const Key _Nonnull[_Nullable])keys
                                count:(NSUInteger)count;
@end

@interface NSError : NSObject
@property(readonly, copy) NSString* localizedDescription;
@end

@interface NSURL : NSObject
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
                     attributes:(nullable NSDictionary<NSString*, id>*)attributes
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

// Takes ownership of the result of a Core Foundation function (the "Create Rule").
static inline id _Nullable CFBridgingRelease(CFTypeRef _Nullable CF_CONSUMED object) {
    return (__bridge_transfer id)object;
}

NS_ASSUME_NONNULL_END
