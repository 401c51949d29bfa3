#pragma once

#include "call.h"

/// What the host knows of page rows and of citations.
namespace tessaly::host {

/// `format(WIKI_PAGE_COLUMNS, "")`, as it is now: an exact str.
inline py::Owned page_columns(const Call& call) {
  return py::format(call.global(call.names().WIKI_PAGE_COLUMNS));
}

/// `row_to_wiki_page(row)`.
inline py::Owned page_record(const Call& call, py::Handle row) {
  return py::call(call.global(call.names().row_to_wiki_page), row);
}

/// `moved_citation(citation, moves)`.
inline py::Owned moved_citation(const Call& call, py::Handle citation, py::Handle moves) {
  return py::call(call.global(call.names().moved_citation), citation, moves);
}

}  // namespace tessaly::host
