"""Memory that runs out at each point of each operation, and of loading."""

from __future__ import annotations

import importlib.util
import os
import sys
import unittest

from tests.faults.support import LONG, ProcessTest, run

if importlib.util.find_spec("_testcapi") is None:
    raise unittest.SkipTest("this interpreter has no hook for memory that runs out")

# Plain Python without memory at each point: prints the errors that are no `MemoryError`.
PLAIN = """
import _testcapi, threading
def attempt(call):
    try:
        call()
    except ZeroDivisionError:
        pass
def wait():
    made = threading.Condition()
    with made:
        made.wait(1e-6)
fails = lambda: 1 / 0
for call in (threading.Lock, wait, fails):
    attempt(call)
    for number in range(30):
        said = None
        _testcapi.set_nomemory(number, number + 1)
        try:
            attempt(call)
        except BaseException as error:
            _testcapi.remove_mem_hooks()
            said = None if isinstance(error, MemoryError) else str(error)
        _testcapi.remove_mem_hooks()
        if said:
            print(said)
"""

# Plain Python that makes a failing function without memory at each point.
MAKE_FUNCTION = """
import _testcapi
def attempt(call):
    try:
        call()
    except ZeroDivisionError:
        pass
def ask(bound):
    return bound()
def make():
    attempt(lambda: ask(lambda: 1 / 0))
make()
for number in range(30):
    _testcapi.set_nomemory(number, number + 1)
    try:
        make()
    except (MemoryError, SystemError):
        _testcapi.remove_mem_hooks()
    _testcapi.remove_mem_hooks()
"""


def is_crash(end: str) -> bool:
    """Whether the interpreter has lost its way: a signal, or an error that it did not set."""
    return end.startswith("signal") or end == "SystemError"


class MemoryTest(ProcessTest):
    def test_conditions_that_need_no_memory(self) -> None:
        for condition in ("own", "steady"):
            for memory in ("one", "all"):
                with self.subTest(condition, memory=memory):
                    self.ends_well("-m", "tests.faults.memory", condition, memory)

    def test_conditions_of_plain_python(self) -> None:
        """These may go wrong as they do in plain Python, and in no other way."""
        for condition in ("foreign", "subclass", "patched"):
            for memory in ("one", "all"):
                with self.subTest(condition, memory=memory):
                    alone = self.ends_well("-m", "tests.faults.conditions", condition, memory)
                    known = [f"--known={fault}" for fault in alone.splitlines()]
                    self.ends_well("-m", "tests.faults.memory", condition, memory, *known)

    def test_what_the_interpreter_says_without_the_module(self) -> None:
        """Where it says no more, tests.faults.memory has to accept no more."""
        said = {"cannot release un-acquired lock"}
        if sys.version_info < (3, 14):
            said.add("can't allocate lock")
        if (3, 11) <= sys.version_info < (3, 14):
            said.add("error return without exception set")
        self.assertLessEqual(said, set(self.ends_well("-c", PLAIN).splitlines()))

    def test_a_function_that_is_made_without_the_module(self) -> None:
        """Where this ends well, tests.faults.memory can make its functions in the operations."""
        crashes = (3, 12) <= sys.version_info < (3, 14)
        self.assertEqual(run("-c", MAKE_FUNCTION).returncode != 0, crashes)

    @unittest.skipUnless(LONG and hasattr(os, "fork"), "takes a minute")
    def test_loading(self) -> None:
        """It raises or has bound all names, and crashes only where the interpreter alone does too.

        Where it crashes (before CPython 3.14) the interpreter reads memory that it has given back: at
        which points, and with which signal, differs from run to run.
        """
        ends = {}
        for way in ("text", "module"):
            told = self.ends_well("-m", "tests.faults.loading", way, "5")
            ends[way] = {line.split(":")[0] for line in told.splitlines()}
        crashed = {way for way in ends if any(map(is_crash, ends[way]))}
        self.assertNotEqual(crashed, {"module"}, ends)
        self.assertIn("loaded", ends["module"])
        self.assertNotIn("loaded in part", ends["module"])
