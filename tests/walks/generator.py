"""Random programs: mostly calls that clients make, with values of every kind and wrong ones among them."""

from __future__ import annotations

import math
import random
from collections.abc import Callable
from decimal import Decimal
from fractions import Fraction
from typing import Any

from tests.walks.programs import Callback, Condition, Name, Probe, Raises, Reply, Step
from tests.walks.world import FIELDS, NOTE

ODD_VALUES: tuple[Any, ...] = (
    *(
        0,
        -1,
        10**30,
        2**53,
        2**53 + 1,
        10**400,
        -(10**400),
        True,
        False,
        None,
        "text",
        "inf",
        "",
        b"1",
    ),
    *(-0.0, -1.5, 5e-324, 1e308, -math.inf, math.nan, 1j, (), 0.1, 0.2, 1e-7, 123456.7890125),
    *(Decimal("1.5"), Decimal("NaN"), Decimal("Infinity"), Decimal(0), Fraction(1, 3), Fraction(0)),
)
COUNTS = (0, 1, 2, 3, 5, 9, 40)
AMOUNTS = (0.0, 0.5, 1.0, 2.0, 2.5, 4.0, 9.0, 1, 3, math.inf, math.inf)
DAYS = ("2024-02-28", "2024-02-29", "2024-03-01")
ERRORS = (
    *("ValueError", "KeyError", "MemoryError", "StopIteration", "TypeError", "DecisionTimeout"),
    *("Boom", "KeyboardInterrupt", "SystemExit", "GeneratorExit"),
)

# The operations of each class by the names of their parameters, those by keyword alone after "*".
OPERATIONS = {
    "Share": {"settle": "reply", "__enter__": "", "__exit__": ""},
    "_Held": {"admits": "share used limit", "take": "share", "give_back": "share"},
    "_Charges": {"bound": "size", "learn": "size charge"},
    "RequestRates": {"cost": "size feature", "tokens": "size", "learn": "size feature reply"},
    "RunBudget": {
        **{name: "" for name in ("stopping", "exhausted", "_exhausted_locked")},
        **{name: "tokens" for name in ("reserve", "hold", "release")},
        **{"charge": "result tokens", "summary": "", "_summary_locked": ""},
    },
    "DailySpend": {
        **{"spent": "", "admit": "bound * deadline clock stopping", "charge": "reply"},
        **{"_give_back": "held reply", "_today_locked": "", "_spent_since": "day"},
    },
}
OPTIONAL = {"RunBudget.reserve": 1, "RunBudget.release": 1, "RunBudget.charge": 1}
# A class is used as often as it stands here, and one of its operations as often as it stands there.
CLASSES: tuple[str, ...] = (
    *("Share",) * 4 + ("RunBudget",) * 5 + ("DailySpend",) * 5 + ("RequestRates",) * 2,
    *("_Held", "_Charges"),
)
USUAL = {"RunBudget": ("hold", "reserve", "charge", "release"), "DailySpend": ("admit",) * 4}

# A lock that is none, a tally that is none, and an amount that can be compared but not written with
# decimals fail as well, but with other words or a step later.
NEVER_ODD = ("_changed", "_lock", "_charges", "_cap", "_cost")
# That one of these is missing is seen before a reply or another of them is read, or after.
NEVER_DELETED = ("_cost", "cost", "input_tokens", "calls", "cache_hits", "max_calls", "max_tokens")

# What the callbacks answer, by the parameters and the fields that they are handed in as.
ANSWERS: dict[str, tuple[Any, ...]] = {
    "bound": AMOUNTS,
    "clock": (0.0, 0.0, 0.5, 2.0),
    "_today": DAYS[:1] * 4 + DAYS,
    "_ledger": (0.0, 0.5, 2, "1.5", "much"),
    "stopping": (False, False, True),
    "should_stop": (False, False, False, True),
    "_give_back": (None,),
}


class Generator:
    """Makes the program of one seed, the same each time."""

    def __init__(self, seed: int) -> None:
        self._random = random.Random(seed)
        self._odd_share = self._random.choice((0.0, 0.04, 0.25))
        self._made: dict[str, list[str]] = {name: [] for name in FIELDS}
        self._kinds = {name: f"bounds.{name}" for name in FIELDS}
        self._names = 0

    def program(self) -> list[Step]:
        """Make a program of objects and of what is done to them."""
        steps = []
        if self._is_odd():
            name = self._random.choice(tuple(FIELDS))
            steps.append(Step("subclass", (Name(self._kinds[name]),), (), f"My{name}"))
            self._kinds[name] = f"My{name}"
        steps += [self._new(name) for name in ("RunBudget", "DailySpend")]
        return steps + [self._step() for _ in range(self._random.randrange(4, 40))]

    def _step(self) -> Step:
        return self._random.choice(STEPS)(self)

    def _is_odd(self) -> bool:
        return self._random.random() < self._odd_share

    def _one_in(self, count: int) -> bool:
        return self._random.randrange(count) == 0

    def _name(self, kind: str) -> str:
        self._names += 1
        return f"{kind.strip('_').lower()}{self._names}"

    def _any_made(self) -> Name:
        return Name(self._random.choice([name for names in self._made.values() for name in names]))

    # Values.

    def _odd(self) -> Any:
        choice = self._random.randrange(8)
        if choice == 0:
            return self._any_made()
        if choice < 3:
            value = self._random.choice((0.0, 1.0, 2.5, 9.0))
            return Probe(self._name("probe"), value, is_float=choice == 1)
        return self._random.choice(ODD_VALUES)

    def _argument(self, parameter: str) -> Any:
        """Make a value for a parameter or a field of this name."""
        if self._is_odd() and parameter not in NEVER_ODD:
            return self._odd()
        if parameter in ("reply", "result"):
            return None if parameter == "reply" and self._one_in(4) else self._reply()
        if parameter == "deadline":
            return self._random.choice((None, None, 0.0, 0.05, 1.0, 9))
        if parameter in ("stopping", "should_stop"):
            return Name("bounds.never") if self._one_in(2) else self._callback(parameter)
        if parameter in ("clock", "_ledger", "_give_back", "_reply") and self._one_in(3):
            return None
        if parameter in ANSWERS:
            return self._callback(parameter)
        if parameter in ("_changed", "_lock"):
            failing = "__enter__ __exit__ wait notify_all".split() if self._is_odd() else [""]
            name = self._name("condition")
            return Condition(name, self._random.choice(failing))
        if parameter in ("_held", "_held_tokens", "_charges"):
            kind = "_Charges" if parameter == "_charges" else "_Held"
            return Name(self._random.choice(self._made[kind] or [f"bounds.{kind}"]))
        if parameter in ("feature", "day", "_day"):
            return self._random.choice(DAYS)
        whole = parameter in ("size", "holders", "unbounded", "calls", "max_calls", "in_flight")
        return self._random.choice(COUNTS if whole else AMOUNTS)

    def _answer(self, values: tuple[Any, ...]) -> Any:
        if self._is_odd():
            return Raises(self._random.choice(ERRORS)) if self._one_in(2) else self._odd()
        return self._random.choice(values)

    def _reply(self) -> Reply:
        cached, tokens, cost = map(self._answer, ((False,) * 5 + (True,), COUNTS, AMOUNTS[:-2]))
        return Reply(self._name("reply"), cached, tokens, cost)

    def _callback(self, kind: str) -> Callback:
        """Make a callback. A stop and what is done while a call sleeps may use every object."""
        answers = []
        for _ in range(self._random.randrange(1, 4)):
            if kind == "sleeper" or kind == "should_stop" and self._one_in(4):
                answers.append(self._operation(self._random.choice(("Share",) * 3 + CLASSES)))
            elif kind == "bound" and self._one_in(4):
                answers.append(self._operation("RequestRates"))
            answers.append(self._answer(ANSWERS.get(kind, (None,))))
        return Callback(self._name(kind), tuple(answers))

    # Steps.

    def _new(self, name: str) -> Step:
        parameters = {"Share": "give_back", "DailySpend": "cap today ledger"}.get(name, "")
        optional = () if name == "Share" or name == "DailySpend" else FIELDS[name]
        if name == "RunBudget":
            parameters, optional = "max_calls max_tokens", optional[2:]
        if name == "RequestRates":
            optional = ()
        target = self._name(name)
        self._made[name].append(target)  # Already now: what it is made of may use it later.
        arguments = tuple(self._argument(f"_{each}") for each in parameters.split())
        chosen = [each for each in optional if self._one_in(6)]
        keywords = tuple((each, self._argument(each)) for each in chosen)
        return Step(self._kinds[name], arguments, keywords, target)

    def _new_of_any_kind(self) -> Step:
        return self._new(self._random.choice(tuple(FIELDS)))

    def _operation_of_any_kind(self) -> Step:
        return self._operation(self._random.choice(CLASSES))

    def _operation(self, kind: str) -> Step:
        kind = kind if self._made[kind] else "RunBudget"
        names = (*OPERATIONS[kind], *USUAL.get(kind, ()))
        operation = self._random.choice(names)
        positional, _, named = OPERATIONS[kind][operation].partition("* ")
        parameters = positional.split()
        if f"{kind}.{operation}" in OPTIONAL and self._one_in(3):
            parameters.pop()
        by_position = len(parameters) if not self._one_in(5) else self._random.randrange(3)
        arguments = [self._argument(name) for name in parameters[:by_position]]
        keywords = [(each, self._argument(each)) for each in parameters[by_position:]]
        keywords += [(each, self._argument(each)) for each in named.split()]
        if self._is_odd() and self._one_in(4):
            self._spoil(arguments, keywords)
        target = self._name("Share") if operation in ("hold", "admit") else ""
        owner = self._random.choice(self._made[kind])
        step = Step(f"{owner}.{operation}", tuple(arguments), tuple(keywords), target)
        if target:
            self._made["Share"].append(target)
        return step

    def _spoil(self, arguments: list[Any], keywords: list[tuple[str, Any]]) -> None:
        """Make the arguments of a call wrong, mostly."""
        choice = self._random.randrange(4)
        if choice == 0:
            arguments.append(self._odd())
        elif choice == 1:
            keywords.append((self._random.choice(("reply", "tokens", "size", "other")), 1))
        elif choice == 2 and keywords:
            keywords.pop()
        elif arguments:
            arguments.pop()
        keywords[:] = dict(keywords).items()

    def _field(self) -> Step:
        kind = self._random.choice([name for name, made in self._made.items() if made])
        owner = Name(self._random.choice(self._made[kind]))
        field = self._random.choice((*FIELDS[kind], NOTE))
        function = self._random.choice(("getattr", "setattr", "setattr", "delattr"))
        if function == "delattr" and (field in NEVER_DELETED or not self._is_odd()):
            function = "getattr"
        if function != "setattr":
            return Step(function, (owner, field))
        charges = kind == "RequestRates" and field in ("_cost", "_tokens")
        return Step(function, (owner, field, self._argument("_charges" if charges else field)))

    def _record(self) -> Step:
        function = self._random.choice(("repr", "eq", "ne", "hash", "copy", "replace", "asdict"))
        first, second = self._any_made(), self._any_made()
        if function == "replace":
            return Step(function, (first,), ((self._random.choice(FIELDS["RunBudget"]), 1),))
        return Step(function, (first, second) if function in ("eq", "ne") else (first,))

    def _scope(self) -> Step:
        shares = self._made["Share"]
        return Step("leave", (Name(self._random.choice(shares)),)) if shares else self._field()

    def _sleeper(self) -> Step:
        return Step("sleeper", (self._callback("sleeper"),), (), "sleeper")

    def _wait(self) -> Step:
        arguments = (self._argument("_changed"), self._argument("stopping"))
        chosen = [name for name in ("deadline", "clock") if self._one_in(2)]
        return Step(
            "bounds._wait", arguments, tuple((each, self._argument(each)) for each in chosen)
        )

    def _rebinding(self) -> Step:
        if not self._is_odd():
            return self._operation_of_any_kind()
        name = self._random.choice(("_POLL_S", "_wait", "Share", "_Held", "logger"))
        if self._one_in(4):
            return Step("delattr", (Name("bounds"), name))
        value = self._argument("_POLL_S") if name == "_POLL_S" else self._callback(name)
        return Step("setattr", (Name("bounds"), name, value))


STEPS: tuple[Callable[[Generator], Step], ...] = (
    *(Generator._operation_of_any_kind,) * 20,
    *(Generator._new_of_any_kind, Generator._sleeper, Generator._field) * 2,
    *(Generator._record, Generator._scope, Generator._wait, Generator._rebinding),
)
