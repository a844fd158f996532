#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include <memory>

#include "FakeDarwin.hpp"

@protocol Greeting
- (int)greet;
@end

@protocol PoliteGreeting <Greeting>
@optional
- (int)bow;
@end

@interface Sample : NSObject <PoliteGreeting>
@property(nonatomic, copy) int (^block)(void);
@property(weak) id weakObject;
- (void)throwOver;
@end

@interface Sample (Unwritten)
- (void)unwritten;
+ (void)unwrittenToo;
@end

@implementation Sample

- (void)throwOver {
    throw fake::Over{};
}

- (int)greet {
    return 1;
}

@end

namespace {

long samples() { return fake::liveObjects("Sample"); }

TEST(RuntimeTest, ReleasesWhatNobodyHolds) {
    @autoreleasepool {
        Sample* sample = [[Sample alloc] init];
        EXPECT_EQ([sample greet], 1);
        EXPECT_EQ(samples(), 1);
        sample = nil;
        EXPECT_EQ(samples(), 0);
    }
}

TEST(RuntimeTest, ClearsWeakReferences) {
    @autoreleasepool {
        Sample* sample = [Sample new];
        __weak Sample* weak = sample;
        __weak Sample* copy = weak;
        EXPECT_EQ([sample greet], 1);
        sample = nil;
        EXPECT_EQ(weak, nil);
        EXPECT_EQ(copy, nil);
        EXPECT_EQ(samples(), 0);
    }
}

// A method returns what it has made through the pool.
id autoreleased() {
    Sample* sample = [Sample new];
    NSArray* array = @[ sample ];
    return array.firstObject;
}

TEST(RuntimeTest, KeepsInAPoolWhatIsReturned) {
    @autoreleasepool {
        @autoreleasepool {
            @autoreleasepool {
                (void)autoreleased();
                EXPECT_EQ(samples(), 1);
            }
            EXPECT_EQ(samples(), 0);
            (void)autoreleased();
            EXPECT_EQ(samples(), 1);
        }
        EXPECT_EQ(samples(), 0);
    }
}

TEST(RuntimeTest, EmptiesTheInnerPoolsWhenAnExceptionHasPassedThem) {
    @autoreleasepool {
        try {
            @autoreleasepool {
                (void)autoreleased();
                [[Sample new] throwOver];
            }
        } catch (const fake::Over&) {
            EXPECT_GE(samples(), 1);
        }
    }
    EXPECT_EQ(samples(), 0);
}

TEST(RuntimeTest, CountsACycle) {
    __weak Sample* lost = nil;
    @autoreleasepool {
        Sample* sample = [Sample new];
        Sample* itself = sample;
        int (^cycle)(void) = ^{
          return [itself greet];
        };
        sample.block = cycle;
        lost = sample;
    }
    EXPECT_EQ(samples(), 1);
    @autoreleasepool {
        lost.block = nil;
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

TEST(RuntimeTest, LetsGoOfAnObjectThatOnlyAWeakPropertyKnows) {
    @autoreleasepool {
        Sample* sample = [Sample new];
        @autoreleasepool {
            Sample* other = [Sample new];
            sample.weakObject = other;
        }
        EXPECT_EQ(sample.weakObject, nil);
        EXPECT_EQ(samples(), 1);
    }
}

TEST(RuntimeTest, KnowsWhatAnObjectIs) {
    @autoreleasepool {
        Sample* sample = [Sample new];
        EXPECT_TRUE([sample isKindOfClass:[NSObject class]]);
        EXPECT_TRUE([sample isKindOfClass:[Sample class]]);
        EXPECT_FALSE([sample isKindOfClass:[NSString class]]);
        EXPECT_TRUE([@"text" isKindOfClass:[NSString class]]);
        EXPECT_TRUE([sample conformsToProtocol:@protocol(PoliteGreeting)]);
        EXPECT_TRUE([sample conformsToProtocol:@protocol(Greeting)]);
        EXPECT_FALSE([sample conformsToProtocol:@protocol(NSCopying)]);
        EXPECT_TRUE([sample respondsToSelector:@selector(greet)]);
        EXPECT_FALSE([sample respondsToSelector:@selector(bow)]);
        EXPECT_FALSE([sample respondsToSelector:@selector(unwritten)]);
        EXPECT_TRUE([sample isEqual:sample]);
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
