// Where ours and Foundation's differ, and why ours stays. A difference that appears or disappears fails a test.

/// Differences that too many texts or instants show to list them all.
enum Pattern {
    /// Foundation reads dates and UUIDs that nobody writes: see below.
    case form
    /// Foundation's path of a bad date or number ends before its key: ours leads the person to it.
    case path
    /// Of equal members the first counts for Foundation: see below.
    case firstMember
    /// Plain structs have no default for a member that is missing: ours has, for files from before that member.
    case olderFile
    /// Foundation encodes each "%" of a text that is no URL as it stands: ours only what is no escape.
    case escapes
    /// Foundation encodes a NUL byte: ours refuses it anywhere, since functions of C end there.
    case zeroByte
    /// Foundation accepts "://host", and "@" in a user: RFC 3986, 3.1 and 3.2.1, does not, so ours is the main window.
    case notURL
    /// Where an evening comes back after midnight, it ends at the first midnight for Foundation, which has passed: a
    /// timeline needs a later one, so for ours it ends at the second.
    case eveningComesBack
}

/// Values of a member, separated by " | ".
struct Member: Sendable {
    var kind: String, key: String
    /// The record, with "@" for the value.
    var text: String
    /// What both sides read alike, or refuse.
    var agreed: String
    /// By the reason: "VALUE -> OURS -> FOUNDATION'S", with "-" for a text that is refused.
    var different: [String: String] = [:]
}

private let state = #"{"appPath":"","appReleased":true,"bypassNoted":true,"clean":true,"pid":1,"ultraHard":true,"#
    + #""updatedAt":"2026-01-01T00:00:00Z"}"#
private let id = "00000000-0000-4000-8000-0000000000FF"
private let snapshot = #"{"blockCount":1,"blocks":[],"breathe":{"minutes":5,"style":""},"days":[],"focusMinutes":25,"#
    + #""horizon":"2026-11-21T09:00:00Z","isRunning":true,"lists":[{"id":"\#(id)","look":{"color":"","symbol":""},"#
    + #""name":""}],"phases":[],"writtenAt":"2026-11-20T08:59:55Z"}"#

let members = [
    Member(
        kind: "keepalive", key: "updatedAt", text: state.replacing("2026-01-01T00:00:00Z", with: "@"),
        agreed: """
            2024-02-29T00:00:00Z | 2000-02-29T23:59:59Z | 1582-10-15T00:00:00Z | 9999-12-31T23:59:59Z \
            | 2026-01-01T00:00:00+05:30 | 2026-01-01T00:00:00-05:30 | 2026-01-01T00:00:00-00:00 \
            | 2026-01-01T00:00:00+18:00 | 2026-01-01T00:00:00+24:00 | 2026-01-01T00:00:00 | 2026-01-01t00:00:00Z \
            | 2026-01-01 00:00:00Z |  2026-01-01T00:00:00Z | 2026-01-01T00:00Z | 2023-02-32T00:00:00Z \
            | 2026-13-01T00:00:00Z | 2026-00-01T00:00:00Z | 2026-01-00T00:00:00Z | 20260101T000000Z \
            | -001-01-01T00:00:00Z | +2026-01-01T00:00:00Z | ٢٠٢٦-01-01T00:00:00Z |\u{20}
            """,
        different: [
            "no such day or time: refused rather than guessed at":
                "2023-02-29T00:00:00Z -> - -> 2023-03-01T00:00:00Z | 2026-04-31T00:00:00Z -> - -> 2026-05-01T00:00:00Z"
                + " | 2026-01-01T24:00:00Z -> - -> 2026-01-02T00:00:00Z"
                + " | 2016-12-31T23:59:60Z -> - -> 2017-01-01T00:00:00Z"
                + " | 2026-01-01T00:00:00+14:60 -> - -> 2025-12-31T09:00:00Z",
            "not the form that both sides write":
                "2026-01-01T00:00:00z -> - -> 2026-01-01T00:00:00Z | 2026-1-1T0:0:0Z -> - -> 2026-01-01T00:00:00Z"
                + " | 2026-01-01T00:00:00.5Z -> - -> 2026-01-01T00:00:00Z"
                + " | 2026-01-01T00:00:00Z  -> - -> 2026-01-01T00:00:00Z"
                + " | 2026-01-01T00:00:00+0530 -> - -> 2025-12-31T18:30:00Z",
            "not in the years of RFC 3339, 0 to 9999, in UTC":
                "10000-01-01T00:00:00Z -> - -> 10000-01-01T00:00:00Z"
                + " | 9999-12-31T23:59:59-01:00 -> - -> 10000-01-01T00:59:59Z"
                + " | 0000-01-01T00:00:00+01:00 -> - -> -0001-12-31T23:00:00Z",
            "RFC 3339 has offsets up to 23:59": "2026-01-01T00:00:00+18:01 -> 2025-12-31T05:59:00Z -> -",
            "ISO 8601 has no Julian calendar; Foundation has it before 1582-10-15":
                "1582-10-10T00:00:00Z -> 1582-10-10T00:00:00Z -> 1582-10-20T00:00:00Z"
                + " | 1500-02-29T00:00:00Z -> - -> 1500-02-29T00:00:00Z",
        ]),
    Member(
        kind: "widgets", key: "id", text: snapshot.replacing(id, with: "@"),
        agreed: """
            E621E1F8-C36C-495A-93FC-0C247A3E6E5F | e621e1f8-c36c-495a-93fc-0c247a3e6E5F \
            | E621E1F8-C36C-495A-93FC-0C247A3E6E5 | E621E1F8-C36C-495A-93FC-0C247A3E6E5F0 \
            | {E621E1F8-C36C-495A-93FC-0C247A3E6E5F} | E621E1F8-C36C-495A-93FC-0C247A3E6E5G \
            | E621E1F8_C36C_495A_93FC_0C247A3E6E5F | E621E1F8C36C495A93FC0C247A3E6E5F
            """,
        different: [
            "36 characters, with a hexadecimal digit at each place":
                " 621E1F8-C36C-495A-93FC-0C247A3E6E5F -> - -> 621E1F08-C36C-495A-93FC-0C247A3E6E5F"
                + " | -621E1F8-C36C-495A-93FC-0C247A3E6E5F -> - -> FA21E1F8-C36C-495A-93FC-0C247A3E6E5F"
                + #" | E621E1F8-C36C-495A-93FC-0C247A3E6E5F\u0000 -> - -> E621E1F8-C36C-495A-93FC-0C247A3E6E5F"#
        ]),
    Member(
        kind: "widgets", key: "blockCount", text: snapshot.replacing(":1,", with: ":@,"),
        agreed: """
            9223372036854775807 | -9223372036854775808 | 9223372036854775808 | -9223372036854775809 \
            | 18446744073709551616 | 9007199254740993 | 9223372036854774784.0 | 9223372036854775807.0 \
            | 9007199254740992.5 | 1.00000000000000000000001 | 0 | -0 | -0.0 | 1.0 | 1e3 | 1E+3 | 10e-1 | 15e-1 | 1.5 \
            | 0e0 | 1e-400 | 1e18 | -1e18 | 1e19 | 1e400 | 01 | -01 | +1 | .5 | 1. | 1e | - | --1 | 0x10 | NaN | 1_000 \
            | 1 2 | null | true | "1" | [] | {}
            """,
        different: [
            "a number with a fraction or exponent is read as a double; whole numbers are written without":
                "9007199254740993.0 -> 9007199254740992 -> 9007199254740993"
                + " | 9223372036854775295.9 -> 9223372036854774784 -> -"
                + " | 123456789012345678e0 -> 123456789012345680 -> 123456789012345678"
                + " | -9223372036854775808.0 -> -9223372036854775808 -> -"
        ]),
    Member(
        kind: "keepalive", key: "clean", text: state.replacing(#"clean":true"#, with: #"clean":@"#),
        agreed: #"true | false | True | 1 | 0 | 1.0 | null | "true" | []"#),
    Member(
        kind: "keepalive", key: "appPath", text: state.replacing(#""","#, with: #""@","#),
        agreed: "é☾😀 | \u{7f}\u{2028}\u{feff} | \t | \0 | "
            + #"\u0041\u00e9\uD83D\uDE00\/\\\b\f\n\r\t | \u0000 | \ud800 | \uDE00\uD83D | \u00 | \q"#),
    Member(
        kind: "keepalive", key: "pid", text: state.replacing("}", with: "@"),
        agreed: "} |  \n}\r\t | }\0 | \u{b}} | }x | }{} | }// | "
            + #","commitmentUntil":1} | ,"commitmentUntil":null} | ,"x":{"y":[1,null]}} | ,"x":tru} | ,"x":.5}"#,
        different: [
            "what is not JSON is refused, needed or not":
                #",} -> - -> 1 | ,"x":[1,]} -> - -> 1 | ,"x":01} -> - -> 1 | ,"x":-} -> - -> 1 | ,"x":1e999} -> - -> 1"#
                + #" | ,"x":"\q"} -> - -> 1 | ,"x":"\ud800"} -> - -> 1 | ,"x":"\#t"} -> - -> 1"#,
            "of equal members the last counts, as in most readers (RFC 8259, 4), and each must be valid":
                #","pid":2} -> 2 -> 1 | ,"\u0070id":2} -> 2 -> 1 | ,"pid":"a"} -> - -> 1 | ,"pid":null} -> - -> 1"#,
            "a text may be nested as deeply as it likes: ours needs no stack for it":
                #","x":\#(String(repeating: "[", count: 512))\#(String(repeating: "]", count: 512))} -> 1 -> -"#,
        ]),
]
