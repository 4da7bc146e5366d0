"""Runs a program in a process of its own, judges how it ended, and cuts it to the shortest."""

from __future__ import annotations

import faulthandler
import gc
import importlib
import logging
import os
import signal
import sys
import tempfile
import threading
import weakref
from collections.abc import Callable, Iterable
from functools import partial
from pathlib import Path
from types import FrameType

from tests.fuzz.grammar import Program
from tests.fuzz.hostile import Boom, Hostile, Poll

MODULE = "engines.decision_bounds"
PATIENCE_S = 30.0
TICK_S = 0.1  # Ends what waits for ever otherwise.
MOST_TRIALS = 400
BROKEN_STATUS = 97  # The interpreter found that a function broke the rules of its calls.
LEFT_STATUS = 98  # A reference is left that nobody has.
STATUSES = {0: "", BROKEN_STATUS: "broken rules", LEFT_STATUS: "left"}

# What ends the hooks of a program; one that raises ends with that, and keeps the first step from it.
CALMING: tuple[Callable[[], object], ...] = (
    partial(signal.setitimer, signal.ITIMER_REAL, 0.0),
    partial(sys.setprofile, None),
    partial(sys.settrace, None),
    partial(signal.signal, signal.SIGUSR1, signal.SIG_IGN),
)


def judge(status: int, told: str) -> str:
    """Say what is wrong with how a process ended: nothing, mostly."""
    if os.WIFSIGNALED(status):
        return signal.Signals(os.WTERMSIG(status)).name
    if "Timeout (" in told:
        return "endless"
    code = os.WEXITSTATUS(status)
    return STATUSES.get(code, f"status {code}")


def run(program: Program, ends_early: bool) -> tuple[str, str]:
    """Run a program in a fork of this process; return what is wrong, and what it wrote to stderr."""
    with tempfile.TemporaryFile() as errors:
        child = os.fork()
        if child == 0:
            os.dup2(errors.fileno(), 2)
            _run_here(program, ends_early)
        _, status = os.waitpid(child, 0)
        errors.seek(0)
        told = errors.read().decode(errors="replace")
    return judge(status, told), told


def _tick(_number: int, frame: FrameType | None) -> None:
    """End what a statement does; what runs the statements goes on."""
    if frame is not None and Path(frame.f_code.co_filename).parent != Path(__file__).parent:
        raise Boom("a tick")


def _run_here(program: Program, ends_early: bool) -> None:
    """Run a program and end this process: with all objects alive, or after a look at what is left."""
    faulthandler.dump_traceback_later(PATIENCE_S, exit=True)
    logging.disable()
    sys.unraisablehook = lambda _: None
    threading.excepthook = lambda _: None
    hostile = Hostile(importlib.import_module(MODULE), program)
    hostile.names["bounds"]._POLL_S = Poll(0.001)
    signal.signal(signal.SIGUSR1, _tick)
    signal.signal(signal.SIGALRM, _tick)
    signal.setitimer(signal.ITIMER_REAL, TICK_S, TICK_S)
    # A tick may cut off any of the steps.
    for step in (lambda: hostile.react("main"), *CALMING * 5):
        try:
            step()
        except BaseException:  # Of a tick, or of a function that traces.
            pass
    if not hostile.end_interpreters(for_good=True):
        os._exit(0)
    _end(BROKEN_STATUS, "\n".join(hostile.broken))
    if not ends_early and threading.active_count() == 1:
        hostile.end()
        # The collector does not see the handler, which the end of the one before may have set.
        signal.signal(signal.SIGUSR1, signal.SIG_IGN)
        gc.set_threshold(0)
        gc.collect()
        _end(LEFT_STATUS, left_over(hostile.kinds))
        os._exit(0)
    hostile.end_threads()
    sys.exit()


def _end(status: int, told: str) -> None:
    """End this process at once where there is something to tell."""
    if told:
        os.write(2, told.encode())
        os._exit(status)


def left_over(made: Iterable[weakref.ref[type]]) -> str:
    """Find objects of these classes with more references than the collector sees owners of them."""
    kinds = {kind for reference in made if (kind := reference()) is not None}
    objects = [each for each in gc.get_objects() if not kinds.isdisjoint(type(each).__mro__)]
    if not objects:
        return ""
    gc.unfreeze()
    objects.append(Boom())  # Has no owner but this list.
    owners = dict.fromkeys(map(id, objects), 0)
    for owner in gc.get_objects():
        for owned in gc.get_referents(owner):
            if id(owned) in owners:
                owners[id(owned)] += 1
    del owner, owned
    surplus = [sys.getrefcount(each) - owners[id(each)] for each in objects]
    return "\n".join(
        f"{type(each).__name__} object: {count - surplus[-1]} references that nobody has"
        for each, count in zip(objects, surplus)
        if count > surplus[-1]
    )


def shortest(program: Program, is_as_bad: Callable[[Program], bool]) -> Program:
    """Leave out statements, many at first and then single ones, as long as the rest is as bad."""
    trials = 0
    size = max(map(len, program.values()))
    while size:
        for name in program:
            start = 0
            while start < len(program[name]) and trials < MOST_TRIALS:
                trials += 1
                kept = program[name][:start] + program[name][start + size :]
                if is_as_bad(shorter := program | {name: kept}):
                    program = shorter
                else:
                    start += size
        size //= 2
    return program
