#pragma once

#include "call.h"

/// The build state of each branch: one row of wiki_state.
namespace tessaly::wiki {

/// The keys of a state record, which are the columns of its statement in their order.
std::array<py::Handle, 7> state_keys(const Names& names);

py::Owned get_wiki_state(const Call& call, py::Handle branch);

py::Owned upsert_wiki_state(const Call& call, py::Handle branch, py::Handle last_built_at,
                            py::Handle last_commit, py::Handle changed_since_build,
                            py::Handle model, py::Handle page_count, py::Handle manifest_hash);

py::Owned bump_wiki_changed(const Call& call, py::Handle branch, py::Handle count);

}  // namespace tessaly::wiki
