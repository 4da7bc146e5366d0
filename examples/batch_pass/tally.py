"""What the calls went through, for the report."""

from __future__ import annotations

import threading
from dataclasses import dataclass, field


@dataclass
class Tally:
    """Counts and sums over all the calls of one run. Threads change them with ``lock`` held."""

    paid: int = 0  # Attempts whose reply was read.
    paid_usd: float = 0.0
    unread: int = 0  # Attempts that were sent and whose reply was never read.
    unread_usd: float = 0.0  # What was counted for them: the most that each may cost.
    retries: int = 0
    waited_for_tokens_s: float = 0.0
    waited_for_cap_s: float = 0.0
    lock: threading.Lock = field(default_factory=threading.Lock, repr=False, compare=False)

    @property
    def counted_usd(self) -> float:
        """What was counted in all."""
        return self.paid_usd + self.unread_usd
