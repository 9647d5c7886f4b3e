"""What an ELF program shows of the flags that it was built with, whatever its architecture (Debian package python3-pyelftools)."""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from pathlib import Path

from elftools.elf.dynamic import DynamicSection
from elftools.elf.elffile import ELFFile
from elftools.elf.relocation import RelocationSection
from elftools.elf.sections import SymbolTableSection

_DF_BIND_NOW, _DF_1_NOW, _DF_1_PIE = 0x8, 0x1, 0x08000000
_EXECUTABLE, _WRITABLE = 1, 2

_UNCHECKED = {"printf", "fprintf", "sprintf", "snprintf", "vsprintf", "syslog", "vsyslog", "dprintf", "asprintf"}
"""Functions of the C library that FORTIFY replaces wherever they are called. (vsnprintf is not among them: the standard
library's headers hand its address on.)"""

ASSERTION = "_ZSt21__glibcxx_assert_failPKciS0_S0_"
"""What a failed check of the standard library calls."""

_X86_LANDING_PADS = (b"\xf3\x0f\x1e\xfa",)
_ARM64_LANDING_PADS = tuple(word.to_bytes(4, "little") for word in (0xD503245F, 0xD50324DF, 0xD503233F, 0xD503237F))
_RELATIVE = {"x64": 8, "AArch64": 1027}
"""The relocation that puts the address of something of the program itself into a table."""

_X86_SHADOW_STACK = 2

_ARM64_COMPILERS_OWN = 3
"""Functions without landing pads that a compiler which was not built with them puts before and after every program: two of the
start-up code, and one that asks the kernel how this processor counts, where something is counted by several threads."""


class Elf:
    """One program."""

    def __init__(self, path: Path) -> None:
        self._stream = path.open("rb")
        self._elf = ELFFile(self._stream)
        self.architecture = self._elf.get_machine_arch()

    def imports(self) -> set[str]:
        """The functions that it takes from shared libraries."""
        section = self._elf.get_section_by_name(".dynsym")
        assert isinstance(section, SymbolTableSection)
        return {symbol.name for symbol in section.iter_symbols() if symbol["st_shndx"] == "SHN_UNDEF"}

    def flaws(self) -> list[str]:
        """What a hardened program of this architecture would have otherwise."""
        return [*self._layout(), *self._functions(), *self._control_flow()]

    def _dynamic(self, tag: str) -> int:
        section = self._elf.get_section_by_name(".dynamic")
        assert isinstance(section, DynamicSection)
        return sum(int(entry["d_val"]) for entry in section.iter_tags() if entry.entry.d_tag == tag)

    def _layout(self) -> Iterator[str]:
        if self._elf["e_type"] != "ET_DYN" or not self._dynamic("DT_FLAGS_1") & _DF_1_PIE:
            yield "is no position-independent program"
        segments = {segment["p_type"]: segment["p_flags"] for segment in self._elf.iter_segments()}
        if "PT_GNU_RELRO" not in segments:
            yield "leaves its tables of addresses writable"
        if not (self._dynamic("DT_FLAGS") & _DF_BIND_NOW or self._dynamic("DT_FLAGS_1") & _DF_1_NOW):
            yield "binds functions while it runs"
        if segments.get("PT_GNU_STACK", _EXECUTABLE) & _EXECUTABLE:
            yield "runs code on its stack"
        for segment in self._elf.iter_segments():
            if segment["p_type"] == "PT_LOAD" and segment["p_flags"] & _EXECUTABLE and segment["p_flags"] & _WRITABLE:
                yield "has code that it may write"

    def _functions(self) -> Iterator[str]:
        imports = self.imports()
        if "__stack_chk_fail" not in imports:
            yield "does not protect its stack"
        for name in sorted(imports & _UNCHECKED):
            yield f"calls {name} unchecked"

    def _control_flow(self) -> Iterator[str]:
        if self.architecture == "x64":
            missing, pads = self._without_landing_pad(_X86_LANDING_PADS)
            if not self._x86_features() & _X86_SHADOW_STACK:
                yield "is not marked for shadow stacks"
        elif self.architecture == "AArch64":
            missing, pads = self._without_landing_pad(_ARM64_LANDING_PADS)
            missing -= min(_ARM64_COMPILERS_OWN, self._start_and_end_without(_ARM64_LANDING_PADS))
        else:
            return
        if missing or pads == 0:
            yield f"has {missing} functions in tables that are no landing pads, and {pads} that are"

    def _start_and_end_without(self, pads: tuple[bytes, ...]) -> int:
        """How many of the functions that run before and after the program's own do not begin with a landing pad."""
        tables = [self._elf.get_section_by_name(name) for name in (".init_array", ".fini_array")]
        places = [range(table["sh_addr"], table["sh_addr"] + table["sh_size"]) for table in tables if table is not None]
        return self._without_landing_pad(pads, places)[0]

    def _without_landing_pad(self, pads: tuple[bytes, ...], places: Sequence[range] | None = None) -> tuple[int, int]:
        """How many functions that tables hold, all or those in some places, do not begin with a landing pad, and how many do."""
        text = self._elf.get_section_by_name(".text")
        start, code = text["sh_addr"], text.data()
        without, with_pad = 0, 0
        for target in set(self._addresses_in_tables(places)):
            if start <= target < start + len(code):
                if code[target - start : target - start + 4] in pads:
                    with_pad += 1
                else:
                    without += 1
        return without, with_pad

    def _addresses_in_tables(self, places: Sequence[range] | None) -> Iterator[int]:
        for section in self._elf.iter_sections():
            if isinstance(section, RelocationSection):
                for relocation in section.iter_relocations():
                    if relocation["r_info_type"] != _RELATIVE[self.architecture]:
                        continue
                    if places is None or any(relocation["r_offset"] in place for place in places):
                        yield relocation["r_addend"]

    def _x86_features(self) -> int:
        features = 0
        section = self._elf.get_section_by_name(".note.gnu.property")
        for note in section.iter_notes() if section is not None else ():
            for prop in note["n_desc"]:
                if prop["pr_type"] == "GNU_PROPERTY_X86_FEATURE_1_AND":
                    features |= prop["pr_data"]
        return features


def programs_below(folder: Path) -> list[Path]:
    """The native programs in a folder and the folders below it; libraries and objects are not among them."""
    found = []
    for path in sorted(folder.rglob("*")):
        if path.is_file() and not path.is_symlink():
            with path.open("rb") as stream:
                if stream.read(4) == b"\x7fELF" and ELFFile(stream).get_section_by_name(".interp") is not None:
                    found.append(path)
    return found
