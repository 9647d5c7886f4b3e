"""What the tests did not reach: totals, and each line with the reason that left.toml gives for it.

Reads what gcovr counted (its JSON). Ends with status 0 when enough lines and branches were reached and every line that
was not has a reason.
"""

import json
import re
import sys
import tomllib
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
LEFT = Path(__file__).with_name("left.toml")
LINES_WANTED = 95.0
BRANCHES_WANTED = 85.0


@dataclass(frozen=True)
class Line:
    """A line that no test reaches."""

    file: str
    number: int
    text: str
    function: str


@dataclass(frozen=True)
class Left:
    """What left.toml says of some lines of one function, and the tests that show all but them."""

    file: str
    function: str
    reason: str
    lines: tuple[str, ...]
    tests: tuple[str, ...]

    def excuses(self, line: Line) -> bool:
        """Whether this is one of the lines."""
        is_here = line.function == self.function or line.function.endswith(f"::{self.function}")
        return line.file == self.file and is_here and line.text in self.lines

    @staticmethod
    def read() -> "list[Left]":
        """All of them."""
        tables = tomllib.loads(LEFT.read_text(encoding="utf-8"))["left"]
        return [
            Left(table["file"], table["function"], table["reason"], tuple(table["lines"]), tuple(table["tests"]))
            for table in tables
        ]


def bare(name: str) -> str:
    """A function's name without the arguments of its templates and without namespaces that have no name."""
    name = name.replace("(anonymous namespace)::", "").replace("[abi:cxx11]", "")
    while (shorter := re.sub(r"<[^<>]*>", "", name)) != name:
        name = shorter
    return name


def plain(name: str) -> str:
    """A function's name and nothing else: no type, no arguments."""
    return bare(name).split("(")[0].split(" ")[-1]


def function_at(functions: list[dict], number: int) -> str:
    """The function that holds a line: the last one that begins before it. Lambdas are part of the function they stand in."""
    begun = [
        (function["lineno"], function["name"])
        for function in functions
        if function["lineno"] <= number and "}::operator()" not in bare(function["name"])
    ]
    return plain(max(begun)[1]) if begun else ""


def unreached(files: list[dict]) -> Iterator[Line]:
    for file in files:
        source = (ROOT / file["file"]).read_text(encoding="utf-8").splitlines()
        for line in file["lines"]:
            if line["count"] == 0 and not line.get("gcovr/noncode"):
                number = line["line_number"]
                yield Line(file["file"], number, source[number - 1].strip(), function_at(file["functions"], number))


def share(reached: int, all_of_them: int) -> float:
    return 100.0 * reached / all_of_them if all_of_them else 0.0


def main() -> int:
    files = json.loads(Path(sys.argv[1]).read_text(encoding="utf-8"))["files"]
    known = Left.read()
    needed = set()
    without_reason = 0
    print("\nNot reached:")
    for line in unreached(files):
        entry = next((entry for entry in known if entry.excuses(line)), None)
        needed.add(entry)
        without_reason += entry is None
        told = f"{entry.reason} Relied on: {', '.join(entry.tests)}." if entry else "NO REASON GIVEN"
        print(f"  {line.file}:{line.number}: {line.function}: {line.text}\n      {told}")
    for entry in known:
        if entry not in needed:
            print(f"  {entry.file}: {entry.function}: all of it is reached; left.toml need not name it")

    lines = [line for file in files for line in file["lines"] if not line.get("gcovr/noncode")]
    branches = [branch for line in lines for branch in line["branches"]]
    of_lines = share(sum(line["count"] > 0 for line in lines), len(lines))
    of_branches = share(sum(branch["count"] > 0 for branch in branches), len(branches))
    print(f"\nlines: {of_lines:.1f} % of {len(lines)} ({LINES_WANTED:.0f} % wanted)")
    print(f"branches: {of_branches:.1f} % of {len(branches)} ({BRANCHES_WANTED:.0f} % wanted)")
    print(f"lines without a reason: {without_reason}")
    return 0 if of_lines >= LINES_WANTED and of_branches >= BRANCHES_WANTED and without_reason == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
