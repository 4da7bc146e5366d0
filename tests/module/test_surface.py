"""The names of the module, its operations as functions, and its records as records of the host."""

from __future__ import annotations

import copy
import dataclasses
import inspect
import pickle
import threading
import typing
import unittest
from operator import attrgetter
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

DECLARATIONS = """
never() -> bool
_nothing(_reply: PaidReply | None) -> None
_wait(changed: threading.Condition, stopping: Callable[[], bool], *,\
 deadline: float | None = None, clock: Callable[[], float] | None = None) -> None
Share.__init__(self, give_back: Callable[[PaidReply | None], None] = _nothing) -> None
Share.settle(self, reply: PaidReply | None) -> None
Share.__enter__(self) -> Share
Share.__exit__(self, *_exc: object) -> None
_Held.admits(self, share: float, used: float, limit: float) -> bool
_Held.take(self, share: float) -> None
_Held.give_back(self, share: float) -> None
_Charges.bound(self, size: int) -> float
_Charges.learn(self, size: int, charge: float) -> None
RequestRates.__init__(self) -> None
RequestRates.cost(self, size: int, feature: str) -> float
RequestRates.tokens(self, size: int) -> float
RequestRates.learn(self, size: int, feature: str, reply: PaidReply) -> None
RunBudget.stopping(self) -> bool
RunBudget.exhausted(self) -> bool
RunBudget._exhausted_locked(self) -> bool
RunBudget.reserve(self, tokens: float = 0.0) -> None
RunBudget.hold(self, tokens: float) -> Share
RunBudget.release(self, tokens: float = 0.0) -> None
RunBudget.charge(self, result: PaidReply, tokens: float = 0.0) -> None
RunBudget.summary(self) -> dict[str, Any]
RunBudget._summary_locked(self) -> dict[str, Any]
DailySpend.__init__(self, cap: float, today: Callable[[], str],\
 ledger: Callable[[str], float] | None) -> None
DailySpend.spent(self) -> float
DailySpend.admit(self, bound: Callable[[], float], *, deadline: float | None,\
 clock: Callable[[], float], stopping: Callable[[], bool]) -> Share
DailySpend.charge(self, reply: PaidReply) -> None
DailySpend._give_back(self, held: float, reply: PaidReply | None) -> None
DailySpend._today_locked(self) -> float
DailySpend._spent_since(self, day: str) -> float
"""

# Calls that fail before the operation runs; "it" is an object of the operation's class.
WRONG_CALLS = """
never(1); _nothing(1, unheard_of=2); _wait(1); _wait(1, 2, 3, deadline=4.0); Share.settle()
Share.__init__(it, 1, 2); Share.settle(it, 1, reply=2); Share.__exit__(it, unheard_of=1)
_Held.admits(it); _Held.admits(it, 1.0); RunBudget.reserve(it, 1.0, 2.0); RunBudget.hold(it)
DailySpend.admit(it, 1, None, 2, 3); DailySpend.admit(it, 1); DailySpend.admit(it, deadline=None)
"""

# The fields of the records and their declared types; the last three of a budget are not shown.
FIELDS = {
    "_Held": {"holders": "int", "amount": "float", "unbounded": "int"},
    "_Charges": {"per_byte": "float", "per_call": "float"},
    "RunBudget": {
        **dict.fromkeys(["max_calls", "max_tokens", "calls", "input_tokens"], "int"),
        **{"cost": "float", "cache_hits": "int", "in_flight": "int"},
        "should_stop": "Callable[[], bool]",
        **{"_held_tokens": "_Held", "_changed": "threading.Condition"},
    },
}
COUNTS = "max_calls=4, max_tokens=9, calls=0, input_tokens=0, cost=0.0, cache_hits=0, in_flight=0"


def declare(declaration: str) -> Any:
    """Make the declared function of the host, with the names of the module as its globals."""
    dotted, _, signature = declaration.partition("(")
    names: dict[str, Any] = dict(vars(bounds))
    exec(f"from __future__ import annotations\ndef declared({signature}: pass", names)
    names["declared"].__name__, names["declared"].__qualname__ = dotted.rpartition(".")[2], dotted
    return names["declared"]


DECLARED = {line.partition("(")[0]: declare(line) for line in DECLARATIONS.strip().split("\n")}


@dataclasses.dataclass
class NamedBudget(bounds.RunBudget):
    name: str = "nightly"


class SurfaceTest(unittest.TestCase):
    def test_names_are_bound_in_load_order(self) -> None:
        self.assertEqual([name for name in vars(bounds) if name in LOAD_ORDER], LOAD_ORDER)
        self.assertNotIn("__all__", vars(bounds))
        self.assertEqual((bounds.logger.name, repr(bounds._POLL_S)), (bounds.__name__, "0.1"))
        self.assertIn("bounds a decision client keeps on what it pays", bounds.__doc__)

    def test_errors(self) -> None:
        for name, text in ERRORS.items():
            kind = getattr(bounds, name)
            base = RuntimeError if name == "DecisionError" else bounds.DecisionError
            self.assertEqual((kind.__bases__, kind.__doc__), ((base,), text))
            error = pickle.loads(pickle.dumps(kind("told why")))
            self.assertEqual((type(error), str(error)), (kind, "told why"))

    def test_replies_and_stock_functions_are_described(self) -> None:
        for described, text in (
            (bounds.PaidReply, "What a bound reads of a reply (a ``DecisionResult``)."),
            (bounds.never, "A stop that never comes."),
            (bounds._nothing, "Give back a share of nothing."),
        ):
            self.assertEqual(described.__doc__, text)
        for name, declared_type in (("cached", "bool"), ("input_tokens", "int"), ("cost", "float")):
            described = vars(bounds.PaidReply)[name]
            self.assertEqual(described.fget.__annotations__, {"return": declared_type})
            self.assertIsNone(described.fset)

    def test_operations_look_like_functions_of_the_host(self) -> None:
        for dotted, like in DECLARED.items():
            own = attrgetter(dotted)(bounds)
            with self.subTest(dotted):
                self.assertEqual(inspect.signature(own), inspect.signature(like))
                self.assertEqual(typing.get_type_hints(own), typing.get_type_hints(like))
                for name in ["annotations", "defaults", "kwdefaults", "name", "qualname"]:
                    name = f"__{name}__"
                    self.assertEqual(getattr(own, name), getattr(like, name), name)
                self.assertTrue(own.__doc__ or dotted.endswith("__"))

    def test_argument_errors_are_worded_as_the_hosts(self) -> None:
        made = [bounds.Share(), bounds._Held(), bounds.RunBudget(1, 2), account()]
        owners = {type(owner).__name__: owner for owner in made}
        for call in WRONG_CALLS.strip().replace("\n", "; ").split("; "):
            dotted, _, arguments = call.partition("(")
            texts, names = [], {"it": owners.get(dotted.partition(".")[0])}
            for function in (attrgetter(dotted)(bounds), DECLARED[dotted]):
                with self.assertRaises(TypeError) as caught:
                    eval(f"function({arguments}", names | {"function": function})
                texts.append(str(caught.exception))
            self.assertEqual(texts[0], texts[1])

    def test_parameters_can_be_named_in_any_order(self) -> None:
        rates, spend, share = bounds.RequestRates(), account(), bounds.Share(give_back=None)
        self.assertTrue(bounds._Held().admits(limit=2.0, used=1.0, share=9.0))
        rates.learn(1, reply=Reply(cost=0.5), feature="rank")
        self.assertEqual(rates.cost(feature="rank", size=2), 1.0)
        spend.admit(stopping=bounds.never, clock=None, deadline=None, bound=lambda: 1.0)
        spend._give_back(reply=Reply(cost=0.5), held=1.0)
        self.assertEqual((spend.spent(), spend._held), (0.5, bounds._Held()))
        self.assertEqual((share.__exit__(1, 2, 3, 4), share.settle == share.settle), (None, True))

    def test_classes(self) -> None:
        for name in ["Share", "_Held", "_Charges", "RequestRates", "RunBudget", "DailySpend"]:
            kind = getattr(bounds, name)
            described = (kind.__module__, kind.__qualname__, kind.__bases__)
            self.assertEqual(described, (bounds.__name__, name, (object,)))
            # A record without a text of its own would show its signature there.
            self.assertTrue(kind.__doc__ and not kind.__doc__.startswith(f"{name}("))
            typing.get_type_hints(kind)

    @extension_only
    def test_every_name_says_that_it_is_of_this_module(self) -> None:
        for dotted in [*ERRORS, "PaidReply", *DECLARED]:
            self.assertEqual(attrgetter(dotted)(bounds).__module__, bounds.__name__, dotted)


class RecordsTest(unittest.TestCase):
    def test_fields(self) -> None:
        for name, types in FIELDS.items():
            kind = getattr(bounds, name)
            fields = dataclasses.fields(kind)
            self.assertEqual([(field.name, field.type) for field in fields], list(types.items()))
            self.assertEqual((kind.__annotations__, kind.__match_args__), (types, tuple(types)))
            self.assertIsNone(kind.__hash__)
        hidden = [field for field in fields if not (field.repr or field.compare)]
        defaults = [hidden[0].default, *[field.default_factory for field in hidden[1:]]]
        self.assertEqual(defaults, [bounds.never, bounds._Held, threading.Condition])
        with self.assertRaisesRegex(TypeError, "missing 1 required .* 'max_tokens'"):
            bounds.RunBudget(10)

    def test_each_budget_gets_its_own_tally_and_condition(self) -> None:
        budget, other = bounds.RunBudget(4, 9), bounds.RunBudget(max_tokens=9, max_calls=4)
        self.assertIs(type(budget._changed), threading.Condition)
        self.assertIs(type(budget._changed._lock), type(threading.RLock()))
        for name in ("_changed", "_held_tokens"):
            self.assertIsNot(getattr(budget, name), getattr(other, name))
        mine = (lambda: True, bounds._Held(1, 2.0, 3), threading.Condition())
        given = bounds.RunBudget(4, 9, 0, 0, 0.0, 0, 0, *mine)
        self.assertEqual((given.should_stop, given._held_tokens, given._changed), mine)
        self.assertEqual((given, repr(given)), (budget, f"RunBudget({COUNTS})"))

    def test_text_and_equality(self) -> None:
        budget, named, held = bounds.RunBudget(4, 9), NamedBudget(4, 9), bounds._Held(0, 0, True)
        self.assertEqual(repr(named), f"NamedBudget({COUNTS}, name='nightly')")
        self.assertEqual(repr(held), "_Held(holders=0, amount=0, unbounded=True)")
        held.amount = held
        self.assertEqual(repr(held), "_Held(holders=0, amount=..., unbounded=True)")
        self.assertEqual((named == budget, named == NamedBudget(4, 9)), (False, True))
        with named.hold(2.0):
            self.assertNotEqual(named, NamedBudget(4, 9))
        for name in list(FIELDS["RunBudget"])[:7]:
            self.assertNotEqual(dataclasses.replace(budget, **{name: 7}), budget, name)

    def test_copies(self) -> None:
        for record in (bounds._Held(2, 1.5, 1), bounds._Charges(0.5, 1000)):
            record.note = ["kept"]
            self.assertIs(copy.copy(record).note, record.note)
            for protocol in range(2, pickle.HIGHEST_PROTOCOL + 1):
                twin = pickle.loads(pickle.dumps(record, protocol))
                self.assertEqual((repr(twin), twin.note), (repr(record), ["kept"]))
        budget = bounds.RunBudget(4, 9, 3)
        for twin in (copy.copy(budget), dataclasses.replace(budget)):
            self.assertEqual((twin, twin._changed), (budget, budget._changed))
        self.assertRaises(TypeError, copy.deepcopy, budget)  # A lock cannot be copied.
        budget._changed = None
        for twin in (copy.deepcopy(budget), pickle.loads(pickle.dumps(budget))):
            self.assertEqual((twin, twin._held_tokens), (budget, bounds._Held()))
            self.assertIs(twin.should_stop, bounds.never)
