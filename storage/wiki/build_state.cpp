#include "host/database.h"
#include "wiki/methods.h"

namespace tessaly::wiki {

const py::Text kReadState{R"(SELECT branch, last_built_at, last_commit, changed_since_build, model,
        page_count, manifest_hash
    FROM wiki_state WHERE branch = ?)"};

Owned get_wiki_state(const Call& call, Handle branch) {
  const Owned row = host::fetchone(call, call.text(kReadState), py::tuple(branch));
  if (!py::truth(row)) return Owned::none();
  const Names& names = call.names();
  return py::record<7>(
      {names.branch, names.last_built_at, names.last_commit, names.changed_since_build, names.model,
       names.page_count, names.manifest_hash},
      {py::item(row, 0), py::item(row, 1), py::item(row, 2), py::item(row, 3), py::item(row, 4),
       py::item(row, 5), py::item(row, 6)});
}

const py::Text kUpsertState{R"(INSERT INTO wiki_state (branch, last_built_at, last_commit,
        changed_since_build, model, page_count, manifest_hash)
    VALUES (?, ?, ?, ?, ?, ?, ?)
    ON CONFLICT(branch) DO UPDATE SET
        last_built_at=excluded.last_built_at, last_commit=excluded.last_commit,
        changed_since_build=excluded.changed_since_build, model=excluded.model,
        page_count=excluded.page_count, manifest_hash=excluded.manifest_hash)"};

Owned upsert_wiki_state(const Call& call, Handle branch, Handle last_built_at, Handle last_commit,
                        Handle changed_since_build, Handle model, Handle page_count,
                        Handle manifest_hash) {
  host::transaction(call, [&](const host::Cursor& cursor) {
    py::drop(cursor.execute(
        kUpsertState, py::tuple(branch, last_built_at, last_commit, changed_since_build, model,
                                page_count, manifest_hash)));
  });
  return Owned::none();
}

const py::Text kAddChanges{R"(INSERT INTO wiki_state (branch, changed_since_build) VALUES (?, ?)
    ON CONFLICT(branch) DO UPDATE SET
        changed_since_build = changed_since_build + excluded.changed_since_build)"};

const py::Text kReadChanges{"SELECT changed_since_build FROM wiki_state WHERE branch = ?"};

Owned bump_wiki_changed(const Call& call, Handle branch, Handle count) {
  Owned total = Owned::none();  // stays so when the exit swallows an error
  host::transaction(call, [&](const host::Cursor& cursor) {
    py::drop(cursor.execute(kAddChanges, py::tuple(branch, count)));
    const Owned row = cursor.one(cursor.execute(kReadChanges, py::tuple(branch)));
    total = py::truth(row) ? py::to_int(py::item(row, 0)) : py::integer(0);
  });
  return total;
}

}  // namespace tessaly::wiki
