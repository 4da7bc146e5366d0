"""Mutated sources: one text with all mutations, each behind a switch, or with a single one."""

from __future__ import annotations

from collections.abc import Sequence
from typing import NamedTuple

from tests.mutations.lists import ROOT, ListError, Mutation, Piece

# Included before all else. The switch is a number in the environment; none is on at compile time.
HEADER = """#pragma once
#include <cstdlib>
inline int mutant_switched_on() {
  static const char* const number = std::getenv("MUTANT");
  static const int switched_on = number != nullptr ? std::atoi(number) : 0;
  return switched_on;
}
constexpr bool mutant(int number) {
  return !__builtin_is_constant_evaluated() && mutant_switched_on() == number;
}
"""


class _Part(NamedTuple):
    """A piece of a mutation, with the number that switches it on; without one it always is."""

    piece: Piece
    number: int | None


def mutated(text: str, mutation: Mutation) -> str:
    """Return the ``text`` of a source with one mutation in it."""
    return _within(text, 0, len(text), [_Part(each, None) for each in mutation.pieces])


def switched(text: str, mutations: Sequence[Mutation], alone: Mutation | None = None) -> str:
    """Return the ``text`` of a C++ source with the mutations behind switches, and ``alone`` in it.

    One may lie within another. Raises ``ListError`` where two of them overlap in part.
    """
    always = [_Part(each, None) for each in alone.pieces] if alone else []
    inside = [
        _Part(piece, mutation.number)
        for mutation in mutations
        if not mutation.alone
        for piece in mutation.pieces
        if not any(_overlap(piece, each.piece) for each in always)
    ]
    return _within(text, 0, len(text), inside + always)


def check(mutations: Sequence[Mutation]) -> list[ListError]:
    """Return what keeps the mutations of C++ sources from being in one build."""
    wrong = []
    for source in dict.fromkeys(each.source for each in mutations):
        try:
            if source.endswith((".cpp", ".hpp")):
                text = (ROOT / source).read_text(encoding="utf-8")
                switched(text, [each for each in mutations if each.source == source])
        except ListError as error:
            wrong.append(error)
    return wrong


def _overlap(one: Piece, other: Piece) -> bool:
    return one.start < other.end and other.start < one.end


def _within(text: str, start: int, end: int, inside: list[_Part]) -> str:
    """Return ``text[start:end]`` with what lies ``inside``."""
    inside = sorted(inside, key=lambda part: (part.piece.start, -part.piece.end))
    written: list[str] = []
    while inside:
        outer, number = inside[0]
        nested = [each for each in inside[1:] if each.piece.start < outer.end]
        inside = inside[1 + len(nested) :]
        for each in nested:
            if each.piece.end > outer.end:
                old = text[outer.start : outer.end]
                raise ListError(f"two mutations overlap: {old}; {each.piece.new}")
        old = _within(text, outer.start, outer.end, nested)
        written += text[start : outer.start], _choice(outer.new, old, number)
        start = outer.end
    return "".join([*written, text[start:end]])


def _choice(new: str, old: str, number: int | None) -> str:
    """Return the code that is ``old`` until the mutation of this number is switched on."""
    if number is None:
        return new
    if old.endswith((";", "}")):
        return f"if (mutant({number})) {{ {new} }} else {{ {old} }}"
    return f"(mutant({number}) ? ({new}) : ({old}))"
