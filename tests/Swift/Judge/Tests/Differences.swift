// Where ours and Foundation's differ, and why ours stays. A difference that appears or disappears fails a test.

/// Differences that too many texts or instants show to list them all.
enum Pattern {
    /// Foundation reads dates that it never writes (see below): a record is refused rather than guessed at.
    case dateForm
    /// Foundation reads a UUID with a blank or sign in place of a digit: no writer makes one.
    case idForm
    /// The path of a bad date or number ends before its key in Foundation: ours leads the person to it.
    case path
    /// Of equal members the first counts for Foundation, the last for ours: as RFC 8259, 4 finds in most implementations.
    case firstMember
    /// Foundation encodes the "%" of all escapes of a text that is no URL as it stands: ours only what must be encoded.
    case escapes
    /// Foundation takes a NUL byte for a character to be encoded: ours refuses it anywhere, since C functions end there.
    case zeroByte
    /// Foundation accepts "://host" and a user with "@": RFC 3986, 3.1 and 3.2.1 have neither, so ours is the main window.
    case notURL
    /// Where a day comes back after midnight, its end in Foundation is the first midnight, which has passed: the timeline
    /// needs a date in the future, so ours is the second one.
    case dayComesBack
}

/// Values of one member, which both sides read alike unless listed.
struct Member: Sendable {
    var kind: String, key: String
    /// The record, with "@" for the value.
    var text: String
    var agreed: [String]
    var different: [Difference]
}

struct Difference: Sendable {
    var why: String
    /// The text, what ours reads in it and what Foundation does; "-" for a text that is refused.
    var shown: [(String, String, String)]
}

private func keepAlive(appPath: String = "", updatedAt: String = "2026-01-01T00:00:00Z", end: String = "}") -> String {
    #"{"appPath":"\#(appPath)","clean":false,"pid":1,"ultraHard":true,"updatedAt":"\#(updatedAt)""# + end
}

private func snapshot(number: String = "1", id: String = "00000000-0000-4000-8000-0000000000FF") -> String {
    #"{"blockCount":\#(number),"blocks":[],"breathe":{"minutes":5,"style":""},"days":[],"focusMinutes":1,"horizon":"#
        + #""2026-11-21T09:00:00Z","isRunning":true,"lists":[{"id":"\#(id)","look":{"color":"","symbol":""},"name":""}],"#
        + #""phases":[],"writtenAt":"2026-11-20T08:59:55Z"}"#
}

let members = [
    Member(
        kind: "keepalive", key: "updatedAt", text: keepAlive(updatedAt: "@"),
        agreed: [
            "2024-02-29T00:00:00Z", "2000-02-29T23:59:59Z", "1582-10-15T00:00:00Z", "9999-12-31T23:59:59Z",
            "2026-01-01T00:00:00+05:30", "2026-01-01T00:00:00-05:30", "2026-01-01T00:00:00-00:00", "2026-01-01T00:00:00+18:00",
            "2026-01-01T00:00:00", "2026-01-01t00:00:00Z", "2026-01-01 00:00:00Z", " 2026-01-01T00:00:00Z", "2026-01-01T00:00Z",
            "2026-02-32T00:00:00Z", "2026-13-01T00:00:00Z", "2026-00-01T00:00:00Z", "2026-01-00T00:00:00Z", "",
            "20260101T000000Z", "-001-01-01T00:00:00Z", "+2026-01-01T00:00:00Z", "2026-01-01T00:00:00+24:00",
            "٢٠٢٦-01-01T00:00:00Z",
        ],
        different: [
            Difference(why: "no such day or time: a record is refused rather than guessed at", shown: [
                ("2023-02-29T00:00:00Z", "-", "2023-03-01T00:00:00Z"), ("2026-04-31T00:00:00Z", "-", "2026-05-01T00:00:00Z"),
                ("2026-01-01T24:00:00Z", "-", "2026-01-02T00:00:00Z"), ("2026-01-01T23:60:00Z", "-", "2026-01-02T00:00:00Z"),
                ("2016-12-31T23:59:60Z", "-", "2017-01-01T00:00:00Z"), ("2026-01-01T00:00:00+14:60", "-", "2025-12-31T09:00:00Z"),
            ]),
            Difference(why: "not the one form that is written", shown: [
                ("2026-01-01T00:00:00.5Z", "-", "2026-01-01T00:00:00Z"), ("2026-01-01T00:00:00z", "-", "2026-01-01T00:00:00Z"),
                ("2026-1-1T0:0:0Z", "-", "2026-01-01T00:00:00Z"), ("2026-01-01T00:00:00Z ", "-", "2026-01-01T00:00:00Z"),
                ("2026-01-01T00:00:00+0530", "-", "2025-12-31T18:30:00Z"), ("2026-01-01T00:00:00+05", "-", "2025-12-31T19:00:00Z"),
                ("2026-01-01T00:00:00GMT+1", "-", "2025-12-31T23:00:00Z"), ("226-01-01T00:00:00Z", "-", "0226-01-01T00:00:00Z"),
            ]),
            Difference(why: "not in the years 0 to 9999 of RFC 3339", shown: [
                ("10000-01-01T00:00:00Z", "-", "10000-01-01T00:00:00Z"),
                ("9999-12-31T23:59:59-01:00", "-", "10000-01-01T00:59:59Z"),
                ("0000-01-01T00:00:00+01:00", "-", "-0001-12-31T23:00:00Z"),
            ]),
            Difference(why: "RFC 3339 has offsets up to 23:59", shown: [
                ("2026-01-01T00:00:00+18:01", "2025-12-31T05:59:00Z", "-"),
            ]),
            Difference(why: "ISO 8601 has the Gregorian calendar at all times, Foundation the Julian one before 1582-10-15", shown: [
                ("1582-10-10T00:00:00Z", "1582-10-10T00:00:00Z", "1582-10-20T00:00:00Z"),
                ("1500-02-29T00:00:00Z", "-", "1500-02-29T00:00:00Z"),
            ]),
        ]),
    Member(
        kind: "widgets", key: "id", text: snapshot(id: "@"),
        agreed: [
            "E621E1F8-C36C-495A-93FC-0C247A3E6E5F", "e621e1f8-c36c-495a-93fc-0c247a3e6e5f", "E621e1F8-c36C-495A-93fc-0C247A3E6E5F",
            "", "E621E1F8-C36C-495A-93FC-0C247A3E6E5", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F0", "E621E1F8C36C495A93FC0C247A3E6E5F",
            "{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}", "E621E1F8-C36C-495A-93FC-0C247A3E6E5G", "E621E1F8_C36C_495A_93FC_0C247A3E6E5F",
        ],
        different: [
            Difference(why: "36 characters with a digit at each place, nothing else", shown: [
                (" 621E1F8-C36C-495A-93FC-0C247A3E6E5F", "-", "621E1F08-C36C-495A-93FC-0C247A3E6E5F"),
                ("-621E1F8-C36C-495A-93FC-0C247A3E6E5F", "-", "FA21E1F8-C36C-495A-93FC-0C247A3E6E5F"),
                (#"E621E1F8-C36C-495A-93FC-0C247A3E6E5F\u0000"#, "-", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"),
            ]),
        ]),
    Member(
        kind: "widgets", key: "blockCount", text: snapshot(number: "@"),
        agreed: [
            "9223372036854775807", "-9223372036854775808", "9223372036854775808", "-9223372036854775809", "18446744073709551616",
            "0", "-0", "-0.0", "1.0", "1e3", "1E+3", "10e-1", "15e-1", "1.5", "0e0", "1e-400", "1e18", "-1e18", "1e19", "1e400",
            "9223372036854774784.0", "9223372036854775807.0", "9007199254740993", "9007199254740992.5", "1.00000000000000000000001",
            "01", "-01", "+1", ".5", "1.", "1e", "-", "--1", "0x10", "NaN", "1_000", "1 2", "null", "true", #""1""#, "[]", "{}",
        ],
        different: [
            Difference(why: "a number with a fraction or exponent is read as a double: whole numbers are written without", shown: [
                ("9007199254740993.0", "9007199254740992", "9007199254740993"),
                ("123456789012345678e0", "123456789012345680", "123456789012345678"),
                ("9223372036854775295.9", "9223372036854774784", "-"),
                ("-9223372036854775808.0", "-9223372036854775808", "-"),
            ]),
        ]),
    Member(
        kind: "keepalive", key: "appPath", text: keepAlive(appPath: "@"),
        agreed: [
            #"\u0041\u00e9\uD83D\uDE00\/\\\b\f\n\r\t"#, "é☾😀", "\u{7f}\u{2028}\u{feff}", #"\u0000"#, #"\ud800"#, #"\uDE00\uD83D"#, #"\u00"#,
            #"\q"#, "\t", "\0",
        ], different: []),
    Member(
        kind: "keepalive", key: "pid", text: keepAlive(end: "@"),
        agreed: [
            "}", " \n}\r\t", #","appReleased":null}"#, #","bypassNoted":1}"#, #","commitmentUntil":null}"#, #","x":{"y":[1,"é",null]}}"#,
            "}x", "}{}", "}\0", "}//", "\u{b}}", "", #","x":tru}"#, #","x":.5}"#, #","x":+5}"#, #","x":'a'}"#, #","x":"\u00"}"#,
        ],
        different: [
            Difference(why: "what is not JSON is refused, also where it is not needed", shown: [
                (",}", "-", "1"), (#","x":[1,]}"#, "-", "1"), (#","x":01}"#, "-", "1"), (#","x":-}"#, "-", "1"),
                (#","x":"\q"}"#, "-", "1"), (#","x":"\ud800"}"#, "-", "1"), (",\"x\":\"\t\"}", "-", "1"), (#","x":1e999}"#, "-", "1"),
            ]),
            Difference(why: "of equal members the last one counts, and each must be valid", shown: [
                (#","pid":2}"#, "2", "1"), (#","\u0070id":2}"#, "2", "1"), (#","pid":"a"}"#, "-", "1"), (#","pid":null}"#, "-", "1"),
            ]),
            Difference(why: "the depth of a text is not limited: ours needs no stack for it", shown: [
                (#","x":"# + String(repeating: "[", count: 512) + String(repeating: "]", count: 512) + "}", "1", "-"),
            ]),
        ]),
]
