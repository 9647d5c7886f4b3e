"""Where systems in files get Debian from, with a stand-in for apt: what a mirror does not keep soundly is left out."""

from __future__ import annotations

import shutil
import subprocess
from pathlib import Path

import pytest
from conftest import ROOT

# Asked where this machine's packages come from, and to fetch the indexes of a sources.list: those of UNSOUND differ from what
# the mirror has signed.
APT_GET = """#!/bin/sh
tree="${0%/bin/apt-get}"
echo "$*" >>"$tree/called"
case "$*" in
indextargets*) cat "$tree/targets"; exit ;;
esac
for word in "$@"; do case "$word" in
Dir::Etc::sourcelist=*) list="${word#*=}" ;;
APT::Architecture=*) architecture="${word#*=}" ;;
esac; done
! grep -qF "$(cut -d' ' -f3 "$list") $architecture" "$tree/unsound"
"""

SUITES = ["bookworm", "trixie"]


class Mirror:
    """A machine whose apt has one mirror."""

    def __init__(self, root: Path) -> None:
        self.root = root
        (root / "scripts").mkdir(parents=True)
        (root / "bin").mkdir()
        common = (ROOT / "scripts/common.sh").read_text()
        (root / "scripts/common.sh").write_text(common.replace("export PATH=", f'export PATH="{root}/bin":'))
        shutil.copy(ROOT / "scripts/debian-mirror.sh", root / "scripts")
        (root / "bin/apt-get").write_text(APT_GET)
        (root / "bin/apt-get").chmod(0o755)
        targets = (f"{suite}{part} http://mirror.example/debian/\n" for suite in SUITES for part in ("", "-updates"))
        (root / "targets").write_text("".join(targets))
        self.unsound("")

    def unsound(self, line: str) -> None:
        """Of these `SUITE ARCHITECTURE` the mirror has no sound index."""
        (self.root / "unsound").write_text(line)

    def sources(self, arguments: str) -> subprocess.CompletedProcess[str]:
        """What debian_sources prints."""
        (self.root / "called").write_text("")
        return subprocess.run(
            [
                "bash",
                "-c",
                f"source {self.root}/scripts/common.sh; source scripts/debian-mirror.sh; debian_suite() {{ echo bookworm; }};"
                f"TMPDIR={self.root}/bin debian_sources {arguments}",
            ],
            capture_output=True,
            text=True,
            timeout=60,
            check=True,
        )

    def fetched(self) -> int:
        """How often apt has fetched indexes."""
        return sum(" update" in line for line in (self.root / "called").read_text().splitlines())


@pytest.fixture
def mirror(tmp_path: Path) -> Mirror:
    return Mirror(tmp_path / "tree")


BOTH = "deb http://mirror.example/debian/ trixie main\ndeb http://mirror.example/debian/ trixie-updates main\n"


@pytest.mark.parametrize("arguments", ["trixie", "trixie armhf"])
def test_a_release_comes_with_its_updates(mirror: Mirror, arguments: str) -> None:
    ran = mirror.sources(arguments)
    assert (ran.stdout, ran.stderr) == (BOTH, "")


def test_updates_whose_index_is_not_the_one_that_was_signed_are_left_out_and_it_is_said(mirror: Mirror) -> None:
    mirror.unsound("trixie-updates armhf")
    ran = mirror.sources("trixie armhf")
    assert ran.stdout == BOTH.splitlines(keepends=True)[0]
    assert ran.stderr == "-- the mirror has no sound index of trixie-updates for armhf: without these\n"
    assert mirror.sources("trixie arm64").stdout == BOTH
    assert [path.name for path in (mirror.root / "bin").iterdir()] == ["apt-get"], "nothing is left behind"


def test_nothing_is_fetched_where_no_architecture_is_named(mirror: Mirror) -> None:
    mirror.unsound("trixie-updates armhf")
    assert mirror.sources("trixie").stdout == BOTH
    assert mirror.fetched() == 0


def test_a_release_without_a_sound_index_stays_and_whoever_needs_it_fails(mirror: Mirror) -> None:
    mirror.unsound("trixie armhf")
    assert mirror.sources("trixie armhf").stdout == BOTH


def test_what_a_made_system_compiles_of_its_python_stays_where_it_belongs(tmp_path: Path) -> None:
    """Packages look for it there when they go; our own cache's path means nothing inside of another system."""
    mirror = Mirror(tmp_path)
    shutil.copy(ROOT / "scripts/debian-root.sh", tmp_path / "scripts")
    seen = tmp_path / "seen"
    (tmp_path / "bin/mmdebstrap").write_text(f'#!/bin/sh\necho "cache=$PYTHONPYCACHEPREFIX $*" >{seen}\n')
    (tmp_path / "bin/mmdebstrap").chmod(0o755)
    script = (
        "source scripts/common.sh; source scripts/debian-mirror.sh; source scripts/debian-root.sh; "
        'debian_suite() { echo bookworm; }; test -n "$PYTHONPYCACHEPREFIX"; '
        f"debian_root bookworm {mirror_architecture()} {tmp_path}/root.tar"
    )
    subprocess.run(["bash", "-ec", script], cwd=mirror.root, check=True, timeout=60)
    assert seen.read_text().startswith("cache= --quiet ")


@pytest.mark.parametrize(("unsound", "parts"), [("", ["", "-updates"]), ("bookworm-updates armhf", [""])])
def test_a_sysroot_is_filled_where_a_mirror_has_no_sound_updates(
    mirror: Mirror, tmp_path: Path, unsound: str, parts: list[str]
) -> None:
    mirror.unsound(unsound)
    shutil.copy(ROOT / "scripts/sysroot", mirror.root / "scripts")
    script = mirror.root / "scripts/debian-mirror.sh"
    script.write_text(script.read_text() + "debian_suite() { echo bookworm; }\n")
    (mirror.root / "packaging").mkdir()
    (mirror.root / "packaging/sysroot-packages").write_text("libsystemd-dev\n")
    for name, text in {
        "mmdebstrap": f'for word; do last="$word"; done; cat "$last" >{tmp_path}/seen; tar -c -T /dev/null',
        "arm-linux-gnueabihf-g++": "echo 12",
    }.items():
        (mirror.root / "bin" / name).write_text(f"#!/bin/sh\n{text}\n")
        (mirror.root / "bin" / name).chmod(0o755)
    ran = subprocess.run(
        [mirror.root / "scripts/sysroot", "armhf"],
        env={"HOME": str(tmp_path)},
        capture_output=True,
        text=True,
        timeout=60,
        check=True,
    )
    assert Path(ran.stdout.strip()).is_dir()
    lines = (tmp_path / "seen").read_text().splitlines()
    assert lines == [f"deb http://mirror.example/debian/ bookworm{part} main" for part in parts]
    said = "-- the mirror has no sound index of bookworm-updates for armhf: without these\n" if unsound else ""
    assert ran.stderr.startswith(said + "-- armhf: filling ")


def mirror_architecture() -> str:
    """This machine's: nothing is emulated for it."""
    return subprocess.run(
        ["dpkg", "--print-architecture"], check=True, capture_output=True, text=True, timeout=60
    ).stdout.strip()
