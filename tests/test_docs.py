"""The documents against the project: examples run, and what is named is there."""

import itertools
import os
import re
import shlex
import subprocess
import sys
import tempfile
import textwrap
import unittest
from pathlib import Path

from tessaly.storage import repository_wiki

ROOT = Path(__file__).resolve().parent.parent
DOCUMENTS = [ROOT / "README.md", *sorted(ROOT.glob("C*.md")), *sorted(ROOT.glob("docs/*.md"))]
TEXTS = {document: document.read_text(encoding="utf-8") for document in DOCUMENTS}
BUILD = Path(repository_wiki.__file__).parents[3]  # of the tree that is being tested

FENCE = re.compile(r"^ *```(\w+)\n(.*?)^ *```$", re.M | re.S)


def blocks(text: str) -> list[tuple[str, str]]:
    """The fenced blocks of a document: language and text."""
    return [(kind, textwrap.dedent(body)) for kind, body in FENCE.findall(text)]


def commands(text: str) -> list[list[str]]:
    """Each command that a document tells the reader to type."""
    inline = re.findall(r"`((?:make|cmake|python3\.13) [^`]+)`", FENCE.sub("", text))
    lines = [" ".join(command.split()) for command in inline]
    lines += [line for kind, body in blocks(text) if kind == "sh" for line in body.splitlines()]
    split = [shlex.split(line, comments=True) for line in lines]
    return [[word for word in one if not word.startswith("PYTHONPATH=")] for one in split if one]


class Documents(unittest.TestCase):
    def setUp(self) -> None:
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        path = os.pathsep.join(str(Path(entry).resolve()) for entry in sys.path if entry)
        self.environment = {**os.environ, "PYTHONPATH": path, "PYTHONDEVMODE": ""}

    def run_command(self, words: list[str]) -> str:
        done = subprocess.run(
            words, capture_output=True, text=True, cwd=self.folder, env=self.environment, timeout=60
        )
        self.assertEqual((done.returncode, done.stderr), (0, ""), (words, done.stdout))
        return done.stdout

    def test_python_examples_run_and_print_what_the_document_shows(self) -> None:
        for text in TEXTS.values():
            for (kind, example), (after, output) in itertools.pairwise([*blocks(text), ("", "")]):
                if kind == "python":
                    printed = self.run_command([sys.executable, "-c", example])
                    self.assertEqual(printed, output if after == "text" else "", example)

    def test_commands_are_there_and_the_quick_ones_work(self) -> None:
        listing = subprocess.run(["make", "help"], cwd=ROOT, capture_output=True, text=True).stdout
        targets = re.findall(r"^make (\w+)", listing, re.M)
        ran = set()
        for words in itertools.chain.from_iterable(map(commands, TEXTS.values())):
            with self.subTest(words):
                if words[0] == "make":
                    self.assertIn(words[1], targets)
                elif words[0] == "build/wiki":
                    self.run_command([str(BUILD / "wiki"), words[1], "--help"])
                    ran.add("demo")
                elif words[0] == "python3.13" and "check_host:repository" not in words:
                    self.run_command([sys.executable, *words[1:]])
                    ran.add(words[words.index("-m") + 1])
                elif words[:3] == ["cmake", "--install", "build"] and "--component" not in words:
                    self.run_command([*words[:2], str(BUILD), words[3], self.folder])
        self.assertLessEqual({"tessaly_wiki_check", "demo"}, ran)
        folder = Path(self.folder, "tessaly", "storage")
        names = (Path(repository_wiki.__file__).name, "repository_wiki.pyi", "py.typed")
        installed = {path for path in Path(self.folder).rglob("*") if path.is_file()}
        self.assertEqual(installed, {folder / name for name in names})
