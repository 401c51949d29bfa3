#include <Python.h>

#include "py/error.h"
#include "unit_matrix_type.h"

namespace {

int execute(PyObject* module) {
  try {
    const auto type = tessaly::vectors::make_unit_matrix_type(module);
    return PyModule_AddObjectRef(module, "UnitMatrix", type.ptr());
  } catch (...) {
    (void)tessaly::py::set_error_from_caught();
    return -1;
  }
}

}  // namespace

PyMODINIT_FUNC PyInit__vector_index() {
  static PyModuleDef_Slot slots[] = {
      {Py_mod_exec, reinterpret_cast<void*>(execute)},
      {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
      {0, nullptr}};
  static PyModuleDef definition{.m_base = PyModuleDef_HEAD_INIT,
                                .m_name = "tessaly.storage._vector_index",
                                .m_doc = "The native part of the vector index.",
                                .m_size = 0,
                                .m_methods = nullptr,
                                .m_slots = slots,
                                .m_traverse = nullptr,
                                .m_clear = nullptr,
                                .m_free = nullptr};
  return PyModuleDef_Init(&definition);
}
