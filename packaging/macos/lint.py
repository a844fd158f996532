#!/usr/bin/python3
"""Checks what launchd, the helper and the app must agree on, before it is signed and shipped: the names in the launchd
property list, in the helper's Info.plist and in the requirement that the app makes of the helper. A mistake in them shows
on a Mac only as a helper that does not start or is not believed.

Prints one line for each finding on standard error, all of them, and fails if there is one."""

import argparse
import json
import plistlib
import re
import sys
from pathlib import Path
from xml.etree import ElementTree
from xml.parsers.expat import ExpatError

# What an Info.plist may have besides, as any text.
ANY_TEXT = {
    "CFBundleDevelopmentRegion", "CFBundleExecutable", "CFBundleInfoDictionaryVersion", "CFBundleName", "CFBundlePackageType",
    "CFBundleShortVersionString", "CFBundleVersion", "LSMinimumSystemVersion",
}  # fmt: skip


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


def differences(expected, found, place: str = "") -> list[str]:
    """One for each value that is missing, unknown or another."""

    def described(value) -> str:
        return json.dumps(value, ensure_ascii=False, default=str)

    if isinstance(expected, list) and isinstance(found, list):
        expected, found = dict(enumerate(expected)), dict(enumerate(found))
    if not isinstance(expected, dict) or not isinstance(found, dict):
        # Not by ==, for which 1 is True.
        are_same = described(expected) == described(found)
        return [] if are_same else [f"{place} is {described(found)}; make it {described(expected)}"]
    findings = []
    for key in expected | found:
        inner = f"{place}/{key}" if place else str(key)
        if key not in found:
            findings.append(f"{inner} is missing; make it {described(expected[key])}")
        elif key not in expected:
            findings.append(f"{inner} is not known here; remove it, or teach packaging/macos/lint.py about it")
        else:
            findings += differences(expected[key], found[key], inner)
    return findings


def check_list(path: Path, expected: dict, any_text: set[str]) -> list[str]:
    try:
        found = read(path)
    except ValueError as error:
        return [f"{path} cannot be read: {error}; mend the template it is made from"]
    found = {key: value for key, value in found.items() if key not in any_text or not isinstance(value, str)}
    return [f"{path.name}: {each}" for each in differences(expected, found)]


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


def check_requirement(path: Path, expected: str) -> list[str]:
    if not path.is_file():
        return [f"{path} cannot be read: there is no such file; configure the build anew"]
    found = path.read_text(encoding="utf-8")
    return [] if found == expected else [f"{path.name}: it is {found!r}; make it {expected!r}"]


def lint(app: str, team: str, place: str, launchd: Path, info: Path, requirement: Path) -> list[str]:
    """The findings. `place`: where the executable is put, relative to the app bundle."""
    findings = check_names(app, team, place)
    if findings:
        return findings  # all the rest is compared with these
    helper = f"{app}.helper"
    for path, name in (launchd, f"{helper}.plist"), (requirement, f"{helper}.requirement"):
        if path.name != name:
            findings.append(f"{path} is named {path.name}; name it {name}, by which it is found")
    # launchd.plist.in says why.
    job = {
        "Label": helper,
        "BundleProgram": place,
        "MachServices": {helper: True},
        "AssociatedBundleIdentifiers": [app],
        "KeepAlive": {"SuccessfulExit": False},
        "ThrottleInterval": 2,
        "EnableTransactions": False,
        "ExitTimeOut": 20,
        "SpawnConstraint": {"team-identifier": team, "signing-identifier": helper},
    }
    return [
        *findings,
        *check_list(launchd, job, set()),
        *check_list(info, {"CFBundleIdentifier": helper, "HalvoAppBundleID": app, "HalvoTeamID": team}, ANY_TEXT),
        *check_requirement(
            requirement,
            f'anchor apple generic and identifier "{helper}" and certificate leaf[subject.OU] = "{team}"',
        ),
    ]


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
