// The module tessaly.storage.repository_wiki: its initialisation, step by step.

#include <Python.h>

#include <memory>

#include "docstrings.h"
#include "host/chunk_index.h"
#include "host/codec.h"
#include "module_state.h"
#include "py/source.h"
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

void create_state(ModuleState& state, Handle module) {
  state.names.create();
  state.globals.names.set(Owned::borrow(PyModule_GetDict(module.ptr())));
  state.globals.builtins.set(Owned::borrow(PyEval_GetBuiltins()));
  std::optional<Owned> round = py::dict_get(state.globals.builtins, state.names.round);
  if (round && py::is_builtin(*round, "round")) state.round.set(std::move(*round));
  host::define_chunk_index(state);
  host::define_codec(state);
}

void initialise(PyObject* module) {
  ModuleState& state = *std::construct_at(static_cast<ModuleState*>(PyModule_GetState(module)));
  create_state(state, module);
  const Handle names = state.globals.names;
  py::checked(PyModule_SetDocString(module, doc::module));
  py::run_source(kImports, "<imports of repository_wiki>", 1, names, names);
  const Owned wiki_store = create_wiki_store(state, module);
  if (const std::optional<Owned> json = py::dict_get(names, state.names.json))
    state.json.capture(*json);
  py::checked(PyObject_SetAttr(module, state.names.WikiStore.ptr(), wiki_store.ptr()));
}

int execute(PyObject* module) noexcept {
  try {
    initialise(module);
    return 0;
  } catch (...) {
    py::set_error_from_caught();
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
