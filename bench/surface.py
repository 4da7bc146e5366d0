"""What each operation costs under every interpreter, beside the floor and beside plain Python."""

from __future__ import annotations

import json
import subprocess
from collections.abc import Iterable
from dataclasses import dataclass
from pathlib import Path

from bench import rows, subjects


@dataclass(frozen=True)
class Interpreter:
    """An interpreter, and the folder in which the module was built for it."""

    version: str
    path: str
    build: Path


def report(interpreters: Iterable[Interpreter], quick: bool) -> str:
    """The table of all operations; each interpreter measures in a process of its own."""
    repeats = "20" if quick else "200"
    measured = {}
    for each in interpreters:
        command = [each.path, "-m", "bench.rows", str(each.build), repeats]
        done = subprocess.run(command, check=True, stdout=subprocess.PIPE)
        measured[each.version] = json.loads(done.stdout)
    headings = ["operation", "goal"]
    for version in measured:
        headings += [f"{version}: ns", "floor", "plain"]
    lines = []
    for row in rows.ROWS:
        line = [row.name, f"{row.goal:g}" if row.goal else ""]
        for figures in measured.values():
            ns = figures[row.name]
            line += [
                f"{ns['module']:.0f}",
                f"{ns['module'] / ns['floor']:.2f}",
                f"{ns['plain'] / ns['module']:.1f}",
            ]
        lines.append(line)
    return subjects.table(
        "One call, one thread: nanoseconds of the module, times the floor, times cheaper than plain"
        " Python (goal: the last, on CPython 3.10)",
        headings,
        lines,
    )
