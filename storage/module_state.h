#pragma once

#include <Python.h>

#include "names.h"
#include "py/global_names.h"
#include "py/json.h"
#include "py/texts.h"
#include "py/tuple_pool.h"
#include "statement_cache.h"

namespace tessaly {

/// All that one module object keeps between calls. It lives in the memory that the module object
/// carries, so that every interpreter, and every module object in it, has its own; the methods hold
/// the module object and thereby this.
struct ModuleState {
  bool cleared = false;  // by the garbage collector: no method may run any more
  int calls_in_progress = 0;

  Names names;
  py::TextPool texts;
  py::TuplePool tuples;
  py::GlobalNames globals;  // the module's own namespace, where the host names are read
  py::Json json;
  StatementCache statements;

  py::Member method_type;           // NativeMethod
  py::Member chunk_rows_type;       // the lazy sequence that ChunkWords.build consumes
  py::Member genuine_import;        // the interpreter's own __import__ and round, to be recognised
  py::Member genuine_round;         // when they are read again
  py::Member chunk_index_keywords;  // the keyword names of WikiChunkIndex, a tuple
  py::Member hit_record;            // dicts whose keys are laid out, to be copied and filled
  py::Member state_record;

  /// The members that can be part of a reference cycle.
  template <typename Self, typename Visit>
  static int each_member(Self& self, Visit&& apply) {
    for (auto* member :
         {&self.method_type, &self.chunk_rows_type, &self.genuine_import, &self.genuine_round,
          &self.chunk_index_keywords, &self.hit_record, &self.state_record})
      if (const int status = apply(*member)) return status;
    return 0;
  }

  [[nodiscard]] int traverse(visitproc visit, void* arg) const {
    if (const int status = globals.traverse(visit, arg)) return status;
    if (const int status = json.traverse(visit, arg)) return status;
    return each_member(*this,
                       [&](const py::Member& member) { return member.traverse(visit, arg); });
  }

  void clear() noexcept {
    cleared = true;
    names.clear();
    texts.clear();
    tuples.clear();
    globals.clear();
    json.clear();
    statements.clear();
    each_member(*this, [](py::Member& member) {
      member.clear();
      return 0;
    });
  }
};

}  // namespace tessaly
