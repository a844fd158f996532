// The records for Swift, which reaches C++ through C: the functions of HalvoShared, on flat values.
//
// A function takes its arguments, and replies with its result, as one sequence of words and one of
// bytes. What they are is said with each function in the terms of the headers that it names:
//
//     a bool                  a word, 0 or 1
//     a whole number          a word, in two's complement
//     a date                  a word, the bits of a double: seconds since 1970
//     a span                  a word, the bits of a double: seconds
//     an enumeration          a word, the number of the enumerator
//     a text                  a word, the number of its bytes, which are the next bytes
//     a UUID                  two words, which hold its bytes in their order
//     an optional             a word, 0 or 1; when it is 1, the value
//     a list                  a word, the number of its elements; each of them
//     a record                each member, in the order in which its class declares them
//     a variant               a word, the index of the alternative; the alternative
//
// Failures are values: nothing throws, and memory that cannot be allocated is a failure too. Any
// thread, where the C++ function may be called on any. Only functions whose name says so read or
// change a file.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define HALVO_NOEXCEPT noexcept
extern "C" {
#else
#define HALVO_NOEXCEPT
#endif

// Which pointers may be null, for Swift.
#if defined(__clang__) && !defined(__cplusplus)
#define HALVO_NULLABLE _Nullable
#else
#define HALVO_NULLABLE
#endif

// Borrowed. Without words or bytes the pointer may be null.
typedef struct HalvoValues {
    const uint64_t* HALVO_NULLABLE words;
    size_t wordCount;
    const void* HALVO_NULLABLE bytes;
    size_t byteCount;
} HalvoValues;

// The result of a function, for halvo_free().
typedef struct HalvoReply {
    // The result; of a failure two texts: the path of the member or file, which may be empty, and
    // the problem, a sentence or the predicate of one, without a full stop. Valid until
    // halvo_free().
    HalvoValues values;
    bool isFailure;
    void* HALVO_NULLABLE owner;
} HalvoReply;

// Frees what a reply holds. Each reply exactly once; one of zeros is allowed.
void halvo_free(HalvoReply reply) HALVO_NOEXCEPT;

// All functions below fail when the arguments are not what is said here: too few, too many, or out
// of the range of their type.

// --- WidgetSnapshot.hpp

// text -> WidgetSnapshot. Decodes JSON; fails as JSON::decode().
HalvoReply halvo_snapshot_decode(HalvoValues arguments) HALVO_NOEXCEPT;
// WidgetSnapshot -> text. Encodes it; fails as JSON::encode().
HalvoReply halvo_snapshot_encode(HalvoValues arguments) HALVO_NOEXCEPT;
// -> text. The path of WidgetSnapshot::file().
HalvoReply halvo_snapshot_file(HalvoValues arguments) HALVO_NOEXCEPT;
// -> list of texts. WidgetSnapshot::Kind: status, breathe, breatheControl, focusControl.
HalvoReply halvo_snapshot_kinds(HalvoValues arguments) HALVO_NOEXCEPT;
// WidgetSnapshot, date -> State. WidgetSnapshot::state().
HalvoReply halvo_snapshot_state(HalvoValues arguments) HALVO_NOEXCEPT;
// State -> optional Running. WidgetSnapshot::countdown().
HalvoReply halvo_snapshot_countdown(HalvoValues arguments) HALVO_NOEXCEPT;
// Day -> bool. WidgetSnapshot::Day::isEmpty().
HalvoReply halvo_snapshot_day_is_empty(HalvoValues arguments) HALVO_NOEXCEPT;
// WidgetSnapshot, list of dates, text -> list of WidgetMoment. WidgetSnapshot::moment() at each of
// the dates in the time zone with that name; fails as GregorianCalendar::named().
HalvoReply halvo_snapshot_moments(HalvoValues arguments) HALVO_NOEXCEPT;
// WidgetSnapshot, date, text, span, whole number without sign -> list of dates.
// WidgetSnapshot::timelineDates() in the time zone with that name; fails as
// GregorianCalendar::named().
HalvoReply halvo_snapshot_timeline_dates(HalvoValues arguments) HALVO_NOEXCEPT;
// WidgetSnapshot, list of dates, date -> date. WidgetSnapshot::reloadDate().
HalvoReply halvo_snapshot_reload_date(HalvoValues arguments) HALVO_NOEXCEPT;
// WidgetMoment -> optional Running. WidgetMoment::focus().
HalvoReply halvo_moment_focus(HalvoValues arguments) HALVO_NOEXCEPT;

// --- KeepAliveState.hpp

// text -> KeepAliveState. Decodes JSON; fails as JSON::decode().
HalvoReply halvo_keep_alive_decode(HalvoValues arguments) HALVO_NOEXCEPT;
// KeepAliveState -> text. Encodes it; fails as JSON::encode().
HalvoReply halvo_keep_alive_encode(HalvoValues arguments) HALVO_NOEXCEPT;
// -> text. The path of KeepAliveState::file().
HalvoReply halvo_keep_alive_file(HalvoValues arguments) HALVO_NOEXCEPT;
// KeepAliveState, date -> bool. KeepAliveState::shouldRelaunch().
HalvoReply halvo_keep_alive_should_relaunch(HalvoValues arguments) HALVO_NOEXCEPT;
// KeepAliveState, bool, date -> bool. KeepAliveState::wasBypassed().
HalvoReply halvo_keep_alive_was_bypassed(HalvoValues arguments) HALVO_NOEXCEPT;
// KeepAliveState, text -> bool. KeepAliveState::mayOpen().
HalvoReply halvo_keep_alive_may_open(HalvoValues arguments) HALVO_NOEXCEPT;

// --- HalvoLink.hpp; a link is its Screen, a variant, whose Breathe is a record

// text -> link. HalvoLink::reading().
HalvoReply halvo_link_reading(HalvoValues arguments) HALVO_NOEXCEPT;
// link, optional text -> text. HalvoLink::url() under that scheme, or else that of the app.
HalvoReply halvo_link_url(HalvoValues arguments) HALVO_NOEXCEPT;
// -> text. HalvoLink::scheme(), which reads the main bundle's Info.plist.
HalvoReply halvo_link_scheme(HalvoValues arguments) HALVO_NOEXCEPT;

// --- AppGroup.hpp, SharedFile.hpp, LaunchReason.hpp

// -> optional text. AppGroup::identifier(), which reads the main bundle's Info.plist.
HalvoReply halvo_group_identifier(HalvoValues arguments) HALVO_NOEXCEPT;
// -> text. AppGroup::container(), which makes the folder.
HalvoReply halvo_group_container(HalvoValues arguments) HALVO_NOEXCEPT;
// text -> text. The content of the file at that path, as SharedFile::load() reads it; fails as that
// does.
HalvoReply halvo_file_read(HalvoValues arguments) HALVO_NOEXCEPT;
// text, text -> nothing. Replaces the file at that path by the second text, as SharedFile::write();
// fails as that does.
HalvoReply halvo_file_store(HalvoValues arguments) HALVO_NOEXCEPT;
// text -> nothing. SharedFile::remove() of the file at that path.
HalvoReply halvo_file_remove(HalvoValues arguments) HALVO_NOEXCEPT;
// -> text, list of texts. LaunchReason: relaunchArgument, afterQuitArguments.
HalvoReply halvo_launch_arguments(HalvoValues arguments) HALVO_NOEXCEPT;

#ifdef __cplusplus
}
#endif
