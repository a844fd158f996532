#include "HalvoHelper/Linux/RefusalLog.hpp"

#include "HalvoHelper/Linux/Limits.hpp"
#include "HalvoPlatform/Log.hpp"

namespace halvo {

void RefusalLog::refused(Seconds now, const std::string& why) {
    if (lines_ == 0 || now - spanStart_ >= Limits::refusalSpan) {
        if (untold_ > 0) {
            HALVO_LOG_ERROR(helperLog, "Refused %{public}ld more callers", untold_);
        }
        spanStart_ = now;
        lines_ = 0;
        untold_ = 0;
    }
    if (lines_ == Limits::refusalLines) {
        ++untold_;
        return;
    }
    ++lines_;
    HALVO_LOG_ERROR(helperLog, "Refused a caller: %{public}s", why.c_str());
}

}  // namespace halvo
