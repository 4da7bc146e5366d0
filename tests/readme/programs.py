"""The Python programs of the README, by the heading that each stands under.

``python -m tests.readme.programs`` prints them as one program, for a type checker.
"""

from __future__ import annotations

import re
from pathlib import Path

ROOT = Path(__file__).parents[2]
FIRST = "A program whose count is right"


def programs() -> dict[str, str]:
    """Return the programs as they stand there, in order."""
    found: dict[str, str] = {}
    heading = ""
    text = (ROOT / "README.md").read_text(encoding="utf-8")
    for match in re.finditer(r"(?ms)^#+ ([^\n]+)$|^```python\n(.*?)^```$", text):
        if match[1]:
            heading = match[1]
        else:
            assert heading not in found, f"two programs under {heading}"
            found[heading] = match[2]
    return found


if __name__ == "__main__":
    # The lines of a package's `__init__.py` are no part of it.
    print("\n\n".join(each for each in programs().values() if "__path__" not in each))
