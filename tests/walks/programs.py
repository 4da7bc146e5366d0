"""The programs of the walks, as data: the same one runs in two worlds, is printed, and is cut."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any


@dataclass(frozen=True)
class Name:
    """A variable of the program, or an attribute of one: ``budget1._held_tokens``."""

    path: str

    def __repr__(self) -> str:
        return self.path


@dataclass(frozen=True)
class Raises:
    """An answer of a callback that is an error: a built-in, or one of the walks' or the module's own."""

    error: str

    def __repr__(self) -> str:
        return f"raises({self.error})"


@dataclass(frozen=True)
class Callback:
    """A function that answers (or raises) one thing after the other, and the last for ever."""

    name: str
    answers: tuple[Any, ...]

    def __repr__(self) -> str:
        return f"{self.name}({', '.join(map(repr, self.answers))})"


@dataclass(frozen=True)
class Reply:
    """A paid reply, each of whose properties is an answer as a callback's is."""

    name: str
    cached: Any
    input_tokens: Any
    cost: Any

    def __repr__(self) -> str:
        values = f"cached={self.cached!r}, input_tokens={self.input_tokens!r}, cost={self.cost!r}"
        return f"{self.name}({values})"


@dataclass(frozen=True)
class Condition:
    """A condition of the caller's own; ``failing`` names its operation that raises, if any does."""

    name: str
    failing: str

    def __repr__(self) -> str:
        return f"{self.name}(failing={self.failing!r})"


@dataclass(frozen=True)
class Probe:
    """A number with operators of its own, which note that they were asked; a ``float`` or not."""

    name: str
    value: Any
    is_float: bool

    def __repr__(self) -> str:
        return f"{self.name}({self.value!r}{', float' if self.is_float else ''})"


@dataclass(frozen=True)
class Step:
    """``target = function(*arguments, **keywords)``. What has no target is not kept."""

    function: str
    arguments: tuple[Any, ...] = ()
    keywords: tuple[tuple[str, Any], ...] = ()
    target: str = ""

    def __repr__(self) -> str:
        values = [repr(value) for value in self.arguments]
        values += [f"{name}={value!r}" for name, value in self.keywords]
        kept = f"{self.target} = " if self.target else ""
        return f"{kept}{self.function}({', '.join(values)})"


Program = Sequence[Step]
