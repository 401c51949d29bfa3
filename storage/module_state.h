#pragma once

#include <Python.h>

#include <array>
#include <vector>

#include "names.h"
#include "py/globals.h"
#include "py/json.h"
#include "py/texts.h"

namespace tessaly {

struct MethodRow;

/// All that one module object keeps between calls. It lives in the memory that the module object
/// carries, so that every interpreter, and every module object in it, has its own; the methods hold
/// the module object and thereby this.
struct ModuleState {
  /// What a method's function was made with, in the order of the method table.
  struct Method {
    const MethodRow* row;
    py::Member code;
    py::Member parameters;  // their names, a tuple
  };

  /// Functions in Python that host/ is made of besides, compiled at the import.
  struct Functions {
    py::Member chunk_rows, page_row_ids, encode, encode_chunk, decode;
  };

  bool cleared = false;  // by the garbage collector: no method may run any more
  int calls_in_progress = 0;

  Names names;
  std::vector<Method> methods;
  py::TextPool texts;
  py::Globals globals;  // the module's own namespace, where the host names are read
  py::Json json;

  py::Member round;  // the builtin, if it was the interpreter's own at the import
  Functions functions;

  [[nodiscard]] int traverse(visitproc visit, void* arg) {
    for (const py::Member* member : members())
      if (const int status = member->traverse(visit, arg)) return status;
    return json.traverse(visit, arg);  // all else is text and code
  }

  /// Lets go of what may be part of a reference cycle.
  void clear() noexcept {
    cleared = true;
    for (py::Member* member : members()) member->clear();
    json.clear();
  }

 private:
  std::array<py::Member*, 8> members() noexcept {
    return {&globals.names,          &globals.builtins,       &round,
            &functions.chunk_rows,   &functions.page_row_ids, &functions.encode,
            &functions.encode_chunk, &functions.decode};
  }
};

}  // namespace tessaly
