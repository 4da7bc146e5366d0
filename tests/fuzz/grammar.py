"""The programs of the seeds, made of the texts in statements.txt."""

from __future__ import annotations

import random
import re
from collections.abc import Iterable
from pathlib import Path

from tests.walks.generator import OPERATIONS
from tests.walks.world import FIELDS, NOTE

# A program: its statements, "main", and those of each reaction.
Program = dict[str, list[str]]

REACTIONS = ("first", "second", "third")
BEGINNING = (
    "budget = <first budget>",
    "spend = <first spend>",
    "rates = bounds.RequestRates()",
    "held = budget._held_tokens",
    "charges = rates._cost",
    "share = <first share>",
    "other = spend.admit(<first bound>, deadline=None, clock=None, stopping=bounds.never)",
    "kind = evil(bounds.RunBudget, <reaction>, names=<names>)",
    "thing = None",
)
# The variable that holds an object of each class.
VARIABLES = {
    **{"Share": "share", "_Held": "held", "_Charges": "charges"},
    **{"RequestRates": "rates", "RunBudget": "budget", "DailySpend": "spend"},
}
# The symbols of the parameters whose names are not those of symbols.
PARAMETERS = {
    **dict.fromkeys(("share", "used", "limit", "size", "charge", "tokens", "held"), "number"),
    **{"result": "reply", "day": "feature"},
}


def _symbols(lines: Iterable[str]) -> dict[str, list[str]]:
    """Read the texts of each symbol, each as often as it is to be taken."""
    symbols: dict[str, list[str]] = {}
    texts: list[str] = []
    for line in lines:
        if line.startswith(" "):
            for text in line.strip().split(" | "):
                weight, colon, rest = text.partition(": ")
                texts += [rest] * int(weight) if colon and weight.isdigit() else [text]
        elif line and not line.startswith("#"):
            texts = symbols[line] = []
    return symbols


def _call(kind: str, operation: str) -> str:
    """A call of an operation, with arguments as its parameters are named."""
    positional, _, named = OPERATIONS[kind][operation].partition("* ")
    arguments = [f"<{PARAMETERS.get(each, each)}>" for each in positional.split()]
    arguments += [f"{each}=<{PARAMETERS.get(each, each)}>" for each in named.split()]
    return f"<{VARIABLES[kind]}>.{operation}({', '.join(arguments)})"


_OPERATIONS = [(kind, name) for kind, names in OPERATIONS.items() for name in names]
_FIELDS = [(kind, name) for kind, names in FIELDS.items() for name in names]
_TEXTS = _symbols(Path(__file__).with_name("statements.txt").read_text().splitlines()) | {
    "call": [_call(kind, name) for kind, name in _OPERATIONS],
    "operation": [name for _, name in _OPERATIONS],
    "method": [f"bounds.{kind}.{name}" for kind, name in _OPERATIONS],
    "patchable": [f"bounds.{kind}, '{name}'" for kind, name in _OPERATIONS],
    "field": [*(name for _, name in _FIELDS), "_changed", "_lock", "__dict__", NOTE],
    "slot": [f"<{VARIABLES[kind]}>.{name}" for kind, name in _FIELDS],
}


def _filled(text: str, dice: random.Random) -> str:
    """Put a text at random in the place of each symbol."""
    return re.sub("<([a-z ]+)>", lambda symbol: _filled(dice.choice(_TEXTS[symbol[1]]), dice), text)


def program_of(seed: int) -> Program:
    """Make the program of a seed, the same each time."""
    dice = random.Random(seed)
    program = {"main": [_filled(text, dice) for text in BEGINNING]}
    program["main"] += [_filled("<statement>", dice) for _ in range(dice.randrange(3, 40))]
    for name in REACTIONS:
        program[name] = [_filled("<statement>", dice) for _ in range(dice.randrange(1, 5))]
    return program


def text_of(program: Program) -> str:
    """The program as it is printed."""
    return "".join(
        f"{name}:\n" + "".join(f"    {statement}\n" for statement in statements)
        for name, statements in program.items()
        if statements
    )


def program_in(text: str) -> Program:
    """Read a program that was printed."""
    program: Program = {}
    statements: list[str] = []
    for line in text.splitlines():
        if line.startswith(" "):
            statements.append(line.strip())
        else:
            statements = program[line.rstrip(":")] = []
    return program
