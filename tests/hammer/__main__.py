"""Run the races of this folder for as long as asked.

    PYTHONPATH=build/release python -m tests.hammer --seconds 10 [RACE...]
"""

from __future__ import annotations

import argparse
import sys

from tests.hammer.races import RACES
from tests.hammer.threads import run


def main() -> int:
    """Run the races one after the other. The exit status is 1 where one of them failed."""
    parser = argparse.ArgumentParser(prog="python -m tests.hammer", description=__doc__)
    parser.add_argument("races", nargs="*", metavar="RACE", help=", ".join(RACES))
    parser.add_argument("--seconds", type=float, default=1.0, help="for each race")
    options = parser.parse_args()
    failed = 0
    for name in options.races or RACES:
        try:
            print(f"{name}: {run(RACES[name], options.seconds):,} actions", flush=True)
        except Exception as error:
            failed += 1
            print(f"{name} FAILED: {type(error).__name__}: {error}", flush=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
