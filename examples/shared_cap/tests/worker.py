"""A process of the tests: makes calls under the shared cap, and writes down what they cost.

Reads a job, as JSON, from each line of its input, and answers when it is done. ``billed`` is a file
to which each call appends what it holds before it leaves, and what it cost when it is billed: what
remains there of a process that was killed is what it had spent.
"""

from __future__ import annotations

import json
import os
import random
import sys
import threading
import time
from pathlib import Path
from typing import Any

from engines.decision_bounds import DecisionBudgetExceeded, never

from ..shared_spend import SharedSpend
from .stores import Reply, opened


def run(job: dict[str, Any]) -> None:
    """Make calls from ``threads`` threads until each has made ``calls`` or the cap is reached."""
    billed = os.open(job["billed"], os.O_WRONLY | os.O_CREAT | os.O_APPEND)
    spend = SharedSpend(
        job["cap_usd"],
        opened(job["store"]),
        Path(job["journals"]),
        lease_usd=job["lease_usd"],
        term_s=job.get("term_s", 30.0),
    )
    dearest_usd: float = job["dearest_usd"]

    def make_calls(chance: random.Random) -> None:
        for _ in range(job["calls"]):
            cost = dearest_usd * chance.uniform(job.get("least", 1.0), 1.0)
            try:
                share = spend.admit(
                    lambda: dearest_usd, deadline=None, clock=time.monotonic, stopping=never
                )
            except DecisionBudgetExceeded:
                return
            with share:
                os.write(billed, f"holds {dearest_usd!r}\n".encode())
                time.sleep(job["call_s"] * chance.uniform(0.5, 1.5))
                os.write(billed, f"costs {cost!r}\n".encode())
                share.settle(Reply(cost))

    threads = [
        threading.Thread(target=make_calls, args=(random.Random(f"{job['seed']} {number}"),))
        for number in range(job["threads"])
    ]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    time.sleep(job.get("lull_s", 0.0))
    if job.get("stays"):
        print("idle", flush=True)
        sys.stdin.readline()
    spend.close()
    os.close(billed)


def main() -> None:
    """Run the jobs, on clocks that are ``argv[1]`` seconds ahead."""
    ahead_s, wall, monotonic = float(sys.argv[1]), time.time, time.monotonic
    time.time = lambda: wall() + ahead_s
    time.monotonic = lambda: monotonic() + ahead_s
    for line in sys.stdin:
        run(json.loads(line))
        print("done", flush=True)


if __name__ == "__main__":
    main()
