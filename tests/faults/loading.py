"""Loads the module again and again, each time without memory at one more point.

    PYTHONPATH=build/release python -m tests.faults.loading module|text [STEP]

``text`` has the interpreter execute the text that declares the module, without the module: what goes
wrong with that is the interpreter's own. Prints each kind of end, and at how many points: the error
that was raised, a signal, "loaded", and "loaded in part" where something is missing although nothing
was raised. Of every STEP points one is tried.
"""

from __future__ import annotations

import _imp
import importlib.util
import os
import signal
import sys
from collections import Counter
from collections.abc import Callable
from pathlib import Path
from typing import Any

testing: Any = importlib.import_module("_testcapi")
TEXT = Path(__file__).parents[2] / "engines/decision_bounds.pyi"
PATIENCE_S = 60
BEYOND = 200  # So many points in a row at which all loads succeed lie behind the last allocation.

Namespace = dict[str, Any]


def load_module() -> Callable[[], Namespace]:
    """Prepare the loading of one more copy of the module."""
    file = importlib.import_module("engines.decision_bounds").__file__
    found: Any = importlib.util.spec_from_file_location("decision_bounds", file)
    sys.modules[found.name] = module = _imp.create_dynamic(found)

    def load() -> Namespace:
        _imp.exec_dynamic(module)
        return vars(module)

    return load


def execute_text() -> Callable[[], Namespace]:
    """Prepare the execution of the text that declares the module."""
    text = "from __future__ import annotations\n" + TEXT.read_text("utf-8")

    def load() -> Namespace:
        namespace: Namespace = {"__name__": "__main__"}
        exec(compile(text, "<text>", "exec"), namespace)
        return namespace

    return load


WAYS = {"module": load_module, "text": execute_text}


def bound_names(namespace: Namespace) -> set[str]:
    """All names that are bound, those of the classes' attributes too."""
    names = set(namespace)
    for name, value in namespace.items():
        if isinstance(value, type):
            names.update(f"{name}.{attribute}" for attribute in vars(value))
    return names


def end_of(load: Callable[[], Namespace], whole: set[str], number: int) -> str:
    """Load without memory at a point, and tell what came of it."""
    give_memory = testing.remove_mem_hooks
    testing.set_nomemory(number, number + 1)
    try:
        namespace = load()
    except BaseException as error:
        give_memory()
        return type(error).__name__
    give_memory()
    return "loaded" if bound_names(namespace) == whole else "loaded in part"


def end_in_child(
    prepare: Callable[[], Callable[[], Namespace]], whole: set[str], number: int
) -> str:
    """As ``end_of``, in a process of its own, which may crash."""
    reading, writing = os.pipe()
    child = os.fork()
    if child == 0:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stderr.fileno())
        signal.alarm(PATIENCE_S)
        os.write(writing, end_of(prepare(), whole, number).encode())
        os._exit(0)
    os.close(writing)
    status = os.waitpid(child, 0)[1]
    with os.fdopen(reading) as pipe:
        return pipe.read() if status == 0 else f"signal {status & 127}"


def main(way: str, step: str = "1") -> None:
    """Try the points, and count the kinds of ends."""
    prepare = WAYS[way]
    whole = bound_names(prepare()())  # What is imported once is imported now.
    ends = Counter[str]()
    number = beyond = 0
    while beyond < BEYOND:
        end = end_in_child(prepare, whole, number)
        ends[end] += 1
        beyond = beyond + int(step) if end == "loaded" else 0
        number += int(step)
    for end, points in ends.items():
        print(f"{end}: {points}")


if __name__ == "__main__":
    main(*sys.argv[1:])
