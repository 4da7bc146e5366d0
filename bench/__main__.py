"""Measure, and print the tables in Markdown."""

from __future__ import annotations

import argparse
import os
from collections.abc import Callable
from pathlib import Path

from bench import asyncio_pass, clients, growth, guards, in_order, load, native, shared_cap
from bench import surface, threads

_SECTIONS = (
    *("surface", "threads", "load", "native", "growth", "guards"),
    *("in_order", "asyncio_pass", "clients", "shared_cap"),
)


def main() -> None:
    """Run the section asked for, or all of them, one after the other."""
    parser = argparse.ArgumentParser(
        prog="scripts/bench", description="Measure the bounds; print tables in Markdown."
    )
    parser.add_argument("section", nargs="?", choices=_SECTIONS, help="only this one")
    parser.add_argument("--quick", action="store_true", help="fewer repeats and smaller counts")
    parser.add_argument("--picture", type=Path, help="file to draw the spend of the guards in, SVG")
    # What follows is passed by the script: the first interpreter runs all but the surface.
    parser.add_argument("--interpreter", action="append", nargs=3, help=argparse.SUPPRESS)
    options = parser.parse_args()
    interpreters = [
        surface.Interpreter(version, path, Path(build))
        for version, path, build in options.interpreter
    ]
    build = interpreters[0].build
    print(f"{os.cpu_count()} cores; all but the first tables: CPython {interpreters[0].version}")
    sections: dict[str, Callable[[], str]] = {
        "surface": lambda: surface.report(interpreters, options.quick),
        "threads": lambda: threads.report(interpreters, options.quick),
        "load": lambda: load.report(build, options.quick),
        "native": lambda: native.report(build, options.quick),
        "growth": lambda: growth.report(build, options.quick),
        "guards": lambda: guards.report(build, options.quick, options.picture),
        "in_order": lambda: in_order.report(build, options.quick),
        "asyncio_pass": lambda: asyncio_pass.report(build, options.quick),
        "clients": lambda: clients.report(build, options.quick),
        "shared_cap": lambda: shared_cap.report(build, options.quick),
    }
    for name, report in sections.items():
        if options.section in (None, name):
            print(report(), flush=True)


if __name__ == "__main__":
    main()
