"""Dictionaries that fight back: a key whose ``==`` runs code while the module looks into them."""

from __future__ import annotations

import os
import sys
import unittest

from tests.faults.support import ProcessTest

# A key that equals a name, and on the way does something once. It is found by the name's hash.
PRELUDE = """
import gc, threading
from engines import decision_bounds as bounds
class Key(str):
    act = None
    __hash__ = str.__hash__
    def __eq__(self, other):
        if self.act is not None and other == str(self):
            act, self.act = self.act, None
            act()
        return str.__eq__(self, other)
def key(name, act):
    made = Key(name)
    made.act = act
    return made
class Boom(Exception):
    pass
def boom():
    raise Boom
def fighting(name, act):
    # A condition, one of whose attributes stands under such a key, with all else as it was.
    changed = threading.Condition()
    attributes = {key(n, act) if n == name else n: v for n, v in vars(changed).items()}
    changed.__dict__ = attributes
    return changed
def attempt(call):
    try:
        call()
    except (AttributeError, RuntimeError):
        pass
"""

REPLACED = """
def replace():
    changed.__dict__ = dict(vars(threading.Condition()))
    gc.collect()
changed = fighting({name!r}, replace)
budget = bounds.RunBudget(9, 9, _changed=changed)
for operation in (budget.summary, budget.reserve, budget.release, budget.summary):
    attempt(operation)
assert budget.in_flight in (0, 1)
"""
REBOUND = """
def rebind():
    budget._changed = threading.Condition()
    gc.collect()
for name in ("_lock", "_waiters", "_is_owned") * 3:
    for operation in ("summary", "release", "reserve"):
        budget = bounds.RunBudget(9, 9, _changed=fighting(name, rebind))
        attempt(getattr(budget, operation))
"""
DROPPED = """
def drop():
    vars(changed).pop("_lock", None)
    gc.collect()
changed = fighting("_waiters", drop)
changed._lock = threading.RLock()  # Nothing else refers to it.
budget = bounds.RunBudget(9, 9, _changed=changed)
for operation in (budget.summary, budget.release, budget.release):
    attempt(operation)
"""
RAISES = """
changed = fighting({name!r}, boom)
budget = bounds.RunBudget(9, 9, _changed=changed)
try:
    budget.{operation}()
except Boom:
    pass
assert not changed._lock._is_owned()
assert budget.summary()["calls"] == 0
"""
KEYWORD_DEFAULTS = """
class Sleepless(threading.Condition):
    def wait(self, timeout=None):
        pass
defaults = bounds._wait.__kwdefaults__
def change():
    {change}
defaults.clear()
defaults["deadline"] = float("123.5")
defaults[key("clock", change)] = None
try:
    changed = Sleepless()
    with changed:
        bounds._wait(changed, bounds.never)
except (Boom, TypeError):
    pass
"""
FIELD_DELETED = """
class Name(str):
    def __hash__(self):
        global hashed
        hashed += 1
        if hashed == {number}:
            del bounds._Held.amount
        return str.__hash__(self)
class Derived(bounds._Held):
    pass
held = Derived()
hashed = 0
attempt(lambda: setattr(held, Name("amount"), 1.0))
"""


own_to_the_interpreter = unittest.skipIf(
    sys.version_info >= (3, 12), "the interpreter's own look-ups of attributes fail in the same way"
)


class LookupsTest(ProcessTest):
    def survives(self, program: str) -> None:
        # What is freed is overwritten, or watched where the tests run under a sanitizer.
        malloc = os.environ.get("PYTHONMALLOC", "debug")
        self.ends_well("-c", PRELUDE + program, PYTHONMALLOC=malloc)

    @own_to_the_interpreter
    def test_a_condition_that_is_given_another_dictionary(self) -> None:
        for name in ("_lock", "_waiters"):
            with self.subTest(name):
                self.survives(REPLACED.format(name=name))

    @own_to_the_interpreter
    def test_a_condition_that_is_replaced_itself(self) -> None:
        self.survives(REBOUND)

    @own_to_the_interpreter
    def test_a_condition_that_loses_its_lock(self) -> None:
        self.survives(DROPPED)

    @own_to_the_interpreter
    def test_a_condition_whose_look_up_raises(self) -> None:
        for name in ("_lock", "_waiters"):
            for operation in ("summary", "release"):
                with self.subTest(name, operation=operation):
                    self.survives(RAISES.format(name=name, operation=operation))

    def test_defaults_of_keywords_that_change(self) -> None:
        for change in ("defaults.pop('deadline')", "defaults.clear()", "boom()"):
            with self.subTest(change):
                self.survives(KEYWORD_DEFAULTS.format(change=change))

    def test_a_field_that_is_deleted_while_it_is_set(self) -> None:
        for number in range(1, 6):
            self.survives(FIELD_DELETED.format(number=number))
