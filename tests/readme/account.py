"""Run a program as its user does, and print as JSON what it counted and what its calls came to.

usage: python -m tests.readme.account PROGRAM URL
"""

from __future__ import annotations

import json
import runpy
import sys
from concurrent.futures import Future
from typing import Any


def outcome(call: Future[Any]) -> str:
    """Name what a call ended with; ``Reply`` if it was answered."""
    error = call.exception()
    name = type(call.result() if error is None else error).__name__
    return f"{name} {error.code}" if error is not None and hasattr(error, "code") else name


def main() -> None:
    """Run the program, whose names are those of the README's first one."""
    del sys.argv[0]
    names = runpy.run_path(sys.argv[0], run_name="__main__")
    day, budget = names["day"], names["budget"]
    figures = {
        "spent_usd": day.spent(),
        "summary": budget.summary(),
        "cap_usd": names["CAP_USD"],
        "held": [day._held.holders, day._held.amount, budget.in_flight, budget._held_tokens.amount],
        "calls": [
            {
                "request": request,
                "outcome": outcome(call),
                "reply": vars(names["dearest"](request) if call.exception() else call.result()),
            }
            for request, call in zip(names["requests"], names["calls"])
        ],
    }
    print(json.dumps(figures))


if __name__ == "__main__":
    main()
