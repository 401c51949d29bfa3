#include "wiki_store.h"

#include <string>

#include "py/source.h"

namespace tessaly {

using py::Handle;
using py::Owned;

namespace {

constexpr std::size_t kCount = kWikiStoreMethods.size();

/// A Python function that makes the methods' functions, in class order: each on the line of its row
/// and with nothing from outside but `native`.
std::string definitions() {
  std::string source = "def define(native):";
  std::string all;
  int line = 1;
  for (std::size_t i = 0; i < kCount; ++i) {
    const MethodRow& row = kWikiStoreMethods[i];
    for (; line < row.line; ++line) source += '\n';
    source.append(" def ").append(row.name).append(row.signature);
    source.append(": return native(").append(std::to_string(i));
    for (std::size_t p = 0; p < row.parameters.count; ++p)
      source.append(", ").append(row.parameters.names[p]);
    source += ')';
    all.append(row.name).append(", ");
  }
  return source + "\n return " + all + "\n";
}

template <std::size_t Number>
PyObject* entry(PyObject* function, PyObject* const* passed, std::size_t flags_and_count,
                PyObject* keyword_names) noexcept {
  return call_method(Number, function, passed, flags_and_count, keyword_names);
}

constexpr std::array kEntries = []<std::size_t... I>(std::index_sequence<I...>) {
  return std::array<vectorcallfunc, kCount>{entry<I>...};
}(std::make_index_sequence<kCount>());

/// Makes a method of a function from `definitions`.
void finish_method(ModuleState& state, std::size_t number, Handle function) {
  const MethodRow& row = kWikiStoreMethods[number];
  const auto set = [&](Handle name, Handle value) {
    py::checked(PyObject_SetAttr(function.ptr(), name.ptr(), value.ptr()));
  };
  set(state.names.dunder_qualname, py::text((std::string("WikiStore.") + row.name).c_str()));
  set(state.names.dunder_doc, py::text(row.doc));
  ModuleState::Method& method = state.methods[number];
  method.row = &row;
  PyObject* code = PyFunction_GET_CODE(function.ptr());
  method.code.set(Owned::borrow(code));
  method.parameters.set(Owned::steal(PyCode_GetVarnames(reinterpret_cast<PyCodeObject*>(code))));
  PyFunction_SetVectorcall(reinterpret_cast<PyFunctionObject*>(function.ptr()), kEntries[number]);
}

}  // namespace

Owned create_wiki_store(ModuleState& state, Handle module) {
  const Names& names = state.names;
  const Owned class_namespace = py::new_dict();
  const auto set = [&](Handle name, Handle value) { py::dict_set(class_namespace, name, value); };
  set(names.dunder_module, state.globals.get(names.dunder_name));
  set(names.dunder_doc, py::text(doc::wiki_store));
  set(names.dunder_qualname, names.WikiStore);
  set(names.dunder_firstlineno, py::integer(22));
  const Owned annotations = py::new_dict();
  py::dict_set(annotations, names.db, state.globals.get(names.Database));
  set(names.dunder_annotations, annotations);
  const Owned define = py::define("define", definitions(), kMethodTable, 1, state.globals.names);
  const Owned functions = py::call(define, create_native(module));
  state.methods = std::vector<ModuleState::Method>(kCount);
  for (std::size_t i = 0; i < kCount; ++i) {
    const Owned function = py::item(functions, static_cast<Py_ssize_t>(i));
    finish_method(state, i, function);
    set(py::attribute(function, names.dunder_name), function);
  }
  set(names.dunder_static_attributes, py::tuple());
  return py::call(reinterpret_cast<PyObject*>(&PyType_Type), names.WikiStore, py::tuple(),
                  class_namespace);
}

}  // namespace tessaly
