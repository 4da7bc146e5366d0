"""Loads the module again and again, each time without memory at one more point.

    PYTHONPATH=build/release python -m tests.faults.loading module|text [STEP]

``text`` has the interpreter execute the text that declares the module, without the module: what goes
wrong with that is the interpreter's own. Prints each kind of end, and at how many points. Of every
STEP points one is tried.
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
REACHED = 3  # So many loads in a row that nothing has disturbed lie behind the last point.


def load_module() -> Callable[[], object]:
    """Prepare the loading of one more copy of the module."""
    file = importlib.import_module("engines.decision_bounds").__file__
    found: Any = importlib.util.spec_from_file_location("decision_bounds", file)
    sys.modules[found.name] = module = _imp.create_dynamic(found)
    return lambda: _imp.exec_dynamic(module)


def execute_text() -> Callable[[], object]:
    """Prepare the execution of the text that declares the module."""
    text = "from __future__ import annotations\n" + TEXT.read_text("utf-8")
    return lambda: exec(compile(text, "<text>", "exec"), {"__name__": "__main__"})


WAYS = {"module": load_module, "text": execute_text}


def end_of(load: Callable[[], object], number: int) -> str:
    """Load without memory at a point, and tell what came of it."""
    give_memory = testing.remove_mem_hooks
    testing.set_nomemory(number, number + 1)
    try:
        load()
    except BaseException as error:
        give_memory()
        return type(error).__name__
    give_memory()
    return "loaded"


def end_in_child(prepare: Callable[[], Callable[[], object]], number: int) -> str:
    """As ``end_of``, in a process of its own, which may crash."""
    reading, writing = os.pipe()
    child = os.fork()
    if child == 0:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stderr.fileno())
        signal.alarm(PATIENCE_S)
        os.write(writing, end_of(prepare(), number).encode())
        os._exit(0)
    os.close(writing)
    status = os.waitpid(child, 0)[1]
    with os.fdopen(reading) as pipe:
        return pipe.read() if status == 0 else f"signal {status & 127}"


def main(way: str, step: str = "1") -> None:
    """Try the points, and count the kinds of ends."""
    prepare = WAYS[way]
    prepare()()  # What is imported once is imported now.
    ends = Counter[str]()
    number = loaded = 0
    while loaded < REACHED:
        end = end_in_child(prepare, number)
        ends[end] += 1
        loaded = loaded + 1 if end == "loaded" else 0
        number += int(step)
    for end, points in ends.items():
        print(f"{end}: {points}")


if __name__ == "__main__":
    main(*sys.argv[1:])
