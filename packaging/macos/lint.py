#!/usr/bin/python3
"""Checks what launchd, the helper and the app must agree on, before it is signed and shipped: the names in the launchd
property list, in the helper's Info.plist and in the requirement that the app makes of the helper. A mistake in them shows on
a Mac only as a helper that does not start or is not believed.

Prints one line for each finding on standard error, all of them, and fails if there is one."""

import argparse
import plistlib
import re
import sys
from pathlib import Path
from xml.etree import ElementTree
from xml.parsers.expat import ExpatError

ANY_TEXT = [
    "CFBundleDevelopmentRegion", "CFBundleExecutable", "CFBundleInfoDictionaryVersion", "CFBundleName", "CFBundlePackageType",
    "CFBundleShortVersionString", "CFBundleVersion", "LSMinimumSystemVersion",
]  # fmt: skip


class Once(dict):
    """A dictionary whose keys occur once."""

    def __setitem__(self, key, value):
        if key in self:
            raise ValueError(f"the key {key} occurs twice")
        super().__setitem__(key, value)


def read(path: Path) -> dict:
    """Raises ValueError with what is wrong."""
    if not path.is_file():
        raise ValueError("there is no such file")
    try:
        if len(ElementTree.parse(path).getroot()) != 1:
            raise ValueError("it does not hold exactly one value")
        value = plistlib.loads(path.read_bytes(), fmt=plistlib.FMT_XML, dict_type=Once)
    except (ElementTree.ParseError, ExpatError, AttributeError, IndexError, TypeError) as error:
        raise ValueError(f"it is no XML property list ({error})") from error
    if not isinstance(value, dict):
        raise ValueError("its top level is no dictionary")
    return value


def places(value, place: str = "") -> dict:
    """All values by their place, as "KeepAlive/SuccessfulExit" and "AssociatedBundleIdentifiers/0"; of a dictionary or an
    array, its type."""
    items = value.items() if isinstance(value, dict) else enumerate(value) if isinstance(value, list) else ()
    found = {place: type(value) if isinstance(value, (dict, list)) else value}
    for key, each in items:
        found |= places(each, f"{place}/{key}" if place else str(key))
    return found


def described(value) -> str:
    if isinstance(value, bool):
        return str(value).lower()
    names = {dict: "a dictionary", Once: "a dictionary", list: "an array"}
    return names.get(value) or (f'"{value}"' if isinstance(value, str) else str(value))


def check_list(path: Path, expected: dict, any_text: list[str]) -> list[str]:
    """`expected`: at each place the value, and why, as the end of a sentence."""
    try:
        found = places(read(path))
    except ValueError as error:
        return [f"{path} cannot be read: {error}; mend the template it is made from"]
    findings = []
    for key, (value, why) in expected.items():
        should = f"make it {described(value)}, {why}"
        if key not in found:
            findings.append(f"{path.name}: {key} is missing; {should}")
        # Not by ==, for which 1 is True.
        elif described(found[key]) != described(value):
            findings.append(f"{path.name}: {key} is {described(found[key])}; {should}")
    for key, value in found.items():
        if key and key not in expected and not (key in any_text and isinstance(value, str)):
            findings.append(
                f"{path.name}: {key} is not known here; remove it, or teach packaging/macos/lint.py about it"
            )
    return findings


def check_names(app: str, team: str, place: str) -> list[str]:
    """Of what all the rest is compared with. The rules are those of HalvoHelperCore/HelperIdentity.hpp."""
    findings = []
    if not re.fullmatch(r"(?!\.)(?!.*\.\.)[A-Za-z0-9.-]{1,200}", app):
        findings.append(
            f'HALVO_APP_BUNDLE_ID is "{app}"; make it the app\'s bundle identifier: at most 200 ASCII letters, digits, '
            '"." and "-", no "." in front and no two in a row'
        )
    if not re.fullmatch(r"[A-Z0-9]{10}", team):
        findings.append(
            f'HALVO_TEAM_ID is "{team}"; make it the team identifier of the developer account: ten ASCII capital letters '
            "and digits"
        )
    if not re.fullmatch(r"Contents/([A-Za-z0-9-]+/)+[A-Za-z0-9-]+", place):
        findings.append(f'the executable is put at "{place}"; put it in a folder inside the bundle\'s Contents')
    elif place.startswith("Contents/MacOS/"):
        findings.append(
            f'the executable is put at "{place}"; put it elsewhere: in Contents/MacOS the system would take it for the '
            "app's own program"
        )
    return findings


def check_requirement(path: Path, helper: str, team: str) -> list[str]:
    if not path.is_file():
        return [f"{path} cannot be read: there is no such file; configure the build anew"]
    form = 'anchor apple generic and identifier "{}" and certificate leaf[subject.OU] = "{}"'
    pattern = re.escape(form).replace(r"\{\}", '([^"]*)')
    match = re.fullmatch(pattern, path.read_text(encoding="utf-8"))
    if match is None:
        return [
            f"{path.name}: it is no requirement of the one form; make it {form.format(helper, team)}, with nothing before "
            "and after"
        ]
    findings = []
    if match[1] != helper:
        findings.append(
            f'{path.name}: the identifier is "{match[1]}"; make it "{helper}", which the helper is signed with'
        )
    if match[2] != team:
        findings.append(
            f'{path.name}: the organizational unit is "{match[2]}"; make it "{team}", the team that signs the helper'
        )
    return findings


def lint(app: str, team: str, place: str, launchd: Path, info: Path, requirement: Path) -> list[str]:
    """The findings. `place`: where the executable is put, relative to the app bundle."""
    findings = check_names(app, team, place)
    if findings:
        return findings  # all the rest is compared with these
    helper = f"{app}.helper"
    findings = check_list(
        launchd,
        {
            "Label": (helper, "the name of the app's helper"),
            "BundleProgram": (place, "where the executable is put"),
            "MachServices": (dict, "with the one name that the helper listens on"),
            f"MachServices/{helper}": (True, "the name that the helper listens on"),
            "AssociatedBundleIdentifiers": (list, "with the app's bundle identifier"),
            "AssociatedBundleIdentifiers/0": (app, "the app's bundle identifier"),
            "KeepAlive": (dict, "or launchd does not start a helper again that holds a commitment"),
            "KeepAlive/SuccessfulExit": (
                False, "so that launchd starts a helper again that holds a commitment, and lets an idle one rest"
            ),
            "ThrottleInterval": (2, "the helper's own pace"),
            "EnableTransactions": (False, "so that a stop is SIGTERM, never at once SIGKILL"),
            "ExitTimeOut": (20, "time to save the commitment and to take the lock off"),
            "SpawnConstraint": (dict, "or launchd starts whatever lies in the helper's place"),
            "SpawnConstraint/team-identifier": (team, "the team that signs the helper"),
            "SpawnConstraint/signing-identifier": (helper, "the identifier that the helper is signed with"),
        },
        [],
    )  # fmt: skip
    if launchd.name != f"{helper}.plist":
        findings.append(
            f"the launchd property list is named {launchd.name}; name it {helper}.plist, by which SMAppService finds it"
        )
    findings += check_list(
        info,
        {
            "CFBundleIdentifier": (helper, "the name of the app's helper, which it is signed with"),
            "HalvoAppBundleID": (app, "the app that the helper serves"),
            "HalvoTeamID": (team, "the team whose app the helper serves"),
        },
        ANY_TEXT,
    )
    if requirement.name != f"{helper}.requirement":
        findings.append(f"the requirement's file is named {requirement.name}; name it {helper}.requirement")
    return findings + check_requirement(requirement, helper, team)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    for name in ("app", "team", "place"):
        parser.add_argument(f"--{name}", required=True)
    for name in ("launchd", "info", "requirement"):
        parser.add_argument(f"--{name}", type=Path, required=True, metavar="FILE")
    findings = lint(**vars(parser.parse_args()))
    for finding in findings:
        print(f"lint: {finding}", file=sys.stderr)
    sys.exit(1 if findings else 0)


if __name__ == "__main__":
    main()
