#pragma once

#include "call.h"

/// The embedded chunks of pages: rows of wiki_chunks.
namespace tessaly::wiki {

py::Owned replace_wiki_chunks(const Call& call, py::Handle page_fk, py::Handle branch,
                              py::Handle chunks, py::Handle model_name);
py::Owned wiki_chunk_headings(const Call& call, py::Handle branch);
py::Owned wiki_chunk_texts(const Call& call, py::Handle branch);
py::Owned update_wiki_chunk_embeddings(const Call& call, py::Handle branch, py::Handle embeddings,
                                       py::Handle model_name);
py::Owned wiki_chunk_dimension(const Call& call, py::Handle branch);

}  // namespace tessaly::wiki
