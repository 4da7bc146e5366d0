"""What the programs use against the module: objects that run code wherever they are asked anything."""

from __future__ import annotations

import copy
import ctypes
import dataclasses
import gc
import importlib
import importlib.util
import inspect
import math
import operator
import pickle
import signal
import sys
import threading
import time
import types
import typing
import weakref
from collections.abc import Callable, Iterator
from typing import Any

from tests.walks.world import FIELDS

DEEPEST_REACTION = 5
MOST_STATEMENTS = 400  # That one program runs, reactions counted.
MOST_WAITS = 3  # Of one statement.
JOIN_S = 0.005
SPECIAL_NAMES = [
    f"__{name}__"
    for name in (
        *("add radd sub rsub mul rmul truediv rtruediv neg lt le gt ge eq ne hash bool".split()),
        *("float int index round str repr format len iter contains getitem call del".split()),
        *("enter exit getattr setattr delattr get set reduce_ex sizeof copy deepcopy".split()),
    )
]
CONDITION_NAMES = ["__enter__", "__exit__", "wait", "notify_all", "_is_owned", "__del__"]

ELSEWHERE = """
from engines import decision_bounds as bounds
budget = bounds.RunBudget(9, 9)
budget.note = budget.hold(1.0)
budget.charge(None)
"""


class Boom(BaseException):
    """An error that is no ordinary one."""


class Poll(float):
    """The time of one wait, which is compared once in each: a statement that waits on ends."""

    waits = 0

    def __gt__(self, other: float) -> bool:
        Poll.waits += 1
        if Poll.waits > MOST_WAITS:
            raise Boom
        return super().__gt__(other)


class Hostile:
    """The names of one program, and its reactions: lists of statements that its objects run."""

    def __init__(self, bounds: Any, program: dict[str, list[str]]) -> None:
        self._program = program
        self._depth = 0
        self._statements = 0
        self._kept: list[Any] = []
        self._starting = threading.RLock()
        self._alone = threading.RLock()  # Held while there is another interpreter.
        self._has_ended = False
        self._makes_interpreters = True
        self._collecting = False
        gc.callbacks.append(self._note_collector)
        self.broken: list[str] = []
        # Whose objects must not be left over.
        self.kinds = [weakref.ref(getattr(bounds, name)) for name in FIELDS]
        modules = [copy, dataclasses, gc, importlib, inspect, math, operator, pickle, signal, sys]
        modules += [threading, types, typing, weakref]
        helpers: list[Callable[..., Any]] = [self.clear_type_cache, self.deep, self.elsewhere]
        helpers += [self.evil, self.function, self.generate, self.interrupt, self.load, self.patch]
        helpers += [self.react, self.thread, self.unpatch]
        self.names: dict[str, Any] = {
            **{module.__name__: module for module in modules},
            **{helper.__name__: helper for helper in helpers},
            **{"bounds": bounds, "Boom": Boom, "CONDITION_NAMES": CONDITION_NAMES},
        }

    def react(self, reaction: str, *_arguments: object) -> None:
        """Run a list of statements. Each may fail; what it raised is the variable ``error``."""
        if self._depth >= DEEPEST_REACTION:
            return
        self._depth += 1
        try:
            for statement in self._program.get(reaction, ()):
                self._statements += 1
                if self._statements > MOST_STATEMENTS:
                    return
                self._execute(statement)
        finally:
            self._depth -= 1

    def end(self) -> None:
        """Let go of everything; no reaction runs any more."""
        self._program = {}
        self._kept.clear()
        self.names.clear()

    def _execute(self, statement: str) -> None:
        Poll.waits = 0
        try:
            exec(statement, self.names)
        except BaseException as error:
            self.names["error"] = error
            # So the interpreter words it where it looks at what a function has returned.
            if isinstance(error, SystemError) and "returned" in str(error):
                self.broken.append(f"{statement}: {error}")

    def function(self, reaction: str, answer: Any = None) -> Callable[..., Any]:
        """Make a function that runs a reaction and returns ``answer``, or raises it."""

        def run(*_arguments: Any, **_keywords: Any) -> Any:
            self.react(reaction)
            if isinstance(answer, BaseException):
                raise answer
            return answer

        return run

    def evil(
        self, base: Any, reaction: str, answer: Any = None, names: Any = None, **attributes: Any
    ) -> Any:
        """Derive a class whose methods run a reaction, and then do what those of ``base`` do.

        Where there is nothing to do, or an answer is given, they return that, or raise it.
        """
        for name in names or SPECIAL_NAMES:
            attributes.setdefault(name, self._method(base, name, reaction, answer))
        kind = type("Evil", (base,), attributes)
        self.kinds.append(weakref.ref(kind))
        return kind

    def _method(self, base: Any, name: str, reaction: str, answer: Any) -> Callable[..., Any]:
        inherited = getattr(base, name, None)

        def run(this: Any, *arguments: Any, **keywords: Any) -> Any:
            self.react(reaction)
            if isinstance(answer, BaseException):
                raise answer
            if name == "__getattr__" and arguments[0].startswith("__"):
                raise AttributeError
            if name == "__getattr__" and arguments[0] not in ("cached", "input_tokens", "cost"):
                return this
            # CPython 3.10 itself leaks what a `__hash__` returns that is no number.
            if (answer is None or name == "__hash__") and callable(inherited):
                return inherited(this, *arguments, **keywords)
            return answer

        return run

    def patch(self, kind: Any, name: str, value: Any) -> None:
        """Set an attribute of a class.

        What it was lives on: CPython 3.10 itself crashes where its end looks the attribute up, since
        the cache of the class has it still.
        """
        self._kept.append(vars(kind).get(name))
        setattr(kind, name, value)

    def unpatch(self, kind: Any, name: str) -> None:
        """Delete an attribute of a class, with the same care."""
        self._kept.append(vars(kind).get(name))
        delattr(kind, name)

    def deep(self, reaction: str) -> None:
        """Run a reaction near the end of the recursion that the interpreter allows.

        All threads have that limit in common: the main thread alone sets it.
        """
        if threading.current_thread() is not threading.main_thread():
            return self.react(reaction)
        before, frame, depth = sys.getrecursionlimit(), inspect.currentframe(), 0
        while frame is not None:
            frame, depth = frame.f_back, depth + 1
        try:
            for more in range(4, 40, 3):
                sys.setrecursionlimit(depth + more)
                try:
                    self.react(reaction)
                except RecursionError:
                    pass
        finally:
            sys.setrecursionlimit(before)

    def generate(self, reaction: str) -> Iterator[None]:
        """Run a reaction before and after each value, and when it is closed."""
        try:
            while True:
                self.react(reaction)
                yield
        finally:
            self.react(reaction)

    def thread(self, reaction: str) -> None:
        """Run a reaction on another thread, beside what follows if it takes long."""
        beside = threading.Thread(target=self.react, args=(reaction,), daemon=True)
        with self._starting:
            if self._has_ended:
                return
            beside.start()
        beside.join(JOIN_S)

    def end_threads(self) -> None:
        """Start no more threads: CPython 3.10 crashes where it exits while one is starting."""
        with self._starting:
            self._has_ended = True
        while threading._limbo:  # type: ignore[attr-defined]
            time.sleep(0.001)

    def interrupt(self, error: Any) -> None:
        """Have an error raised in this thread, wherever it is in a moment."""
        here = ctypes.c_ulong(threading.get_ident())
        ctypes.pythonapi.PyThreadState_SetAsyncExc(here, ctypes.py_object(error))

    def load(self, name: str) -> Any:
        """Load the module once more, beside the first."""
        found: Any = importlib.util.spec_from_file_location(name, self.names["bounds"].__file__)
        module = importlib.util.module_from_spec(found)
        found.loader.exec_module(module)
        return module

    def elsewhere(self) -> None:
        """Use the module in another interpreter of this process, which then ends."""
        with self._alone:
            if self._makes_interpreters and (interpreters := self._interpreters()):
                interpreters.run_string(interpreters.create(), ELSEWHERE)
                self.end_interpreters()

    def end_interpreters(self, for_good: bool = False) -> bool:
        """End the others; return whether none is left, as one that a thread still uses is."""
        with self._alone:
            if for_good:
                self._makes_interpreters = False
            if interpreters := self._interpreters():
                for each in interpreters.list_all()[1:]:
                    if interpreters.is_running(each):
                        return False
                    interpreters.destroy(each)
        return True

    def clear_type_cache(self) -> None:
        """Have the version tags of types given out again.

        CPython 3.10 takes one type for another where a tag is still in use: by the cache of another
        interpreter, or by a type that the collector is about to end.
        """
        with self._alone:
            if not (self._collecting or sys.is_finalizing()):
                sys._clear_type_cache()

    def _note_collector(self, phase: str, _told: dict[str, int]) -> None:
        self._collecting = phase == "start"

    @staticmethod
    def _interpreters() -> Any:
        """The module that makes interpreters; those of CPython 3.12 and later have another one."""
        if sys.version_info >= (3, 12) or sys.is_finalizing():
            return None
        return importlib.import_module("_xxsubinterpreters")
