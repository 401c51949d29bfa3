#include "native_method.h"

#include <cstddef>

#include "bound_arguments.h"
#include "py/heap_type.h"

namespace tessaly {

using py::Owned;

namespace {

struct NativeMethod {
  PyObject_HEAD
  vectorcallfunc vectorcall;
  const MethodRow* row;
  ModuleState* state;  // of `module`; null once cleared
  py::Member module;
  py::Member signature;  // the Python function
  py::Member names;      // its parameter names
  std::size_t positional;
};

NativeMethod* as_method(PyObject* object) { return reinterpret_cast<NativeMethod*>(object); }

/// The boundary between Python and the bodies: everything thrown ends here as a Python error.
PyObject* run(const NativeMethod& method, PyObject* const* bound) noexcept {
  const Call call(*method.state, method.row->name, bound[0]);
  try {
    return method.row->invoke(call, bound + 1).release();
  } catch (...) {
    const py::ErrorSet error = py::set_error_from_caught();
    if (!error.traced) call.trace(error.where);
    return nullptr;
  }
}

/// A call that needs its arguments sorted out. As in Python, an error of that has no frame of the
/// method.
PyObject* bind_and_run(const NativeMethod& method, PyObject* const* arguments,
                       std::size_t flags_and_count, PyObject* keyword_names) noexcept {
  const BoundArguments::Signature signature{method.signature.ptr(), method.names.ptr(),
                                            method.positional, method.row->parameters};
  try {
    const BoundArguments bound(signature, arguments, flags_and_count, keyword_names);
    return run(method, bound.data());
  } catch (...) {
    static_cast<void>(py::set_error_from_caught());
    return nullptr;
  }
}

/// Methods call what they find on objects, and that may be methods again, in a circle without a
/// Python function in it. Asking the interpreter for its limit costs as much as a small method
/// does, so it is asked only once so many calls are in progress (in all threads) that it may
/// matter.
class RecursionGuard {
 public:
  explicit RecursionGuard(int& calls_in_progress) noexcept : calls_(calls_in_progress) {
    if (++calls_ <= kUncounted) return;
    while (entered_ < kFrames && Py_EnterRecursiveCall(" while calling a native method") == 0)
      ++entered_;
    refused_ = entered_ < kFrames;
  }
  RecursionGuard(const RecursionGuard&) = delete;
  RecursionGuard& operator=(const RecursionGuard&) = delete;
  ~RecursionGuard() {
    while (entered_-- > 0) Py_LeaveRecursiveCall();
    --calls_;
  }
  /// If so, RecursionError is set.
  [[nodiscard]] bool refused() const noexcept { return refused_; }

 private:
  static constexpr int kUncounted = 100;
  static constexpr int kFrames = 10;  // a method and what it calls, in frames of the C stack
  int& calls_;
  int entered_ = 0;
  bool refused_ = false;
};

PyObject* call_method(PyObject* callable, PyObject* const* arguments, std::size_t flags_and_count,
                      PyObject* keyword_names) noexcept {
  const NativeMethod& method = *as_method(callable);
  if (method.state == nullptr || method.state->cleared) [[unlikely]] {
    PyErr_Format(PyExc_RuntimeError, "%s() was called after its module was cleared",
                 method.row->name);
    return nullptr;
  }
  const RecursionGuard guard(method.state->calls_in_progress);
  if (guard.refused()) return nullptr;
  const auto count = static_cast<std::size_t>(PyVectorcall_NARGS(flags_and_count));
  const std::size_t parameters = method.row->parameters;
  const bool is_bound =
      keyword_names == nullptr && count == parameters && method.positional == parameters;
  return is_bound ? run(method, arguments)
                  : bind_and_run(method, arguments, flags_and_count, keyword_names);
}

PyObject* bind(PyObject* self, PyObject* object, PyObject* /*type*/) {
  if (object == nullptr || object == Py_None) return Py_NewRef(self);
  return PyMethod_New(self, object);
}

/// The attributes of a Python function that a method shows as its own; what is set, is set there.
PyObject* get_attribute(PyObject* self, void* name) {
  const NativeMethod& method = *as_method(self);
  if (method.signature.empty()) {
    PyErr_SetString(PyExc_AttributeError, static_cast<const char*>(name));
    return nullptr;
  }
  return PyObject_GetAttrString(method.signature.ptr(), static_cast<const char*>(name));
}

int set_attribute(PyObject* self, PyObject* value, void* name) {
  const NativeMethod& method = *as_method(self);
  if (method.signature.empty()) {
    PyErr_SetString(PyExc_AttributeError, static_cast<const char*>(name));
    return -1;
  }
  if (value == nullptr)
    return PyObject_DelAttrString(method.signature.ptr(), static_cast<const char*>(name));
  return PyObject_SetAttrString(method.signature.ptr(), static_cast<const char*>(name), value);
}

PyObject* represent(PyObject* self) {
  return py::guarded([self] {
    const Owned name = Owned::steal(get_attribute(self, const_cast<char*>("__qualname__")));
    return Owned::steal(
        PyUnicode_FromFormat("<function %S at %p>", name.ptr(), static_cast<void*>(self)));
  });
}

/// Pickled, and copied, by name, as functions are.
PyObject* reduce(PyObject* self, PyObject* /*unused*/) {
  return get_attribute(self, const_cast<char*>("__qualname__"));
}

int traverse(PyObject* self, visitproc visit, void* arg) {
  const NativeMethod& method = *as_method(self);
  Py_VISIT(Py_TYPE(self));
  for (const py::Member* member : {&method.module, &method.signature, &method.names})
    if (const int status = member->traverse(visit, arg)) return status;
  return 0;
}

int clear(PyObject* self) {
  NativeMethod& method = *as_method(self);
  method.state = nullptr;
  method.signature.clear();
  method.names.clear();
  method.module.clear();
  return 0;
}

void dealloc(PyObject* self) {
  PyObject_GC_UnTrack(self);  // before the weak references' callbacks, which run Python code
  PyObject_ClearWeakRefs(self);
  py::dealloc<clear>(self);
}

/// What `isinstance` believes: tools ask it whether something in a class is a function, which is to
/// be shown, given a signature or replaced by a double as one.
PyObject* get_class(PyObject* /*self*/, void* /*unused*/) {
  return Py_NewRef(reinterpret_cast<PyObject*>(&PyFunction_Type));
}

#define TESSALY_SHOWN(name, setter) \
  { name, get_attribute, setter, nullptr, const_cast<char*>(name) }
PyGetSetDef kAttributes[] = {
    {"__class__", get_class, nullptr, nullptr, nullptr},
    TESSALY_SHOWN("__name__", set_attribute),
    TESSALY_SHOWN("__qualname__", set_attribute),
    TESSALY_SHOWN("__module__", set_attribute),
    TESSALY_SHOWN("__doc__", set_attribute),
    TESSALY_SHOWN("__annotations__", set_attribute),
    TESSALY_SHOWN("__defaults__", set_attribute),
    TESSALY_SHOWN("__kwdefaults__", set_attribute),
    TESSALY_SHOWN("__type_params__", set_attribute),
    TESSALY_SHOWN("__dict__", set_attribute),
    TESSALY_SHOWN("__code__", nullptr),
    TESSALY_SHOWN("__globals__", nullptr),
    TESSALY_SHOWN("__builtins__", nullptr),
    TESSALY_SHOWN("__closure__", nullptr),
    {},
};
#undef TESSALY_SHOWN

/// Any other attribute is one that somebody gave the function.
PyObject* get_any(PyObject* self, PyObject* name) {
  PyObject* value = nullptr;
  const NativeMethod& method = *as_method(self);
  if (_PyType_Lookup(Py_TYPE(self), name) != nullptr || method.signature.empty())
    value = PyObject_GenericGetAttr(self, name);
  else
    value = PyObject_GetAttr(method.signature.ptr(), name);
  return value;
}

int set_any(PyObject* self, PyObject* name, PyObject* value) {
  const NativeMethod& method = *as_method(self);
  if (_PyType_Lookup(Py_TYPE(self), name) != nullptr || method.signature.empty())
    return PyObject_GenericSetAttr(self, name, value);
  return PyObject_SetAttr(method.signature.ptr(), name, value);
}

PyMethodDef kMethods[] = {
    {"__reduce__", reduce, METH_NOARGS, nullptr},
    {},
};

PyMemberDef kMembers[] = {
    {"__vectorcalloffset__", Py_T_PYSSIZET, offsetof(NativeMethod, vectorcall), Py_READONLY,
     nullptr},
    {},
};

}  // namespace

Owned create_method_type(py::Handle module) {
  PyType_Slot slots[] = {
      {Py_tp_call, py::slot(PyVectorcall_Call)},
      {Py_tp_descr_get, py::slot(bind)},
      {Py_tp_repr, py::slot(represent)},
      {Py_tp_getattro, py::slot(get_any)},
      {Py_tp_setattro, py::slot(set_any)},
      {Py_tp_getset, kAttributes},
      {Py_tp_methods, kMethods},
      {Py_tp_members, kMembers},
      {Py_tp_traverse, py::slot(traverse)},
      {Py_tp_clear, py::slot(clear)},
      {Py_tp_dealloc, py::slot(dealloc)},
      {0, nullptr},
  };
  PyType_Spec spec{
      .name = "tessaly.storage.repository_wiki.native_method",
      .basicsize = sizeof(NativeMethod),
      .itemsize = 0,
      .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL |
               Py_TPFLAGS_METHOD_DESCRIPTOR | Py_TPFLAGS_MANAGED_WEAKREF |
               Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
      .slots = slots,
  };
  return Owned::steal(PyType_FromModuleAndSpec(module.ptr(), &spec, nullptr));
}

Owned create_method(ModuleState& state, const MethodRow& row, py::Handle module, Owned signature) {
  auto* type = reinterpret_cast<PyTypeObject*>(state.method_type.ptr());
  auto* code = reinterpret_cast<PyCodeObject*>(PyFunction_GET_CODE(signature.ptr()));
  Owned names = Owned::steal(PyCode_GetVarnames(code));
  Owned made = Owned::steal(type->tp_alloc(type, 0));
  NativeMethod& method = *as_method(made.ptr());
  method.vectorcall = call_method;
  method.row = &row;
  method.state = &state;
  method.positional = static_cast<std::size_t>(code->co_argcount);
  method.module.set(Owned::borrow(module));
  method.names.set(std::move(names));
  method.signature.set(std::move(signature));
  return made;
}

}  // namespace tessaly
