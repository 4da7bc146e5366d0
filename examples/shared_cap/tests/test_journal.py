"""A journal on its own: who may open it, what it says, and what it leaves open."""

from __future__ import annotations

import os
import tempfile
import unittest
from pathlib import Path

from ..journal import Journal
from .stores import FOLDER


class JournalTest(unittest.TestCase):
    def test_journal_is_of_one_process_until_that_ends(self) -> None:
        with tempfile.TemporaryDirectory(dir=FOLDER) as name:
            folder = Path(name) / "journals"
            open_before = len(os.listdir("/dev/fd"))
            self.assertIsNone(Journal.abandoned(folder, "lease"))
            journal = Journal.made(folder, "lease")
            self.assertEqual(journal.spent_usd, 0.0)
            journal.spent_usd = 0.25
            self.assertIsNone(Journal.abandoned(folder, "lease"))
            self.assertRaises(FileExistsError, Journal.made, folder, "lease")
            journal.close()
            left = Journal.abandoned(folder, "lease")
            assert left is not None
            self.assertEqual(left.spent_usd, 0.25)
            self.assertIsNone(Journal.abandoned(folder, "lease"))
            left.remove()
            self.assertEqual(os.listdir(folder), [])
            self.assertIsNone(Journal.abandoned(folder, "lease"))
            self.assertEqual(os.listdir(folder), [])
            again = Journal.made(folder, "lease")
            (folder / "lease").unlink()
            again.remove()
            del journal, left, again
            self.assertEqual(len(os.listdir("/dev/fd")), open_before)
