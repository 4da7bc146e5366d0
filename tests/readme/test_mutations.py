"""The lists of mutations beside the sources: each still has its place there."""

from __future__ import annotations

import unittest

from tests.mutations.lists import read_all
from tests.mutations.switches import check


class MutationsTest(unittest.TestCase):
    def test_each_mutation_has_its_place(self) -> None:
        mutations, wrong = read_all()
        self.assertEqual([str(error) for error in wrong + check(mutations)], [])
        self.assertTrue(mutations)
