"""Which interpreter ``scripts/host_python`` takes, and what it says of one that it cannot take."""

from __future__ import annotations

import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SCRIPT = Path(__file__).parents[2] / "scripts" / "host_python"

# Asked with options that the script gives first, so the program stands behind `-c`.
PRETENDED = """#!/bin/sh
exec {python} -I -S -c "import sys, sysconfig
{pretence}
exec(sys.argv[1])" "$4"
"""


class HostPythonTest(unittest.TestCase):
    def named(self, python: Path | str) -> tuple[int, str]:
        done = subprocess.run(
            [SCRIPT], env={**os.environ, "PYTHON": str(python)}, capture_output=True, text=True
        )
        return done.returncode, done.stdout or done.stderr

    def test_it_says_which_thing_is_wrong(self) -> None:
        with tempfile.TemporaryDirectory() as folder:
            path = Path(folder) / "python"
            for pretence, told in {
                "sys.version_info = (3, 9)": "is CPython 3.9, and CPython 3.10 or later is needed",
                "sys.implementation.name = 'other'": "is other 3.",
                "sysconfig.get_path = lambda name: '/nowhere'": "without its development files",
                "sys.exit()": "does not start as Python 3",
                "print('hello'); sys.exit()": "does not start as Python 3",
            }.items():
                path.write_text(PRETENDED.format(python=sys.executable, pretence=pretence))
                path.chmod(0o755)
                with self.subTest(pretence):
                    status, text = self.named(path)
                    self.assertEqual((status, text.count("\n")), (1, 1))
                    self.assertIn(f"PYTHON={path} ", text)
                    self.assertIn(told, text)
        self.assertIn("does not start", self.named("/nowhere/python")[1])

    def test_it_takes_one_that_is_whole(self) -> None:
        status, path = self.named(sys.executable)
        self.assertEqual(status, 0)
        self.assertTrue(Path(path.strip()).samefile(sys.executable))
