// Tests of the fakes, where a defect would let tests of the macOS layer pass wrongly.
#import <Foundation/Foundation.h>
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>
#include <os/log.h>
#include <time.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "FakeDarwin.hpp"
#include "FakeXPC.hpp"

@interface Door : NSObject <NSXPCListenerDelegate> {
  @public
    // Called by each method that NSXPC calls.
    std::function<void()> called;
}
@end

@implementation Door

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)connection {
    const auto noted = called;
    noted();
    connection.exportedInterface =
        [NSXPCInterface interfaceWithProtocol:@protocol(NSXPCListenerDelegate)];
    connection.exportedObject = [Door new];
    connection.invalidationHandler = ^{
      noted();
    };
    [connection resume];
    return YES;
}

@end

namespace {

struct FakeDarwinTest : ::testing::Test {
    FakeDarwinTest() { fake::reset(); }

    ~FakeDarwinTest() override {
        fake::reset();
        for (const char* each : {"NSXPCConnection", "NSXPCListener", "NSTask", "Door"}) {
            EXPECT_EQ(fake::liveObjects(each), 0) << each;
        }
    }
};

TEST_F(FakeDarwinTest, CountsLiveObjects) {
    @autoreleasepool {
        Door* door = [Door new];
        __weak Door* weak = door;
        @autoreleasepool {
            [[NSMutableArray array] addObject:[Door new]];
            EXPECT_EQ(fake::liveObjects("Door"), 2);
        }
        EXPECT_EQ(fake::liveObjects("Door"), 1);
        door = nil;
        EXPECT_EQ(weak, nil);
    }
}

TEST_F(FakeDarwinTest, AbortsOnNilWhereFoundationThrows) {
    @autoreleasepool {
        NSString* nothing = nil;
        EXPECT_DEATH([[NSMutableArray array] addObject:nothing], "nil as an element");
        EXPECT_DEATH((void)[[NSBundle alloc] initWithPath:nothing], "nil as a bundle's path");
        EXPECT_DEATH((void)[NSURL fileURLWithPath:nothing], "nil as a path");
        EXPECT_DEATH((void)[[NSXPCListener alloc] initWithMachServiceName:nothing],
                     "nil as the name of a Mach service");
        NSXPCListener* listener = [[NSXPCListener alloc] initWithMachServiceName:@"service"];
        EXPECT_DEATH([listener setConnectionCodeSigningRequirement:nothing],
                     "nil as a code-signing requirement");
    }
}

TEST_F(FakeDarwinTest, ATaskInheritsTheEnvironmentByDefault) {
    @autoreleasepool {
        setenv("HALVO_TASK", "yes", 1);
        NSTask* task = [[NSTask alloc] init];
        task.executableURL = [NSURL fileURLWithPath:@"/nowhere"];
        EXPECT_TRUE([task launchAndReturnError:nil]);
        unsetenv("HALVO_TASK");
        EXPECT_EQ(fake::world().launches.at(0).environment.at("HALVO_TASK"), "yes");
    }
}

// os_log(3).
TEST_F(FakeDarwinTest, RedactsPrivateLogArguments) {
    os_log_with_type(os_log_create("app.halvo", "Test"), OS_LOG_TYPE_DEFAULT,
                     "%s|%{private}d|%{public}s|%{public}ld %d", "secret", 5, "text", LONG_MIN, -7);
    EXPECT_EQ(fake::notices(),
              std::vector<std::string>{"<private>|<private>|text|-9223372036854775808 -7"});
}

TEST_F(FakeDarwinTest, AbortsOnAClockThatDoesNotCountSleep) {
    EXPECT_DEATH(clock_gettime_nsec_np(CLOCK_REALTIME), "a clock that does not count sleep");
}

TEST_F(FakeDarwinTest, AbortsOnMisuseOfADispatchSource) {
    dispatch_source_t source =
        dispatch_source_create(DISPATCH_SOURCE_TYPE_TIMER, 0, 0, dispatch_get_main_queue());
    EXPECT_DEATH(dispatch_release(source), "a suspended source is released");
    dispatch_resume(source);
    EXPECT_DEATH(dispatch_resume(source), "is resumed that is not suspended");
    dispatch_release(source);
    EXPECT_DEATH(dispatch_source_cancel(source), "was released");
}

TEST_F(FakeDarwinTest, RecordsAListenersStateAtResumeAndHasAWeakDelegate) {
    @autoreleasepool {
        NSXPCListener* listener = [[NSXPCListener alloc] initWithMachServiceName:@"service"];
        [listener resume];
        [listener setConnectionCodeSigningRequirement:@"anchor apple"];
        @autoreleasepool {
            Door* door = [Door new];
            listener.delegate = door;
        }
        EXPECT_FALSE(fake::listener("service")->hadRequirementWhenResumed);
        EXPECT_FALSE(fake::listener("service")->hadDelegateWhenResumed);
        EXPECT_EQ(listener.delegate, nil);
    }
}

TEST_F(FakeDarwinTest, CallsOnNSXPCsOwnQueuesAndReleasesAnInvalidatedConnection) {
    static char mark = 0;
    dispatch_queue_set_specific(dispatch_get_main_queue(), &mark, &mark, nullptr);
    const auto test = std::this_thread::get_id();
    int calls = 0;
    const std::function<void()> check = [&calls, test] {
        ++calls;
        EXPECT_NE(std::this_thread::get_id(), test);
        EXPECT_EQ(dispatch_get_specific(&mark), nullptr);
    };
    @autoreleasepool {
        Door* door = [Door new];
        door->called = check;
        NSXPCListener* listener = [[NSXPCListener alloc] initWithMachServiceName:@"service"];
        listener.delegate = door;
        [listener resume];
        __weak NSXPCConnection* lost = nil;
        @autoreleasepool {
            lost = fake::connect("service", 1, 2);
            fake::request(lost, ^(id) {
              check();
            });
        }
        EXPECT_NE(lost, nil);
        @autoreleasepool {
            fake::invalidate(lost);
        }
        EXPECT_EQ(lost, nil);
        EXPECT_EQ(calls, 3);
    }
}

TEST_F(FakeDarwinTest, AbortsOnARequestThatNSXPCWouldNotDeliver) {
    @autoreleasepool {
        NSXPCConnection* connection = [[NSXPCConnection alloc] init];
        const auto request = [&] {
            fake::request(connection, ^(id){
                          });
        };
        EXPECT_DEATH(request(), "not resumed");
        connection.exportedInterface =
            [NSXPCInterface interfaceWithProtocol:@protocol(NSXPCListenerDelegate)];
        connection.exportedObject = [NSObject new];
        [connection resume];
        EXPECT_DEATH(request(), "does not conform to the exported interface");
        fake::invalidate(connection);
    }
}

}  // namespace
