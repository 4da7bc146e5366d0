"""What is measured: the built module, its twin in plain Python and the floor, in one process."""

from __future__ import annotations

import importlib
import sys
import time
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from pathlib import Path
from types import ModuleType
from typing import Any

_PLAIN = Path(__file__).parents[1] / "tests" / "twin"
_MODULE = "engines.decision_bounds"
TODAY = "2024-05-01"


@dataclass(frozen=True)
class Reply:
    """A reply of the endpoint: its input tokens, and its cost in USD."""

    cached: bool = False
    input_tokens: int = 700
    cost: float = 0.05


def module(build: Path) -> ModuleType:
    """Import the module that was built in ``build``; raises ``ImportError`` if it is not there."""
    return _import_from(build, _MODULE)


def plain() -> ModuleType:
    """Import the twin in plain Python."""
    return _import_from(_PLAIN, _MODULE)


def floor(build: Path) -> ModuleType:
    """Import the floor that was built in ``build``; raises ``ImportError`` if it is not there."""
    return _import_from(build / "bench", "floor")


def _import_from(folder: Path, name: str) -> ModuleType:
    """Import ``name`` from ``folder``, beside what was imported under that name from another."""
    package = name.partition(".")[0]
    for known in [each for each in sys.modules if each.partition(".")[0] == package]:
        del sys.modules[known]
    sys.path.insert(0, str(folder))
    try:
        return importlib.import_module(name)
    finally:
        sys.path.remove(str(folder))


def budget(bounds: ModuleType, max_tokens: int = 10**15) -> Any:
    """A run budget of ``bounds`` with call slots enough for any measurement."""
    return bounds.RunBudget(10**12, max_tokens)


def spend(bounds: ModuleType, cap_usd: float = 1e12) -> Any:
    """An account of ``bounds`` whose day does not end."""
    return bounds.DailySpend(cap_usd, lambda: TODAY, None)


def admit(account: Any, bound: Callable[[], float], never: Callable[[], bool]) -> Any:
    """Admit a call that may cost ``bound()`` USD, without a deadline or a stop."""
    return account.admit(bound, deadline=None, clock=time.monotonic, stopping=never)


def table(title: str, headings: Iterable[str], rows: Iterable[Iterable[object]]) -> str:
    """A table in Markdown under ``title``, the first column left and the others right."""
    heads = list(headings)
    lines = [heads, ["---", *["---:"] * (len(heads) - 1)], *rows]
    return "\n".join(
        [f"\n### {title}\n", *("| " + " | ".join(map(str, line)) + " |" for line in lines)]
    )
