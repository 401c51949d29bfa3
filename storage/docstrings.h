#pragma once

/// The docstrings, to the blank as they would stand in a Python source: tools that show them remove
/// the indentation of the lines after the first.
namespace tessaly::doc {

inline constexpr char module[] =
    R"(The wiki store of the repository: the pages of each branch, their embedded chunks and the search
over them, and the build state of each branch.

A mixin of :class:`tessaly.storage.repository.Repository`: its methods use the repository's ``db``.
)";

inline constexpr char wiki_store[] =
    R"(The wiki store, mixed into ``Repository``.

    ``search_wiki_chunks`` keeps an index per branch. Whatever writes or deletes chunks through this
    store invalidates it; the index generation (``Database.index_generation``) is part of its key,
    so a wholesale swap of the index rebuilds it in every process.
    )";

inline constexpr char _wiki_chunk_indexes[] =
    "The per-branch chunk indexes of this repository, created on first use.";

inline constexpr char invalidate_wiki_chunk_index[] =
    "Forget every branch's chunk index: the next search rebuilds it from the store.";

inline constexpr char upsert_wiki_page[] =
    R"(Insert or update a wiki page (keyed by branch + page_id).

        Uses an upsert (not REPLACE) so the row id — and any wiki_chunks that
        reference it — is preserved across regenerations. ``page_type`` is the type the
        planner chose (empty: the page's id and level resolve it).

        Returns:
            The wiki_pages row id.
        )";

inline constexpr char replace_wiki_chunks[] =
    R"(Replace all embedded chunks for a wiki page.

        Args:
            page_fk: wiki_pages row id.
            branch: Branch the page belongs to.
            chunks: List of dicts with keys ``content`` (str), ``embedding``
                (list[float]), and optional ``anchor``/``heading``/``citations``/
                ``token_count``.
            model_name: Embedding backend name (for drift detection).

        Returns:
            Number of chunks stored.
        )";

inline constexpr char wiki_chunk_headings[] =
    "``(page_id, heading)`` of every heading the stored chunks of a branch carry, once.";

inline constexpr char wiki_chunk_texts[] =
    R"(``(chunk id, page_id, page title, heading, text)`` of every stored chunk of a branch:
        what its embedding is made from, in page and chunk order.)";

inline constexpr char update_wiki_chunk_embeddings[] =
    R"(Store new embeddings of a branch's chunks, by chunk id (their text is unchanged).

        Returns:
            Number of chunks updated.
        )";

inline constexpr char wiki_chunk_dimension[] =
    R"(Embedding dimension of a branch's stored wiki chunks (None if none).

        This is how a caller distinguishes "this branch has no wiki" from "this
        branch has a wiki the current embedding engine cannot read": search over
        mismatched dimensions returns empty, and without this signal that reads
        exactly like an empty wiki — the agent concludes the wiki knows nothing
        when the truth is the backend changed and a rebuild would fix it.
        )";

inline constexpr char search_wiki_chunks[] =
    R"(Search over wiki chunks for a branch, by meaning, and by words when ``terms`` are given.

        Returns the best chunks, best first, with their content, citations, ``similarity`` (the
        cosine of their embedding to the query) and the owning page's id, title and path. With
        ``terms`` (the question's words, ``workers.query_words.query_terms``) the ``top_k``
        chunks nearest by meaning and the ``top_k`` best by BM25 over their heading and text
        (``wiki_chunk_words``) are fused by reciprocal rank (k = 60): the order then follows each
        hit's ``score``, the fused one, and a chunk only the words found still carries its
        similarity. Without terms, or without FTS5, the order is the similarity's.

        Results are NOT deduplicated by page (several chunks of one page may rank). Whether a
        page is stale is no part of a hit: the stored status is not staleness, and the one
        predicate (``workers.wiki.lint.stale_page_ids``) compares the page's sources with the
        index (``tool_handlers.wiki_freshness``).

        The branch's chunks are read once, by one join, into an index kept until a chunk of the
        branch is written or the index is replaced; a query then reads only the pages of its
        hits, in one statement.

        Returns an empty list if there are no chunks or the query dimension does
        not match the stored embeddings (e.g. the embedding backend changed and a
        rebuild is needed) — callers that need to tell those apart use
        ``wiki_chunk_dimension``.
        )";

inline constexpr char _wiki_chunk_index[] =
    R"(The branch's chunk index, built by one join when absent or of an older generation.

        Returns:
            The index; None when the branch has no chunk of a stored page.
        )";

inline constexpr char get_wiki_pages[] =
    "List all wiki pages for a branch (ordered by importance, then title).";

inline constexpr char wiki_pages_citing[] =
    R"(The pages of a branch built from any of ``paths`` (their ``source_files``), each once.

        Read from the stored ``source_files`` with ``json_each``, so the one record a page keeps
        of its sources answers it (no second table to keep in step). Paths compare with forward
        slashes. Returns full page records, the most important first, then by title.
        )";

inline constexpr char get_wiki_page[] = "Fetch a single wiki page by branch + page_id.";

inline constexpr char update_wiki_page_citations[] =
    R"(Store a page's refreshed citations, in one transaction.

        The row takes the citations, the hash of the rewritten page and its build cache; the
        text of each of its chunks goes through ``rewrite`` (the embeddings stay: only line
        numbers changed), and each citation a chunk carries takes its range from ``moves``
        (``(path, start, end)`` to the new ``(start, end)``).
        )";

inline constexpr char delete_wiki_page[] =
    "Delete a wiki page (and its chunks via cascade). Returns True if removed.";

inline constexpr char get_wiki_state[] = "Get per-branch wiki build state, or None if never built.";

inline constexpr char upsert_wiki_state[] = "Insert or replace per-branch wiki build state.";

inline constexpr char bump_wiki_changed[] =
    "Increment the changed-since-build counter for a branch; return the new value.";

}  // namespace tessaly::doc
