#include "python/json.h"

namespace tessaly::py {

namespace {

bool is_str(Handle object, const char* expected) {
  return PyUnicode_CheckExact(object.ptr()) &&
         PyUnicode_CompareWithASCIIString(object.ptr(), expected) == 0;
}

std::optional<Owned> dict_item(Handle dict, const char* key) {
  PyObject* value = nullptr;
  const int status = PyDict_GetItemStringRef(dict.ptr(), key, &value);
  return found(status, value);
}

/// Whether `function` was compiled from the file of the module whose namespace this is.
bool is_function_of(Handle function, Handle names, const char* name) {
  if (!PyFunction_Check(function.ptr())) return false;
  if (PyFunction_GET_GLOBALS(function.ptr()) != names.ptr()) return false;
  const std::optional<Owned> file = dict_item(names, "__file__");
  const auto* code = reinterpret_cast<PyCodeObject*>(PyFunction_GET_CODE(function.ptr()));
  return file && PyUnicode_CheckExact(file->ptr()) && is_str(code->co_name, name) &&
         PyUnicode_Compare(code->co_filename, file->ptr()) == 0;
}

}  // namespace

void GenuineJsonFunction::capture(Handle module, const char* name, const char* coder_attribute) {
  clear();
  if (!PyModule_CheckExact(module.ptr())) return;
  const Owned names = Owned::borrow(PyModule_GetDict(module.ptr()));
  std::optional<Owned> candidate = dict_item(names, name);
  std::optional<Owned> shared = dict_item(names, coder_attribute);
  if (!candidate || !shared || !is_function_of(*candidate, names, name)) return;
  const Owned dunder_module = Owned::steal(PyUnicode_FromString("__module__"));
  const Owned home = attribute(reinterpret_cast<PyObject*>(Py_TYPE(shared->ptr())), dunder_module);
  if (!is_str(home, "json.encoder") && !is_str(home, "json.decoder")) return;
  code.set(Owned::borrow(PyFunction_GET_CODE(candidate->ptr())));
  PyObject* defaults = PyFunction_GET_KW_DEFAULTS(candidate->ptr());
  if (defaults == nullptr) return;
  keyword_defaults.set(Owned::borrow(defaults));
  coder_name.set(Owned::steal(PyUnicode_InternFromString(coder_attribute)));
  coder.set(std::move(*shared));
  module_namespace.set(Owned::borrow(names));
  function.set(std::move(*candidate));
}

bool GenuineJsonFunction::is_genuine(Handle candidate) noexcept {
  if (function.empty() || candidate.ptr() != function.ptr()) return false;
  if (PyFunction_GET_CODE(candidate.ptr()) != code.ptr() ||
      PyFunction_GET_KW_DEFAULTS(candidate.ptr()) != keyword_defaults.ptr())
    return false;
  if (module_namespace.unchanged()) return true;
  PyObject* shared = nullptr;
  if (PyDict_GetItemRef(module_namespace.ptr(), coder_name.ptr(), &shared) <= 0) {
    PyErr_Clear();
    return false;
  }
  const Owned held = Owned::steal(shared);
  if (shared != coder.ptr()) return false;
  module_namespace.remember();
  return true;
}

int GenuineJsonFunction::traverse(visitproc visit, void* arg) const {
  for (const Member* member :
       {&function, &code, &keyword_defaults, &coder, &module_namespace.member()})
    if (const int status = member->traverse(visit, arg)) return status;
  return 0;
}

void GenuineJsonFunction::clear() noexcept {
  for (Member* member : {&function, &code, &keyword_defaults, &coder_name, &coder}) member->clear();
  module_namespace.clear();
}

void Json::capture(Handle module) {
  module_.set(Owned::borrow(module));
  dumps_.capture(module, "dumps", "_default_encoder");
  loads_.capture(module, "loads", "_default_decoder");
}

Owned Json::dumps(Target function, Handle value) {
  if (dumps_.is_genuine(function.object))
    if (std::optional<Owned> text = json::encode(value)) return std::move(*text);
  return call(function, value);
}

Owned Json::loads(Target function, Handle text) {
  if (loads_.is_genuine(function.object))
    if (std::optional<Owned> value = json::decode(text, keys_)) return std::move(*value);
  return call(function, text);
}

int Json::traverse(visitproc visit, void* arg) const {
  if (const int status = module_.traverse(visit, arg)) return status;
  if (const int status = dumps_.traverse(visit, arg)) return status;
  return loads_.traverse(visit, arg);
}

void Json::clear() noexcept {
  module_.clear();
  dumps_.clear();
  loads_.clear();
  keys_.clear();
}

}  // namespace tessaly::py
