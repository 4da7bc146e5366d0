"""What the bounds cost behind real client libraries, and beside published guards."""

from __future__ import annotations

import json
import os
import statistics
import subprocess
from pathlib import Path
from typing import Any

from bench import subjects

_ROOT = Path(__file__).parents[1]


def report(build: Path, quick: bool) -> str:
    """The tables of calls a second and of microseconds a call, if the packages can be installed."""
    try:
        libraries, published = _environment("examples/clients"), _environment("bench/published")
    except subprocess.CalledProcessError:
        return "\nClients were not measured, as their packages could not be installed."
    return _calls(libraries, build, quick) + "\n" + _guards(published, build, quick)


def _calls(python: str, build: Path, quick: bool) -> str:
    arguments = ("3", "96") if quick else ("9", "160")
    lines = []
    for name, pairs in _measured(python, build, "bench.calls", *arguments).items():
        line = [name]
        for figure in ("calls_s", "cpu_us"):
            bare, bounded = zip(*([each[figure] for each in pair] for pair in pairs))
            ratios = [with_bounds / without for without, with_bounds in zip(bare, bounded)]
            line += [f"{statistics.median(each):.0f}" for each in (bare, bounded)]
            line.append(f"{statistics.median(ratios):.2f} ({min(ratios):.2f}, {max(ratios):.2f})")
        lines.append(line)
    return subjects.table(
        "16 calls in flight through client libraries, at an endpoint on the same machine that"
        " answers at once: medians of the slices, and of the ratio to the slice before (extremes)",
        ["library", "calls/s: no guard", "bounds", "ratio", "CPU µs: no guard", "bounds", "ratio"],
        lines,
    )


def _guards(python: str, build: Path, quick: bool) -> str:
    best = _measured(
        python, build, "bench.published.guards", str(build.resolve()), "5" if quick else "25"
    )
    ours = next(iter(best.values()))
    lines = [
        [name, *(f"{us:.1f} ({us / ours[threads]:.1f})" for threads, us in each.items())]
        for name, each in best.items()
    ]
    return subjects.table(
        "Microseconds a call spends in the guard, without a call (and times this module)",
        ["guard", *(f"threads: {threads}" for threads in ours)],
        lines,
    )


def _environment(folder: str) -> str:
    """The interpreter that has the packages which ``folder`` requires."""
    command = [_ROOT / "scripts" / "venv", _ROOT / folder / "requirements.txt"]
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout.strip()


def _measured(python: str, build: Path, module: str, *arguments: str) -> Any:
    """What ``module`` prints as JSON."""
    path = os.pathsep.join([str(build.resolve()), str(_ROOT)])
    done = subprocess.run(
        [python, "-W", "ignore", "-m", module, *arguments],
        cwd=_ROOT,
        env={**os.environ, "PYTHONPATH": path},
        check=True,
        stdout=subprocess.PIPE,
    )
    return json.loads(done.stdout)
