"""A world in which a program runs: one copy of the module, and what it did and was asked."""

from __future__ import annotations

import builtins
import copy
import dataclasses
import operator
import re
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from types import ModuleType
from typing import Any
from unittest import mock

from tests.walks import callbacks, programs
from tests.walks.programs import Name, Raises, Step

FIELDS = {
    "Share": ("_give_back",),
    "_Held": ("holders", "amount", "unbounded"),
    "_Charges": ("per_byte", "per_call"),
    "RequestRates": ("_lock", "_cost", "_tokens", "_features"),
    "RunBudget": (
        *("max_calls", "max_tokens", "calls", "input_tokens", "cost", "cache_hits", "in_flight"),
        *("should_stop", "_held_tokens", "_changed"),
    ),
    "DailySpend": ("_cap", "_today", "_ledger", "_changed", "_held", "_day", "_cost", "_capped"),
}
NOTE = "note"  # An attribute that no class declares.
MOST_WAITS = 5  # Of one step; the next ends it.
MOST_NOTES = 100
DEEPEST_TEXT = 4


class Endless(BaseException):
    """Ends a call that nothing would ever wake."""


class Boom(BaseException):
    """An error that is no ordinary one."""


class Unbound(BaseException):
    """A variable that no step has bound: the step that uses it does nothing."""


def leave(share: Any) -> None:
    """Leave the scope of a share by an error."""
    with share as entered:
        raise Boom(entered is share)


FUNCTIONS: dict[str, Callable[..., Any]] = {
    **{name: getattr(builtins, name) for name in "repr getattr setattr delattr".split()},
    **{"eq": operator.eq, "ne": operator.ne, "hash": lambda value: hash(value) == hash(value)},
    **{"copy": copy.copy, "replace": dataclasses.replace, "asdict": dataclasses.asdict},
    "sleeper": lambda sleeper: sleeper,
    "leave": leave,
    "subclass": lambda kind: type(kind.__name__, (kind,), {}),
    "unset": lambda kind: kind.__new__(kind),
}


class World:
    """Runs the steps of one program against ``bounds``, one copy of the module."""

    _running: World

    @classmethod
    @contextmanager
    def without_sleep(cls) -> Iterator[None]:
        """No condition sleeps meanwhile: its wait does what the running world does in one."""

        def wait(_condition: Any, timeout: Any = None) -> None:
            cls._running.note("wait", timeout)
            cls._running.sleep()

        with mock.patch.object(threading.Condition, "wait", wait):
            yield

    def __init__(self, bounds: ModuleType) -> None:
        self._bounds = bounds
        self._fields = {getattr(bounds, name): fields for name, fields in FIELDS.items()}
        self._variables: dict[str, Any] = {"bounds": bounds}
        self._known: dict[int, tuple[str, Any]] = {}  # What has a name, and is kept for it.
        self._log: list[str] = []
        self._sleeper: Any = None
        self._waits = 0
        self._nested = False
        self._names = dict(vars(bounds))
        setattr(bounds, "logger", callbacks.Logger(self))

    def restore(self) -> None:
        """Put back the names that the program has bound anew."""
        vars(self._bounds).update(self._names)

    def run(self, step: Step) -> list[str]:
        """Run a step; return what it asked of the callbacks, how it ended, and then every field."""
        self._log, self._waits = [], 0
        World._running = self
        self._run(step)
        objects = [(name, it) for name, it in self._variables.items() if self._fields_of(it)]
        return self._log + [f"{name} is {self._record_text(it)}" for name, it in objects]

    def _run(self, step: Step) -> None:
        try:
            function = FUNCTIONS.get(step.function) or self._value(Name(step.function))
            result = function(
                *[self._value(each) for each in step.arguments],
                **{name: self._value(each) for name, each in step.keywords},
            )
        except Unbound:
            return
        except BaseException as error:
            self._log.append(f"raises {self._error_text(error)}")
            return
        self._log.append(f"returns {self.text(result)}")
        if step.target:
            self._variables[step.target] = self._name(step.target, result)
        if step.target == "sleeper":
            self._sleeper = result

    def note(self, name: str, *arguments: Any) -> None:
        """Note what a callback was asked. Raises ``Endless`` where a call asks for ever."""
        if len(self._log) > MOST_NOTES:
            raise Endless
        self._log.append(f"  asks {name}({', '.join(map(self.text, arguments))})")

    def sleep(self) -> None:
        """Do what other threads would do while this one sleeps."""
        self._waits += 1
        if self._waits > MOST_WAITS:
            raise Endless
        if self._sleeper is not None:
            self._sleeper()

    def answer(self, expression: Any) -> Any:
        """Answer for a callback, with a value or an error."""
        if isinstance(expression, Raises):
            kind = (
                getattr(builtins, expression.error, None)
                or globals().get(expression.error)
                or getattr(self._bounds, expression.error)
            )
            raise self._name(repr(expression), kind("of the walk"))
        return self._value(expression)

    def run_between(self, step: Step) -> None:
        """Run a step inside a callback."""
        # What a step in a callback asks in turn runs no more steps: programs end.
        if not self._nested:
            self._nested = True
            try:
                self._run(step)
            finally:
                self._nested = False

    def _value(self, expression: Any) -> Any:
        if isinstance(expression, Name):
            first, *attributes = expression.path.split(".")
            if first not in self._variables:
                raise Unbound
            value = self._variables[first]
            for attribute in attributes:
                value = getattr(value, attribute)
            return value
        made: Any
        if isinstance(expression, programs.Probe) and expression.is_float:
            made = callbacks.FloatProbe(expression.value)
            made.world, made.made = self, expression
        else:
            kind = getattr(callbacks, type(expression).__name__, None)
            if kind is None:
                return expression
            made = kind(self, expression)
        return self._name(expression.name, made)

    def _name(self, name: str, value: Any) -> Any:
        """Call a value by ``name`` in all texts, if it can be told from its equals."""
        named = (BaseException, callbacks.Callback, callbacks.Reply, callbacks.Condition)
        if self._fields_of(value) or isinstance(value, (*named, *callbacks.PROBES)):
            self._known.setdefault(id(value), (name, value))
        return value

    def _fields_of(self, value: Any) -> tuple[str, ...]:
        """The fields of an object of the module; of anything else, none."""
        for kind, fields in self._fields.items():
            if isinstance(value, kind):
                return (*fields, NOTE)
        return ()

    def _record_text(self, value: Any, depth: int = 0) -> str:
        """The class and every field of an object of the module."""
        fields = []
        for name in self._fields_of(value):
            try:
                fields.append(f"{name}={self.text(getattr(value, name), depth + 1)}")
            except AttributeError:
                fields += [f"no {name}"] * (name != NOTE)
        return f"{type(value).__qualname__}({', '.join(fields)})"

    def _error_text(self, error: BaseException) -> str:
        """The type and the text of an error, and what was being handled when it was raised."""
        if id(error) in self._known:
            text = self._known[id(error)][0]
        elif type(error) is AttributeError:
            text = "AttributeError"  # The host's words tell an object from its class.
        else:
            text = f"{type(error).__qualname__}: {error}"
        if error.__context__ is not None:
            text += f" after {self._error_text(error.__context__)}"
        return without_addresses(text)

    def text(self, value: Any, depth: int = 0) -> str:
        """What a value is, in words that do not tell one world from another."""
        if isinstance(value, BaseException):
            return self._error_text(value)
        if id(value) in self._known:
            return f"<{self._known[id(value)][0]}>"
        if depth > DEEPEST_TEXT:
            return "..."
        if self._fields_of(value):
            return self._record_text(value, depth)
        if type(value) is threading.Condition:
            return f"Condition(owned={value._is_owned()})"  # type: ignore[attr-defined]
        if type(value) is type(threading.Lock()):
            return f"Lock(locked={value.locked()})"
        if isinstance(value, (tuple, list)):
            return f"{type(value).__name__}({[self.text(each, depth + 1) for each in value]})"
        if isinstance(value, set):
            return f"set({sorted(self.text(each, depth + 1) for each in value)})"
        if isinstance(value, dict):
            entries = ((self.text(k, depth + 1), self.text(v, depth + 1)) for k, v in value.items())
            return f"dict({list(entries)})"
        if isinstance(value, type):
            return value.__qualname__
        if callable(value):
            return "a function"
        return f"{type(value).__name__} {without_addresses(repr(value))}"


def without_addresses(text: str) -> str:
    """A text in which no object is told from its like by where it lies."""
    return re.sub("0x[0-9a-f]+", "0x", text)
