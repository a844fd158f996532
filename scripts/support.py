"""What the scripts of this folder share."""

import re
import shutil
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path
from typing import NoReturn

ROOT = Path(__file__).resolve().parent.parent
# Suites that need people, an /Applications folder and a console of their own.
PRIVATE_MACHINE = "*PrivateMachine*"


def fail(text: str) -> NoReturn:
    sys.exit(f"{Path(sys.argv[0]).name}: {text}")


def must(command: list[str | Path], **options) -> None:
    """Runs a step that has to succeed, and shows what it said only when it does not."""
    done = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **options
    )
    if done.returncode != 0:
        sys.stderr.write(done.stdout)
        fail(f"failed: {' '.join(map(str, command))}")


def need(*programs: str) -> None:
    missing = [program for program in programs if shutil.which(program) is None]
    if missing:
        fail(f"missing: {', '.join(missing)}; scripts/setup installs it")


def test_names(executable: Path, **options) -> list[str]:
    """The tests in it, as gtest's filter takes them."""
    command = [executable, "--gtest_list_tests"]
    listed = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True, **options).stdout
    names, suite = [], ""
    for line in listed.splitlines():
        word = line.split("#")[0].strip()
        if not line.startswith(" "):
            suite = word
        elif suite.endswith("."):
            names.append(suite + word)
    return names


def in_private_machine(command: list[str], writable: Path) -> list[str]:
    return [str(ROOT / "scripts/private-machine"), "--writable", str(writable), "--", *command]


@dataclass
class Explanation:
    """A line of a file in which the tests' known gaps are explained, for one of its kinds:
    FILE "part of a source line" [KIND[,KIND]...] REASON."""

    file: str
    fragment: str
    kind: str
    reason: str
    place: str
    is_used: bool = False

    def explains(self, file: str, text: str, offset: int) -> bool:
        """Whether it is about `file`, whose text has the fragment around `offset`."""
        found = re.finditer(re.escape(self.fragment), text)
        return self.file == file and any(each.start() <= offset < each.end() for each in found)


def read_explanations(path: Path, has_kind: bool) -> list[Explanation]:
    """Ends the program when a line is not understood."""
    pattern = re.compile(
        r'(?P<file>\S+)\s+"(?P<fragment>(?:[^"\\]|\\.)+)"\s+'
        + (r"(?P<kinds>[a-z,-]+)\s+" if has_kind else "(?P<kinds>)")
        + r"(?P<reason>\S.*)"
    )
    explanations = []
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        place = f"{path.relative_to(ROOT)}:{number}"
        match = pattern.fullmatch(line.strip())
        if match is None:
            fail(f'{place}: not FILE "fragment" {"KIND[,KIND]... " if has_kind else ""}REASON')
        fragment = re.sub(r"\\(.)", r"\1", match["fragment"])
        for kind in match["kinds"].split(","):
            explanations.append(Explanation(match["file"], fragment, kind, match["reason"], place))
    return explanations
