#include "HalvoHelper/OpeningStreak.hpp"

#include "HalvoPlatform/Log.hpp"

namespace halvo {
namespace {

// Twelve lines a day at most, although the engine may ask four times a minute.
bool isTold(long failed) { return failed >= 2 && (failed & (failed - 1)) == 0; }

}  // namespace

long OpeningStreak::next(const std::string& appPath, std::uint32_t uid, Seconds now,
                         const std::string& whereItsMessagesAre) {
    const bool isAgain = failed_ >= 0 && appPath == appPath_ && uid == uid_ && now - last_ < soon;
    failed_ = isAgain ? failed_ + 1 : 0;
    appPath_ = appPath;
    uid_ = uid;
    last_ = now;
    if (isTold(failed_)) {
        HALVO_LOG_ERROR(
            helperLog,
            "Opened Halvo %{public}ld times in a row, and it didn't stay; its own messages: "
            "%{public}s",
            failed_, whereItsMessagesAre.c_str());
    }
    return failed_;
}

}  // namespace halvo
