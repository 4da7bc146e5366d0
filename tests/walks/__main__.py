"""Random programs on the module and on its twin in plain Python, side by side, for as long as asked.

    PYTHONPATH=build/release python -m tests.walks --seeds 100000
"""

from __future__ import annotations

import argparse
import importlib
import sys

from tests.walks.walk import MODULE, load_twin, walk_seed
from tests.walks.world import World


def main() -> int:
    """Walk all seeds and print each difference. The exit status is 1 where there was one."""
    parser = argparse.ArgumentParser(prog="python -m tests.walks", description=__doc__)
    parser.add_argument("--seeds", type=int, default=1000, help="how many programs")
    parser.add_argument("--first", type=int, default=0, help="the first seed")
    options = parser.parse_args()
    module, twin = importlib.import_module(MODULE), load_twin()
    differences = 0
    with World.without_sleep():
        for seed in range(options.first, options.first + options.seeds):
            if found := walk_seed(seed, module, twin):
                differences += 1
                print(f"seed {seed}:\n{found}\n", flush=True)
    print(f"{options.seeds} programs, {differences} differences")
    return 1 if differences else 0


if __name__ == "__main__":
    sys.exit(main())
