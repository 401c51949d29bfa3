#include "wiki_store.h"

#include <string>

namespace tessaly {

using py::Handle;
using py::Owned;

namespace {

/// The signatures as Python functions, in class order; each answers its arguments by name.
std::string signatures_source() {
  std::string source;
  for (const MethodRow& row : kWikiStoreMethods)
    source.append("def ").append(row.name).append(row.signature).append(": return locals()\n");
  return source;
}

/// Name to function, evaluated with the module's own names.
Owned evaluate_signatures(const ModuleState& state) {
  const Owned code = Owned::steal(
      Py_CompileString(signatures_source().c_str(), "<signatures of WikiStore>", Py_file_input));
  Owned functions = Owned::steal(PyDict_New());
  py::drop(
      Owned::steal(PyEval_EvalCode(code.ptr(), state.globals.module_namespace(), functions.ptr())));
  return functions;
}

Owned text(const char* utf8) { return Owned::steal(PyUnicode_FromString(utf8)); }

Owned make_method(ModuleState& state, const MethodRow& row, Handle module, Handle functions,
                  const std::string& class_name) {
  const Names& names = state.names;
  Owned function = py::item(functions, text(row.name));
  const Owned qualified = text((class_name + "." + row.name).c_str());
  py::checked(PyObject_SetAttr(function.ptr(), names.dunder_qualname.ptr(), qualified.ptr()));
  py::checked(PyObject_SetAttr(function.ptr(), names.dunder_doc.ptr(), text(row.doc).ptr()));
  return create_method(state, row, module, std::move(function));
}

}  // namespace

Owned create_wiki_store(ModuleState& state, Handle module) {
  static constexpr char kName[] = "WikiStore";
  static constexpr long kFirstLine = 22;
  const Names& names = state.names;
  const Owned class_namespace = Owned::steal(PyDict_New());
  const auto set = [&](Handle name, Handle value) {
    py::checked(PyDict_SetItem(class_namespace.ptr(), name.ptr(), value.ptr()));
  };
  set(names.dunder_module, py::item(state.globals.module_namespace(), names.dunder_name));
  set(names.dunder_doc, text(doc::wiki_store));
  set(names.dunder_qualname, text(kName));
  set(names.dunder_firstlineno, py::integer(kFirstLine));
  const Owned annotations = Owned::steal(PyDict_New());
  py::mapping_set(annotations, names.db,
                  py::item(state.globals.module_namespace(), names.Database));
  set(names.dunder_annotations, annotations);
  const Owned functions = evaluate_signatures(state);
  for (const MethodRow& row : kWikiStoreMethods)
    set(Owned::steal(PyUnicode_InternFromString(row.name)),
        make_method(state, row, module, functions, kName));
  set(names.dunder_static_attributes, py::tuple());
  return py::call(reinterpret_cast<PyObject*>(&PyType_Type), names.WikiStore, py::tuple(),
                  class_namespace);
}

}  // namespace tessaly
