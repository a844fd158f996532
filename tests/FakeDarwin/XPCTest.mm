// What HalvoHelper/macOS/HelperListenerTest.mm does not show of the stand-in.
#import <Foundation/Foundation.h>
#include <dispatch/dispatch.h>
#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "FakeDarwin.hpp"
#include "FakeXPC.hpp"

@interface Door : NSObject <NSXPCListenerDelegate> {
  @public
    // Called whenever NSXPC calls.
    std::function<void()> called;
}
@end

@implementation Door

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)connection {
    const auto noted = called ? called : [] {};
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

class XPCTest : public ::testing::Test {
  protected:
    XPCTest() { fake::reset(); }

    ~XPCTest() override {
        fake::reset();
        for (const char* each : {"NSXPCConnection", "NSXPCListener", "Door"}) {
            EXPECT_EQ(fake::liveObjects(each), 0) << each;
        }
    }
};

TEST_F(XPCTest, NoticesWhatCameTooLateAndDoesNotKeepTheDelegate) {
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

TEST_F(XPCTest, CallsOnQueuesOfItsOwnAndLetsGoOfEverythingOnceInvalid) {
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
            fake::invalidate(lost);
        }
        EXPECT_EQ(lost, nil);
        EXPECT_EQ(calls, 3);
        EXPECT_EQ(fake::liveObjects("Door"), 1) << "the delegate";
    }
}

TEST_F(XPCTest, EndsTheProcessForARequestThatCannotArrive) {
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
        EXPECT_DEATH(request(), "none of the exported interface");
        fake::invalidate(connection);
    }
}

}  // namespace
