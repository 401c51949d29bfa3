"""What each method does to real tables, and that it goes about it as plain Python code would."""

from __future__ import annotations

import inspect
import json
import unittest
import weakref
from typing import Any
from unittest import mock

from tessaly.storage import repository_wiki as native_store
from tessaly.storage.repository import Repository
from tessaly.storage.vector_codec import stored_vectors
from tests.support import CALLS_OF_THE_STORE, CITED, NEW_CHUNKS, DatabaseTestCase, fill, refresh


V = [1.0, 0.0, 0.0]


def chunk(**given: Any) -> dict[str, Any]:
    return {"content": "c", "embedding": V} | given


class Differential(DatabaseTestCase):
    def test_the_host_sees_the_calls_that_plain_python_makes(self) -> None:
        for case in CALLS_OF_THE_STORE:
            with self.subTest(case[0][0], arguments=case[0][1]):
                self.assertIsNone(self.same_outcome(case).error)


class OnSqlite(DatabaseTestCase):
    def setUp(self) -> None:
        super().setUp()
        fill(self.database)
        self.store = Repository(self.database)

    def rows(self, columns: str, table: str = "wiki_chunks", where: str = "1") -> list[Any]:
        return self.database.fetchall(f"SELECT {columns} FROM {table} WHERE {where} ORDER BY id")

    def test_pages_keep_their_row_id_and_chunks_and_lose_both_by_deletion(self) -> None:
        store = self.store
        self.database.fetchall("UPDATE wiki_pages SET generated_at = 'old', level = 'x'")
        self.assertEqual(store.upsert_wiki_page("main", "alpha", "A"), 1)
        self.assertGreater(store.upsert_wiki_page("new", "alpha", "A"), 3)
        one, another = (store.get_wiki_page(branch, "alpha") for branch in ("main", "new"))
        self.assertRegex(one["generated_at"], r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$")
        defaults = {"importance": "medium", "level": "module", "status": "built"}
        defaults |= {"source_hashes": {}}
        defaults |= dict.fromkeys(("description", "rel_path", "summary", "page_type"), "")
        defaults |= dict.fromkeys(("parent_section", "content_hash", "model", "build_cache"))
        defaults |= {key: [] for key in ("source_files", "symbols", "related_pages", "citations")}
        for record in (one, another):
            self.assertEqual({key: record[key] for key in defaults}, defaults)
        stored = "source_files, source_hashes, symbols, related_pages, citations"
        empty = [("[]", "{}", "[]", "[]", "[]")]
        self.assertEqual(self.rows(stored, "wiki_pages", "id > 3"), empty)
        self.assertEqual(len(self.rows("id", where="page_fk = 1")), 2)
        self.assertIs(store.delete_wiki_page("main", "alpha"), True)
        self.assertEqual(self.rows("id", where="page_fk = 1"), [])
        self.assertIs(store.delete_wiki_page("main", "alpha"), False)
        self.assertIsNone(store.get_wiki_page("main", "alpha"))

    def test_pages_are_listed_by_importance_then_title_and_found_by_source(self) -> None:
        store = self.store
        ranked = [("high", "z"), ("medium", "y"), ("low", "a"), ("low", "b"), (None, "c")]
        ranked.append(("High", "d"))
        for importance, title in reversed(ranked):
            store.upsert_wiki_page(
                "b", title, title, importance=importance, source_files=["src\\m.py", f"{title}.py"]
            )
        titles = [title for _importance, title in ranked]
        self.assertEqual([page["title"] for page in store.get_wiki_pages("b")], titles)
        found = {
            ("src/m.py", "c.py", "a.py", "src\\m.py"): titles,
            ("a.py", "z.py", "", None): ["z", "a"],
            ("src", "SRC/m.py", "src/", "./src/m.py"): [],
        }
        for paths, expected in found.items():
            pages = store.wiki_pages_citing("b", paths)
            self.assertEqual([page["title"] for page in pages], expected, paths)
        many = [f"{number}.py" for number in range(300)]
        for count in (0, 64, 128, 300, 44, 0):
            self.assertEqual(len(store.wiki_pages_citing("b", [*many[:count], "a.py"])), 1)
        with mock.patch.object(native_store, "WIKI_PAGE_COLUMNS", "title"):
            with mock.patch.object(native_store, "row_to_wiki_page", tuple):
                self.assertEqual(store.get_wiki_pages("b")[0], ("z",))
        self.assertEqual([page["title"] for page in store.get_wiki_pages("b")], titles)
        del store.db
        self.assertEqual(store.wiki_pages_citing("b", ["", None]), [])

    def test_chunks_are_stored_listed_and_embedded_anew(self) -> None:
        store = self.store
        self.assertEqual(store.replace_wiki_chunks(1, "main", NEW_CHUNKS, "m"), 3)
        given = [chunk(citations=None, token_count=12.9), chunk(anchor="a", heading="h")]
        self.assertEqual(store.replace_wiki_chunks(1, "main", [*given, given[1]], "m"), 3)
        columns = "anchor, heading, content, citations, token_count, model_name"
        self.assertEqual(
            self.rows(columns, where="page_fk = 1"),
            [(None, None, "c", "null", 12, "m"), *[("a", "h", "c", "[]", 0, "m")] * 2],
        )
        self.assertEqual(store.wiki_chunk_headings("main"), [("alpha", "h")])
        texts = store.wiki_chunk_texts("main")
        self.assertEqual(texts[0][1:], ("alpha", "Alpha", "", "c"))
        self.assertEqual(texts[-1], (3, "beta", "", "", "paint the wall"))
        self.assertEqual([text[0] for text in texts], sorted(text[0] for text in texts[:-1]) + [3])
        foreign = [(4, V), (99, V)]
        self.assertEqual(store.update_wiki_chunk_embeddings("main", foreign, "n"), 2)
        self.assertEqual(store.wiki_chunk_dimension("other"), 2)
        self.assertEqual(store.update_wiki_chunk_embeddings("other", [[4, V]], "n"), 1)
        self.assertEqual(store.wiki_chunk_dimension("other"), 3)
        self.assertIsNone(store.wiki_chunk_dimension("none"))

    def test_no_codec_is_alive_while_the_next_value_is_converted(self) -> None:
        class Codec:
            def __init__(self, _db: Any) -> None:
                alive.append(weakref.ref(self))

            def encode(self, _embedding: Any) -> bytes:
                return b""

        class Count:
            def __int__(self) -> int:
                return sum(codec() is not None for codec in alive)

        alive: list[Any] = []
        with mock.patch.object(native_store, "stored_vectors", Codec):
            self.store.replace_wiki_chunks(1, "main", [chunk(token_count=Count())] * 2, "m")
        self.assertEqual(self.rows("token_count", where="page_fk = 1"), [(0,), (0,)])
        self.assertEqual(len(alive), 2)

    def test_the_words_are_built_from_a_generator(self) -> None:
        class Greedy:
            def __int__(self) -> int:
                return next(given[0])[0] if given else 1

        def build(rows: Any) -> str:
            given.append(rows)
            with self.assertRaisesRegex(ValueError, "^generator already executing$"):
                next(rows)
            return "words"

        given: list[Any] = []
        row = (Greedy(), 1, None, 5, None, stored_vectors(self.database).encode(V))
        names = {"ChunkWords": mock.Mock(build=build), "EmbeddingIndex": mock.Mock()}
        self.store.db = mock.Mock(**{"fetchall.return_value": [row]})
        with mock.patch.multiple(native_store, WikiChunkIndex=dict, **names):
            self.assertEqual(self.store._wiki_chunk_index("main")["words"], "words")
        self.assertTrue(inspect.isgenerator(given[0]))
        self.assertIsNone(given[0].close())

    def test_a_search_reads_the_chunks_once_until_they_or_the_index_change(self) -> None:
        store = self.store

        def found(branch: str = "main") -> list[str]:
            return [hit["content"] for hit in store.search_wiki_chunks(V, branch)]

        def index() -> Any:
            return store._wiki_chunk_indexes().get("main")

        def move(page_id: str) -> None:
            store.update_wiki_page_citations("main", page_id, rewrite=str, **refresh())

        first = found()
        self.assertEqual(first, ["open the door", "close the window", "paint the wall"])
        kept = index()
        self.assertEqual((kept.dimension, list(kept.chunks)), (3, [1, 2, 3]))
        writes = [
            (lambda: store.upsert_wiki_page("main", "alpha", "A"), True),
            (lambda: store.replace_wiki_chunks(3, "other", [], "m"), True),
            (lambda: move("no"), True),
            (lambda: store.replace_wiki_chunks(2, "main", [], "m"), False),
            (lambda: store.update_wiki_chunk_embeddings("main", [], "m"), False),
            (lambda: move("beta"), False),
            (lambda: store.delete_wiki_page("main", "no"), False),
            (store.invalidate_wiki_chunk_index, False),
        ]
        for number, (write, keeps) in enumerate(writes):
            before = index()
            write()
            self.assertEqual(index() is before, keeps, number)
            found()
        with mock.patch.object(self.database, "index_generation", lambda: "another"):
            before = index()
            found()
            self.assertIsNot(index(), before)
            self.database.fetchall("DELETE FROM wiki_chunks")
            self.assertEqual(len(found()), 2, "read the chunks again, though nothing was dropped")
        self.assertEqual((found(), index()), ([], None))

    def test_hits_carry_their_page_and_follow_the_order_of_the_ranking(self) -> None:
        store = self.store
        by_meaning = store.search_wiki_chunks([0.9, 0.1, 0.0], "main", 2)
        best = {"page_id": "alpha", "title": "Alpha", "rel_path": None, "heading": "Start"}
        best |= {"content": "open the door", "citations": json.loads(CITED), "similarity": 0.9939}
        self.assertEqual(list(by_meaning[0].items()), list(best.items()))
        self.assertEqual((len(by_meaning), by_meaning[1]["citations"]), (2, []))
        fused = store.search_wiki_chunks(V, "main", terms=["wall"])
        scores = [hit["score"] for hit in fused]
        self.assertEqual(scores, sorted(scores, reverse=True))
        self.assertEqual(fused[0]["content"], "paint the wall")
        hits = [(3, 0.5, 0.0), (1, 0.123456, None), (3, -0.00004, 2)]
        asked: list[Any] = []
        real = self.database.fetchall
        self.database.fetchall = lambda *call: asked.append(call) or real(*call)
        cached = store._wiki_chunk_index("main")
        with mock.patch.object(type(cached), "ranked", lambda _self, *_arguments: hits):
            asked.clear()
            ranked = store.search_wiki_chunks(V, "main")
            self.assertEqual([hit["page_id"] for hit in ranked], ["beta", "alpha", "beta"])
            self.assertEqual([hit.get("score", "none") for hit in ranked], [0.0, "none", 2])
            self.assertEqual(str([hit["similarity"] for hit in ranked]), "[0.5, 0.1235, -0.0]")
            [(statement, parameters)] = asked
            self.assertEqual(parameters, (1, 2))
            self.assertTrue(statement.endswith("IN (?,?)"), statement)
            real("DELETE FROM wiki_pages WHERE id = 2")
            self.assertEqual(len(store.search_wiki_chunks(V, "main")), 1)
            hits.clear()
            self.assertEqual(store.search_wiki_chunks(V, "main"), [])
            self.assertEqual(asked[-1][1], ())

    def test_a_query_of_another_length_is_logged_and_finds_nothing(self) -> None:
        with self.assertLogs(native_store.logger, "WARNING") as logged:
            self.assertEqual(self.store.search_wiki_chunks([1.0] * 4, "main"), [])
        [record] = logged.records
        self.assertEqual(record.args, ("main", 3, 4))
        self.assertEqual(
            record.msg,
            "wiki chunks for '%s' are %d-dim but the query embedding is %d-dim — the embedding"
            " backend changed since the wiki was built; searches return nothing until the wiki is"
            " rebuilt",
        )
        with self.assertNoLogs(native_store.logger):
            self.assertEqual(self.store.search_wiki_chunks(V, "none"), [])

    def test_a_refresh_rewrites_the_chunks_of_one_page_and_nothing_else(self) -> None:
        def fixed() -> list[Any]:
            kept = self.rows("id, anchor, heading, embedding, token_count, model_name")
            times = self.rows("generated_at", "wiki_pages")
            return kept + times + self.rows("*", where="page_fk != 1")

        before = fixed()
        update = self.store.update_wiki_page_citations
        self.assertIsNone(update("main", "alpha", rewrite=str.upper, **refresh()))
        moved = CITED.replace('"start": 1, "end": 2', '"start": 5, "end": 6')
        self.assertEqual(
            self.rows("content, citations", where="page_fk = 1"),
            [("OPEN THE DOOR", moved), ("CLOSE THE WINDOW", "[]")],
        )
        page = self.store.get_wiki_page("main", "alpha")
        self.assertEqual((page["citations"], page["content_hash"]), ([{"path": "p"}], "h"))
        self.assertEqual(fixed(), before)

    def test_build_state_is_written_whole_and_counts_changes(self) -> None:
        store = self.store
        self.assertIsNone(store.get_wiki_state("b"))
        self.assertEqual([store.bump_wiki_changed("b", by) for by in (3, 2, 0, -4)], [3, 5, 5, 1])
        keys = "branch last_built_at last_commit changed_since_build model page_count manifest_hash"
        expected = dict.fromkeys(keys.split()) | {"branch": "b", "changed_since_build": 1}
        state = store.get_wiki_state("b")
        self.assertEqual(list(state.items()), list((expected | {"page_count": 0}).items()))
        self.assertIsNone(store.upsert_wiki_state("b", last_built_at="now", page_count=2))
        written = expected | {"changed_since_build": 0, "last_built_at": "now", "page_count": 2}
        self.assertEqual(store.get_wiki_state("b"), written)


if __name__ == "__main__":
    unittest.main()
