#!/usr/bin/python3
"""The generated files for macOS, the names that are accepted, and the layout of the bundle.

Needs in its environment what packaging/macos/CMakeLists.txt sets."""

import os
import plistlib
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

APP, TEAM = os.environ["HALVO_APP_BUNDLE_ID"], os.environ["HALVO_TEAM_ID"]
HELPER = f"{APP}.helper"
HERE = Path(__file__).resolve().parent
GENERATED, INFO = Path(os.environ["HALVO_PACKAGING"]), Path(os.environ["HALVO_INFO_PLIST"])


class TextTest(unittest.TestCase):
    """On a Mac a mistake in these shows only as a helper that does not start or that the app refuses."""

    def check(self, file, expected):
        found = plistlib.loads(file.read_bytes(), fmt=plistlib.FMT_XML)
        found.pop("CFBundleVersion", None)
        # As bytes, since 1 == True == 1.0.
        self.assertEqual(plistlib.dumps(found), plistlib.dumps(expected))

    def test_the_job(self):
        expected = {
            "Label": HELPER,
            "BundleProgram": "Contents/Helpers/HalvoHelper",
            "MachServices": {HELPER: True},
            "AssociatedBundleIdentifiers": [APP],
            "KeepAlive": {"SuccessfulExit": False},
            "ThrottleInterval": 2,
            "EnableTransactions": False,
            "ExitTimeOut": 20,
            "SpawnConstraint": {"team-identifier": TEAM, "signing-identifier": HELPER},
        }
        self.check(GENERATED / f"{HELPER}.plist", expected)

    def test_the_info_of_the_helper(self):
        names = {"CFBundleName": "HalvoHelper", "HalvoAppBundleID": APP, "HalvoTeamID": TEAM}
        self.check(INFO, {"CFBundleIdentifier": HELPER, **names})

    def test_the_requirement(self):
        # The text of HelperIdentity::helperRequirement(), without a newline.
        self.assertEqual(
            (GENERATED / f"{HELPER}.requirement").read_text(),
            f'anchor apple generic and identifier "{HELPER}" and certificate leaf[subject.OU] = "{TEAM}"',
        )

    def test_no_key_occurs_twice(self):
        for file in GENERATED / f"{HELPER}.plist", INFO:
            keys = [line for line in file.read_text().splitlines() if "<key>" in line]
            self.assertEqual(len(keys), len(set(keys)), keys)


class LayoutTest(unittest.TestCase):
    """Builds for macOS, with text files for the programs, and a codesign that only records its arguments."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.build_folder = self.folder / "build"
        self.helpers = self.build_folder / "Halvo.app/Contents/Helpers"
        self.calls = self.folder / "calls"
        (self.folder / "helper").write_text("the helper")
        (self.folder / "control").write_text("halvoctl")
        (self.folder / "CMakeLists.txt").write_text(f"""cmake_minimum_required(VERSION 3.25)
            project(Layout LANGUAGES NONE)
            set(HALVO_SYSTEM macOS)
            set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${{PROJECT_BINARY_DIR}}/bin)
            add_executable(HalvoHelper IMPORTED GLOBAL)
            set_target_properties(HalvoHelper PROPERTIES IMPORTED_LOCATION ${{PROJECT_SOURCE_DIR}}/helper)
            add_executable(halvoctl IMPORTED GLOBAL)
            set_target_properties(halvoctl PROPERTIES IMPORTED_LOCATION ${{PROJECT_SOURCE_DIR}}/control)
            add_subdirectory({HERE} packaging/macos)""")
        self.set_signing_to("true")

    def set_signing_to(self, command):
        tool = self.folder / "tools/codesign"
        tool.parent.mkdir(exist_ok=True)
        tool.write_text(f"#!/bin/sh\necho \"$*\" >>'{self.calls}'\n{command}")
        tool.chmod(0o700)

    def configure(self, *options, app=APP, team=TEAM):
        """0, or the error message of CMake."""
        names = [f"-DHALVO_APP_BUNDLE_ID={app}", f"-DHALVO_TEAM_ID={team}"]
        command = [os.environ["HALVO_CMAKE"], "-G", "Ninja", "-S", self.folder, "-B", self.build_folder, *names, *options]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        return done.returncode and " ".join(done.stderr.split())

    def builds(self):
        path = f"{self.folder}/tools:{os.environ['PATH']}"
        command = [os.environ["HALVO_CMAKE"], "--build", self.build_folder]
        done = subprocess.run(command, env={**os.environ, "PATH": path}, capture_output=True, check=False)
        return done.returncode == 0

    def test_the_helper_and_its_job_are_put_into_the_bundle_and_follow_a_new_helper(self):
        self.assertEqual(self.configure(), 0)
        self.assertTrue(self.builds())
        self.assertEqual((self.helpers / "HalvoHelper").read_text(), "the helper")
        self.assertEqual((self.helpers / "halvoctl").read_text(), "halvoctl")
        job = self.helpers.parent / f"Library/LaunchDaemons/{HELPER}.plist"
        self.assertEqual(job.read_bytes(), (GENERATED / f"{HELPER}.plist").read_bytes())
        self.assertFalse(self.calls.exists(), "nothing to sign with")

        linked = self.folder / "helper"
        linked.write_text("the new helper")
        # The time stamps of the file system have a resolution of some milliseconds.
        os.utime(linked, times=(time.time() + 1, time.time() + 1))
        self.assertTrue(self.builds())
        self.assertEqual((self.helpers / "HalvoHelper").read_text(), "the new helper")

    def test_the_helper_is_signed_and_checked_as_the_app_will(self):
        identity = "Developer ID Application: A (B)"
        self.configure(f"-DHALVO_SIGNING_IDENTITY={identity}")
        self.set_signing_to("false")
        self.assertFalse(self.builds())
        self.assertFalse(self.builds(), "a signature that failed is tried again")
        self.calls.unlink()
        self.set_signing_to("true")
        self.assertTrue(self.builds())
        sign = f"--force --sign {identity} --identifier"
        options = "--options runtime --timestamp"
        self.assertEqual(
            self.calls.read_text().splitlines(),
            [
                f"{sign} {APP}.halvoctl {options} {self.helpers}/halvoctl",
                f"{sign} {HELPER} {options} {self.helpers}/HalvoHelper",
                f"--verify --strict -R {self.build_folder}/packaging/macos/{HELPER}.requirement {self.helpers}/HalvoHelper",
            ],
        )

    def test_names_that_the_helper_would_not_take_are_refused(self):
        for app in ("", ".com.example", "com..example", "com.a_b", "com.hälvo", 'com."a"', "com;a", "a" * 201):
            with self.subTest(app):
                self.assertIn(f'HALVO_APP_BUNDLE_ID is "{app}"; make it', self.configure(app=app))
        for team in ("7QX4KD19M", "7QX4KD19MTT", "7qx4kd19mt", "7QX4KD19\u0661"):
            with self.subTest(team):
                self.assertIn(f'HALVO_TEAM_ID is "{team}"; make it', self.configure(team=team))
        self.assertEqual(self.configure(app="a" * 200), 0)


if __name__ == "__main__":
    unittest.main()
