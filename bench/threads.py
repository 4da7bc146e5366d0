"""One thread, two on a bound each, and two on one bound, beside plain Python.

Run by the interpreter that is to be measured, as ``python -m bench.threads BUILD REPEATS``; prints
the calls a second of each row, subject and way as JSON.
"""

from __future__ import annotations

import json
import subprocess
import sys
import threading
import time
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path
from types import ModuleType
from typing import Any

from bench import rows, subjects
from bench.surface import Interpreter

_SLICE_S = 0.02  # Of several threads, all are at work for most of it.
_APART = 20  # As many objects are made in between, so that no two lie in one line of a cache.
_WAYS = {"one thread": (1, 1), "two bounds": (2, 2), "one bound": (2, 1)}
_ROWS = rows.ROWS[:4]


@dataclass(frozen=True)
class _Reply:
    """A reply with numbers of its own: to count the uses of the same ones, threads would wait."""

    cached: bool
    input_tokens: int
    cost: float


def _names(bounds: ModuleType, threads: int, owners: int) -> list[dict[str, Any]]:
    """The names of the rows for each of the threads, which share so many budgets and accounts."""
    made = [rows.objects(bounds) for _ in range(_APART * owners)][::_APART]
    names = [made[number % owners].copy() for number in range(threads)]
    for each in names:
        # No constants, which all threads have in common.
        reply = _Reply(False, int("700"), float("0.05"))
        each.update(reply=reply, bound=lambda reply=reply: reply.cost)
    return names


def calls_per_s(names: list[dict[str, Any]], statement: str, loops: int) -> float:
    """Run the statement so often on a thread for each of the names, all at once."""
    begin, times = threading.Barrier(len(names)), []

    def work(timer: Any) -> None:
        begin.wait()
        start = time.perf_counter()
        timer.timeit(loops)
        times.append((start, time.perf_counter()))

    threads = [threading.Thread(target=work, args=(rows.timer(each, statement),)) for each in names]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return len(names) * loops / (max(end for _, end in times) - min(start for start, _ in times))


def best_of(measured: dict[str, ModuleType], statement: str, repeats: int) -> dict[str, Any]:
    """The calls a second of the best slice of each subject and way, in alternation."""
    best = {name: dict.fromkeys(_WAYS, 0.0) for name in measured}
    loops = {}
    for name, bounds in measured.items():
        loops[name] = int(_SLICE_S * calls_per_s(_names(bounds, 1, 1), statement, 1000))
    for _ in range(repeats):
        for name, bounds in measured.items():
            for way, (threads, owners) in _WAYS.items():
                found = calls_per_s(_names(bounds, threads, owners), statement, loops[name])
                best[name][way] = max(best[name][way], found)
    return best


def report(interpreters: Iterable[Interpreter], quick: bool) -> str:
    """The table; each interpreter measures in a process of its own."""
    headings = ["operation", "ns"]
    for way in _WAYS:
        headings += [f"{way}: plain", "one thread"]
    tables = []
    for each in interpreters:
        command = [each.path, "-m", "bench.threads", str(each.build), "10" if quick else "60"]
        done = subprocess.run(command, check=True, stdout=subprocess.PIPE)
        lines = []
        for row, best in json.loads(done.stdout).items():
            module, plain = best["module"], best["plain"]
            line = [row, f"{1e9 / module['one thread']:.0f}"]
            for way in _WAYS:
                line += [
                    f"{module[way] / plain[way]:.1f}",
                    f"{module[way] / module['one thread']:.2f}",
                ]
            lines.append(line)
        title = f"CPython {each.version}: times plain Python's calls a second, and one thread's"
        tables.append(subjects.table(title, headings, lines))
    return "\n".join(tables)


def main() -> None:
    build, repeats = Path(sys.argv[1]), int(sys.argv[2])
    measured = {"module": subjects.module(build), "plain": subjects.plain()}
    figures = {row.name: best_of(measured, row.statement, repeats) for row in _ROWS}
    json.dump(figures, sys.stdout)


if __name__ == "__main__":
    main()
