#pragma once

#include "call.h"

/// The search over a branch's chunks.
namespace tessaly::wiki {

/// The keys of a hit, in their order; `score` follows them where there is one.
std::array<py::Handle, 7> hit_keys(const Names& names);

py::Owned search_wiki_chunks(const Call& call, py::Handle query_embedding, py::Handle branch,
                             py::Handle top_k, py::Handle terms);

}  // namespace tessaly::wiki
