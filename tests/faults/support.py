"""What the tests of faults share: programs in processes of their own, and how long they run."""

from __future__ import annotations

import os
import subprocess
import sys
import unittest

# `scripts/check` asks for the long runs, `scripts/test` for the short ones.
LONG = os.environ.get("DECISION_BOUNDS_FAULTS") == "long"
PATIENCE_S = 600.0


def run(*arguments: str, **environment: str) -> subprocess.CompletedProcess[str]:
    """Run the interpreter with these arguments to its end."""
    return subprocess.run(
        [sys.executable, "-X", "faulthandler", *arguments],
        env={**os.environ, **environment},
        capture_output=True,
        text=True,
        timeout=PATIENCE_S,
    )


class ProcessTest(unittest.TestCase):
    """Tests of programs that may crash."""

    def ends_well(self, *arguments: str, **environment: str) -> str:
        """Run a program that must end with status 0 and an empty stderr; return its stdout."""
        ended = run(*arguments, **environment)
        told = f"status {ended.returncode}\n{ended.stdout}\n{ended.stderr}"
        self.assertEqual((ended.returncode, ended.stderr), (0, ""), told)
        return ended.stdout
