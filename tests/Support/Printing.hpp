// How failed expectations print the helper's records.
#pragma once

#include <ostream>

#include "HalvoHelperCore/CommitmentStore.hpp"
#include "HalvoHelperCore/HelperStatus.hpp"

namespace halvo {

inline void PrintTo(const ClockReading& reading, std::ostream* stream) {
    *stream << "{" << reading.bootID.text() << ", up " << reading.sinceBoot.count() << " s, wall "
            << std::fixed << secondsSince1970(reading.wall) << std::defaultfloat << "}";
}

inline void PrintTo(const HelperCommitment& commitment, std::ostream* stream) {
    *stream << commitment.appPath << " of " << commitment.uid << ", remaining "
            << commitment.remaining.count() << ", cap " << commitment.capRemaining.count()
            << (commitment.locked ? ", locked" : ", not locked") << ", started " << std::fixed
            << secondsSince1970(commitment.startedWall) << std::defaultfloat << ", as of ";
    PrintTo(commitment.checkpoint, stream);
}

inline void PrintTo(const UnreadableCommitment& unreadable, std::ostream* stream) {
    *stream << "unreadable, path " << unreadable.appPath.value_or("unknown")
            << (unreadable.locked ? ", locked" : ", not locked");
}

inline void PrintTo(const NoCommitment&, std::ostream* stream) { *stream << "none"; }

inline void PrintTo(const HelperStatus& status, std::ostream* stream) {
    *stream << (status.holding ? "holding" : "idle");
    if (status.until) {
        *stream << " until " << std::fixed << secondsSince1970(*status.until) << std::defaultfloat;
    }
    *stream << (status.locked ? ", locked" : "");
}

}  // namespace halvo
