"""The source archive and the wheels that ``scripts/wheels`` leaves in build/wheels.

Not among the tests that ``scripts/test`` runs, since building them needs the package index:
``scripts/wheels`` first, and then, with an interpreter that has pip,
``python -m unittest tests.package.test_wheels``.
"""

from __future__ import annotations

import re
import subprocess
import sys
import tarfile
import tempfile
import unittest
import zipfile
from email.message import Message
from email.parser import Parser
from pathlib import Path

ROOT = Path(__file__).parents[2]
BUILT = ROOT / "build" / "wheels"
VERSION = (
    (ROOT / "CMakeLists.txt").read_text().split("project(decision_bounds VERSION ")[1].split()[0]
)

PROGRAM = f"""
import importlib.metadata
import engines.neighbour
from engines import decision_bounds as bounds
budget = bounds.RunBudget(max_calls=1, max_tokens=10)
with budget.hold(5.0) as share:
    assert not budget.stopping() and budget.in_flight == 1
assert importlib.metadata.version("decision-bounds") == {VERSION!r}
print(bounds.__file__)
"""


def run(*command: str | Path) -> str:
    """Return what the command prints. Raises ``AssertionError``, with all of it, if it fails."""
    done = subprocess.run(
        command, cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
    )
    if done.returncode != 0:
        raise AssertionError(f"{command} failed:\n{done.stdout}")
    return done.stdout


def pip(python: Path, *arguments: str | Path) -> None:
    """Run pip for another interpreter, which needs none of its own."""
    run(sys.executable, "-m", "pip", "--disable-pip-version-check", "--python", python, *arguments)


def files_of(wheel: zipfile.ZipFile) -> set[str]:
    return {name for name in wheel.namelist() if not name.endswith("/")}


def make_neighbour(folder: Path) -> Path:
    """Return the wheel of another distribution that has a module in ``engines``."""
    path = folder / "neighbour-1.0-py3-none-any.whl"
    with zipfile.ZipFile(path, "w") as wheel:
        for name, text in {
            "engines/neighbour.py": "",
            "neighbour-1.0.dist-info/METADATA": "Metadata-Version: 2.1\nName: neighbour\nVersion: 1.0\n",
            "neighbour-1.0.dist-info/WHEEL": "Wheel-Version: 1.0\nGenerator: test\n"
            "Root-Is-Purelib: true\nTag: py3-none-any\n",
            "neighbour-1.0.dist-info/RECORD": "engines/neighbour.py,,\n",
        }.items():
            wheel.writestr(name, text)
    return path


class WheelsTest(unittest.TestCase):
    def setUp(self) -> None:
        self.wheels = {path.name.split("-")[2]: path for path in BUILT.glob("*.whl")}
        self.assertTrue(self.wheels, "scripts/wheels makes them")
        self.temporary = tempfile.TemporaryDirectory()
        self.addCleanup(self.temporary.cleanup)
        self.folder = Path(self.temporary.name)

    def interpreters(self) -> dict[str, str]:
        """Return the interpreters that wheels were built for, by the tag of their wheel."""
        paths = run("scripts/host_python", "--all").split()
        ask = "import sys; print('cp%d%d' % sys.version_info[:2])"
        found = {run(path, "-c", ask).strip(): path for path in paths}
        return {tag: found[tag] for tag in self.wheels}

    def environment(self, python: str, name: str) -> Path:
        """Return the interpreter of a new environment that holds the neighbour alone."""
        run(python, "-m", "venv", "--without-pip", self.folder / name)
        made = self.folder / name / "bin" / "python"
        pip(made, "install", "--quiet", "--no-index", make_neighbour(self.folder))
        return made

    def metadata(self, wheel: zipfile.ZipFile) -> Message:
        return Parser().parsestr(
            wheel.read(f"decision_bounds-{VERSION}.dist-info/METADATA").decode()
        )

    def test_the_archive_holds_what_the_build_needs_and_no_more(self) -> None:
        with tarfile.open(BUILT / f"decision_bounds-{VERSION}.tar.gz") as archive:
            names = {name.partition("/")[2] for name in archive.getnames()}
        tracked = run("git", "ls-files", "CMakeLists.txt", "README.md", "cmake", "engines").split()
        needed = {*tracked, "pyproject.toml", "scripts/host_python"}
        self.assertEqual(names - {"PKG-INFO"}, needed)

    def test_a_wheel_holds_the_module_its_types_and_metadata_alone(self) -> None:
        for tag, path in self.wheels.items():
            with self.subTest(path.name), zipfile.ZipFile(path) as wheel:
                files = {name for name in files_of(wheel) if ".dist-info/" not in name}
                modules = [name for name in files if re.fullmatch(r"engines/[^/]+\.so", name)]
                types = ["engines/decision_bounds.pyi", "engines/py.typed"]
                self.assertEqual(files, {*modules, *types})
                self.assertEqual(len(modules), 1)
                stub = (ROOT / "engines" / "decision_bounds.pyi").read_bytes()
                self.assertEqual(wheel.read(types[0]), stub)
                metadata = self.metadata(wheel)
                self.assertEqual(metadata["Version"], VERSION)
                self.assertEqual(metadata["Requires-Python"], ">=3.10")
                self.assertIsNone(metadata["Requires-Dist"])
                self.assertEqual(metadata["Description-Content-Type"], "text/markdown")
                self.is_shown_by_an_index(str(metadata.get_payload()))
                platform = "manylinux" if sys.platform == "linux" else "macosx"
                self.assertRegex(path.name, f"-{tag}-{tag}-.*{platform}")

    def is_shown_by_an_index(self, description: str) -> None:
        """Assert that it is the README line by line, but for pictures and what links into the tree."""
        readme = (ROOT / "README.md").read_text(encoding="utf-8")
        prose = re.sub(r"^```.*?^```", "", description, flags=re.DOTALL | re.MULTILINE)
        self.assertNotRegex(prose, r"\]\((?!https?:)")
        lines = set(readme.splitlines())
        changed = [line for line in description.splitlines() if line not in lines]
        linking = re.findall(r"^.*\]\((?!https?:).*$", readme, flags=re.MULTILINE)
        self.assertLessEqual(len(changed), len(linking), changed)
        self.assertGreater(len(description), 0.95 * len(readme))

    def test_it_imports_beside_another_distribution_and_leaves_that_alone(self) -> None:
        for tag, python in self.interpreters().items():
            with self.subTest(tag):
                own = self.environment(python, tag)
                pip(own, "install", "--quiet", "--no-index", self.wheels[tag])
                self.assertIn("site-packages/engines", run(own, "-I", "-c", PROGRAM))
                pip(own, "uninstall", "--quiet", "--yes", "decision-bounds")
                run(own, "-I", "-c", "import engines.neighbour")

    def test_the_tree_builds_the_same_wheel_and_installs_editable(self) -> None:
        tag, python = next(iter(self.interpreters().items()))
        own = self.environment(python, "editable")
        pip(own, "wheel", "--quiet", "--no-deps", "--wheel-dir", self.folder, ROOT)
        built = next(self.folder.glob("decision_bounds-*.whl"))
        with zipfile.ZipFile(built) as tree, zipfile.ZipFile(self.wheels[tag]) as archive:
            self.assertEqual(files_of(tree), files_of(archive))
            self.assertEqual(str(self.metadata(tree)), str(self.metadata(archive)))
        pip(own, "install", "--quiet", "--no-deps", "--editable", ROOT)
        run(own, "-I", "-c", PROGRAM)
