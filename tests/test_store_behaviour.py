"""What each method does to real tables, and that it goes about it as plain Python code would."""

from __future__ import annotations

import inspect
import json
from collections.abc import Callable
from typing import Any
from unittest import mock

from tessaly.storage import repository_wiki as native_store
from tessaly.storage.repository import Repository
from tests.support import CALLS_OF_THE_STORE, CITED, DatabaseTestCase, fill, refresh

V = [1.0, 0.0, 0.0]


def chunk(**given: Any) -> dict[str, Any]:
    return {"content": "c", "embedding": V} | given


class Differential(DatabaseTestCase):
    def test_the_host_sees_the_calls_that_plain_python_makes(self) -> None:
        for case in CALLS_OF_THE_STORE:
            with self.subTest(case[0][0], arguments=case[0][1]):
                run = self.same_outcome(case)
                self.assertIsNone(run.error)
                self.assertFalse([rows for rows in run.answers if rows is run.result])
                self.same_outcome(case, row_type=lambda _run, row: row[:-1])
                self.same_outcome(case, row_type=lambda _run, row: row + row[-1:])


class OnSqlite(DatabaseTestCase):
    """What both stores could get wrong alike, or cannot be compared in."""

    def setUp(self) -> None:
        super().setUp()
        fill(self.database)
        self.store = Repository(self.database)

    def rows(self, columns: str, table: str = "wiki_chunks", where: str = "page_fk = 1") -> Any:
        return self.database.fetchall(f"SELECT {columns} FROM {table} WHERE {where} ORDER BY id")

    def test_pages_keep_their_row_id_and_chunks_and_lose_both_by_deletion(self) -> None:
        store = self.store
        self.database.fetchall("UPDATE wiki_pages SET generated_at = 'old', level = 'x'")
        self.assertEqual(store.upsert_wiki_page("main", "alpha", "A"), 1)
        row_id = store.upsert_wiki_page("new", "alpha", "A")
        updated, created = (store.get_wiki_page(branch, "alpha") for branch in ("main", "new"))
        self.assertRegex(updated["generated_at"], r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$")
        own = {"id": row_id, "branch": "new", "generated_at": created["generated_at"]}
        self.assertEqual(created, updated | own)
        self.assertEqual(len(self.rows("id")), 2)
        self.assertIs(store.delete_wiki_page("main", "alpha"), True)
        self.assertEqual(self.rows("id"), [])
        self.assertIs(store.delete_wiki_page("main", "alpha"), False)

    def test_pages_are_listed_by_importance_then_title_and_found_by_source(self) -> None:
        def citing(*paths: Any) -> str:
            return "".join(page["title"] for page in store.wiki_pages_citing("b", paths))

        store = self.store
        for title, importance in zip("dcbayz", ("High", None, "low", "low", "medium", "high")):
            paths = ["src\\m.py", f"{title}.py"]
            store.upsert_wiki_page("b", title, title, importance=importance, source_files=paths)
        self.assertEqual(citing("src/m.py", "c.py", "src\\m.py"), "zyabcd")
        self.assertEqual(citing("src", "SRC/m.py", "src/", "./src/m.py"), "")
        for count in (0, 63, 64, 300, 63):
            self.assertEqual(citing(*map(str, range(count)), "a.py", "", None), "a")
        moving = type("Moving", (str,), {"replace": lambda *_given: "a.py"})
        self.assertEqual(citing(moving("b.py")), "a")
        with mock.patch.multiple(native_store, WIKI_PAGE_COLUMNS="title", row_to_wiki_page="".join):
            self.assertEqual("".join(store.get_wiki_pages("b")), "zyabcd")
        self.assertEqual([page["branch"] for page in store.get_wiki_pages("b")], ["b"] * 6)
        del store.db
        self.assertEqual(citing("", None), "")

    def test_chunks_are_stored_listed_and_embedded_anew(self) -> None:
        store = self.store
        given = [chunk(citations=None, token_count=12.9), *[chunk(anchor="a", heading="h")] * 2]
        self.assertEqual(store.replace_wiki_chunks(1, "main", given, "m"), 3)
        second = ("a", "h", "c", "[]", 0, "m")
        stored = self.rows("anchor, heading, content, citations, token_count, model_name")
        self.assertEqual(stored, [(None, None, "c", "null", 12, "m"), second, second])
        self.assertEqual(store.wiki_chunk_headings("main"), [("alpha", "h")])
        texts = [(text[0], *text[3:]) for text in store.wiki_chunk_texts("main")]
        wall = (3, "", "paint the wall")
        self.assertEqual(texts, [(5, "", "c"), (6, "h", "c"), (7, "h", "c"), wall])
        for branch, dimension in (("main", 2), ("other", 3)):
            self.assertEqual(store.update_wiki_chunk_embeddings(branch, [(4, V), [9, V]], "n"), 2)
            self.assertEqual(store.wiki_chunk_dimension("other"), dimension)

    def test_the_words_are_built_from_a_generator(self) -> None:
        words = mock.Mock()
        with mock.patch.object(native_store, "ChunkWords", words):
            self.store._wiki_chunk_index("main")
        [rows] = words.build.call_args.args
        self.assertTrue(inspect.isgenerator(rows))
        self.assertEqual(next(rows), (1, "Start", "open the door"))

    def test_a_search_reads_the_chunks_once_until_they_or_the_index_change(self) -> None:
        def found() -> tuple[list[str], Any]:
            hits = store.search_wiki_chunks(V, "main")
            return [hit["content"] for hit in hits], store._wiki_chunk_indexes().get("main")

        def move(page_id: str) -> None:
            store.update_wiki_page_citations("main", page_id, rewrite=str, **refresh())

        store = self.store
        self.assertEqual(found()[0], ["open the door", "close the window", "paint the wall"])
        writes: list[tuple[bool, Callable[[], Any]]] = [
            (True, lambda: store.upsert_wiki_page("main", "alpha", "A")),
            (True, lambda: store.replace_wiki_chunks(3, "other", [], "m")),
            (True, lambda: move("no")),
            (False, lambda: store.replace_wiki_chunks(2, "main", [], "m")),
            (False, lambda: store.update_wiki_chunk_embeddings("main", [], "m")),
            (False, lambda: move("beta")),
            (False, lambda: store.delete_wiki_page("main", "no")),
            (False, store.invalidate_wiki_chunk_index),
        ]
        for number, (keeps, write) in enumerate(writes):
            before = found()[1]
            write()
            self.assertEqual(store._wiki_chunk_indexes().get("main") is before, keeps, number)
        before = found()[1]
        with mock.patch.object(self.database, "index_generation", lambda: "another"):
            self.assertIsNot(found()[1], before)
            self.database.fetchall("DELETE FROM wiki_chunks")
            self.assertEqual(len(found()[0]), 2, "read again, though nothing was dropped")
        self.assertEqual(found(), ([], None))

    def test_hits_carry_their_page_and_follow_the_order_of_the_ranking(self) -> None:
        search = self.store.search_wiki_chunks
        best, second = search([0.9, 0.1, 0.0], "main", 2)
        expected = {"page_id": "alpha", "title": "Alpha", "rel_path": None, "heading": "Start"}
        expected |= {"content": "open the door", "citations": json.loads(CITED)}
        self.assertEqual(list(best.items()), [*expected.items(), ("similarity", 0.9939)])
        self.assertEqual(second["citations"], [])
        hits = [(3, 0.5, 0.0), (1, 0.1, None), (3, 0.2, 2)]
        with mock.patch.object(native_store.WikiChunkIndex, "ranked", lambda *_given: hits):
            ranked = [(hit["page_id"], hit.get("score", "none")) for hit in search(V, "main")]
            self.assertEqual(ranked, [("beta", 0.0), ("alpha", "none"), ("beta", 2)])
            self.database.fetchall("DELETE FROM wiki_pages WHERE id = 2")
            self.assertEqual([hit["page_id"] for hit in search(V, "main")], ["alpha"])

    def test_a_query_of_another_length_is_logged_and_finds_nothing(self) -> None:
        with self.assertLogs(native_store.logger, "WARNING") as logged:
            self.assertEqual(self.store.search_wiki_chunks([1.0] * 4, "main"), [])
        told = "^wiki chunks for 'main' are 3-dim but the query embedding is 4-dim — the embedding"
        self.assertRegex(logged.records[0].getMessage(), told)

    def test_a_refresh_rewrites_the_chunks_of_one_page_and_nothing_else(self) -> None:
        def others() -> list[Any]:
            kept = self.rows("id, anchor, heading, embedding, token_count, model_name")
            times = self.rows("generated_at", "wiki_pages", "1")
            return kept + times + self.rows("*", where="page_fk != 1")

        before = others()
        self.store.update_wiki_page_citations("main", "alpha", rewrite=str.upper, **refresh())
        moved = CITED.replace('"start": 1, "end": 2', '"start": 5, "end": 6')
        changed = [("OPEN THE DOOR", moved), ("CLOSE THE WINDOW", "[]")]
        self.assertEqual(self.rows("content, citations"), changed)
        page = self.rows("citations, content_hash", "wiki_pages", "id = 1")
        self.assertEqual((page, others()), ([('[{"path": "p"}]', "h")], before))

    def test_build_state_is_written_whole_and_counts_changes(self) -> None:
        store = self.store
        self.assertEqual([store.bump_wiki_changed("b", by) for by in (3, 2, 0, -4)], [3, 5, 5, 1])
        keys = "branch last_built_at last_commit changed_since_build model page_count manifest_hash"
        state = store.get_wiki_state("b")
        self.assertEqual(" ".join(state), keys)
        self.assertEqual(list(state.values()), ["b", None, None, 1, None, 0, None])
        store.upsert_wiki_state("b", last_built_at="now", page_count=2)
        values = list(store.get_wiki_state("b").values())
        self.assertEqual(values, ["b", "now", None, 0, None, 2, None])
