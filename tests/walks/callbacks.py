"""What the programs of the walks hand in: objects that note in the world's log what they are asked."""

from __future__ import annotations

import operator
import sys
from collections.abc import Callable
from typing import TYPE_CHECKING, Any

from tests.walks import programs

if TYPE_CHECKING:
    from tests.walks.world import World


class Callback:
    """Gives the program's answers in turn, and the last for ever; runs the steps among them."""

    def __init__(self, world: World, made: programs.Callback) -> None:
        self._world = world
        self._made = made
        self._asked = 0

    def __call__(self, *arguments: Any) -> Any:
        self._world.note(self._made.name, *arguments)
        answers = self._made.answers
        while True:
            answer = answers[min(self._asked, len(answers) - 1)]
            self._asked += 1
            if not isinstance(answer, programs.Step):
                return self._world.answer(answer)
            self._world.run_between(answer)


class Reply:
    """A reply whose properties are read from the program."""

    def __init__(self, world: World, made: programs.Reply) -> None:
        self._world = world
        self._made = made

    def _read(self, name: str) -> Any:
        self._world.note(f"{self._made.name}.{name}")
        return self._world.answer(getattr(self._made, name))

    cached = property(lambda self: self._read("cached"))
    input_tokens = property(lambda self: self._read("input_tokens"))
    cost = property(lambda self: self._read("cost"))

    def __bool__(self) -> bool:
        return False


class Condition:
    """A condition of the caller's own, which is never really locked."""

    def __init__(self, world: World, made: programs.Condition) -> None:
        self._world = world
        self._made = made

    def _ask(self, name: str, *arguments: Any) -> None:
        self._world.note(f"{self._made.name}.{name}", *arguments)
        if name == self._made.failing:
            self._world.answer(programs.Raises("Boom"))

    def __enter__(self) -> None:
        self._ask("__enter__")

    def __exit__(self, *error: Any) -> None:
        self._ask("__exit__", *error[:2])

    def wait(self, *arguments: Any) -> None:
        self._ask("wait", *arguments)
        self._world.sleep()

    def notify_all(self) -> None:
        self._ask("notify_all")


class Logger:
    """The module's logger, whose records are noted with the error that is attached."""

    def __init__(self, world: World) -> None:
        self._world = world

    def warning(self, message: str, *arguments: Any, exc_info: Any = None) -> None:
        error = sys.exc_info()[1] if exc_info is True else exc_info
        self._world.note("logger.warning", message, *arguments, error)


class Probe:
    """A number whose operators are asked, and note it."""

    def __init__(self, world: World, made: programs.Probe) -> None:
        self.world = world
        self.made = made

    __hash__ = None  # type: ignore[assignment]


class FloatProbe(float):
    """The same as a number of the host's own kind."""

    world: World
    made: programs.Probe
    __hash__ = None  # type: ignore[assignment]


PROBES = (Probe, FloatProbe)


def _plain(value: Any) -> Any:
    return value.made.value if isinstance(value, PROBES) else value


def _noted(name: str, operation: Callable[..., Any]) -> Callable[..., Any]:
    def method(self: Any, *others: Any) -> Any:
        self.world.note(f"{self.made.name}.{name}", *others)
        return operation(self.made.value, *map(_plain, others))

    return method


OPERATORS: dict[str, Callable[..., Any]] = {
    **{f"__{name}__": getattr(operator, name) for name in "add sub mul truediv".split()},
    **{f"__{name}__": getattr(operator, name) for name in "lt le gt ge eq ne".split()},
    "__bool__": bool,
    "__float__": float,
    "__round__": round,
}


def _reflected(operation: Callable[..., Any]) -> Callable[..., Any]:
    return lambda value, other: operation(other, value)


for _name, _operation in OPERATORS.items():
    for _kind in PROBES:
        setattr(_kind, _name, _noted(_name, _operation))
        if _name in ("__add__", "__sub__", "__mul__", "__truediv__"):
            _swapped = f"__r{_name[2:]}"
            setattr(_kind, _swapped, _noted(_swapped, _reflected(_operation)))
