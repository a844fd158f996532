#!/usr/bin/python3
"""What is generated for macOS, the check of it that runs in every build, and where the build puts it.

Needs in its environment what packaging/macos/CMakeLists.txt sets."""

import os
import subprocess
import tempfile
import time
import unittest
from pathlib import Path

from lint import lint

APP, TEAM = os.environ["HALVO_APP_BUNDLE_ID"], os.environ["HALVO_TEAM_ID"]
HELPER = f"{APP}.helper"
HERE = Path(__file__).resolve().parent
GENERATED, INFO = Path(os.environ["HALVO_PACKAGING"]), Path(os.environ["HALVO_INFO_PLIST"])
PLACE = "Contents/Helpers/HalvoHelper"


class FolderTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)


class LintTest(FolderTest):
    def findings(self, changes=(), app=APP, team=TEAM, place=PLACE, names=None):
        """Of what the build has generated, with `changes`: from, to. What is replaced must be there exactly once."""
        names = names or (f"{HELPER}.plist", "Info.plist", f"{HELPER}.requirement")
        sources = (GENERATED / f"{HELPER}.plist", INFO, GENERATED / f"{HELPER}.requirement")
        texts = [source.read_text() for source in sources]
        for file, before, after in changes:
            self.assertEqual(texts[file].count(before), 1, before)
            texts[file] = texts[file].replace(before, after)
        for name, text in zip(names, texts):
            (self.folder / name).write_text(text)
        return lint(app, team, place, *(self.folder / name for name in names))

    def check(self, row, findings):
        """There is one, which says this, and what to do."""
        with self.subTest(row):
            self.assertEqual(len(findings), 1, findings)
            self.assertIn(row, findings[0])
            self.assertIn("; ", findings[0])

    def test_what_is_generated_has_no_findings(self):
        self.assertEqual(self.findings(), [])

    def test_one_mistake_is_one_finding(self):
        job, info, requirement = 0, 1, 2
        label = f"<key>Label</key>\n    <string>{HELPER}</string>"
        team = f"<key>HalvoTeamID</key>\n    <string>{TEAM}</string>"
        for file, before, after, finding in (
            (job, label, label.replace(HELPER, APP), f'{HELPER}.plist: Label is "{APP}"; make it "{HELPER}"'),
            (job, label, "", f'Label is missing; make it "{HELPER}"'),
            (job, "<key>KeepAlive</key>", "<key>Keep</key><true/><key>KeepAlive</key>", "Keep is not known here; remove it"),
            (job, "<true/>", "<false/>", f"MachServices/{HELPER} is false; make it true"),
            (job, "<true/>", "<true/><key>x</key><true/>", "MachServices/x is not known here; remove it"),
            (job, f"<string>{APP}</string>", "<string>a.b</string>", f'Identifiers/0 is "a.b"; make it "{APP}"'),
            (job, f"<string>{APP}</string>", f"<string>{APP}</string><string>a</string>", "Identifiers/1 is not known"),
            (job, "<dict>\n        <key>SuccessfulExit</key>\n        <false/>\n    </dict>", "<true/>",
             'KeepAlive is true; make it {"SuccessfulExit": false}'),
            # Of the right type, too.
            (job, "<true/>", "<integer>1</integer>", f"MachServices/{HELPER} is 1; make it true"),
            (job, "<integer>2</integer>", "<string>2</string>", 'ThrottleInterval is "2"; make it 2'),
            (job, "<integer>2</integer>", "<real>2</real>", "ThrottleInterval is 2.0; make it 2"),
            (info, team, team.replace(TEAM, "A"), f'Info.plist: HalvoTeamID is "A"; make it "{TEAM}"'),
            (info, team, f"{team}<key>HalvoTeam</key><string>x</string>", "Info.plist: HalvoTeam is not known here"),
            (info, team, f"{team}<key>LSMinimumSystemVersion</key><integer>26</integer>",
             "Info.plist: LSMinimumSystemVersion is not known here"),
            (requirement, HELPER, APP, f'.requirement: it is \'anchor apple generic and identifier "{APP}" '),
            (requirement, f'"{TEAM}"', f'"{TEAM}"\n', f'"{TEAM}"\\n\'; make it \'anchor apple generic and identifier "{HELPER}'),
            # What cannot be read is a finding by itself; whether the rest is right is then not known.
            (job, "<dict>\n    <!-- The job's", "<true/> <!-- The job's", "cannot be read: "),
            (job, "<!-- The job's", "<!-- -- The job's", "cannot be read: "),
            (job, label, label + label, "cannot be read: the key Label occurs twice"),
            (job, "<integer>2</integer>", "<integer>two</integer>", "cannot be read: "),
            (info, f"<string>{TEAM}</string>", "", "cannot be read: "),
            (info, "<key>HalvoTeamID</key>", "", "cannot be read: "),
            (info, "</dict>\n", "</dict>\n<dict/>\n", "cannot be read: it does not hold exactly one value"),
            (info, "</plist>", "</plist><plist>", "cannot be read: "),
        ):  # fmt: skip
            self.check(finding, self.findings([(file, before, after)]))

    def test_lists_without_a_dictionary_cannot_be_read(self):
        for text in ("", " ", '<plist version="1.0"/>', '<plist version="1.0"><true/></plist>'):
            (self.folder / "Info.plist").write_text(text)
            findings = lint(APP, TEAM, PLACE, GENERATED / f"{HELPER}.plist", self.folder / "Info.plist",
                            GENERATED / f"{HELPER}.requirement")  # fmt: skip
            self.check("Info.plist cannot be read: ", findings)

    def test_names_of_files(self):
        names = [f"{HELPER}.plist", "Info.plist", f"{HELPER}.requirement"]
        for index, name in ((0, f"{APP}.plist"), (2, f"{APP}.requirement")):
            changed = [*names[:index], name, *names[index + 1 :]]
            self.check(f"is named {name}; name it {names[index]}", self.findings(names=changed))

    def test_names_that_all_else_is_compared_with(self):
        for app in ("", ".com.example", "com..example", "com.a_b", "com.hälvo", 'com."a"', "com;a", "a" * 201, "a\n"):
            self.check(f'HALVO_APP_BUNDLE_ID is "{app}"', self.findings(app=app))
        for team in ("7QX4KD19M", "7QX4KD19MTT", "7qx4kd19mt", "7QX4KD19\u0661", f"{TEAM}\n"):
            self.check(f'HALVO_TEAM_ID is "{team}"', self.findings(team=team))
        for place in ("/Library/HalvoHelper", "Contents/../HalvoHelper", "HalvoHelper", "Contents/Helpers/"):
            self.check("put it in a folder inside the bundle's Contents", self.findings(place=place))
        self.check("put it elsewhere: in Contents/MacOS", self.findings(place="Contents/MacOS/HalvoHelper"))

    def test_every_mistake_is_shown(self):
        findings = self.findings(
            [(0, "<true/>", "<false/>"), (0, ">2</integer>", ">3</integer>"), (1, f"<string>{TEAM}<", "<string>A<"),
             (2, "anchor", "")]
        )  # fmt: skip
        for part, finding in zip(("MachServices/", "ThrottleInterval", "HalvoTeamID", ".requirement: "), findings, strict=True):
            self.assertIn(part, finding)

    def test_files_that_are_missing(self):
        files = [self.folder / name for name in (f"{HELPER}.plist", "Info.plist", f"{HELPER}.requirement")]
        for file, finding in zip(files, lint(APP, TEAM, PLACE, *files), strict=True):
            self.assertTrue(finding.startswith(f"{file} cannot be read: there is no such file; "), finding)


class LayoutTest(FolderTest):
    """Builds for macOS, with files in place of the programs, and a codesign that only writes down how it was called."""

    def setUp(self):
        super().setUp()
        self.build_folder = self.folder / "build"
        self.helpers = self.build_folder / "Halvo.app/Contents/Helpers"
        self.calls = self.folder / "calls"
        (self.folder / "helper").write_text("the helper")
        (self.folder / "control").write_text("halvoctl")
        (self.folder / "CMakeLists.txt").write_text(f"""cmake_minimum_required(VERSION 3.25)
            project(Layout LANGUAGES NONE)
            set(HALVO_SYSTEM macOS)
            set(HALVO_APP_BUNDLE_ID {APP})
            set(HALVO_TEAM_ID {TEAM})
            set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${{PROJECT_BINARY_DIR}}/bin)
            configure_file({INFO} ${{PROJECT_BINARY_DIR}}/bin/Info.plist COPYONLY)
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

    def configure(self, *words):
        command = [os.environ["HALVO_CMAKE"], "-G", "Ninja", "-S", self.folder, "-B", self.build_folder, *words]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)

    def builds(self):
        path = f"{self.folder}/tools:{os.environ['PATH']}"
        command = [os.environ["HALVO_CMAKE"], "--build", self.build_folder]
        done = subprocess.run(command, env={**os.environ, "PATH": path}, capture_output=True, check=False)
        return done.returncode == 0

    def test_the_helper_and_its_job_are_put_into_the_bundle_and_follow_a_new_helper(self):
        self.configure()
        self.assertTrue(self.builds())
        self.assertEqual((self.helpers / "HalvoHelper").read_text(), "the helper")
        self.assertEqual((self.helpers / "halvoctl").read_text(), "halvoctl")
        job = self.helpers.parent / f"Library/LaunchDaemons/{HELPER}.plist"
        self.assertEqual(job.read_bytes(), (GENERATED / f"{HELPER}.plist").read_bytes())
        self.assertFalse(self.calls.exists(), "nothing to sign with")

        linked = self.folder / "helper"
        linked.write_text("the new helper")
        # The clock of the file system stands still for some milliseconds at a time.
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

    def test_nothing_is_laid_out_that_the_check_refuses(self):
        self.configure("-DHALVO_SIGNING_IDENTITY=A")
        (self.build_folder / "bin/Info.plist").write_text("")
        self.assertFalse(self.builds())
        self.assertFalse(self.helpers.exists())
        self.assertFalse(self.calls.exists())


if __name__ == "__main__":
    unittest.main()
