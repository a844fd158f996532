#import <Foundation/Foundation.h>
#include <dispatch/dispatch.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "FakeDarwin.hpp"
#include "FakeXPC.hpp"

@protocol Counting
- (void)countOne;
@end

@interface Counter : NSObject <Counting>
@end

@implementation Counter

- (void)countOne {
}

@end

@interface Door : NSObject <NSXPCListenerDelegate>
@property BOOL isOpen;
@property(copy) void (^closed)(void);
@property(copy) void (^asked)(NSXPCConnection*);
@end

@implementation Door

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)connection {
    if (self.asked != nil) {
        self.asked(connection);
    }
    if (!self.isOpen) {
        return NO;
    }
    connection.exportedInterface = [NSXPCInterface interfaceWithProtocol:@protocol(Counting)];
    connection.exportedObject = [[Counter alloc] init];
    connection.invalidationHandler = self.closed;
    [connection resume];
    return YES;
}

@end

namespace {

class XPCTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        @autoreleasepool {
            listener = [[NSXPCListener alloc] initWithMachServiceName:@"service"];
            door = [Door new];
            door.isOpen = YES;
            listener.delegate = door;
        }
    }

    void TearDown() override {
        listener = nil;
        door = nil;
        fake::reset();
        EXPECT_EQ(fake::liveObjects("NSXPCConnection"), 0);
        EXPECT_EQ(fake::liveObjects("NSXPCListener"), 0);
        EXPECT_EQ(fake::liveObjects("Counter"), 0);
    }

    NSXPCListener* listener = nil;
    Door* door = nil;
};

TEST_F(XPCTest, NoticesWhatCameTooLate) {
    @autoreleasepool {
        NSXPCListener* early = [[NSXPCListener alloc] initWithMachServiceName:@"early"];
        [early resume];
        [early setConnectionCodeSigningRequirement:@"anchor apple"];
        early.delegate = door;
        EXPECT_FALSE(fake::listener("early")->hadRequirementWhenResumed);
        EXPECT_FALSE(fake::listener("early")->hadDelegateWhenResumed);
    }
}

TEST_F(XPCTest, DoesNotKeepTheDelegate) {
    @autoreleasepool {
        @autoreleasepool {
            [listener resume];
        }
        door = nil;
        EXPECT_EQ(listener.delegate, nil);
        EXPECT_EQ(fake::connect("service", 1, 2), nil);
    }
    EXPECT_EQ(fake::liveObjects("Door"), 0);
}

TEST_F(XPCTest, ConnectsOnceTheListenerIsResumed) {
    @autoreleasepool {
        EXPECT_EQ(fake::connect("service", 1, 2), nil);
        [listener resume];
        EXPECT_EQ(fake::connect("other", 1, 2), nil);
        NSXPCConnection* connection = fake::connect("service", 100, 501);
        EXPECT_EQ(connection.processIdentifier, 100);
        EXPECT_EQ(connection.effectiveUserIdentifier, 501U);
        EXPECT_EQ(fake::exportedProtocol(connection), "Counting");
        EXPECT_EQ(fake::steps(connection),
                  (std::vector<std::string>{"interface", "object", "handler", "resume"}));
        door.isOpen = NO;
        EXPECT_EQ(fake::connect("service", 100, 501), nil);
    }
}

TEST_F(XPCTest, CallsOnQueuesOfItsOwn) {
    @autoreleasepool {
        static char mark = 0;
        dispatch_queue_set_specific(dispatch_get_main_queue(), &mark, &mark, nullptr);
        const auto test = std::this_thread::get_id();
        __block int calls = 0;
        const auto check = ^{
          ++calls;
          EXPECT_NE(std::this_thread::get_id(), test);
          EXPECT_EQ(dispatch_get_specific(&mark), nullptr);
        };
        door.asked = ^(NSXPCConnection*) {
          check();
        };
        door.closed = check;
        [listener resume];
        NSXPCConnection* connection = fake::connect("service", 1, 2);
        fake::request(connection, ^(id) {
          check();
        });
        fake::invalidate(connection);
        EXPECT_EQ(calls, 3);
    }
}

TEST_F(XPCTest, LetsGoOfEverythingOnceInvalid) {
    @autoreleasepool {
        __block int calls = 0;
        door.closed = ^{
          ++calls;
        };
        [listener resume];
        __weak NSXPCConnection* lost = nil;
        @autoreleasepool {
            lost = fake::connect("service", 1, 2);
        }
        EXPECT_NE(lost, nil);
        @autoreleasepool {
            fake::invalidate(lost);
            fake::invalidate(lost);
        }
        EXPECT_EQ(lost, nil);
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(fake::liveObjects("Counter"), 0);
    }
}

TEST_F(XPCTest, FailsTheTestForARequestThatCannotArrive) {
    @autoreleasepool {
        static NSXPCConnection* connection = nil;
        connection = [[NSXPCConnection alloc] init];
        EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(fake::request(connection,
                                                             ^(id){
                                                             }),
                                               "not resumed");
        connection.exportedInterface = [NSXPCInterface interfaceWithProtocol:@protocol(Counting)];
        connection.exportedObject = [NSObject new];
        [connection resume];
        EXPECT_NONFATAL_FAILURE_ON_ALL_THREADS(fake::request(connection,
                                                             ^(id){
                                                             }),
                                               "none of the exported interface");
        fake::invalidate(connection);
        connection = nil;
    }
}

}  // namespace
