"""What a call is charged with, without a library: the dearest reply, and what becomes of it."""

from __future__ import annotations

import unittest

from examples.clients.bounded import Call, Prices, Reply


class BoundedTest(unittest.TestCase):
    def test_dearest_reply_has_a_token_for_each_byte_at_the_dearest_price(self) -> None:
        prices = Prices(1.0, 0.5, 2.0, 8.0, extra_input_tokens=50)
        self.assertEqual(prices.dearest("né", 10), Reply(53, 186.0))

    def test_reply_counts_the_tokens_of_each_price(self) -> None:
        self.assertEqual(Prices(1.0, 0.5, 2.0, 8.0).reply(1, 2, 3, 4), Reply(8, 26.5))

    def test_what_a_stream_showed_does_not_replace_the_reply(self) -> None:
        call = Call(Reply(1, 5.0))
        call.read(Reply(1, 1.0))
        call.show(Reply(1, 9.0))
        self.assertEqual(call.paid, Reply(1, 1.0))

    def test_free_call_is_not_unread(self) -> None:
        call = Call(Reply(1, 5.0))
        with self.assertRaises(KeyError), call.free_if(KeyError):
            raise KeyError
        self.assertEqual((call.paid, call.unread), (None, False))
