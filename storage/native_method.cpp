#include "native_method.h"

namespace tessaly {

using py::Handle;
using py::Owned;

namespace {

ModuleState& state_of(PyObject* module) {
  return *static_cast<ModuleState*>(PyModule_GetState(module));
}

/// Runs a body, with the method in the traceback of an error.
Owned run(ModuleState& state, const ModuleState::Method& method, PyObject* const* bound) {
  const Call call(state, method, bound[0]);
  try {
    return method.row->invoke(call, bound + 1);
  } catch (...) {
    if (!py::set_error_from_caught().traced) call.trace();
    throw py::ErrorSet{.traced = true};
  }
}

/// Of a Python function, whose frame names it in tracebacks.
PyObject* native(PyObject* module, PyObject* const* arguments, Py_ssize_t count) noexcept {
  return py::guarded([&] {
    ModuleState& state = state_of(module);
    if (state.cleared)
      py::raise(PyExc_RuntimeError, "a method was called after its module was cleared");
    const std::size_t number = count > 1 ? PyLong_AsSize_t(arguments[0]) : state.methods.size();
    if (PyErr_Occurred()) py::throw_error_set();
    if (number >= state.methods.size() ||
        state.methods[number].row->parameters.count + 1 != static_cast<std::size_t>(count))
      py::raise(PyExc_TypeError, "native() takes a method's number and all its arguments");
    const ModuleState::Method& method = state.methods[number];
    return method.row->invoke(Call(state, method, arguments[1]), arguments + 2);
  });
}

const auto kRunNative = reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(native));
PyMethodDef kNative{"native", kRunNative, METH_FASTCALL, nullptr};

/// The module of a method's function, or null when its closure is no longer what it was made with.
PyObject* module_behind(PyObject* function) noexcept {
  PyObject* closure = PyFunction_GET_CLOSURE(function);
  if (closure == nullptr || PyTuple_GET_SIZE(closure) != 1) return nullptr;
  PyObject* cell = PyTuple_GET_ITEM(closure, 0);
  if (!PyCell_Check(cell)) return nullptr;
  PyObject* held = PyCell_GET(cell);
  if (held == nullptr || !PyCFunction_CheckExact(held) ||
      PyCFunction_GET_FUNCTION(held) != kRunNative)
    return nullptr;
  return PyCFunction_GET_SELF(held);
}

/// What any function would make of the call: a copy of this one, without its native entry, gets it.
Owned call_as_python(PyObject* function, PyObject* const* passed, std::size_t flags_and_count,
                     PyObject* keyword_names) {
  if (PyFunction_GET_GLOBALS(function) == nullptr)
    py::raise(PyExc_RuntimeError, "a method was called after it was cleared");
  const auto or_none = [](PyObject* object) { return object == nullptr ? Py_None : object; };
  const Owned name = Owned::steal(PyObject_GetAttrString(function, "__qualname__"));
  const Owned copy = Owned::steal(PyFunction_NewWithQualName(
      PyFunction_GET_CODE(function), PyFunction_GET_GLOBALS(function), name.ptr()));
  py::checked(PyFunction_SetDefaults(copy.ptr(), or_none(PyFunction_GET_DEFAULTS(function))));
  py::checked(PyFunction_SetKwDefaults(copy.ptr(), or_none(PyFunction_GET_KW_DEFAULTS(function))));
  py::checked(PyFunction_SetClosure(copy.ptr(), or_none(PyFunction_GET_CLOSURE(function))));
  return Owned::steal(PyObject_Vectorcall(copy.ptr(), passed, flags_and_count, keyword_names));
}

/// Methods call what they find on objects, and that may be methods again, in a circle without a
/// Python function's frame in it. Asking the interpreter for its limit costs as much as a small
/// method does, so it is asked only once so many calls are in progress (in all threads) that it may
/// matter.
class RecursionGuard {
 public:
  explicit RecursionGuard(int& calls_in_progress) : calls_(calls_in_progress) {
    if (++calls_ <= kUncounted) return;
    while (entered_ < kFrames && Py_EnterRecursiveCall(" while calling a native method") == 0)
      ++entered_;
    if (entered_ == kFrames) return;
    leave();
    py::throw_error_set();
  }
  RecursionGuard(const RecursionGuard&) = delete;
  RecursionGuard& operator=(const RecursionGuard&) = delete;
  ~RecursionGuard() { leave(); }

 private:
  void leave() noexcept {
    while (entered_-- > 0) Py_LeaveRecursiveCall();
    --calls_;
  }

  static constexpr int kUncounted = 100;
  static constexpr int kFrames = 10;  // a method and what it calls, in frames of the C stack
  int& calls_;
  int entered_ = 0;
};

}  // namespace

Owned create_native(Handle module) {
  return Owned::steal(PyCFunction_NewEx(&kNative, module.ptr(), nullptr));
}

PyObject* call_method(std::size_t number, PyObject* function, PyObject* const* passed,
                      std::size_t flags_and_count, PyObject* keyword_names) noexcept {
  return py::guarded([&] {
    if (PyObject* module = module_behind(function)) {
      ModuleState& state = state_of(module);
      const ModuleState::Method& method = state.methods[number];
      if (method.code.ptr() == PyFunction_GET_CODE(function) && !state.cleared) {
        const Owned held = Owned::borrow(module);  // whatever becomes of the function meanwhile
        const RecursionGuard guard(state.calls_in_progress);
        const Parameters& parameters = method.row->parameters;
        const auto count = static_cast<std::size_t>(PyVectorcall_NARGS(flags_and_count));
        if (keyword_names == nullptr && count == parameters.count && count == parameters.positional)
          return run(state, method, passed);
        BoundArguments bound;
        if (bound.bind(function, method.parameters.ptr(), parameters.positional, passed, count,
                       keyword_names))
          return run(state, method, bound.data());
      }
    }
    return call_as_python(function, passed, flags_and_count, keyword_names);
  });
}

}  // namespace tessaly
