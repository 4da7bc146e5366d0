"""Memory that runs out at each point of each operation, and of loading."""

from __future__ import annotations

import importlib.util
import unittest

from tests.faults.support import LONG, ProcessTest, known_fault, run

if importlib.util.find_spec("_testcapi") is None:
    raise unittest.SkipTest("this interpreter has no hook for memory that runs out")

# Loads the module without memory at one point.
LOAD = """
import _imp, _testcapi, importlib.util, sys
from engines import decision_bounds
found = importlib.util.spec_from_file_location("decision_bounds", decision_bounds.__file__)
module = _imp.create_dynamic(found)
_testcapi.set_nomemory({0}, {0} + 1)
try:
    _imp.exec_dynamic(module)
except (MemoryError, RuntimeError) as error:
    _testcapi.remove_mem_hooks()
    assert isinstance(error, MemoryError) or str(error) == "can't allocate lock"
_testcapi.remove_mem_hooks()
assert "decision_bounds" not in sys.modules
"""


class MemoryTest(ProcessTest):
    def no_point_goes_wrong(self, condition: str) -> None:
        for memory in ("one", "all"):
            with self.subTest(condition, memory=memory):
                self.ends_well("-m", "tests.faults.memory", condition, memory)

    def test_the_bounds_over_their_own_conditions(self) -> None:
        self.no_point_goes_wrong("own")

    @known_fault
    def test_the_bounds_over_a_foreign_condition(self) -> None:
        self.no_point_goes_wrong("foreign")

    @known_fault
    def test_the_bounds_over_a_subclass_of_the_condition(self) -> None:
        self.no_point_goes_wrong("subclass")

    @known_fault
    @unittest.skipUnless(LONG, "takes minutes")
    def test_loading(self) -> None:
        for number in range(0, 6000, 5):
            with self.subTest(point=number):
                self.ends_well("-c", LOAD.format(number))
