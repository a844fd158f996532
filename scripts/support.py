"""Functions shared by the scripts of this folder."""

import re
import shutil
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path
from typing import NoReturn

ROOT = Path(__file__).resolve().parent.parent
EXPLANATION = re.compile(r'(?P<file>\S+)\s+"(?P<fragment>(?:[^"\\]|\\.)+)"\s+(?P<kinds>[a-z,-]+)\s+(?P<reason>\S.*)')


def fail(text: str) -> NoReturn:
    sys.exit(f"{Path(sys.argv[0]).name}: {text}")


def must(command: list[str | Path], **options) -> None:
    """Runs a command that must succeed, and prints its output only when it fails."""
    done = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **options
    )
    if done.returncode != 0:
        sys.stderr.write(done.stdout)
        fail(f"failed: {' '.join(map(str, command))}")


def need(*programs: str) -> None:
    missing = [program for program in programs if shutil.which(program) is None]
    if missing:
        fail(f"missing: {', '.join(missing)}; run scripts/setup")


def in_private_machine(command: list[str], writable: Path) -> list[str]:
    return [str(ROOT / "scripts/private-machine"), "--writable", str(writable), "--", *command]


@dataclass
class Explanation:
    """A line of tests/survivors, for one of its kinds: FILE "part of a source line" KIND[,KIND]... REASON."""

    file: str
    fragment: str
    kind: str
    reason: str
    place: str
    is_used: bool = False

    def explains(self, file: str, kind: str, text: str, offset: int) -> bool:
        """Whether it covers that kind of gap at `offset` of `text`, the content of `file`."""
        found = re.finditer(re.escape(self.fragment), text)
        return (self.file, self.kind) == (file, kind) and any(each.start() <= offset < each.end() for each in found)


def read_explanations() -> list[Explanation]:
    """Ends the program at a line that it cannot parse."""
    path = ROOT / "tests/survivors"
    explanations = []
    for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        place = f"{path.relative_to(ROOT)}:{number}"
        match = EXPLANATION.fullmatch(line.strip())
        if match is None:
            fail(f'{place}: not FILE "fragment" KIND[,KIND]... REASON')
        fragment = re.sub(r"\\(.)", r"\1", match["fragment"])
        for kind in match["kinds"].split(","):
            explanations.append(Explanation(match["file"], fragment, kind, match["reason"], place))
    return explanations
