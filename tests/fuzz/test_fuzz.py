"""Some hostile programs in the tests; and the fuzzer finds a fault where there is one."""

from __future__ import annotations

import importlib
import subprocess
import sys
import unittest

from tests.fuzz.grammar import program_in, text_of
from tests.fuzz.programs import MODULE, run, shortest

PROGRAMS = 60
# Statements that are faults of a kind.
CTYPES = "importlib.import_module('ctypes')"
FAULTS = {
    "SIGABRT": "signal.raise_signal(signal.SIGABRT)",
    "left": f"{CTYPES}.pythonapi.Py_IncRef({CTYPES}.py_object(bounds.Share()))",
    "broken rules": "raise SystemError('a function returned a result with an exception set')",
}


class FuzzTest(unittest.TestCase):
    def test_nothing_that_a_program_does_crashes_the_interpreter(self) -> None:
        programs = [sys.executable, "-m", "tests.fuzz", "--programs", str(PROGRAMS)]
        ended = subprocess.run(programs, capture_output=True, text=True)
        self.assertEqual(ended.returncode, 0, ended.stdout + ended.stderr)

    def test_a_fault_is_found_and_its_program_cut_short(self) -> None:
        importlib.import_module(MODULE)
        for wrong, fault in FAULTS.items():
            program = {
                "main": ["budget = bounds.RunBudget(9, 9)", "react('first')", "budget.reserve()"],
                "first": ["gc.collect()", "react('second')"],
                "second": ["budget.summary()", fault],
            }
            found = shortest(program, lambda each: run(each, ends_early=False)[0] == wrong)
            self.assertEqual(
                text_of(found),
                f"main:\n    react('first')\nfirst:\n    react('second')\nsecond:\n    {fault}\n",
            )
            self.assertEqual(program_in(text_of(found)), found)
