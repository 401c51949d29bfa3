#pragma once

#include <string>

#include "py/containers.h"

namespace tessaly::py {

/// Runs Python source as a module's body is run. `file` and `line` are where the source begins, for
/// tracebacks.
inline void run_source(const std::string& source, const char* file, int line, Handle globals,
                       Handle locals) {
  const std::string placed = std::string(static_cast<std::size_t>(line - 1), '\n') + source;
  const Owned code = Owned::steal(Py_CompileString(placed.c_str(), file, Py_file_input));
  drop(Owned::steal(PyEval_EvalCode(code.ptr(), globals.ptr(), locals.ptr())));
}

/// Runs source that defines one function of that name, and answers the function.
inline Owned define(const char* name, const std::string& source, const char* file, int line,
                    Handle globals) {
  const Owned locals = new_dict();
  run_source(source, file, line, globals, locals);
  return item(locals, text(name));
}

}  // namespace tessaly::py
