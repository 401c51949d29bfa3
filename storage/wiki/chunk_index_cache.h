#pragma once

#include "call.h"

/// The chunk indexes that a repository object keeps, one a branch, in its instance dictionary.
namespace tessaly::wiki {

py::Owned wiki_chunk_indexes(const Call& call);
py::Owned invalidate_wiki_chunk_index(const Call& call);
py::Owned wiki_chunk_index(const Call& call, py::Handle branch);

/// Drops a branch's index, for whoever wrote or deleted chunks; only after the transaction closed,
/// so that an index built from then on reads what was committed.
void drop_chunk_index(const Call& call, py::Handle branch, py::Where where = py::Where::current());

/// The names of the five fields that a WikiChunkIndex is made of, as a keyword tuple.
py::Owned chunk_index_keywords(const Names& names);

}  // namespace tessaly::wiki
