"""Programs are built with the project's own hardening: what they show of it themselves, and what the compiler was told."""

from __future__ import annotations

import json
import re
import subprocess
from pathlib import Path

import pytest
from hardening import ASSERTION, Elf, programs_below

PRODUCT = (
    "vantora-doctor",
    "vantora-network",
    "vantora-settingsd",
    "vantora-supplicant-names",
    "vantora-wifi",
    "vantora-sim-sandbox",
    "vantora-sim-tool",
)

COMPILER_FLAGS = {
    "x64": ["-fPIE", "-fstack-protector-strong", "-fstack-clash-protection", "-fcf-protection=full", "-D_GLIBCXX_ASSERTIONS"],
    "AArch64": [
        "-fPIE",
        "-fstack-protector-strong",
        "-fstack-clash-protection",
        "-mbranch-protection=standard",
        "-D_GLIBCXX_ASSERTIONS",
    ],
    "ARM": ["-fPIE", "-fstack-protector-strong", "-fstack-clash-protection", "-D_GLIBCXX_ASSERTIONS"],
}

STACK_PROBE = b"\x48\x83\x0c\x24\x00"
"""x86: orq $0,(%rsp), which touches a page of the stack that was just taken."""


@pytest.fixture(scope="module")
def cache(build_dir: Path) -> dict[str, str]:
    """What CMake knows of the build."""
    return dict(re.findall(r"^([A-Za-z_0-9]+):[A-Z]+=(.*)$", (build_dir / "CMakeCache.txt").read_text(), re.MULTILINE))


@pytest.fixture(scope="module")
def plain_release(cache: dict[str, str]) -> None:
    """Only for builds that are meant for a device. The sanitizers have other ways, and clang cannot check functions with any
    number of arguments."""
    if (
        cache["CMAKE_BUILD_TYPE"] != "Release"
        or cache["VANTORA_SANITIZE"]
        or cache["VANTORA_COVERAGE"] == "ON"
        or "clang" in cache["CMAKE_CXX_COMPILER"]
    ):
        pytest.skip("this build is not meant for a device")


@pytest.mark.usefixtures("plain_release")
@pytest.mark.parametrize("name", PRODUCT)
def test_each_program_of_the_product_is_hardened(build_dir: Path, name: str) -> None:
    assert Elf(build_dir / name).flaws() == []


@pytest.mark.usefixtures("plain_release")
def test_the_daemons_calls_are_checked_and_its_large_frames_probed(build_dir: Path) -> None:
    for name in ("vantora-network", "vantora-settingsd"):
        elf = Elf(build_dir / name)
        assert {"__snprintf_chk", "__syslog_chk", ASSERTION} <= elf.imports(), name
        if elf.architecture == "x64":
            assert STACK_PROBE in (build_dir / name).read_bytes(), name


@pytest.mark.usefixtures("plain_release")
def test_every_source_is_compiled_with_the_flags(build_dir: Path, cache: dict[str, str]) -> None:
    wanted = COMPILER_FLAGS[Elf(build_dir / "vantora-network").architecture]
    commands = json.loads((build_dir / "compile_commands.json").read_text())
    level = 3 if cache.get("VANTORA_HAS_FORTIFY_3") else 2
    assert len(commands) > 50
    for command in commands:
        if "/tests/model/failing_calls/" in command["file"]:
            continue  # is loaded into programs of others, too, and is built without any flags of ours
        words = command["command"].split()
        loaded_library = "-fPIC" in words
        missing = [flag for flag in wanted if flag not in words and not (loaded_library and flag == "-fPIE")]
        assert missing == [], command["file"]
        last = [word for word in words if re.fullmatch(r"-[DU]_FORTIFY_SOURCE(=\d)?", word)][-1]
        assert last == f"-D_FORTIFY_SOURCE={level}", command["file"]


@pytest.mark.usefixtures("plain_release")
def test_this_compiler_has_the_highest_level(cache: dict[str, str]) -> None:
    version = subprocess.run([cache["CMAKE_CXX_COMPILER"], "-dumpversion"], check=True, capture_output=True, text=True).stdout
    if int(version.split(".")[0]) >= 12:
        assert cache.get("VANTORA_HAS_FORTIFY_3") == "1"


def compiled(tmp_path: Path, *flags: str) -> Elf:
    """A small program, built with these flags only."""
    source, program = tmp_path / "small.cpp", tmp_path / "small"
    source.write_text(
        "#include <cstdio>\nint main(int count, char**) { char text[64];\n"
        '    std::snprintf(text, sizeof text, "%d", count); std::puts(text); }\n'
    )
    subprocess.run(["c++", "-O2", *flags, "-o", program, source], check=True, capture_output=True, timeout=60)
    return Elf(program)


HARDENED = [
    "-fPIE",
    "-pie",
    "-Wl,-z,relro,-z,now,-z,noexecstack",
    "-fstack-protector-all",
    "-U_FORTIFY_SOURCE",
    "-D_FORTIFY_SOURCE=2",
]
X86 = ["-fcf-protection=full", "-Wl,-z,shstk"]


@pytest.mark.parametrize(
    ("flags", "flaw"),
    [
        (["-fno-pie", "-no-pie"], "is no position-independent program"),
        (["-Wl,-z,norelro"], "leaves its tables of addresses writable"),
        (["-Wl,-z,lazy"], "binds functions while it runs"),
        (["-Wl,-z,execstack"], "runs code on its stack"),
        (["-fno-stack-protector"], "does not protect its stack"),
        (["-U_FORTIFY_SOURCE"], "calls snprintf unchecked"),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, list) else "",
)
def test_a_program_that_lacks_one_of_them_is_noticed(tmp_path: Path, flags: list[str], flaw: str) -> None:
    x86 = X86 if compiled(tmp_path).architecture == "x64" else []
    assert compiled(tmp_path, *HARDENED, *x86).flaws() == []
    assert flaw in compiled(tmp_path, *HARDENED, *x86, *flags).flaws()


def test_an_unmarked_program_without_landing_pads_is_noticed(tmp_path: Path) -> None:
    if compiled(tmp_path).architecture != "x64":
        pytest.skip("for x86")
    assert compiled(tmp_path, *HARDENED, "-fcf-protection=full").flaws() == ["is not marked for shadow stacks"]
    source, program = tmp_path / "table.cpp", tmp_path / "table"
    source.write_text(
        "#include <cstdlib>\nnamespace { void a() { std::abort(); } }\n"
        "void (*volatile table[])() = {a};\nint main() { table[0](); }\n"
    )
    subprocess.run(
        ["c++", "-O2", *HARDENED, "-fcf-protection=none", "-Wl,-z,shstk", "-o", program, source], check=True, timeout=60
    )
    assert [flaw for flaw in Elf(program).flaws() if "no landing pads" in flaw] != []


@pytest.mark.usefixtures("plain_release")
def test_no_other_program_of_the_build_is_forgotten(build_dir: Path) -> None:
    """Also those of the tests: they stand for what the flags are tried on."""
    tops = {path.name for path in programs_below(build_dir) if path.parent == build_dir}
    assert set(PRODUCT) <= tops
    for name in tops:
        assert Elf(build_dir / name).flaws() == [], name
