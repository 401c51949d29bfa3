#include <Python.h>

#include "py/error.h"
#include "stored_embedding.h"
#include "unit_matrix_type.h"

namespace {

namespace py = tessaly::py;
namespace vectors = tessaly::vectors;

int execute(PyObject* module) noexcept {
  try {
    for (const auto make : {vectors::make_unit_matrix_type, vectors::make_stored_embedding_type}) {
      const py::Owned type = make(module);
      py::checked(PyModule_AddType(module, reinterpret_cast<PyTypeObject*>(type.ptr())));
    }
    return 0;
  } catch (...) {
    static_cast<void>(py::set_error_from_caught());
    return -1;
  }
}

PyObject* encode(PyObject*, PyObject* embedding) {
  return py::guarded([&] { return vectors::encode(embedding); });
}

}  // namespace

PyMODINIT_FUNC PyInit__vector_index() {
  static PyMethodDef functions[] = {
      {"encode", encode, METH_O,
       "encode($module, embedding, /)\n--\n\n"
       "The components of a sequence of numbers as bytes, 32-bit little-endian floats.\n"
       "Raises ValueError when one is not finite or out of their range."},
      {}};
  static PyModuleDef_Slot slots[] = {
      {Py_mod_exec, reinterpret_cast<void*>(execute)},
      {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
      {0, nullptr}};
  static PyModuleDef definition{.m_base = PyModuleDef_HEAD_INIT,
                                .m_name = "tessaly.storage._vector_index",
                                .m_doc = "The native part of the vector index.",
                                .m_size = 0,
                                .m_methods = functions,
                                .m_slots = slots,
                                .m_traverse = nullptr,
                                .m_clear = nullptr,
                                .m_free = nullptr};
  return PyModuleDef_Init(&definition);
}
