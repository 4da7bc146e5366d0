"""The names of the module, its operations as functions, and its records as records of the host."""

from __future__ import annotations

import __future__
import copy
import dataclasses
import inspect
import pickle
import pydoc
import threading
import typing
import unittest
from operator import attrgetter
from pathlib import Path
from types import ModuleType
from typing import Any

from tests.module.support import Reply, account, bounds, extension_only

ERRORS = {
    "DecisionError": "Raised when a decision call fails (after retries).",
    "DecisionBudgetExceeded": "Raised when a ``RunBudget`` or the daily cost cap would be exceeded"
    " by another call.",
    "DecisionUnavailable": "Raised while the endpoint refuses requests: it is not asked until the"
    " window ends.",
    "DecisionTimeout": "Raised when a call without a budget (a tool's) runs out of its deadline.",
    "DecisionStopped": "Raised when the pass that a call belongs to has been asked to stop.",
}
LOAD_ORDER = ["logger", "_POLL_S", *ERRORS, "PaidReply", "never", "_nothing", "Share", "_Held"]
LOAD_ORDER += ["_wait", "_Charges", "RequestRates", "RunBudget", "DailySpend"]

# Calls that fail before the operation runs; "it" is an object of the operation's class.
WRONG_CALLS = """
never(1); _nothing(1, unheard_of=2); _wait(1); _wait(1, 2, 3, deadline=4.0); Share.settle()
Share.__init__(it, 1, 2); Share.settle(it, 1, reply=2); Share.__exit__(it, unheard_of=1)
_Held.admits(it); _Held.admits(it, 1.0); RunBudget.reserve(it, 1.0, 2.0); RunBudget.hold(it)
DailySpend.admit(it, 1, None, 2, 3); DailySpend.admit(it, 1); DailySpend.admit(it, deadline=None)
"""

COUNTS = "max_calls=4, max_tokens=9, calls=0, input_tokens=0, cost=0.0, cache_hits=0, in_flight=0"
RECORDS = ["_Held", "_Charges", "RunBudget"]
CLASSES = ["Share", *RECORDS, "RequestRates", "DailySpend"]

SURFACE = Path(__file__).parents[2] / "engines" / "decision_bounds.pyi"
FUTURE = __future__.annotations.compiler_flag


def run_surface() -> Any:
    """Run the surface as a program of the host: its functions and records are what is expected."""
    declared: Any = ModuleType(bounds.__name__)
    exec(compile(SURFACE.read_text(encoding="utf-8"), SURFACE.name, "exec", FUTURE), vars(declared))
    for init in (declared.Share.__init__, declared.RunBudget.__init__):
        names = [getattr(default, "__name__", "") for default in init.__defaults__]
        own = zip(names, init.__defaults__)
        init.__defaults__ = tuple(vars(bounds).get(name, default) for name, default in own)
    return declared


DECLARED = run_surface()
OPERATIONS = ["never", "_nothing", "_wait"] + [
    value.__qualname__
    for kind in map(vars(DECLARED).__getitem__, CLASSES)
    for value in vars(kind).values()
    # Those that the host has made for a record are named after the facility.
    if inspect.isfunction(value) and value.__qualname__.startswith(kind.__name__ + ".")
]
NamedBudget: Any = dataclasses.make_dataclass(
    "NamedBudget", [("name", str, "nightly")], bases=(bounds.RunBudget,)
)
SlottedHeld: Any = type("SlottedHeld", (bounds._Held,), {"__slots__": ("note", "unset")})


def described(kind: Any) -> list[tuple[Any, ...]]:
    """Return the fields of a record, with the presence of a default but without its value."""
    return [
        (field.name, field.type, field.repr, field.compare)
        + (field.default is dataclasses.MISSING, field.default_factory is dataclasses.MISSING)
        for field in dataclasses.fields(kind)
    ]


class SurfaceTest(unittest.TestCase):
    def test_names_are_bound_in_load_order(self) -> None:
        self.assertEqual([name for name in vars(bounds) if name in LOAD_ORDER], LOAD_ORDER)
        self.assertNotIn("__all__", vars(bounds))
        self.assertEqual(bounds.logger.name, bounds.__name__)
        self.assertEqual(repr(bounds._POLL_S), "0.1")
        self.assertIn("bounds a decision client keeps on what it pays", bounds.__doc__)

    def test_errors(self) -> None:
        for name, text in ERRORS.items():
            kind = getattr(bounds, name)
            base = RuntimeError if name == "DecisionError" else bounds.DecisionError
            self.assertEqual(kind.__bases__, (base,))
            self.assertEqual(kind.__doc__, text)
            error = pickle.loads(pickle.dumps(kind("told why")))
            self.assertIs(type(error), kind)
            self.assertEqual(str(error), "told why")

    def test_replies_and_stock_functions_are_described(self) -> None:
        for described, text in (
            (bounds.PaidReply, "What a bound reads of a reply (a ``DecisionResult``)."),
            (bounds.never, "A stop that never comes."),
            (bounds._nothing, "Give back a share of nothing."),
        ):
            self.assertEqual(described.__doc__, text)
        for name in ("cached", "input_tokens", "cost"):
            own, like = vars(bounds.PaidReply)[name], vars(DECLARED.PaidReply)[name]
            self.assertEqual(own.fget.__annotations__, like.fget.__annotations__)
            self.assertIsNone(own.fset)

    def test_operations_look_like_functions_of_the_host(self) -> None:
        for dotted in OPERATIONS:
            own = attrgetter(dotted)(bounds)
            like = attrgetter(dotted)(DECLARED)
            with self.subTest(dotted):
                self.assertEqual(inspect.signature(own), inspect.signature(like))
                types = typing.get_type_hints(like, vars(bounds))
                self.assertEqual(typing.get_type_hints(own), types)
                for name in ["annotations", "defaults", "kwdefaults", "name", "qualname"]:
                    name = f"__{name}__"
                    self.assertEqual(getattr(own, name), getattr(like, name), name)
                self.assertIn(f" {dotted}", repr(own))
                self.assertIs(pickle.loads(pickle.dumps(own)), own)

    def test_argument_errors_are_worded_as_the_hosts(self) -> None:
        made = [bounds.Share(), bounds._Held(), bounds.RunBudget(1, 2), account()]
        owners = {type(owner).__name__: owner for owner in made}
        for call in WRONG_CALLS.strip().replace("\n", "; ").split("; "):
            dotted, _, arguments = call.partition("(")
            names = {"it": owners.get(dotted.partition(".")[0])}
            texts = []
            for function in (attrgetter(dotted)(bounds), attrgetter(dotted)(DECLARED)):
                with self.assertRaises(TypeError) as caught:
                    eval(f"function({arguments}", names | {"function": function})
                texts.append(str(caught.exception))
            self.assertEqual(texts[0], texts[1])

    def test_parameters_can_be_named_in_any_order(self) -> None:
        self.assertTrue(bounds._Held().admits(limit=2.0, used=1.0, share=9.0))
        rates = bounds.RequestRates()
        rates.learn(1, reply=Reply(cost=0.5), feature="rank")
        self.assertEqual(rates.cost(feature="rank", size=2), 1.0)
        spend = account()
        spend.admit(stopping=bounds.never, clock=None, deadline=None, bound=lambda: 1.0)
        spend._give_back(reply=Reply(cost=0.5), held=1.0)
        self.assertEqual(spend.spent(), 0.5)
        self.assertEqual(spend._held, bounds._Held())
        share = bounds.Share(give_back=None)
        self.assertIsNone(share.__exit__(1, 2, 3, 4))
        self.assertEqual(share.settle, share.settle)

    def test_classes(self) -> None:
        for name in CLASSES:
            kind = getattr(bounds, name)
            self.assertEqual(kind.__module__, bounds.__name__)
            self.assertEqual(kind.__qualname__, name)
            self.assertEqual(kind.__bases__, (object,))
            # A record without a text of its own would show its signature there.
            self.assertTrue(kind.__doc__ and not kind.__doc__.startswith(f"{name}("))
            typing.get_type_hints(kind)

    @extension_only
    def test_help_says_what_each_public_name_means(self) -> None:
        for name in CLASSES:
            kind = getattr(bounds, name)
            told = pydoc.plain(pydoc.render_doc(kind))
            public = {each for each in vars(kind) if not each.startswith("_")}
            for each in public:
                with self.subTest(name, name=each):
                    meaning = vars(kind)[each].__doc__ or ""
                    self.assertRegex(meaning, r"\w+ \w+")
                    self.assertIn(meaning.splitlines()[0], told)
                    if inspect.isdatadescriptor(vars(kind)[each]):
                        self.assertIn(f"- ``{each}``: {meaning}\n", kind.__doc__)
            if name in RECORDS:
                fields = {field.name for field in dataclasses.fields(kind)}
                self.assertLessEqual({each for each in fields if each[0] != "_"}, public)

    @extension_only
    def test_every_name_says_what_it_means_and_that_it_is_of_this_module(self) -> None:
        for dotted in [*ERRORS, "PaidReply", *OPERATIONS, *CLASSES]:
            named = attrgetter(dotted)(bounds)
            self.assertEqual(named.__module__, bounds.__name__, dotted)
            self.assertTrue(named.__doc__ or dotted.endswith("__"), dotted)


class RecordsTest(unittest.TestCase):
    def test_fields(self) -> None:
        for name in RECORDS:
            own, like = getattr(bounds, name), getattr(DECLARED, name)
            self.assertEqual(described(own), described(like))
            self.assertEqual(own.__annotations__, like.__annotations__)
            self.assertEqual(own.__match_args__, like.__match_args__)
            self.assertIsNone(own.__hash__)
        fields = {field.name: field for field in dataclasses.fields(bounds.RunBudget)}
        self.assertIs(fields["should_stop"].default, bounds.never)
        self.assertIs(fields["_held_tokens"].default_factory, bounds._Held)
        self.assertIs(fields["_changed"].default_factory, threading.Condition)
        with self.assertRaisesRegex(TypeError, "missing 1 required .* 'max_tokens'"):
            bounds.RunBudget(10)

    def test_each_budget_gets_its_own_tally_and_condition(self) -> None:
        budget = bounds.RunBudget(4, 9)
        other = bounds.RunBudget(max_tokens=9, max_calls=4)
        self.assertIs(type(budget._changed), threading.Condition)
        self.assertIs(type(budget._changed._lock), type(threading.RLock()))
        for name in ("_changed", "_held_tokens"):
            self.assertIsNot(getattr(budget, name), getattr(other, name))
        mine = [lambda: True, bounds._Held(1, 2.0, 3), threading.Condition()]
        given = bounds.RunBudget(4, 9, 0, 0, 0.0, 0, 0, *mine)
        self.assertEqual([given.should_stop, given._held_tokens, given._changed], mine)
        self.assertEqual(given, budget)
        self.assertEqual(repr(given), f"RunBudget({COUNTS})")

    def test_text_and_equality(self) -> None:
        held = bounds._Held(0, 0, True)
        self.assertEqual(repr(held), "_Held(holders=0, amount=0, unbounded=True)")
        held.amount = held
        self.assertEqual(repr(held), "_Held(holders=0, amount=..., unbounded=True)")
        budget = bounds.RunBudget(4, 9)
        named = NamedBudget(4, 9)
        self.assertEqual(repr(named), f"NamedBudget({COUNTS}, name='nightly')")
        self.assertNotEqual(named, budget)
        self.assertEqual(named, NamedBudget(4, 9))
        with named.hold(2.0):
            self.assertNotEqual(named, NamedBudget(4, 9))
        for field in dataclasses.fields(budget)[:7]:
            self.assertNotEqual(dataclasses.replace(budget, **{field.name: 7}), budget, field.name)

    def test_copies(self) -> None:
        for record in (bounds._Held(2, 1.5, 1), bounds._Charges(0.5, 1000)):
            record.note = ["kept"]
            self.assertIs(copy.copy(record).note, record.note)
            for protocol in range(2, pickle.HIGHEST_PROTOCOL + 1):
                twin = pickle.loads(pickle.dumps(record, protocol))
                self.assertEqual(repr(twin), repr(record))
                self.assertEqual(twin.note, ["kept"])
        noted = SlottedHeld(2, 1.5, 1)
        noted.note = "kept"
        self.assertEqual([copy.copy(noted).note, copy.copy(noted).amount], ["kept", 1.5])
        budget = bounds.RunBudget(4, 9, 3)
        for twin in (copy.copy(budget), dataclasses.replace(budget)):
            self.assertEqual(twin, budget)
            self.assertIs(twin._changed, budget._changed)
        self.assertRaises(TypeError, copy.deepcopy, budget)  # A lock cannot be copied.
        budget._changed = None
        for twin in (copy.deepcopy(budget), pickle.loads(pickle.dumps(budget))):
            self.assertEqual(twin, budget)
            self.assertEqual(twin._held_tokens, bounds._Held())
            self.assertIs(twin.should_stop, bounds.never)
