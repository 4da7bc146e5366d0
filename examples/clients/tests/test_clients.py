"""Each file with its real library: what was counted is what the endpoint's ledger says."""

from __future__ import annotations

import asyncio
import socket
import threading
import unittest
from contextlib import redirect_stdout
from io import StringIO
from pathlib import Path
from typing import Any
from unittest import mock

from engines.decision_bounds import DecisionBudgetExceeded

from examples.clients import litellm_calls
from examples.clients.bounded import AnswerCut, Prices, Reply
from examples.clients.endpoint import Endpoint, Fate
from examples.clients.tests.support import (
    LIBRARIES,
    PATIENCE_S,
    WAYS,
    Pass,
    close,
    connect,
    dearest,
    litellm,
)

# All faults come first, so that the cap leaves none out.
FAULTS = [fate for fate in Fate if fate is not Fate.ANSWERED]
FATES = {
    f"route: question {number} to which desk": fate
    for number, fate in enumerate([*FAULTS, *FAULTS, *[Fate.ANSWERED] * 26] * 2)
}
QUESTIONS = list(FATES)
CAP_USD = 0.12  # Of some $0.22 that all questions together would be charged.
ANSWER = "Sent to the desk."


class ClientsTest(unittest.TestCase):
    def assert_counted_as_billed(self, done: Pass, library: Any, endpoint: Endpoint) -> None:
        """What was counted is what answers cost that were read, and the most that others may."""
        unread: list[str] = []
        counted_usd = 0.0
        for question, outcome in done.outcomes.items():
            billed_usd = endpoint.billed_usd(question)
            if isinstance(outcome, str):
                self.assertEqual(outcome, ANSWER)
                counted_usd += billed_usd
            elif isinstance(outcome, DecisionBudgetExceeded):
                self.assertEqual(billed_usd, 0.0)
            elif isinstance(outcome, library.FREE):
                self.assertIs(FATES[question], Fate.REFUSED)
            else:
                self.assertIsNot(FATES[question], Fate.REFUSED)
                if FATES[question] is Fate.FAILED:  # It is not taken for an answer.
                    self.assertNotIsInstance(outcome, (AnswerCut, LookupError))
                unread.append(question)
                self.assertLess(billed_usd, dearest(library, question).cost)
                counted_usd += dearest(library, question).cost
        unread_usd = sum(dearest(library, each).cost for each in unread)
        self.assertAlmostEqual(done.day.spent(), counted_usd, places=9)
        self.assertAlmostEqual(done.budget.cost, counted_usd, places=9)
        self.assertEqual(done.calls.unread.calls, len(unread))
        self.assertAlmostEqual(done.calls.unread.charged_usd, unread_usd, places=9)
        unread_billed_usd = sum(map(endpoint.billed_usd, unread))
        self.assertLessEqual(done.calls.unread.shown_usd, unread_billed_usd)
        self.assertEqual(done.held, (0, 0, 0.0))

    def test_every_way_to_call_counts_what_is_billed(self) -> None:
        for library in LIBRARIES:
            for way in WAYS:
                with self.subTest(library=library.__name__, way=way):
                    asked: list[str] = []

                    def fate(question: str) -> Fate:
                        asked.append(question)
                        return FATES[question]

                    with Endpoint(fate) as endpoint:
                        done = Pass(CAP_USD).run(library, way, endpoint.url, QUESTIONS)
                        self.assert_counted_as_billed(done, library, endpoint)
                    self.assertEqual(len(asked), len(set(asked)))
                    one_call_usd = max(dearest(library, each).cost for each in QUESTIONS)
                    self.assertLess(done.day.spent(), CAP_USD + one_call_usd)
                    self.assertGreaterEqual(done.day.spent(), CAP_USD)
                    self.assertEqual({FATES[each] for each in asked}, set(Fate))
                    if "stream" in way:
                        self.assertGreater(done.calls.unread.shown_usd, 0.0)

    def test_cut_stream_is_charged_what_it_showed_at_least(self) -> None:
        cheap = mock.Mock(return_value=Reply(1, 0.0))
        for fate in (Fate.CUT, Fate.ENDED):
            for library in LIBRARIES:
                for way in ("stream", "stream_async"):
                    with self.subTest(library=library.__name__, way=way), Endpoint(
                        lambda _: fate
                    ) as endpoint, mock.patch.object(Prices, "dearest", cheap):
                        done = Pass().run(library, way, endpoint.url, QUESTIONS[:1])
                        self.assertIsInstance(done.outcomes[QUESTIONS[0]], Exception)
                        self.assertEqual(done.day.spent(), done.calls.unread.shown_usd)
                        self.assertGreater(done.day.spent(), 0.0)
                        self.assertLess(done.day.spent(), endpoint.billed_usd(QUESTIONS[0]))

    def test_program_of_the_readme(self) -> None:
        text = (Path(__file__).parents[1] / "README.md").read_text(encoding="utf-8")
        program = text.partition("```python\n")[2].partition("```")[0]
        names: dict[str, Any] = {}
        with Endpoint(lambda _: Fate.ANSWERED) as endpoint, mock.patch.dict(
            "os.environ", OPENAI_BASE_URL=endpoint.url, OPENAI_API_KEY="none"
        ), redirect_stdout(StringIO()):
            exec(program, names)
        self.assertEqual(len(endpoint.bills), 2)
        self.assertAlmostEqual(
            names["day"].spent(), sum(usd for _, usd in endpoint.bills), places=9
        )

    def test_one_library_for_many_forms(self) -> None:
        with mock.patch.object(litellm_calls, "MODEL", "anthropic/some-model"):
            for way in WAYS:
                with self.subTest(way=way), Endpoint(FATES.__getitem__) as endpoint:
                    done = Pass(CAP_USD).run(litellm_calls, way, endpoint.url, QUESTIONS)
                    self.assert_counted_as_billed(done, litellm_calls, endpoint)

    def test_answer_from_the_librarys_own_cache_is_counted_as_a_hit(self) -> None:
        options = {"caching": True, **litellm_calls.OPTIONS}
        for way in WAYS:
            with self.subTest(way=way), Endpoint(lambda _: Fate.ANSWERED) as endpoint, mock.patch(
                "litellm.cache", litellm.Cache(type="local")
            ), mock.patch.object(litellm_calls, "OPTIONS", options):
                done = Pass()
                for _ in range(3):
                    done.run(litellm_calls, way, endpoint.url, QUESTIONS[:1])
                    self.assertEqual(done.outcomes, {QUESTIONS[0]: ANSWER})
                self.assert_counted_as_billed(done, litellm_calls, endpoint)
                self.assertEqual((done.budget.calls, done.budget.cache_hits), (1, 2))
                self.assertEqual(len(endpoint.bills), 1)

    def test_request_that_never_left_is_free_where_the_library_says_so(self) -> None:
        with socket.socket() as taken:
            taken.bind(("127.0.0.1", 0))  # Bound but not listening: whoever connects is refused.
            url = f"http://127.0.0.1:{taken.getsockname()[1]}"
            for library in LIBRARIES:
                for way in WAYS:
                    with self.subTest(library=library.__name__, way=way):
                        done = Pass().run(library, way, url, QUESTIONS[:1])
                        self.assertIsInstance(done.outcomes[QUESTIONS[0]], Exception)
                        hidden = library is litellm_calls
                        self.assertEqual(done.calls.unread.calls, int(hidden))
                        self.assertEqual(done.held, (0, 0, 0.0))

    def test_reader_that_fails_is_charged(self) -> None:
        def fail(_piece: str) -> None:
            raise KeyError

        for library in LIBRARIES:
            with self.subTest(library=library.__name__), Endpoint(
                lambda _: Fate.ANSWERED
            ) as endpoint, connect(library, endpoint.url) as client:
                done = Pass()
                with self.assertRaises(KeyError):
                    library.stream(client, done.calls, QUESTIONS[0], fail)
                self.assertEqual(done.day.spent(), dearest(library, QUESTIONS[0]).cost)

    def test_cancelled_tasks_hold_nothing(self) -> None:
        questions = QUESTIONS[:20]
        # Of $1.00: the first seven are in flight, the eighth waits for room, the rest for its turn.
        seventh = mock.Mock(return_value=Reply(100, 0.15))
        cancelled = [questions[each] for each in (0, 2, 7, 12, 19)]
        for library in LIBRARIES:
            for way in ("ask_async", "stream_async"):
                asked: list[str] = []
                answering = threading.Event()

                def fate(question: str) -> Fate:
                    asked.append(question)
                    answering.wait(PATIENCE_S)
                    return Fate.ANSWERED

                async def cancel() -> None:
                    async with connect(library, endpoint.url, way, PATIENCE_S) as client:
                        tasks = {
                            each: asyncio.create_task(done.ask_async(library, way, client, each))
                            for each in questions
                        }
                        while len(asked) < 7:
                            await asyncio.sleep(0.01)
                        for question in cancelled:
                            tasks[question].cancel()
                        await asyncio.wait([tasks[each] for each in cancelled])
                        answering.set()
                        await asyncio.gather(*tasks.values())
                    await close(library)

                with self.subTest(library=library.__name__, way=way), mock.patch.object(
                    Prices, "dearest", seventh
                ), Endpoint(fate) as endpoint:
                    done = Pass()
                    asyncio.run(asyncio.wait_for(cancel(), 2 * PATIENCE_S))
                    # The thread that admits takes this up when it is done with all before it.
                    done.calls._admission.submit(int).result()
                    self.assertEqual(done.held, (0, 0, 0.0))
                    answered = [each for each, got in done.outcomes.items() if got == ANSWER]
                    self.assertCountEqual(answered, set(questions) - set(cancelled))
                    self.assertEqual(done.calls.unread.calls, 2)
                    read_usd = sum(map(endpoint.billed_usd, answered))
                    self.assertAlmostEqual(done.day.spent(), read_usd + 2 * 0.15, places=9)
