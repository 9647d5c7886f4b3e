"""All places where a fault can be put in, kept between runs: to read every source with the compiler's parser takes minutes."""

from __future__ import annotations

import hashlib
import json
from collections import Counter
from concurrent.futures import ProcessPoolExecutor
from dataclasses import astuple
from pathlib import Path

from mutant import Mutant
from mutants import mutants_of
from run import Tree
from sources import compile_flags


def places_of(tree: Tree, words: list[str], kept: Path) -> list[Mutant]:
    """Every mutant of the files whose path holds one of the words (all files without any), in the order of files and text.

    `kept` is where those of sources that have not changed are read from, and where all are written to.
    """
    flags = compile_flags(tree)
    files = [file for file in sorted(flags) if not words or any(word in file for word in words)]
    known = json.loads(kept.read_text()) if kept.exists() else {}
    marks = {file: hashlib.sha256((tree.folder / file).read_bytes()).hexdigest() for file in files}
    new = [file for file in files if known.get(file, {}).get("mark") != marks[file]]
    with ProcessPoolExecutor() as readers:
        for file, found in zip(new, readers.map(mutants_of, [tree.folder] * len(new), new, map(flags.get, new))):
            known[file] = {"mark": marks[file], "mutants": [astuple(mutant) for mutant in found]}
    kept.parent.mkdir(parents=True, exist_ok=True)
    kept.write_text(json.dumps(known))
    return [Mutant(*fields) for file in files for fields in known[file]["mutants"]]


def drawn(places: list[Mutant], seed: int) -> list[Mutant]:
    """The places in an order by chance, which stays the same for those of sources that do not change between two runs."""
    seen: Counter[tuple[str, str, str]] = Counter()
    keyed = []
    for place in places:
        name = (place.file, place.function, place.title)
        seen[name] += 1
        keyed.append((hashlib.sha256(repr((seed, name, seen[name])).encode()).digest(), place))
    return [place for _, place in sorted(keyed)]
