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

// NOLINTBEGIN(modernize-deprecated-headers,modernize-use-using): this is C.
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

// From arguments to the result, as each function says: ARGUMENTS -> RESULT. All fail when the
// arguments are not what is said there: too few, too many, or out of the range of their type.
typedef HalvoReply HalvoFunction(HalvoValues arguments) HALVO_NOEXCEPT;

// --- WidgetSnapshot.hpp; a zone is the name of a time zone, a limit is a number without sign

HalvoFunction halvo_snapshot_decode;     // text of JSON -> WidgetSnapshot; fails as JSON::decode()
HalvoFunction halvo_snapshot_encode;     // WidgetSnapshot -> text of JSON; fails as JSON::encode()
HalvoFunction halvo_snapshot_file;       // -> text: the path of WidgetSnapshot::file()
HalvoFunction halvo_snapshot_kinds;      // -> list of texts: the members of Kind, in their order
HalvoFunction halvo_snapshot_state;      // WidgetSnapshot, date -> State: state()
HalvoFunction halvo_snapshot_countdown;  // State -> optional Running: countdown()
HalvoFunction halvo_snapshot_day_is_empty;  // Day -> bool: Day::isEmpty()
// WidgetSnapshot, list of dates, text: zone -> list of WidgetMoment: moment() at each of the dates;
// fails as GregorianCalendar::named()
HalvoFunction halvo_snapshot_moments;
// WidgetSnapshot, date, text: zone, span, limit -> list of dates: timelineDates(); fails as
// GregorianCalendar::named()
HalvoFunction halvo_snapshot_timeline_dates;
HalvoFunction halvo_snapshot_reload_date;  // WidgetSnapshot, list of dates, date -> date
HalvoFunction halvo_moment_focus;          // WidgetMoment -> optional Running: focus()

// --- KeepAliveState.hpp

HalvoFunction halvo_keep_alive_decode;  // text of JSON -> KeepAliveState; fails as JSON::decode()
HalvoFunction halvo_keep_alive_encode;  // KeepAliveState -> text of JSON; fails as JSON::encode()
HalvoFunction halvo_keep_alive_file;    // -> text: the path of KeepAliveState::file()
HalvoFunction halvo_keep_alive_should_relaunch;  // KeepAliveState, date -> bool
HalvoFunction halvo_keep_alive_was_bypassed;     // KeepAliveState, bool, date -> bool
HalvoFunction halvo_keep_alive_may_open;         // KeepAliveState, text -> bool

// --- HalvoLink.hpp; a link is its Screen, whose Breathe is a record

HalvoFunction halvo_link_reading;  // text -> link: reading()
HalvoFunction halvo_link_url;      // link, text: scheme -> text: url()
HalvoFunction halvo_link_scheme;   // -> text: scheme(), which reads the Info.plist

// --- AppGroup.hpp, SharedFile.hpp, LaunchReason.hpp

HalvoFunction halvo_group_identifier;  // -> optional text: identifier(), which reads the Info.plist
HalvoFunction halvo_group_container;   // -> text: container(), which makes the folder
// text: path -> text: the file's content, which SharedFile::load() would decode; fails as that does
HalvoFunction halvo_file_read;
// text: path, text -> nothing: makes that the file's content, as SharedFile::write(); fails
// likewise
HalvoFunction halvo_file_store;
HalvoFunction halvo_file_remove;       // text: path -> nothing: SharedFile::remove()
HalvoFunction halvo_launch_arguments;  // -> list of texts: relaunchArgument, afterQuitArguments

#ifdef __cplusplus
}
#endif
// NOLINTEND(modernize-deprecated-headers,modernize-use-using)
