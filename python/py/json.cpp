#include "py/json.h"

#include "py/containers.h"

namespace tessaly::py {

namespace {

/// A document, as the standard functions write it, that shows every option they have.
constexpr char kProbe[] =
    R"({"b": [1, -20, true, false, null, "\u00e9\ud83d\ude00/\"\n"], "a": {}, "": []})";

std::optional<Owned> find(Handle names, const char* name) { return dict_get(names, text(name)); }

/// Whether a decoder hands objects to a function, which a document may not show.
bool has_hook(Handle decoder) {
  return !attribute(decoder, text("object_hook")).is_none() ||
         !attribute(decoder, text("object_pairs_hook")).is_none();
}

}  // namespace

bool Json::take(Genuine& genuine, Handle names, const char* function, const char* coder,
                const char* coder_class) {
  std::optional<Owned> candidate = find(names, function);
  std::optional<Owned> shared = find(names, coder);
  const std::optional<Owned> type = find(names, coder_class);
  if (!candidate || !shared || !type) return false;
  if (!PyFunction_Check(candidate->ptr()) ||
      PyFunction_GET_GLOBALS(candidate->ptr()) != names.ptr() ||
      reinterpret_cast<PyObject*>(Py_TYPE(shared->ptr())) != type->ptr())
    return false;
  genuine.function.set(std::move(*candidate));
  genuine.coder.set(std::move(*shared));
  genuine.coder_name.set(Owned::steal(PyUnicode_InternFromString(coder)));
  return true;
}

void Json::capture(Handle module) noexcept {
  try {
    if (!PyModule_CheckExact(module.ptr())) return;
    const Handle names = PyModule_GetDict(module.ptr());
    if (take(dumps_, names, "dumps", "_default_encoder", "JSONEncoder") &&
        take(loads_, names, "loads", "_default_decoder", "JSONDecoder")) {
      const Owned document = text(kProbe);
      const Owned value = call(loads_.function, document);
      const std::optional<Owned> expected = json::decode(document, keys_);
      if (PyDict_CheckExact(value.ptr()) && expected && equal(value, *expected) &&
          equal(call(dumps_.function, value), document) && !has_hook(loads_.coder)) {
        empty_list_.set(text("[]"));
        empty_dict_.set(text("{}"));
        return;
      }
    }
  } catch (const ErrorSet&) {
    PyErr_Clear();
  }
  clear();
}

bool Json::Genuine::is(Handle candidate) const {
  if (function.empty() || !candidate.is(function)) return false;
  const std::optional<Owned> shared = dict_get(PyFunction_GET_GLOBALS(candidate.ptr()), coder_name);
  return shared && Handle(*shared).is(coder);
}

Owned Json::dumps(Handle function, Handle value) {
  if (dumps_.is(function))
    if (std::optional<Owned> text = json::encode(value)) return std::move(*text);
  return call(function, value);
}

Owned Json::dumps_empty_list(Handle function) {
  return dumps_.is(function) ? Owned::borrow(empty_list_) : call(function, new_list());
}

Owned Json::dumps_empty_dict(Handle function) {
  return dumps_.is(function) ? Owned::borrow(empty_dict_) : call(function, new_dict());
}

Owned Json::loads(Handle function, Handle text) {
  if (loads_.is(function))
    if (std::optional<Owned> value = json::decode(text, keys_)) return std::move(*value);
  return call(function, text);
}

int Json::traverse(visitproc visit, void* arg) const {
  for (const Member* member : {&dumps_.function, &dumps_.coder, &loads_.function, &loads_.coder})
    if (const int status = member->traverse(visit, arg)) return status;
  return 0;
}

void Json::clear() noexcept {
  for (Genuine* genuine : {&dumps_, &loads_})
    for (Member* member : {&genuine->function, &genuine->coder, &genuine->coder_name})
      member->clear();
  for (Member* text : {&empty_list_, &empty_dict_}) text->clear();
  keys_.clear();
}

}  // namespace tessaly::py
