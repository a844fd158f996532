// What the app may ask of the helper over NSXPC, on its Mach service. Plain Objective-C, so that an
// app may import it, from Swift through a bridging header.
#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

// Every reply is called exactly once, on a queue of the connection's.
@protocol HalvoHelperXPC

// Commits the caller to keep its own bundle, `appPath`, until `until`. `started` is when the
// commitment began; a day after that it ends in any case. NO when the helper refuses; its log says
// why.
- (void)beginWithAppPath:(NSString*)appPath
                   until:(NSDate*)until
                 started:(NSDate*)started
                   reply:(void (^)(BOOL ok))reply;

// A sign of life, or with `sessionEnding` the announcement that the login session is ending. NO
// when nothing is held for the caller.
- (void)heartbeatWithSessionEnding:(BOOL)sessionEnding reply:(void (^)(BOOL ok))reply;

// Lets the caller's commitment go. NO when nothing is held for the caller.
- (void)endWithReply:(void (^)(BOOL ok))reply;

// What is held for the caller. `until` is nil when nothing is.
- (void)statusWithReply:(void (^)(BOOL holding, NSDate* _Nullable until, BOOL locked))reply;

@end

NS_ASSUME_NONNULL_END
