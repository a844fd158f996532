#import <Foundation/Foundation.h>
#include <gtest/gtest.h>

#include "FakeDarwin.hpp"

namespace {

TEST(RuntimeTest, ReleasesWhatNobodyHolds) {
    @autoreleasepool {
        NSObject* object = [[NSObject alloc] init];
        __weak NSObject* weak = object;
        EXPECT_NE(weak, nil);
        object = nil;
        EXPECT_EQ(weak, nil);
    }
}

}  // namespace
