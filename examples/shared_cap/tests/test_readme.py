"""The program of the README, run as it stands but for its folders."""

from __future__ import annotations

import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).parents[3]


class ReadmeTest(unittest.TestCase):
    def test_program_spends_under_the_cap(self) -> None:
        text = Path(__file__).parents[1].joinpath("README.md").read_text()
        (program,) = re.findall(r"```python\n(.*?)```", text, re.DOTALL)
        with tempfile.TemporaryDirectory() as folder:
            for named in ("cap.sqlite3", "/dev/shm/decisions"):
                self.assertIn(named, program)
                program = program.replace(named, f"{folder}/{Path(named).name}")
            command = [sys.executable, "-c", program]
            for spent in ("$0.004", "$0.008"):
                out = subprocess.run(command, cwd=ROOT, check=True, capture_output=True, text=True)
                self.assertEqual(out.stdout, f"{spent} spent today by all\n")
