"""Applies realistic faults to the sources, one at a time, and says which test notices each.

    scripts/mutate engines/decision_bounds

All that are an expression or a statement of C++ are in one build, each behind a switch of its own;
the others take a build each. The exit status is 1 where a fault passes the tests.
"""

from __future__ import annotations

import argparse
import subprocess
import sys
from collections import Counter
from collections.abc import Iterable
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path
from queue import SimpleQueue

from tests.mutations.lists import ROOT, ListError, Mutation, read_all
from tests.mutations.suites import Limits, Suite, judges, target_of
from tests.mutations.switches import check, mutated, switched
from tests.mutations.trees import BuildError, InUseError, Tree


class Trial:
    """Tries mutations, and keeps what came of them."""

    def __init__(self, jobs: int, to_the_end: bool, suites: list[str]) -> None:
        self.unexpected = 0
        self.noticed: Counter[str] = Counter()
        self.noticed_alone: Counter[str] = Counter()
        self._jobs = jobs
        self._to_the_end = to_the_end
        self._suites = suites
        self._limits = Limits()
        self._texts: dict[str, str] = {}

    def text(self, source: str) -> str:
        """Return what a source holds, without a mutation."""
        return self._texts.setdefault(source, (ROOT / source).read_text(encoding="utf-8"))

    def try_python(self, mutations: list[Mutation]) -> None:
        """Try mutations of Python sources, each in a tree that another has left."""
        free: SimpleQueue[Tree] = SimpleQueue()
        for _ in range(self._jobs):
            free.put(Tree.free("python"))
        tree = free.get()
        self._measure(mutations, tree)
        free.put(tree)

        def try_one(mutation: Mutation) -> None:
            tree = free.get()
            try:
                tree.write({mutation.source: mutated(self.text(mutation.source), mutation)})
                self._judge(mutation, tree)
            finally:
                tree.write({})
                free.put(tree)

        self._each(try_one, mutations)

    def try_compiled(self, target: str, mutations: list[Mutation], listed: list[Mutation]) -> None:
        """Try mutations of what is compiled: all that can be switched on, then one by one."""
        tree = Tree(target)
        self._build(tree, target, listed)
        self._measure(mutations, tree)
        self._each(
            lambda mutation: self._judge(mutation, tree),
            [each for each in mutations if not each.alone],
        )
        for mutation in mutations:
            if mutation.alone:
                self._build(tree, target, listed, mutation)
                self._judge(mutation, tree)

    def report(self) -> None:
        """Print how many mutations each test has noticed, and how many it alone."""
        if self._to_the_end:
            print("\nnoticed  alone  test")
            for test, count in sorted(self.noticed.items(), key=lambda item: item[1]):
                print(f"{count:7}  {self.noticed_alone[test]:5}  {test}")

    def _build(
        self, tree: Tree, target: str, listed: list[Mutation], alone: Mutation | None = None
    ) -> None:
        """Build what is listed behind switches, so that less is compiled again, and one ``alone``."""
        changed = {}
        for source in dict.fromkeys(each.source for each in listed):
            inside = [each for each in listed if each.source == source]
            own = alone if alone and alone.source == source else None
            if Path(source).suffix in (".cpp", ".hpp"):
                changed[source] = switched(self.text(source), inside, own)
            elif own:
                changed[source] = mutated(self.text(source), own)
        tree.write(changed)
        tree.compile(target)

    def _judges(self, mutation: Mutation) -> list[Suite]:
        chosen = [each for each in judges(mutation) if each.name in self._suites]
        return chosen or list(judges(mutation))

    def _measure(self, mutations: Iterable[Mutation], tree: Tree) -> None:
        for suite in dict.fromkeys(s for each in mutations for s in self._judges(each)):
            self._limits.measure(suite, tree)

    def _each(self, judge: object, mutations: list[Mutation]) -> None:
        assert callable(judge)
        with ThreadPoolExecutor(self._jobs) as pool:
            list(pool.map(judge, mutations))

    def _judge(self, mutation: Mutation, tree: Tree) -> None:
        """Run the suites until one fails, and print which of its tests did; or all of them."""
        noticed: list[str] = []
        hung = False
        for suite in self._judges(mutation):
            limit_s = self._limits.limits_s[suite]
            outcome = suite.run(tree, mutation.number, limit_s, self._to_the_end)
            hung = hung or outcome.hung
            noticed += [] if outcome.passed else outcome.failed or (suite.name,)
            if noticed and not self._to_the_end:
                break
        self.noticed.update(noticed)
        self.noticed_alone.update(noticed if len(noticed) == 1 else [])
        name = f"{mutation.source}:{mutation.line(self.text(mutation.source))}: {mutation.fault}"
        if mutation.equivalent and not noticed:
            verdict = f"equivalent ({mutation.equivalent})"
        elif mutation.equivalent:
            verdict = f"WRONGLY LISTED AS EQUIVALENT: {noticed[0]}"
        elif noticed:
            verdict = f"{noticed[0]}{' (out of time)' if hung else ''}"
        else:
            verdict = "SURVIVED"
        self.unexpected += bool(noticed) == bool(mutation.equivalent)
        print(f"{name}: {verdict}", flush=True)


def main() -> int:
    """Try the mutations of the sources that are named, or of all."""
    parser = argparse.ArgumentParser(prog="scripts/mutate", description=__doc__)
    parser.add_argument("source", nargs="*", help="a source, or a folder of them; else all")
    parser.add_argument("--fault", action="append", help="only those that say this")
    parser.add_argument("--jobs", type=int, default=2, help="how many at once (%(default)s)")
    parser.add_argument("--tests", action="store_true", help="say what each test notices")
    parser.add_argument("--suite", action="append", default=[], help="judge by this one alone")
    parser.add_argument("--check", action="store_true", help="only look for the places")
    options = parser.parse_args()
    listed, wrong = read_all()
    wrong += check(listed)
    for error in wrong:
        print(error, file=sys.stderr)
    try:
        mutations = [
            each
            for each in listed
            if any(text in each.fault for text in options.fault or [""])
            and (not options.source or each.source.startswith(tuple(options.source)))
        ]
        if options.check:
            print(f"{len(mutations)} mutations")
            return 1 if wrong else 0
        trial = Trial(options.jobs, options.tests, options.suite)
        for target in dict.fromkeys(map(target_of, mutations)):
            chosen = [each for each in mutations if target_of(each) == target]
            if target:
                together = [each for each in listed if target_of(each) == target]
                trial.try_compiled(target, chosen, together)
            else:
                trial.try_python(chosen)
    except (ListError, BuildError, InUseError, AssertionError) as error:
        print(error, file=sys.stderr)
        return 1
    except subprocess.CalledProcessError as error:
        print(f"{error}\n{error.output or ''}", file=sys.stderr)
        return 1
    trial.report()
    print(f"{len(mutations)} mutations, {trial.unexpected} not as they should be")
    return 1 if trial.unexpected or wrong or not mutations else 0


if __name__ == "__main__":
    sys.exit(main())
