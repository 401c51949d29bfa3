// The module tessaly.storage.repository_wiki: its initialisation, step by step.

#include <Python.h>

#include <memory>

#include "docstrings.h"
#include "module_state.h"
#include "native_method.h"
#include "wiki/build_state.h"
#include "wiki/chunk_index_cache.h"
#include "wiki/chunk_rows.h"
#include "wiki/chunk_search.h"
#include "wiki_store.h"

namespace tessaly {

namespace {

using py::Handle;
using py::Owned;

/// What the module binds before the class, in its own namespace and in this order. These are
/// statements for the interpreter, so that whatever is missing is said in its words.
constexpr char kImports[] = R"(
import json
import logging
from collections.abc import Callable, Sequence
from typing import Any
from tessaly.storage.database import Database
from tessaly.storage.vector_codec import stored_vectors
from tessaly.storage.vector_index import EmbeddingIndex
from tessaly.storage.wiki_chunk_words import ChunkWords, WikiChunkIndex
from tessaly.storage.wiki_rows import WIKI_PAGE_COLUMNS, moved_citation, row_to_wiki_page
logger = logging.getLogger(__name__)
)";

void run_imports(const ModuleState& state) {
  const Owned code =
      Owned::steal(Py_CompileString(kImports, "<imports of repository_wiki>", Py_file_input));
  py::drop(Owned::steal(PyEval_EvalCode(code.ptr(), state.globals.module_namespace(),
                                        state.globals.module_namespace())));
}

/// The builtin function of that name, if it is still the interpreter's own.
void capture_builtin(py::Member& member, Handle builtins, Handle name) {
  PyObject* found = nullptr;
  if (py::checked(PyDict_GetItemRef(builtins.ptr(), name.ptr(), &found)) == 0) return;
  const Owned function = Owned::steal(found);
  if (!PyCFunction_CheckExact(function.ptr())) return;
  const Owned own_name =
      py::attribute(function, Owned::steal(PyUnicode_FromString("__qualname__")));
  PyObject* home = PyCFunction_GET_SELF(function.ptr());
  if (home != nullptr && PyModule_CheckExact(home) && PyModule_GetDict(home) == builtins.ptr() &&
      py::compare(own_name, name, Py_EQ))
    member.set(Owned::borrow(function));
}

void create_state(ModuleState& state, Handle module) {
  state.names.create();
  const Owned builtins = Owned::borrow(PyEval_GetBuiltins());
  state.globals.set(Owned::borrow(PyModule_GetDict(module.ptr())), Owned::borrow(builtins));
  capture_builtin(state.genuine_import, builtins, state.names.dunder_import);
  capture_builtin(state.genuine_round, builtins, state.names.round);
  state.chunk_index_keywords.set(wiki::chunk_index_keywords(state.names));
  state.hit_record.set(py::record_layout(wiki::hit_keys(state.names)));
  state.state_record.set(py::record_layout(wiki::state_keys(state.names)));
  state.method_type.set(create_method_type(module));
  state.chunk_rows_type.set(wiki::create_chunk_rows_type(module));
}

void initialise(PyObject* module) {
  ModuleState& state = *std::construct_at(static_cast<ModuleState*>(PyModule_GetState(module)));
  create_state(state, module);
  py::checked(PyModule_SetDocString(module, doc::module));
  run_imports(state);
  state.json.capture(py::item(state.globals.module_namespace(), state.names.json));
  const Owned wiki_store = create_wiki_store(state, module);
  py::checked(PyObject_SetAttr(module, state.names.WikiStore.ptr(), wiki_store.ptr()));
}

int execute(PyObject* module) noexcept {
  try {
    initialise(module);
    return 0;
  } catch (...) {
    static_cast<void>(py::set_error_from_caught());
    return -1;
  }
}

ModuleState* state_of(void* module) {
  return static_cast<ModuleState*>(PyModule_GetState(static_cast<PyObject*>(module)));
}

int traverse(PyObject* module, visitproc visit, void* arg) {
  return state_of(module)->traverse(visit, arg);
}

int clear(PyObject* module) {
  state_of(module)->clear();
  return 0;
}

void destroy(void* module) { std::destroy_at(state_of(module)); }

// The state hangs on the module object and nothing is static, so every interpreter, with a lock of
// its own or not, may have the module.
PyModuleDef_Slot kSlots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(execute)},
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
    {0, nullptr},
};

PyModuleDef kDefinition{
    .m_base = PyModuleDef_HEAD_INIT,
    .m_name = "repository_wiki",
    .m_doc = nullptr,
    .m_size = sizeof(ModuleState),
    .m_methods = nullptr,
    .m_slots = kSlots,
    .m_traverse = traverse,
    .m_clear = clear,
    .m_free = destroy,
};

}  // namespace

}  // namespace tessaly

PyMODINIT_FUNC PyInit_repository_wiki() { return PyModuleDef_Init(&tessaly::kDefinition); }
