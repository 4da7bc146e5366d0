"""The bounds in plain C++, beside bare lock pairs of the same lock and beside a semaphore."""

from __future__ import annotations

import json
import statistics
import subprocess
from collections.abc import Iterable
from pathlib import Path

from bench import subjects

_THREADS = (1, 2, 8, 64)
_CONDITION, _MUTEX = "two pairs of the condition's lock", "one pair of the mutex"
_FLOORS = {
    "reserve + charge": _CONDITION,
    "hold + settle": _CONDITION,
    "admit + settle": _CONDITION,
    "cost": _MUTEX,
    "learn": _MUTEX,
}


def run_ns(build: Path, pattern: str, quick: bool) -> dict[str, list[float]]:
    """Nanoseconds of one operation by the benchmark's name, from many short runs in alternation."""
    command = [
        str(build / "bench" / "native_bench"),
        f"--benchmark_filter={pattern}",
        "--benchmark_min_time=0.01",
        f"--benchmark_repetitions={10 if quick else 40}",
        "--benchmark_enable_random_interleaving=true",
        "--benchmark_format=json",
    ]
    done = subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    runs: dict[str, list[float]] = {}
    for each in json.loads(done.stdout)["benchmarks"]:
        if each["run_type"] == "iteration":
            runs.setdefault(each["run_name"].replace("/real_time", ""), []).append(
                each["real_time"]
            )
    return runs


def report(build: Path, quick: bool) -> str:
    """The table by number of threads: nanoseconds, and times the floor where there is one."""
    runs = run_ns(build, "^threads/", quick)

    def at(name: str, threads: int) -> float:
        ns = runs[f"threads/{name}/threads:{threads}"]
        # Where threads meet, the best run is the one in which they happened not to.
        return min(ns) if threads == 1 else statistics.median(ns)

    def cells(name: str) -> Iterable[str]:
        for threads in _THREADS:
            floor = _FLOORS.get(name)
            times = f" ({at(name, threads) / at(floor, threads):.1f})" if floor else ""
            yield f"{at(name, threads):.0f}{times}"

    return subjects.table(
        "Plain C++: nanoseconds of an operation by number of threads, and times its lock pairs",
        ["operation", *(f"{each} thread{'s' * (each > 1)}" for each in _THREADS)],
        [[name, *cells(name)] for name in (*_FLOORS, _CONDITION, _MUTEX, "semaphore")],
    )


def growth(build: Path, quick: bool) -> dict[str, tuple[float, float]]:
    """Nanoseconds of each operation on fresh bounds, and on those that have seen long use."""
    ns = run_ns(build, "^(fresh|used)/", quick)
    names = sorted(name.partition("/")[2] for name in ns if name.startswith("fresh/"))
    return {name: (min(ns[f"fresh/{name}"]), min(ns[f"used/{name}"])) for name in names}
