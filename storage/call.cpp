#include "call.h"

#include "py/rounding.h"
#include "py/traceback.h"

namespace tessaly {

using py::Owned;

Owned Call::import_json() const {
  const std::optional<Owned> import = py::dict_get(state_.globals.builtins, names().dunder_import);
  if (!import) py::raise(PyExc_ImportError, "__import__ not found");
  return py::call(*import, names().json, state_.globals.names, py::none(), py::none(),
                  py::integer(0));
}

Owned Call::round_to_4_digits(py::Handle value) const {
  const Owned round = global(names().round);
  if (round.ptr() == state_.round.ptr() && PyFloat_CheckExact(value.ptr()))
    if (const auto rounded = py::round_to_4_digits(PyFloat_AS_DOUBLE(value.ptr())))
      return Owned::steal(PyFloat_FromDouble(*rounded));
  return py::call(round, value, py::integer(4));
}

void Call::trace() const noexcept { py::add_traceback(method_.code, state_.globals.names); }

}  // namespace tessaly
