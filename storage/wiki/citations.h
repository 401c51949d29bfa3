#pragma once

#include "call.h"

/// The refresh of a page whose sources only moved: new citations, the same embeddings.
namespace tessaly::wiki {

py::Owned update_wiki_page_citations(const Call& call, py::Handle branch, py::Handle page_id,
                                     py::Handle citations, py::Handle content_hash,
                                     py::Handle build_cache, py::Handle rewrite, py::Handle moves);

}  // namespace tessaly::wiki
