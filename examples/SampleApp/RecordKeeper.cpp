#include "examples/SampleApp/RecordKeeper.hpp"

#include <unistd.h>

#include <cmath>
#include <utility>

namespace halvo {
namespace {

// Well below the two minutes of silence that count as a bypass.
constexpr Seconds longestSilence{30};

constexpr Seconds aDay{86400};

bool isNear(WallDate one, WallDate other) {
    constexpr Seconds hair{1};
    return one - other < hair && other - one < hair;
}

// The helper tells an end anew each time, and not always to the same fraction of a second.
bool isSame(const HelperStatus& a, const HelperStatus& b) {
    const bool endsSame = a.until && b.until ? isNear(*a.until, *b.until) : a.until == b.until;
    return a.holding == b.holding && endsSame;
}

}  // namespace

WidgetSnapshot snapshotOf(const HelperStatus& status, WallDate since, WallDate now) {
    using S = WidgetSnapshot;
    const std::string name = "Ultra Hard mode";
    const S::Look look{"red", "lock"};
    S snapshot;
    snapshot.writtenAt = now;
    snapshot.isRunning = status.holding;
    snapshot.blockCount = 1;
    snapshot.horizon = now + aDay;
    snapshot.breathe = {"box", 5};
    snapshot.focusMinutes = 25;
    constexpr UUID block{{0x6F, 0x0A, 0x4B, 0x9E, 0x2D, 0x53, 0x4C, 0x6C, 0x9A, 0x57, 0x51, 0xC8,
                          0xD3, 0xE7, 0xA2, 0x10}};
    snapshot.blocks = {{block, name, look, S::Level::ultraHard, true, status.holding}};
    if (!status.holding) {
        snapshot.phases = {{since, S::NothingScheduled{}}};
        return snapshot;
    }
    snapshot.phases = {{since, S::Block{{.name = name,
                                         .names = {},
                                         .look = look,
                                         .start = since,
                                         .end = status.until,
                                         .level = S::Level::ultraHard,
                                         .listNames = {},
                                         .unlock = std::nullopt}}}};
    if (status.until) {
        snapshot.phases.push_back({*status.until, S::NothingScheduled{}});
    }
    return snapshot;
}

RecordKeeper::RecordKeeper(SharedFile<KeepAliveState> keepAlive, SharedFile<WidgetSnapshot> widgets,
                           std::string appPath)
    : keepAliveFile_(std::move(keepAlive)), widgetsFile_(std::move(widgets)) {
    keepAlive_.pid = getpid();
    keepAlive_.appPath = std::move(appPath);
}

std::optional<std::string> RecordKeeper::update(const HelperStatus& status, WallDate now) {
    const bool isChanged = !writtenAt_ || !isSame(status, status_);
    // A clock that was set back must not keep the record from being written.
    const bool isOld = !writtenAt_ || now - *writtenAt_ >= longestSilence || now < *writtenAt_;
    if (!isChanged && !isOld) {
        return std::nullopt;
    }
    if (!writtenAt_ || status.holding != status_.holding) {
        since_ = now;
    }
    if (isChanged) {
        status_ = status;
    }
    keepAlive_.ultraHard = status_.holding;
    keepAlive_.commitmentUntil = status_.until;
    return write(now);
}

std::optional<std::string> RecordKeeper::end(WallDate now) {
    if (!writtenAt_) {
        return std::nullopt;
    }
    keepAlive_.clean = true;
    return write(now);
}

std::optional<std::string> RecordKeeper::write(WallDate now) {
    writtenAt_ = now;
    keepAlive_.updatedAt = now;
    try {
        keepAliveFile_.write(keepAlive_);
        widgetsFile_.write(snapshotOf(status_, since_, now));
        trouble_.clear();
    } catch (const SharedFileError& error) {
        const std::string trouble = error.what();
        if (trouble != trouble_) {
            trouble_ = trouble;
            return "What the widgets show could not be written: " + trouble + ".";
        }
    }
    return std::nullopt;
}

}  // namespace halvo
