#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include <memory>

#include "FakeDarwin.hpp"

@protocol Greeting
- (int)greet;
@end

@protocol PoliteGreeting <Greeting>
@end

@interface Sample : NSObject <PoliteGreeting>
@property(weak) id weakObject;
@end

@interface Sample (Unwritten)
- (void)unwritten;
+ (void)unwrittenToo;
@end

@implementation Sample

- (int)greet {
    return 1;
}

@end

namespace {

long samples() { return fake::liveObjects("Sample"); }

TEST(RuntimeTest, ReleasesWhatNothingHoldsAndClearsWhatRefersToItWeakly) {
    @autoreleasepool {
        Sample* sample = [[Sample alloc] init];
        Sample* other = [Sample new];
        __weak Sample* weak = sample;
        other.weakObject = sample;
        EXPECT_EQ([sample greet], 1);
        EXPECT_EQ(samples(), 2);
        sample = nil;
        EXPECT_EQ(samples(), 1);
        EXPECT_EQ(weak, nil);
        EXPECT_EQ(other.weakObject, nil);
    }
    EXPECT_EQ(samples(), 0);
}

// A method returns what it has made through the pool.
id autoreleased() {
    NSMutableArray* array = [NSMutableArray array];
    [array addObject:[Sample new]];
    return array.firstObject;
}

TEST(RuntimeTest, KeepsInAPoolWhatIsReturnedAlsoWhenAnExceptionHasPassedInnerOnes) {
    @autoreleasepool {
        @autoreleasepool {
            (void)autoreleased();
            EXPECT_EQ(samples(), 1);
        }
        EXPECT_EQ(samples(), 0);
        try {
            @autoreleasepool {
                (void)autoreleased();
                throw fake::Over{};
            }
        } catch (const fake::Over&) {
            EXPECT_GE(samples(), 1);
        }
    }
    EXPECT_EQ(samples(), 0);
}

// With all that it holds but the block itself gone.
int (^blockOn(const std::shared_ptr<int>& counted))(void) {
    Sample* sample = [Sample new];
    const std::shared_ptr<int> captured = counted;
    return ^{
      return [sample greet] + *captured;
    };
}

TEST(RuntimeTest, HoldsInABlockWhatItCaptures) {
    const auto counted = std::make_shared<int>(3);
    @autoreleasepool {
        int (^block)(void) = nil;
        @autoreleasepool {
            block = blockOn(counted);
        }
        int (^same)(void) = [block copy];
        block = nil;
        EXPECT_EQ(same(), 4);
        EXPECT_EQ(counted.use_count(), 2);
        EXPECT_EQ(samples(), 1);
        same = nil;
        EXPECT_EQ(counted.use_count(), 1);
        EXPECT_EQ(samples(), 0);
    }
}

TEST(RuntimeTest, KnowsWhatAnObjectIs) {
    @autoreleasepool {
        Sample* sample = [Sample new];
        EXPECT_TRUE([sample isKindOfClass:[NSObject class]]);
        EXPECT_FALSE([sample isKindOfClass:[NSString class]]);
        EXPECT_TRUE([@"text" isKindOfClass:[NSString class]]);
        EXPECT_TRUE([sample conformsToProtocol:@protocol(PoliteGreeting)]);
        EXPECT_TRUE([sample conformsToProtocol:@protocol(Greeting)]);
        EXPECT_FALSE([sample conformsToProtocol:@protocol(NSXPCListenerDelegate)]);
        EXPECT_FALSE([sample isEqual:[Sample new]]);
    }
}

TEST(RuntimeDeathTest, NamesTheSelectorThatIsNotImplemented) {
    @autoreleasepool {
        EXPECT_DEATH([[Sample new] unwritten], "-\\[Sample unwritten\\] is not implemented");
        EXPECT_DEATH([Sample unwrittenToo], "\\+\\[Sample unwrittenToo\\] is not implemented");
    }
}

}  // namespace
