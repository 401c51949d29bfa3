#pragma once

#include "call.h"

/// The pages of a branch: one row of wiki_pages each.
namespace tessaly::wiki {

/// The row id of a page, by (branch, page id).
inline constexpr py::Text kReadPageId{"SELECT id FROM wiki_pages WHERE branch = ? AND page_id = ?"};

py::Owned upsert_wiki_page(const Call& call, py::Handle branch, py::Handle page_id,
                           py::Handle title, py::Handle description, py::Handle importance,
                           py::Handle level, py::Handle parent_section, py::Handle rel_path,
                           py::Handle source_files, py::Handle source_hashes, py::Handle symbols,
                           py::Handle related_pages, py::Handle citations, py::Handle content_hash,
                           py::Handle model, py::Handle status, py::Handle summary,
                           py::Handle build_cache, py::Handle page_type);

py::Owned get_wiki_page(const Call& call, py::Handle branch, py::Handle page_id);
py::Owned get_wiki_pages(const Call& call, py::Handle branch);
py::Owned wiki_pages_citing(const Call& call, py::Handle branch, py::Handle paths);
py::Owned delete_wiki_page(const Call& call, py::Handle branch, py::Handle page_id);

}  // namespace tessaly::wiki
