"""What the tests did not reach: totals, and each line with the reason that left.toml gives for it.

Reads what gcovr counted (its JSON). Ends with status 0 when enough lines and branches were reached and every line that
was not has a reason.
"""

import json
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
    file: str
    number: int
    text: str


def reasons() -> dict[tuple[str, str], str]:
    """(file, line's text) to the reason why no test reaches it."""
    known = {}
    for entry in tomllib.loads(LEFT.read_text(encoding="utf-8")).get("left", []):
        for text in entry["lines"]:
            known[entry["file"], text.strip()] = entry["reason"]
    return known


def unreached(files: list[dict]) -> Iterator[Line]:
    for file in files:
        source = (ROOT / file["file"]).read_text().splitlines()
        for line in file["lines"]:
            if line["count"] == 0 and not line.get("gcovr/noncode"):
                yield Line(file["file"], line["line_number"], source[line["line_number"] - 1].strip())


def share(reached: int, all_of_them: int) -> float:
    return 100.0 * reached / all_of_them if all_of_them else 0.0


def main() -> int:
    files = json.loads(Path(sys.argv[1]).read_text(encoding="utf-8"))["files"]
    known = reasons()
    without_reason = 0
    print("\nNot reached:")
    for line in unreached(files):
        reason = known.get((line.file, line.text))
        without_reason += reason is None
        print(f"  {line.file}:{line.number}: {line.text}\n      {reason or 'NO REASON GIVEN'}")

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
