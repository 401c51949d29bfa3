"""The documents against the project: examples run, and what is named is there."""

from __future__ import annotations

import importlib
import inspect
import os
import re
import shlex
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from tessaly.storage import database, repository_wiki

ROOT = Path(__file__).resolve().parent.parent
DOCUMENTS = [ROOT / "README.md", *sorted(ROOT.glob("C*.md")), *sorted(ROOT.glob("docs/*.md"))]
BUILD = Path(repository_wiki.__file__).parents[3]  # of the tree that is being tested

FENCE = re.compile(r"^( *)```(\w+)\n(.*?)^ *```$", re.M | re.S)
MADE = ("build", "dist", "/")  # paths that are made later, or are the reader's


def blocks(document: Path) -> list[tuple[str, str]]:
    """The fenced blocks of a document: language and text."""
    found = FENCE.findall(document.read_text(encoding="utf-8"))
    return [(kind, re.sub(f"^{indent}", "", text, flags=re.M)) for indent, kind, text in found]


def commands() -> list[tuple[str, list[str]]]:
    """Each command that a document tells the reader to type, with the document's name."""
    found = []
    for document in DOCUMENTS:
        lines = [text for language, text in blocks(document) if language == "sh"]
        prose = FENCE.sub("", document.read_text(encoding="utf-8"))
        inline = re.findall(r"`((?:make|cmake|python3\.13) [^`]+)`", prose)
        lines += [" ".join(command.split()) for command in inline]
        for line in "\n".join(lines).splitlines():
            if words := shlex.split(line, comments=True):
                found.append((document.name, words))
    return found


class Documents(unittest.TestCase):
    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        path = os.pathsep.join(str(Path(entry).resolve()) for entry in sys.path if entry)
        self.environment = {**os.environ, "PYTHONPATH": path, "PYTHONDEVMODE": ""}

    def run_command(self, words: list[str]) -> str:
        done = subprocess.run(
            words, capture_output=True, text=True, cwd=self.folder, env=self.environment, timeout=60
        )
        self.assertEqual((done.returncode, done.stderr), (0, ""), (words, done.stdout))
        return done.stdout

    def test_python_examples_run_and_print_what_the_document_shows(self) -> None:
        for document in DOCUMENTS:
            found = blocks(document)
            for (language, text), (after, output) in zip(found, [*found[1:], ("", "")]):
                if language == "python":
                    with self.subTest(document=document.name, text=text):
                        printed = self.run_command([sys.executable, "-c", text])
                        self.assertEqual(printed, output if after == "text" else "")

    def test_commands_are_there_and_the_quick_ones_work(self) -> None:
        listing = subprocess.run(["make", "help"], cwd=ROOT, capture_output=True, text=True).stdout
        targets = re.findall(r"^make (\w+)", listing, re.M)
        ran = []
        for document, words in commands():
            words = [word for word in words if not word.startswith("PYTHONPATH=")]
            with self.subTest(document=document, command=words):
                if words[0] == "make":
                    self.assertIn(words[1], targets)
                elif words[0] == "python3.13" and "check_host:repository" not in words:
                    self.run_command([sys.executable, *words[1:]])
                    ran.append(words[words.index("-m") + 1])
                elif words[:3] == ["cmake", "--install", "build"] and "--component" not in words:
                    self.install([*words[:2], str(BUILD), words[3], self.folder])
                    ran.append("install")
        self.assertLessEqual({"tessaly_wiki_check", "demo", "install"}, set(ran))

    def install(self, words: list[str]) -> None:
        self.run_command(words)
        installed = [path for path in Path(self.folder).rglob("*") if path.is_file()]
        folder = Path("tessaly", "storage")
        names = {Path(repository_wiki.__file__).name, "repository_wiki.pyi", "py.typed"}
        self.assertEqual(
            {path.relative_to(self.folder) for path in installed}, {folder / name for name in names}
        )

    def test_files_that_are_named_exist(self) -> None:
        for document in DOCUMENTS:
            text = FENCE.sub("", document.read_text(encoding="utf-8"))
            links = re.findall(r"\]\(([^)#]+)(?:#[\w-]+)?\)", text)
            named = re.findall(r"`([\w./-]+(?:/|\.(?:md|h|cpp|py|pyi|toml)))`", text)
            for name in links + [name for name in named if not name.startswith(MADE)]:
                # The design speaks of the module's own files without their folder.
                homes = (document.parent, ROOT, ROOT / "storage")
                with self.subTest(document=document.name, name=name):
                    self.assertTrue(any((home / name).exists() for home in homes), "is not there")

    def test_contract_names_what_the_module_imports_and_the_reference_host_has(self) -> None:
        text = (ROOT / "docs" / "host-contract.md").read_text(encoding="utf-8")
        rows = re.findall(r"^\| `(tessaly\.storage\.\w+)` \| `(\w+)` \|", text, re.M)
        own = {"json", "logging", "logger", "Callable", "Sequence", "Any", "WikiStore"}
        names = [name for name in vars(repository_wiki) if not name.startswith("__")]
        self.assertCountEqual([name for _, name in rows], [x for x in names if x not in own])
        for module, name in rows:
            home = importlib.import_module(module)
            self.assertIs(getattr(home, name), getattr(repository_wiki, name))
        index = repository_wiki.WikiChunkIndex
        for owner, call in (
            (database.Database, r"`(transaction|fetchone|fetchall|index_generation)\((.*?)\)`"),
            (type(repository_wiki.stored_vectors(None)), r"`(encode|decode)\((.*?)\)`"),
            (repository_wiki.EmbeddingIndex, r"`\.(load)\((.*?)\)`"),
            (repository_wiki.ChunkWords, r"`ChunkWords\.(build)\((.*?)\)`"),
            (index, r"`(ranked)\((.*?)\)`"),
            (index, r"`(WikiChunkIndex)\((.*?)\)`"),
            (repository_wiki, r"`(row_to_wiki_page|moved_citation)\((.*?)\)`"),
        ):
            for name, arguments in re.findall(rf"^\| {call} \|", text, re.M):
                with self.subTest(name=name):
                    method = index if name == "WikiChunkIndex" else getattr(owner, name)
                    parameters = [p for p in inspect.signature(method).parameters if p != "self"]
                    self.assertEqual([x.strip(" =") for x in arguments.split(",") if x], parameters)

    def test_contract_names_the_columns_of_the_tables(self) -> None:
        from tessaly_wiki_check.schema import COLUMNS

        text = (ROOT / "docs" / "host-contract.md").read_text(encoding="utf-8")
        for table, columns in COLUMNS.items():
            part = text[text.index(f"\n`{table}`, ") :].split("\n\n")[1]
            cells = [row.split("|")[1] for row in part.splitlines() if row.startswith("| `")]
            self.assertEqual(sorted(re.findall(r"`(\w+)`", "".join(cells))), sorted(columns), table)


if __name__ == "__main__":
    unittest.main()
