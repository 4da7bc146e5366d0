"""Copies of the sources, in which they are mutated, built and tested."""

from __future__ import annotations

import fcntl
import itertools
import os
import subprocess
from collections.abc import Mapping

from tests.mutations.lists import ROOT
from tests.mutations.switches import HEADER

_TREES = ROOT / "build" / "mutants"
_OPTIONS = (
    "-DCMAKE_BUILD_TYPE=Debug",
    "-DCMAKE_CXX_FLAGS_DEBUG=-O1",
    "-DDECISION_BOUNDS_INSTALL=OFF",
)


class InUseError(Exception):
    """Another run is at work in the tree; the text names it."""


class BuildError(Exception):
    """The sources cannot be built; the text is what the tools say."""


class Tree:
    """A copy of all sources. What is not changed is not written, and so not built again."""

    def __init__(self, name: str) -> None:
        """Make the copy of this name, or take it over. Raises ``InUseError``."""
        self.folder = _TREES / name
        self.build = self.folder / "build"
        self.folder.mkdir(parents=True, exist_ok=True)
        self._lock = os.open(self.folder, os.O_RDONLY)
        try:
            fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            os.close(self._lock)
            raise InUseError(f"another run is at work in {self.folder}") from None
        listed = _output("git", "ls-files", "-z", "--cached", "--others", "--exclude-standard")
        # What somebody edits meanwhile is not seen.
        self._sources = {
            path: path.read_bytes()
            for path in map(ROOT.joinpath, listed.split("\0"))
            if path.is_file()
        }
        self.write({})

    @classmethod
    def free(cls, name: str) -> Tree:
        """Return the first copy of this name, and a number, in which no other run is at work."""
        for number in itertools.count():
            try:
                return cls(f"{name}-{number}")
            except InUseError:
                continue
        raise AssertionError

    def write(self, changed: Mapping[str, str]) -> None:
        """Make the copy what the sources are, but for those that are ``changed``."""
        for original, unchanged in self._sources.items():
            source = str(original.relative_to(ROOT))
            wanted = changed[source].encode() if source in changed else unchanged
            path = self.folder / source
            if not path.exists() or path.read_bytes() != wanted:
                path.parent.mkdir(parents=True, exist_ok=True)
                path.write_bytes(wanted)
                path.chmod(original.stat().st_mode)

    def compile(self, target: str) -> None:
        """Build ``target``. Raises ``BuildError``."""
        header = self.folder / "switches.hpp"
        if not header.exists() or header.read_text(encoding="utf-8") != HEADER:
            header.write_text(HEADER, encoding="utf-8")
        flags = f"-DCMAKE_CXX_FLAGS=-w -include {header}"
        try:
            if not (self.build / "build.ninja").exists():
                _output(
                    *("cmake", "-G", "Ninja", "-S", str(self.folder), "-B", str(self.build)),
                    *(flags, *_OPTIONS),
                )
            build = ("cmake", "--build", str(self.build), "--parallel", "2", "--target", target)
            _output(*build, "--", "-k", "0")
        except subprocess.CalledProcessError as error:
            raise BuildError(error.output) from error


def _output(*command: str) -> str:
    """Return what a command prints. Raises ``CalledProcessError`` where it fails."""
    return subprocess.run(
        command, cwd=ROOT, check=True, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT
    ).stdout
