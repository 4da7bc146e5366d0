"""The tests that judge the mutations of each source, the likeliest to notice one first."""

from __future__ import annotations

import os
import re
import signal
import subprocess
import time
from dataclasses import dataclass, field
from functools import cached_property
from pathlib import Path
from typing import Any

from tests.mutations.lists import ROOT, Mutation
from tests.mutations.trees import Tree


@dataclass(frozen=True)
class Outcome:
    """What became of a run: which tests failed, the last one started where the run did not end."""

    passed: bool
    failed: tuple[str, ...]
    hung: bool


@dataclass(frozen=True)
class Suite:
    """Some tests that one command runs."""

    name: str
    arguments: tuple[str, ...]  # a filter of GoogleTest, or what unittest is asked for
    requirements: str = ""  # the file of the packages that it needs

    @property
    def target(self) -> str:
        """What is built for it."""
        if self.name == "cpp_pass":
            return "cpp_pass"
        return "core_tests" if self.name.startswith("core") else "decision_bounds_module"

    @cached_property
    def python(self) -> str:
        """The interpreter that runs it."""
        script = (
            ["scripts/venv", self.requirements] if self.requirements else ["scripts/host_python"]
        )
        return subprocess.check_output(script, cwd=ROOT, text=True).strip()

    def run(self, tree: Tree, mutant: int, limit_s: float, to_the_end: bool = False) -> Outcome:
        """Run it in a tree until the first failure, or ``to_the_end``, which takes all tests in."""
        if self.target == "core_tests":
            command = [str(tree.build / "core_tests"), f"--gtest_filter={self.arguments[0]}"]
            command += [] if to_the_end else ["--gtest_fail_fast"]
        else:
            command = [self.python, "-m", "unittest", *self.arguments, "-v"]
            command += [] if to_the_end else ["-f"]
        # The module is built where the sources of the C++ are mutated; all else takes the shipped one.
        built = tree.build if (tree.build / "engines").exists() else ROOT / "build" / "release"
        environment = {
            **os.environ,
            "MUTANT": str(mutant),
            "CPP_PASS": str(tree.build / "examples" / "cpp_pass" / "cpp_pass"),
            "PYTHONPATH": f"{built}:{tree.folder}",
            "PYTHONDONTWRITEBYTECODE": "1",
        }
        status, output = _run(command, limit_s, cwd=tree.folder, env=environment)
        hung = status is None
        failed = _FAILED.findall(output)
        started = _STARTED.findall(output)
        names = [_name(*groups) for groups in failed]
        if hung or not names:
            names += [_name(*groups) for groups in started[-1:]]
        return Outcome(status == 0, tuple(dict.fromkeys(names)), hung)


_STARTED = re.compile(r"(?m)^(?:\[ RUN      \] (\S+)|(test\w*) \(([\w.]+)\))")
_FAILED = re.compile(r"(?m)^(?:\[  FAILED  \] (\w+\.\w+)|(?:FAIL|ERROR): (\S+) \(([\w.]+)\))")


def _name(of_core: str, test: str, place: str) -> str:
    """Return a test's name, of GoogleTest's form or of unittest's."""
    return of_core or f"{'.'.join(place.removesuffix('.' + test).split('.')[-2:])}.{test}"


def _run(command: list[str], limit_s: float, **options: Any) -> tuple[int | None, str]:
    """Return the status and the output of a command, without a status where it is out of time."""
    process = subprocess.Popen(
        command,
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        errors="replace",
        start_new_session=True,
        **options,
    )
    try:
        output, _ = process.communicate(timeout=limit_s)
        return process.returncode, output
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        return None, process.communicate()[0]
    finally:
        # What a test has started and left behind ends with it.
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


def _discovered(name: str, folder: str, requirements: str = "") -> Suite:
    return Suite(name, ("discover", "-s", folder, "-t", "."), requirements)


_CORE = (
    Suite("core", ("-*Walk.*:Interleavings.*:*Threads*:Condition.*",)),
    Suite("core walks", ("*Walk.*",)),
    Suite("core interleavings", ("Interleavings.*",)),
    Suite("core threads", ("*Threads*:Condition.*",)),
)
_MODULE = (
    _discovered("module", "tests/module"),
    _discovered("walks", "tests/walks"),
    _discovered("faults", "tests/faults"),
)
_BATCH_PASS = (
    Suite("client", ("tests.example.test_client", "tests.example.test_parts")),
    Suite("batch pass", ("tests.example.test_batch_pass",)),
)
_SHARED_CAP = {
    module: Suite(
        f"shared cap: {module}",
        (f"examples.shared_cap.tests.test_{module}",),
        "examples/shared_cap/requirements.txt",
    )
    for module in "lease journal leased_spend store shared_spend readme model faults".split()
}
_EXAMPLES = {
    "in_order": (_discovered("in_order", "examples/in_order/tests"),),
    "cpp_pass": (Suite("cpp_pass", ("examples.cpp_pass.test_program",)),),
    **{
        name: (_discovered(name, f"examples/{name}/tests", f"examples/{name}/requirements.txt"),)
        for name in ("asyncio_pass", "clients")
    },
}


def judges(mutation: Mutation) -> tuple[Suite, ...]:
    """Return the suites that a mutation must not pass."""
    source = mutation.source
    if source.startswith("examples/batch_pass/"):
        return _BATCH_PASS
    if source.startswith("examples/shared_cap/"):
        # The model is made of the lease alone, and its states take half a minute.
        return tuple(
            suite
            for module, suite in _SHARED_CAP.items()
            if module != "model" or source.endswith("/lease.py")
        )
    if source.startswith("examples/"):
        return _EXAMPLES[Path(source).parts[1]]
    if source.startswith("engines/decision_bounds/") and not mutation.of_module:
        return _CORE[::-1] if "native_condition" in source else _CORE
    return _MODULE


def target_of(mutation: Mutation) -> str:
    """Return what is built of a mutated source; nothing of one in Python."""
    return "" if mutation.source.endswith(".py") else judges(mutation)[0].target


@dataclass
class Limits:
    """How long each suite may take: several times what it takes where nothing is mutated."""

    limits_s: dict[Suite, float] = field(default_factory=dict)

    def measure(self, suite: Suite, tree: Tree) -> None:
        """Run a suite where nothing is mutated. Raises ``AssertionError`` where it fails."""
        started = time.monotonic()
        outcome = suite.run(tree, 0, 900.0)
        took_s = time.monotonic() - started
        assert outcome.passed, f"{suite.name} fails without a mutation: {outcome}"
        self.limits_s[suite] = 10.0 + 5.0 * took_s
        print(f"{suite.name}: {took_s:.1f} s", flush=True)
