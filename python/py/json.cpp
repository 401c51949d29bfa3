#include "py/json.h"

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
  const Owned coder_module = Owned::steal(PyImport_Import(home.ptr()));
  if (!PyModule_CheckExact(coder_module.ptr())) return;
  PyObject* defaults = PyFunction_GET_KW_DEFAULTS(candidate->ptr());
  if (defaults == nullptr) return;
  code_.set(Owned::borrow(PyFunction_GET_CODE(candidate->ptr())));
  keyword_defaults_.set(Owned::borrow(defaults));
  coder_module_.set(Owned::borrow(PyModule_GetDict(coder_module.ptr())));
  for (WatchedDict* watched : {&keyword_defaults_, &coder_module_}) watched->remember();
  coder_name_.set(Owned::steal(PyUnicode_InternFromString(coder_attribute)));
  coder_.set(std::move(*shared));
  coder_class_version_ = coder_class_version();  // given when `home` was looked up, if not before
  module_namespace_.set(Owned::borrow(names));
  function_.set(std::move(*candidate));
}

bool GenuineJsonFunction::is_genuine(Handle candidate) noexcept {
  if (function_.empty() || candidate.ptr() != function_.ptr()) return false;
  if (PyFunction_GET_CODE(candidate.ptr()) != code_.ptr() ||
      PyFunction_GET_KW_DEFAULTS(candidate.ptr()) != keyword_defaults_.ptr() ||
      !keyword_defaults_.unchanged() || !coder_module_.unchanged() || coder_class_version_ == 0 ||
      coder_class_version() != coder_class_version_)
    return false;
  if (module_namespace_.unchanged()) return true;
  PyObject* shared = nullptr;
  if (PyDict_GetItemRef(module_namespace_.ptr(), coder_name_.ptr(), &shared) <= 0) {
    PyErr_Clear();
    return false;
  }
  const Owned held = Owned::steal(shared);
  if (shared != coder_.ptr()) return false;
  module_namespace_.remember();
  return true;
}

int GenuineJsonFunction::traverse(visitproc visit, void* arg) const {
  for (const Member* member : {&function_, &code_, &coder_, &keyword_defaults_.member(),
                               &coder_module_.member(), &module_namespace_.member()})
    if (const int status = member->traverse(visit, arg)) return status;
  return 0;
}

void GenuineJsonFunction::clear() noexcept {
  for (Member* member : {&function_, &code_, &coder_name_, &coder_}) member->clear();
  for (WatchedDict* watched : {&keyword_defaults_, &coder_module_, &module_namespace_})
    watched->clear();
}

void Json::capture(Handle module) {
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
  if (const int status = dumps_.traverse(visit, arg)) return status;
  return loads_.traverse(visit, arg);
}

void Json::clear() noexcept {
  dumps_.clear();
  loads_.clear();
  keys_.clear();
}

}  // namespace tessaly::py
