// A client of the helper over NSXPC. For Objective-C++ sources only.
#pragma once

#import <Foundation/Foundation.h>

#include <cmath>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "HalvoHelperCore/macOS/HalvoHelperXPC.h"
#include "HalvoPlatform/macOS/FoundationText.hpp"
#include "tests/FakeDarwin/FakeXPC.hpp"

namespace halvo::testing {

// Makes the requests on `connection`, and appends each reply to `replies`: "begin yes", "idle",
// "holding for 600 s, locked".
class FakeCaller {
  public:
    // `wallClock` gives the seconds since 1970.
    FakeCaller(std::vector<std::string>& replies, std::function<double()> wallClock)
        : replies_(replies), wallClock_(std::move(wallClock)) {}

    void begin(NSString* path, NSDate* until, NSDate* started) {
        fake::request(connection, ^(id<HalvoHelperXPC> helper) {
          [helper beginWithAppPath:path until:until started:started reply:noting("begin")];
        });
    }

    // A begin from now for `seconds`.
    void begin(const std::string& path, double seconds) {
        const double now = wallClock_();
        begin(foundationText(path), [NSDate dateWithTimeIntervalSince1970:now + seconds],
              [NSDate dateWithTimeIntervalSince1970:now]);
    }

    void heartbeat(bool sessionEnding = false) {
        fake::request(connection, ^(id<HalvoHelperXPC> helper) {
          [helper heartbeatWithSessionEnding:(sessionEnding ? YES : NO) reply:noting("heartbeat")];
        });
    }

    void end() {
        fake::request(connection, ^(id<HalvoHelperXPC> helper) {
          [helper endWithReply:noting("end")];
        });
    }

    void status() {
        fake::request(connection, ^(id<HalvoHelperXPC> helper) {
          [helper statusWithReply:^(BOOL holding, NSDate* until, BOOL locked) {
            toldUntil = until == nil ? 0 : until.timeIntervalSince1970;
            const long left = std::lround(toldUntil - wallClock_());
            replies_.push_back(!holding ? until == nil ? "idle" : "idle with an end"
                                        : "holding for " + std::to_string(left) + " s" +
                                              (locked ? ", locked" : ""));
          }];
        });
    }

    NSXPCConnection* connection = nil;
    // The end in the last status, in seconds since 1970; 0 for none.
    double toldUntil = 0;

  private:
    void (^noting(std::string request))(BOOL) {
        return ^(BOOL ok) {
          replies_.push_back(request + (ok ? " yes" : " no"));
        };
    }

    std::vector<std::string>& replies_;
    std::function<double()> wallClock_;
};

}  // namespace halvo::testing
