"""Hostile programs against the module, for as long as asked.

    PYTHONPATH=build/release python -m tests.fuzz --seconds 3600

A program that crashes is cut to its shortest and printed. In a file, it is run again by ``--replay``.
"""

from __future__ import annotations

import argparse
import collections
import gc
import importlib
import sys
import time
from pathlib import Path

from tests.fuzz.grammar import program_in, program_of, text_of
from tests.fuzz.programs import MODULE, run, shortest

MOST_TOLD = 6000  # Characters of what a process wrote.


def main() -> int:
    """Run the programs and print what is wrong. The exit status is 1 where anything is."""
    parser = argparse.ArgumentParser(prog="python -m tests.fuzz", description=__doc__)
    parser.add_argument("--seconds", type=float, default=60.0, help="for how long")
    parser.add_argument("--first", type=int, default=0, help="the first seed")
    parser.add_argument("--programs", type=int, default=10**9, help="how many at most")
    parser.add_argument("--replay", type=Path, help="run the program in this file alone")
    options = parser.parse_args()
    importlib.import_module(MODULE)
    # What stands before all programs need not be looked through after each.
    gc.collect()
    gc.freeze()
    if options.replay:
        wrong, told = run(program_in(options.replay.read_text()), ends_early=False)
        print(wrong, told[:MOST_TOLD], sep="\n")
        return 1 if wrong else 0
    end = time.monotonic() + options.seconds
    endings: collections.Counter[str] = collections.Counter()
    for seed in range(options.first, options.first + options.programs):
        if time.monotonic() >= end:
            break
        ends_early = seed % 2 == 0
        program = program_of(seed)
        wrong, told = run(program, ends_early)
        endings[wrong or "good"] += 1
        if wrong and wrong != "endless":
            program = shortest(program, lambda each: run(each, ends_early)[0] == wrong)
            told = run(program, ends_early)[1] or told
            print(f"seed {seed}: {wrong}\n{text_of(program)}\n{told[:MOST_TOLD]}", flush=True)
    print(f"{endings.total()} programs: {dict(endings)}")
    return 1 if endings.keys() - {"good", "endless"} else 0


if __name__ == "__main__":
    sys.exit(main())
