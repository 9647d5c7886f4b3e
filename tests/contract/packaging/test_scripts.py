"""What the scripts at the top of the tree promise: `run` is a thin call, `count-results` never takes a broken run for a good one."""

from __future__ import annotations

import re
import shutil
import subprocess
from pathlib import Path

import pytest
from conftest import ROOT

# run


@pytest.fixture
def tree(tmp_path: Path) -> Path:
    """A source tree with the script, and in the place of what it calls something that tells how it was called."""
    root = tmp_path / "tree"
    for folder in ("scripts", "simulator"):
        (root / folder).mkdir(parents=True)
    for name in ("run", "common.sh"):
        shutil.copy(ROOT / "scripts" / name, root / "scripts")
    for name, script in {
        "scripts/build": 'echo "build $*"; exit "${BUILD_STATUS:-0}"',
        "simulator/vantora-sim": 'printf "<%s>" "$@"; echo; pwd; echo "$PATH"; exit 7',
    }.items():
        (root / name).write_text(f"#!/bin/sh\n{script}\n")
        (root / name).chmod(0o755)
    return root


def run(tree: Path, folder: Path, *arguments: str, **environment: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [tree / "scripts/run", *arguments],
        cwd=folder,
        env={"PATH": f"{folder}:/usr/bin:/bin", **environment},
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    )


def test_run_hands_everything_on_and_ends_with_the_status_of_the_command(tree: Path, tmp_path: Path) -> None:
    ran = run(tree, tmp_path, "--world", "office", "-v", "--", "my program", "--demo", "")
    assert ran.returncode == 7
    arguments, folder, path = ran.stdout.splitlines()
    assert arguments == f"<--build-dir><{tree}/build/release><--world><office><-v><--><my program><--demo><>"
    assert Path(folder) == tmp_path, "the command runs where the caller is"
    assert path == f"{tmp_path}:/usr/bin:/bin", "and finds the caller's programs"


def test_run_builds_what_the_device_needs_and_keeps_that_off_standard_output(tree: Path, tmp_path: Path) -> None:
    ran = run(tree, tmp_path)
    assert ran.stderr == (
        "build --no-tests release vantora-network vantora-settingsd vantora-wifi vantora-doctor vantora-sim-tool vantora-sim-sandbox\n"
    )
    assert "build release" not in ran.stdout


def test_what_is_built_is_for_everybody_and_what_the_command_makes_for_whom_the_caller_wants(
    tree: Path, tmp_path: Path
) -> None:
    for program in ("scripts/build", "simulator/vantora-sim"):
        (tree / program).write_text(f"#!/bin/sh\necho {program} $(umask) >&2\n")
    ran = subprocess.run(
        [tree / "scripts/run"], cwd=tmp_path, capture_output=True, text=True, timeout=60, umask=0o077, check=True
    )
    assert ran.stderr == "scripts/build 0022\nsimulator/vantora-sim 0077\n"


def test_run_starts_nothing_that_could_not_be_built(tree: Path, tmp_path: Path) -> None:
    ran = run(tree, tmp_path, BUILD_STATUS="3")
    assert (ran.returncode, ran.stdout) == (3, "")


@pytest.mark.parametrize(
    ("arguments", "wanted"),
    [
        (("--desk",), True),
        (("--world", "office", "--desk", "--", "true"), True),
        (("--open", "run.jsonl"), True),
        (("--open=run.jsonl",), True),
        ((), False),
        (("-v",), False),
        (("--", "browse", "--desk"), False),
    ],
)
def test_run_installs_what_the_page_needs_for_the_page_only(
    tree: Path, tmp_path: Path, arguments: tuple[str, ...], wanted: bool
) -> None:
    (tree / "scripts/install-packages").write_text('#!/bin/sh\necho "install $*"\n')
    (tree / "scripts/install-packages").chmod(0o755)
    ran = run(tree, tmp_path, *arguments)
    assert ran.returncode == 7
    assert ("install --desk-page\n" in ran.stderr) == wanted
    assert "install --desk-page" not in ran.stdout


# build


@pytest.fixture
def build_tree(tmp_path: Path) -> Path:
    """A source tree with scripts/build, in which the installation of packages tells what is wanted and then fails."""
    root = tmp_path / "tree"
    (root / "scripts").mkdir(parents=True)
    for name in ("build", "common.sh"):
        shutil.copy(ROOT / "scripts" / name, root / "scripts")
    (root / "scripts/install-packages").write_text('#!/bin/sh\necho "install $*"\nexit 9\n')
    (root / "scripts/install-packages").chmod(0o755)
    return root


@pytest.mark.parametrize(
    ("arguments", "built_before", "wanted"),
    [
        (("release",), None, "install --test"),
        (("asan", "vantora-network"), None, "install --test"),
        (("fuzz",), None, "install --test --fuzz"),
        (("--no-tests", "release", "vantora-network"), None, "install"),
        (("--no-tests", "release", "vantora-network"), "OFF", "install"),
        # They were there for what stands in the folder, and it is configured with them again.
        (("--no-tests", "release", "vantora-network"), "ON", "install --test"),
        (("release",), "OFF", "install --test"),
    ],
)
def test_build_installs_what_tests_need_unless_there_are_none(
    build_tree: Path, arguments: tuple[str, ...], built_before: str | None, wanted: str
) -> None:
    if built_before is not None:
        (build_tree / "build/release").mkdir(parents=True)
        (build_tree / "build/release/CMakeCache.txt").write_text(f"VANTORA_BUILD_TESTS:BOOL={built_before}\n")
    ran = subprocess.run([build_tree / "scripts/build", *arguments], capture_output=True, text=True, timeout=60, check=False)
    assert (ran.returncode, ran.stdout.strip()) == (9, wanted)


# packages


def listed(name: str) -> set[str]:
    """The packages of one list, without the comments."""
    lines = (ROOT / "scripts" / name).read_text().splitlines()
    return {line.split("#")[0].strip() for line in lines} - {""}


def field_of(paragraph: str, field: str) -> set[str]:
    """The names in a field of one of our packages, or of their source; without what debhelper fills in."""
    paragraphs = (ROOT / "packaging/debian/control").read_text().split("\n\n")
    (found,) = (part for part in paragraphs if f"{paragraph}\n" in part)
    value = re.search(rf"^{field}:((?:\n .*)+)", found, re.MULTILINE)
    assert value is not None
    return {re.split(r"[ (:]", name.strip())[0] for name in value[1].split(",") if name.strip() and "$" not in name}


def test_what_only_tests_need_is_not_installed_to_run() -> None:
    assert listed("packages") & listed("packages-test") == set()
    for name in listed("packages"):
        assert not re.search(r"test|gmock|hypothesis|zsh|hostapd|wpasupplicant", name)


def test_what_is_installed_to_run_is_what_the_packaged_simulation_depends_on() -> None:
    assert field_of("Package: vantora-network-sim", "Depends") - listed("packages") == set()


def test_the_lists_have_what_packages_are_built_with() -> None:
    wanted = {name for name in field_of("Source: vantora-network", "Build-Depends") if name != "debhelper-compat"}
    there = listed("packages") | listed("packages-package")
    assert wanted - there == set()
    # What dpkg-buildpackage asks for without being told.
    assert "build-essential" in there


@pytest.mark.parametrize(
    ("arguments", "installed", "tested"),
    [
        (("armhf",), "install --package", []),
        (
            ("--check", "amd64", "armhf"),
            "install --package --test",
            ["amd64 test_contents.py test_installation.py", "armhf test_contents.py"],
        ),
        (
            ("--check-emulated", "amd64", "armhf"),
            "install --package --test --emulated",
            ["amd64 test_contents.py test_installation.py", "armhf test_contents.py test_installation.py"],
        ),
    ],
)
def test_packages_are_installed_where_their_programs_run_or_are_to_be_emulated(
    tmp_path: Path, arguments: tuple[str, ...], installed: str, tested: list[str]
) -> None:
    root = tmp_path / "tree"
    (root / "scripts").mkdir(parents=True)
    (root / "bin").mkdir()
    for name in ("package", "built-packages.sh"):
        shutil.copy(ROOT / "scripts" / name, root / "scripts")
    common = (ROOT / "scripts/common.sh").read_text()
    own = common.replace("export PATH=", f'export PATH="{root}/bin":').replace("/usr/bin/python3", f"{root}/bin/python3")
    (root / "scripts/common.sh").write_text(own)
    (root / "scripts/package-sources.sh").write_text(
        "PACKAGE_SOURCES=(src)\npackage_commit() { echo 0123456789abcdef; }\npackage_version() { echo 1.0.0+1; }\n"
    )
    (root / "scripts/debian-mirror.sh").write_text("debian_suite() { echo bookworm; }\n")
    for name, script in {
        "scripts/install-packages": 'echo "install $*"',
        "bin/dpkg": "echo amd64",
        "bin/git": ":",
        "bin/python3": 'for word; do case "$word" in --architecture=*) echo "tests ${word#*=} $(shift 6; echo "$*")" ;; esac; done',
    }.items():
        (root / name).write_text(f"#!/bin/sh\n{script}\n")
        (root / name).chmod(0o755)
    # They have been built.
    for architecture in ("amd64", "armhf"):
        (root / "build/packages" / architecture).mkdir(parents=True)
        (root / "build/packages" / architecture / "commit").write_text("0123456789abcdef\n")
    ran = subprocess.run([root / "scripts/package", *arguments], capture_output=True, text=True, timeout=60, check=False)
    assert (ran.returncode, ran.stderr) == (0, "")
    lines = ran.stdout.splitlines()
    assert lines[0] == installed
    assert [line.replace("tests/packages/", "").removeprefix("tests ") for line in lines if line.startswith("tests ")] == tested


# temporary files

LEAVES_MUCH = """
source scripts/common.sh
temporary_files_go
temporary_files_go
mkdir -p "$TMPDIR/deep/locked"
touch "$TMPDIR/deep/locked/file"
chmod 0 "$TMPDIR/deep/locked"
echo "$TMPDIR"
{end}
"""


@pytest.mark.parametrize(("end", "status"), [("exit 3", 3), ("false", 1), ("kill -TERM $$", -15)])
def test_temporary_files_go_however_a_script_ends(tmp_path: Path, end: str, status: int) -> None:
    ran = subprocess.run(
        ["/bin/bash", "-c", LEAVES_MUCH.format(end=end)],
        cwd=ROOT,
        env={"PATH": "/usr/bin:/bin", "TMPDIR": str(tmp_path)},
        capture_output=True,
        text=True,
        timeout=60,
        check=False,
    )
    assert Path(ran.stdout.strip()).parent == tmp_path
    assert (ran.returncode, list(tmp_path.iterdir())) == (status, [])


def test_what_python_compiles_is_not_kept_among_the_sources(tmp_path: Path) -> None:
    root = tmp_path / "tree"
    (root / "scripts").mkdir(parents=True)
    shutil.copy(ROOT / "scripts/common.sh", root / "scripts")
    (root / "module.py").write_text("")
    subprocess.run(
        ["/bin/bash", "-c", 'source scripts/common.sh; "$PYTHON" -c "import module"'],
        cwd=root,
        env={"PATH": "/usr/bin:/bin"},
        check=True,
        timeout=60,
    )
    assert {path.relative_to(root).parts[0] for path in root.rglob("*.pyc")} == {"build"}


# count-results

PASSED = '<testcase classname="c" name="{}"/>'
FAILED = '<testcase classname="c" name="{}"><failure message="no"/></testcase>'
BROKEN = '<testcase classname="c" name="{}"><error message="set-up"/></testcase>'
SKIPPED = '<testcase classname="c" name="{}"><skipped message="not here"/></testcase>'
NOT_RUN = '<testcase classname="c" name="{}" status="notrun"><skipped message="Unable to find executable"/></testcase>'
DISABLED = '<testcase classname="c" name="{}" status="disabled"/>'


def write_run(folder: Path, layer: str, status: int | str, cases: list[str] | None) -> None:
    """What one layer's runner leaves behind; None for no results at all."""
    (folder / f"{layer}.status").write_text(f"{status}\n")
    if cases is not None:
        text = "".join(case.format(number) for number, case in enumerate(cases))
        # The totals of a runner are not believed.
        (folder / f"{layer}.xml").write_text(f'<testsuites><testsuite tests="99" failures="0">{text}</testsuite></testsuites>')


def count(folder: Path) -> tuple[int, list[str]]:
    """Exit status and lines of the script."""
    ran = subprocess.run([ROOT / "scripts/count-results", folder], capture_output=True, text=True, timeout=60, check=False)
    assert ran.stderr == ""
    return ran.returncode, ran.stdout.splitlines()


@pytest.mark.parametrize(
    ("status", "cases", "exit_status", "total"),
    [
        (0, [PASSED, PASSED], 0, "2 passed, 0 failed"),
        (0, [PASSED, SKIPPED, DISABLED], 0, "1 passed, 0 failed, 2 skipped"),
        (1, [PASSED, FAILED], 1, "1 passed, 1 failed"),
        (0, [PASSED, FAILED], 1, "1 passed, 1 failed"),
        (1, [PASSED, BROKEN], 1, "1 passed, 1 failed"),
        (8, [PASSED, NOT_RUN], 1, "1 passed, 1 failed"),
        (0, [SKIPPED], 1, "0 passed, 0 failed, 1 skipped"),
    ],
    ids=["all passed", "some skipped", "one failed", "failed unnoticed", "broken fixture", "program missing", "all skipped"],
)
def test_outcomes_are_counted_one_by_one(tmp_path: Path, status: int, cases: list[str], exit_status: int, total: str) -> None:
    write_run(tmp_path, "unit-1", status, cases)
    found, lines = count(tmp_path)
    assert (found, lines[-1]) == (exit_status, total)
    assert len(lines) == (2 if "1 failed" in total else 1), "a failed test is named"


@pytest.mark.parametrize(
    ("status", "cases", "words"),
    [
        (139, None, "no readable results (runner status 139)"),
        (0, None, "no readable results (runner status 0)"),
        (134, [PASSED], "the runner ended with status 134 without naming a failed test"),
        (0, [], "no test ran"),
    ],
    ids=["crash before results", "results lost", "crash at the end", "empty"],
)
def test_a_runner_that_crashes_or_runs_nothing_counts_as_a_failure(
    tmp_path: Path, status: int, cases: list[str] | None, words: str
) -> None:
    write_run(tmp_path, "unit-1", 0, [PASSED])
    write_run(tmp_path, "contract-1", status, cases)
    found, lines = count(tmp_path)
    assert found == 1 and words in lines[0]
    assert lines[-1].split(", ")[1] == "1 failed"


def test_results_cut_off_in_the_middle_count_as_a_failure(tmp_path: Path) -> None:
    write_run(tmp_path, "contract-1", 0, [PASSED])
    whole = (tmp_path / "contract-1.xml").read_text()
    (tmp_path / "contract-1.xml").write_text(whole[:-20])
    assert count(tmp_path)[1][-1] == "0 passed, 1 failed"


def test_no_run_at_all_is_a_failure(tmp_path: Path) -> None:
    assert count(tmp_path) == (1, ["0 passed, 0 failed"])


def test_a_test_whose_clean_up_fails_counts_once_as_failed(tmp_path: Path) -> None:
    write_run(tmp_path, "contract-1", 1, [PASSED])
    twice = (PASSED + BROKEN).replace("{}", "same")
    (tmp_path / "contract-1.xml").write_text(f"<testsuite>{twice}</testsuite>")
    assert count(tmp_path) == (1, ["FAILED contract-1 c::same", "0 passed, 1 failed"])


def test_layers_and_rounds_are_added_up(tmp_path: Path) -> None:
    for layer in ("unit-1", "unit-2", "contract-1", "contract-2"):
        write_run(tmp_path, layer, 0, [PASSED, PASSED])
    assert count(tmp_path) == (0, ["8 passed, 0 failed"])
