#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "FakeDarwin.hpp"

@protocol Greeting
- (int)greet;
@end

@protocol PoliteGreeting <Greeting>
@optional
- (int)bow;
@end

struct Large {
    long first;
    long second;
    double third;
};

// With a property of each kind, and with members of C++.
@interface Sample : NSObject <PoliteGreeting>
@property(strong) id atomicObject;
@property(nonatomic, strong) id object;
@property(copy) int (^atomicBlock)(void);
@property(nonatomic, copy) int (^block)(void);
@property(weak) id weakObject;
@property(nonatomic) double number;
- (Large)largeFrom:(long)first and:(long)second and:(double)third;
- (double)sumOf:(int)count, ...;
- (void)throwOver;
- (std::shared_ptr<int>*)member;
@end

@interface Sample (Unwritten)
- (void)unwritten;
+ (void)unwrittenToo;
@end

@interface Sample (More)
- (int)more;
@end

@implementation Sample {
    std::shared_ptr<int> _member;
}

- (Large)largeFrom:(long)first and:(long)second and:(double)third {
    return {first, second, third};
}

- (double)sumOf:(int)count, ... {
    va_list arguments;
    va_start(arguments, count);
    double sum = 0;
    for (int i = 0; i < count; ++i) {
        sum += va_arg(arguments, double);
    }
    va_end(arguments);
    return sum;
}

- (void)throwOver {
    throw fake::Over{};
}

- (std::shared_ptr<int>*)member {
    return &_member;
}

- (int)greet {
    return 1;
}

@end

@implementation Sample (More)

- (int)more {
    return 7;
}

@end

// Its class has variables that this source does not see.
@interface NumberedArray : NSArray
@end

@implementation NumberedArray {
  @public
    long _number;
    std::string _name;
}

- (instancetype)init {
    self = [super init];
    if (self != nil) {
        _number = 42;
        _name = "a name that does not fit into the string itself";
    }
    return self;
}

- (NSUInteger)count {
    return [super count] + 1;
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

TEST(RuntimeTest, SetsAWeakReferenceAnew) {
    @autoreleasepool {
        Sample* one = [Sample new];
        Sample* two = [Sample new];
        __weak Sample* weak = one;
        weak = two;
        one = nil;
        EXPECT_EQ(weak, two);
        two = nil;
        EXPECT_EQ(weak, nil);
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

TEST(RuntimeTest, EmptiesAThreadsOwnPoolWithTheThread) {
    std::thread([] {
        (void)autoreleased();
        EXPECT_EQ(samples(), 1);
    }).join();
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

TEST(RuntimeTest, SharesWhatIsMarkedSo) {
    @autoreleasepool {
        __block int count = 0;
        __block Sample* sample = nil;
        void (^one)(void) = ^{
          ++count;
          sample = [Sample new];
        };
        void (^two)(void) = ^{
          count += 10;
          sample = nil;
        };
        one();
        EXPECT_EQ(samples(), 1);
        two();
        EXPECT_EQ(samples(), 0);
        one();
        EXPECT_EQ(count, 12);
    }
    EXPECT_EQ(samples(), 0);
}

TEST(RuntimeTest, CopiesNoBlockFromNil) {
    @autoreleasepool {
        int (^block)(void) = nil;
        EXPECT_EQ([block copy], nil);
    }
}

TEST(RuntimeTest, HasEachKindOfProperty) {
    @autoreleasepool {
        Sample* sample = [Sample new];
        @autoreleasepool {
            Sample* other = [Sample new];
            sample.atomicObject = other;
            sample.object = other;
            sample.weakObject = other;
            int captured = 5;
            sample.block = ^{
              return captured;
            };
            sample.atomicBlock = ^{
              return captured + 1;
            };
            sample.number = 0.5;
        }
        EXPECT_EQ(sample.atomicObject, sample.object);
        EXPECT_EQ(sample.weakObject, sample.object);
        EXPECT_EQ(sample.block(), 5);
        EXPECT_EQ(sample.atomicBlock(), 6);
        EXPECT_EQ(sample.number, 0.5);
    }
    EXPECT_EQ(samples(), 0);
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

TEST(RuntimeTest, MakesAndDestroysMembersOfCxx) {
    const auto counted = std::make_shared<int>(1);
    @autoreleasepool {
        Sample* sample = [Sample new];
        EXPECT_EQ(*[sample member], nullptr);
        *[sample member] = counted;
        EXPECT_EQ(counted.use_count(), 2);
    }
    EXPECT_EQ(counted.use_count(), 1);
}

TEST(RuntimeTest, PlacesVariablesBehindThoseOfTheSuperclass) {
    @autoreleasepool {
        id objects[] = {@"a", @"b"};
        NumberedArray* array = [NumberedArray arrayWithObjects:objects count:0];
        NumberedArray* filled = [NumberedArray arrayWithObjects:objects count:2];
        EXPECT_EQ(array.count, 1U);
        EXPECT_EQ(filled.count, 3U);
        EXPECT_EQ(filled[1], objects[1]);
        EXPECT_EQ(filled->_number, 42);
        EXPECT_EQ(filled->_name, "a name that does not fit into the string itself");
        EXPECT_GE(fake::liveObjects("NSArray"), 2);
    }
    EXPECT_EQ(fake::liveObjects("NumberedArray"), 0);
}

TEST(RuntimeTest, PassesEveryKindOfArgument) {
    @autoreleasepool {
        Sample* sample = [Sample new];
        const Large large = [sample largeFrom:1 and:2 and:0.5];
        EXPECT_EQ(large.first, 1);
        EXPECT_EQ(large.second, 2);
        EXPECT_EQ(large.third, 0.5);
        EXPECT_EQ(([sample sumOf:9, 1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0, 8.0, 9.0]), 45.0);
    }
}

TEST(RuntimeTest, AnswersForNil) {
    Sample* nobody = nil;
    EXPECT_EQ([nobody greet], 0);
    EXPECT_EQ(nobody.number, 0.0);
    EXPECT_EQ(nobody.object, nil);
    EXPECT_EQ(([nobody largeFrom:1 and:2 and:3].second), 0);
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
        EXPECT_TRUE([sample respondsToSelector:@selector(more)]);
        EXPECT_FALSE([sample respondsToSelector:@selector(bow)]);
        EXPECT_FALSE([Sample instancesRespondToSelector:@selector(unwritten)]);
        EXPECT_EQ([sample more], 7);
        EXPECT_TRUE([sample isEqual:sample]);
        EXPECT_FALSE([sample isEqual:[Sample new]]);
    }
}

TEST(RuntimeTest, LetsExceptionsOfCxxPass) {
    @autoreleasepool {
        EXPECT_THROW([[Sample new] throwOver], fake::Over);
        void (^block)(void) = ^{
          throw std::runtime_error("from a block");
        };
        EXPECT_THROW(block(), std::runtime_error);
    }
    EXPECT_EQ(samples(), 0);
}

TEST(RuntimeTest, SharesObjectsBetweenThreads) {
    @autoreleasepool {
        Sample* sample = [Sample new];
        sample.atomicObject = [NSObject new];
        __weak Sample* weak = sample;
        const auto work = [&] {
            for (int i = 0; i < 1000; ++i) {
                @autoreleasepool {
                    Sample* strong = weak;
                    strong.atomicObject = strong.atomicObject != nil ? [NSObject new] : nil;
                }
            }
        };
        std::thread one(work);
        std::thread two(work);
        one.join();
        two.join();
        EXPECT_NE(sample.atomicObject, nil);
    }
    EXPECT_EQ(samples(), 0);
}

TEST(RuntimeDeathTest, NamesTheSelectorThatIsNotImplemented) {
    @autoreleasepool {
        EXPECT_DEATH([[Sample new] unwritten], "-\\[Sample unwritten\\] is not implemented");
        EXPECT_DEATH([Sample unwrittenToo], "\\+\\[Sample unwrittenToo\\] is not implemented");
    }
}

TEST(RuntimeDeathTest, KnowsNoClassOfThatName) {
    EXPECT_DEATH(fake::liveObjects("Nothing"), "there is no class Nothing");
}

}  // namespace
