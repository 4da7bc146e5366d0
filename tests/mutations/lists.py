"""The mutations as they are listed: one text file for each source, of the source's path below here.

A list has entries like these, with an empty line after each:

    # what fault it is, as somebody could make it
    the old text => the new text

    # only what stands after a text that tells the place
    the place ... the old text => the new text

    # in two places at once
    the old text => the new text
    and
    the other old text => the new text

    # a fault that changes nothing
    # equivalent: why nobody can tell
    the old text => the new text

    # a fault of a bound that only the values of the interpreter show
    # module
    the old text => the new text

    # a fault that is no expression or statement (C++), and so takes a build of its own
    # alone
    the old text => the new text

White space in the old text stands for any, so that a list outlives a new breaking of the lines, and
the comments of C++ are passed over. The old text of C++ is a statement if it ends with a semicolon or a brace, and else an expression.
"""

from __future__ import annotations

import re
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).parents[2]
_LISTS = Path(__file__).parent


class ListError(Exception):
    """An entry of a list cannot be used; the text names it and says why."""


@dataclass(frozen=True)
class Piece:
    """A part of a source, from ``start`` to ``end``, and what stands there instead."""

    start: int
    end: int
    new: str


@dataclass(frozen=True)
class Mutation:
    """One realistic fault in one source."""

    number: int
    source: str  # its path below the root
    fault: str
    equivalent: str  # why nobody can tell, where that is so
    alone: bool
    of_module: bool  # Only the tests of the module can tell.
    pieces: tuple[Piece, ...]

    def line(self, text: str) -> int:
        """Return the number of the line where the old text begins in the ``text`` of the source."""
        return text.count("\n", 0, self.pieces[0].start) + 1


def read_all() -> tuple[list[Mutation], list[ListError]]:
    """Return the mutations of all lists, and what is wrong with those that have no place."""
    found: list[Mutation] = []
    wrong: list[ListError] = []
    for ordinal, path in enumerate(sorted(_LISTS.rglob("*.txt")), 1):
        source = str(path.relative_to(_LISTS).with_suffix(""))
        text = (ROOT / source).read_text(encoding="utf-8")
        entries = re.split(r"\n\n+", path.read_text(encoding="utf-8").strip("\n"))
        # A list that grows renumbers itself alone, so that nothing else is compiled again.
        for number, entry in enumerate(entries, ordinal * 1000):
            try:
                found.append(_read(entry, number, source, text))
            except ListError as error:
                wrong.append(error)
    return found, wrong


def _read(entry: str, number: int, source: str, text: str) -> Mutation:
    """Return the mutation of one entry, with its places in the ``text`` of its source."""
    lines = entry.split("\n")
    notes = [line[2:] for line in lines if line.startswith("# ")]
    body = "\n".join(line for line in lines if not line.startswith("# "))
    if not notes:
        raise ListError(f"{source}: no description: {entry}")
    name = f"{source}: {notes[0]}"
    reasons = [note.partition(": ")[2] for note in notes if note.startswith("equivalent: ")]
    return Mutation(
        number,
        source,
        notes[0],
        equivalent="".join(reasons),
        alone="alone" in notes[1:] or Path(source).suffix == ".pyi",
        of_module="module" in notes[1:],
        pieces=tuple(_piece(each, name, text) for each in body.split("\nand\n")),
    )


def _piece(line: str, name: str, text: str) -> Piece:
    old, arrow, new = line.partition(" =>")
    if not arrow:
        raise ListError(f"{name}: nothing stands for the old text: {line}")
    place, dots, within = old.partition(" ... ")
    start, end = _place(place, text, name, only=True)
    if dots:
        after, (start, end) = end, _place(within, text[end:], name, only=False)
        start, end = start + after, end + after
    return Piece(start, end, new.removeprefix(" ").removeprefix("\n"))


def _place(piece: str, text: str, name: str, only: bool) -> tuple[int, int]:
    """Return where ``piece`` begins and ends in ``text``: where it is found at first, or ``only``."""
    pattern = r"\s+".join(map(re.escape, piece.split()))
    found = [
        match.span()
        for match in re.finditer(pattern, text)
        if "//" not in text[text.rfind("\n", 0, match.start()) + 1 : match.start()]
    ]
    if not found or only and len(found) > 1:
        raise ListError(f"{name}: found {len(found)} times: {piece}")
    return found[0]
