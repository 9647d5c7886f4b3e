"""Finds the places of a C++ source where a fault can be put in, by what the compiler's own parser says the text means.

Each mutant replaces one stretch of text. What is changed: comparisons and logic, sums, numbers and truth values, conditions
(negated), statements (left out), and what a function returns.
"""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

from clang.cindex import Cursor, CursorKind, Index, TranslationUnit, TypeKind
from mutant import Mutant

OPERATORS = {
    "<": "<=",
    "<=": "<",
    ">": ">=",
    ">=": ">",
    "==": "!=",
    "!=": "==",
    "&&": "||",
    "||": "&&",
    "+": "-",
    "-": "+",
    "*": "/",
    "/": "*",
    "%": "*",
    "&": "|",
    "|": "&",
    "+=": "-=",
    "-=": "+=",
}
BRANCHES = (CursorKind.IF_STMT, CursorKind.WHILE_STMT, CursorKind.CONDITIONAL_OPERATOR)
LEFT_OUT = (
    CursorKind.CALL_EXPR,
    CursorKind.BINARY_OPERATOR,
    CursorKind.COMPOUND_ASSIGNMENT_OPERATOR,
    CursorKind.UNARY_OPERATOR,
    CursorKind.BREAK_STMT,
    CursorKind.CONTINUE_STMT,
)
FUNCTIONS = (
    CursorKind.FUNCTION_DECL,
    CursorKind.CXX_METHOD,
    CursorKind.CONSTRUCTOR,
    CursorKind.DESTRUCTOR,
    CursorKind.FUNCTION_TEMPLATE,
    CursorKind.CONVERSION_FUNCTION,
)
WHOLE_NUMBERS = (TypeKind.INT, TypeKind.LONG, TypeKind.LONGLONG, TypeKind.UINT, TypeKind.ULONG, TypeKind.USHORT, TypeKind.SHORT)


class Unreadable(Exception):
    """A source that the parser could not make sense of."""


def mutants_of(root: Path, file: str, flags: list[str]) -> list[Mutant]:
    """All mutants of a source, each once, in the order of the text."""
    path = root / file
    unit = Index.create().parse(str(path), args=flags, options=TranslationUnit.PARSE_NONE)
    worst = max((diagnostic.severity for diagnostic in unit.diagnostics), default=0)
    if worst >= 3:
        raise Unreadable(f"{file}: {next(each.spelling for each in unit.diagnostics if each.severity == worst)}")
    text = path.read_bytes()
    found = {
        (mutant.begin, mutant.end, mutant.new): mutant
        for top in unit.cursor.get_children()
        for mutant in _below(top, file, str(path), text, "")
    }
    return sorted(found.values())


def _below(cursor: Cursor, file: str, path: str, text: bytes, function: str) -> Iterator[Mutant]:
    """The mutants of a cursor and of all below it that stand in this very file."""
    location = cursor.extent.start
    if location.file is None or location.file.name != path:
        return
    if cursor.kind in FUNCTIONS:
        function = cursor.spelling
    for begin, end, new in _changes(cursor, text):
        old = text[begin:end].decode()
        line = text.count(b"\n", 0, begin) + 1
        if old.strip() and old != new and "__PRETTY_FUNCTION__" not in old:
            yield Mutant(file, line, begin, end, old, new, function)
    for child in cursor.get_children():
        yield from _below(child, file, path, text, function)


def _changes(cursor: Cursor, text: bytes) -> Iterator[tuple[int, int, str]]:
    """Begin, end and new text of each change of a cursor itself."""
    children = list(cursor.get_children())
    if cursor.kind in (CursorKind.BINARY_OPERATOR, CursorKind.COMPOUND_ASSIGNMENT_OPERATOR) and len(children) == 2:
        yield from _operator(cursor, children)
    elif cursor.kind is CursorKind.CALL_EXPR and cursor.spelling.startswith("operator") and len(children) >= 2:
        yield from _overloaded(cursor)
    elif cursor.kind in (CursorKind.INTEGER_LITERAL, CursorKind.CXX_BOOL_LITERAL_EXPR):
        yield from _literal(cursor, text)
    elif cursor.kind is CursorKind.RETURN_STMT and children:
        yield from _returned(children[0], text)
    if cursor.kind in BRANCHES and children:
        yield from _negated(cursor, children, text)
    if cursor.kind is CursorKind.COMPOUND_STMT:
        for child in children:
            if child.kind in LEFT_OUT:
                begin, end = _span(child)
                yield begin, end, ""


def _operator(cursor: Cursor, children: list[Cursor]) -> Iterator[tuple[int, int, str]]:
    left, right = _span(children[0])[1], _span(children[1])[0]
    for token in cursor.get_tokens():
        begin, end = token.extent.start.offset, token.extent.end.offset
        if left <= begin and end <= right and token.spelling in OPERATORS:
            yield begin, end, OPERATORS[token.spelling]


def _overloaded(cursor: Cursor) -> Iterator[tuple[int, int, str]]:
    name = cursor.spelling.removeprefix("operator")
    if name in ("==", "!=", "<", ">", "<=", ">="):
        at = [token for token in cursor.get_tokens() if token.kind.name == "PUNCTUATION" and token.spelling == name]
        if len(at) == 1:
            yield at[0].extent.start.offset, at[0].extent.end.offset, OPERATORS[name]


def _literal(cursor: Cursor, text: bytes) -> Iterator[tuple[int, int, str]]:
    begin, end = _span(cursor)
    old = text[begin:end].decode()
    if old in ("true", "false"):
        yield begin, end, "false" if old == "true" else "true"
    elif old.isdigit():
        # Of a large number, one more is hardly ever another behaviour: a bound of 8000 ms is as good with 8001.
        yield begin, end, "0" if old == "1" else str(int(old) + 1 if int(old) < 10 else int(old) * 10)


def _returned(value: Cursor, text: bytes) -> Iterator[tuple[int, int, str]]:
    begin, end = _span(value)
    old = text[begin:end].decode()
    kind = value.type.get_canonical().kind
    if kind is TypeKind.BOOL and old not in ("true", "false"):
        yield begin, end, f"!({old})"
    elif kind in WHOLE_NUMBERS and not old.isdigit():
        yield begin, end, f"({old}) == 0"


def _negated(cursor: Cursor, children: list[Cursor], text: bytes) -> Iterator[tuple[int, int, str]]:
    condition = children[0]
    begin, end = _span(condition)
    whole = text[cursor.extent.start.offset : begin].decode(errors="replace")
    # A condition that declares something, or one behind an initialiser, cannot be put into parentheses as it stands.
    if condition.kind not in (CursorKind.DECL_STMT, CursorKind.VAR_DECL) and ";" not in whole and "constexpr" not in whole:
        yield begin, end, f"!({text[begin:end].decode()})"


def _span(cursor: Cursor) -> tuple[int, int]:
    return cursor.extent.start.offset, cursor.extent.end.offset
