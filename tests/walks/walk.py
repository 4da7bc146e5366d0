"""Walks: one program in two worlds, compared after each step, and the shortest that tells them apart."""

from __future__ import annotations

import dataclasses
import importlib
import importlib.util
import sys
from pathlib import Path
from types import ModuleType
from unittest import mock

from tests.walks.generator import Generator
from tests.walks.programs import Step
from tests.walks.world import World

MODULE = "engines.decision_bounds"
# The same surface in plain Python: a folder with a package `engines`.
TWIN = Path(__file__).parents[1] / "twin"


def load_twin() -> ModuleType:
    """Load the twin under the module's name, beside the module."""
    engines = importlib.import_module("engines")
    engines.__path__ = [*engines.__path__, str(TWIN / "engines")]
    source = TWIN.joinpath(*MODULE.split(".")).with_suffix(".py")
    found = importlib.util.spec_from_file_location(MODULE, source)
    assert found and found.loader
    twin = importlib.util.module_from_spec(found)
    with mock.patch.dict(sys.modules, {MODULE: twin}):
        found.loader.exec_module(twin)
    # A deleted field is missing, whatever its default was: the defaults are no class attributes.
    for kind in vars(twin).values():
        if dataclasses.is_dataclass(kind):
            for field in dataclasses.fields(kind):
                if field.name in vars(kind):
                    delattr(kind, field.name)
    return twin


@dataclasses.dataclass(frozen=True)
class Difference:
    """Where two worlds part: after the last step of the program."""

    steps: list[Step]
    seen: tuple[list[str], list[str]]

    def __str__(self) -> str:
        lines = [f"    {step}" for step in self.steps]
        for world, own, other in zip(("module", "twin"), self.seen, self.seen[::-1]):
            lines += [f"{world}: {line}" for line in own if line not in other] or [f"{world}: -"]
        return "\n".join(lines)


def walk(steps: list[Step], first: ModuleType, second: ModuleType) -> Difference | None:
    """Run a program in both worlds, step by step, and return where they differ, if they do.

    The caller is in ``World.without_sleep``.
    """
    worlds = World(first), World(second)
    try:
        for number, step in enumerate(steps, start=1):
            seen = worlds[0].run(step), worlds[1].run(step)
            if seen[0] != seen[1]:
                return Difference(steps[:number], seen)
    finally:
        for world in worlds:
            world.restore()
    return None


def shortest(found: Difference, first: ModuleType, second: ModuleType) -> Difference:
    """Leave out steps, many at first and then single ones, as long as the worlds still differ."""
    size = max(1, len(found.steps) // 2)
    while size:
        start = 0
        while start < len(found.steps):
            steps = found.steps[:start] + found.steps[start + size :]
            shorter = walk(steps, first, second)
            if shorter is None:
                start += size
            else:
                found = shorter
        size //= 2
    return found


def walk_seed(seed: int, first: ModuleType, second: ModuleType) -> Difference | None:
    """Walk the program of a seed; return the shortest that differs, if it does."""
    found = walk(Generator(seed).program(), first, second)
    return found and shortest(found, first, second)
