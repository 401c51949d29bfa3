#include "host.h"

namespace tessaly::host {

using py::Owned;
using py::Target;

Owned fetchone(const Call& call, Target statement, py::Handle parameters) {
  const Owned db = database(call, statement.where);
  return py::call_method(Target(db, statement.where), call.names().fetchone, statement.object,
                         parameters);
}

Owned fetchall(const Call& call, Target statement, py::Handle parameters) {
  const Owned db = database(call, statement.where);
  return py::call_method(Target(db, statement.where), call.names().fetchall, statement.object,
                         parameters);
}

Owned index_generation(const Call& call, py::Where where) {
  const Owned db = database(call, where);
  return py::call_method(Target(db, where), call.names().index_generation);
}

Owned codec(const Call& call, py::Where where) {
  const Owned stored_vectors = call.global(call.names().stored_vectors, where);
  return py::call(Target(stored_vectors, where), database(call, where));
}

Owned decode(const Call& call, Target row, Py_ssize_t position) {
  const Owned vectors = codec(call, row.where);
  const Target target(vectors, row.where);
  const py::Handle name = call.names().decode;
  if (PyTuple_CheckExact(row.ptr()) && position < PyTuple_GET_SIZE(row.ptr()))
    return py::call_method(target, name, py::item(row, position));
  // Reading the row may run Python code, and comes after the method is looked up.
  const Owned method = py::attribute(target, name);
  return py::call(Target(method, row.where), py::item(row, position));
}

void Execution::run(py::Handle parameters) const {
  py::drop(py::call(Target(method_, statement_.where), statement_.object, parameters));
}

Owned Cursor::result_of(Target statement, py::Handle parameters) const {
  return py::call_method(Target(cursor_, statement.where), call_.names().execute, statement.object,
                         parameters);
}

void Cursor::execute(Target statement, py::Handle parameters) const {
  py::drop(result_of(statement, parameters));
}

Owned Cursor::query_one(Target statement, py::Handle parameters) const {
  const Owned result = result_of(statement, parameters);
  return py::call_method(Target(result, statement.where), call_.names().fetchone);
}

Owned Cursor::query_all(Target statement, py::Handle parameters) const {
  const Owned result = result_of(statement, parameters);
  return py::call_method(Target(result, statement.where), call_.names().fetchall);
}

void Cursor::executemany(Target statement, const Owned& rows) const {
  py::drop(py::call_method(Target(cursor_, statement.where), call_.names().executemany,
                           statement.object, rows));
}

namespace {

/// While it lives, `error` is the exception that is being handled, as inside an `except` clause:
/// sys.exception() answers it, and what is raised meanwhile has it as its context.
class HandlingScope {
 public:
  explicit HandlingScope(py::Handle error) : item_(PyThreadState_Get()->exc_info) {
    outer_ = std::exchange(item_->exc_value, Py_NewRef(error.ptr()));
  }
  HandlingScope(const HandlingScope&) = delete;
  HandlingScope& operator=(const HandlingScope&) = delete;
  ~HandlingScope() {
    // Whoever ran meanwhile may have cleared it.
    if (PyObject* handled = std::exchange(item_->exc_value, outer_))
      py::drop(Owned::steal(handled));
  }

 private:
  _PyErr_StackItem* item_;
  PyObject* outer_;
};

}  // namespace

TransactionBlock::Entered TransactionBlock::enter(const Call& call, py::Where where) {
  const Names& names = call.names();
  const Owned db = database(call, where);
  Owned manager = py::call_method(Target(db, where), names.transaction);
  const auto refuse = [&](const char* reason) {
    PyErr_Format(PyExc_TypeError, "'%.200s' object does not support the context manager protocol%s",
                 Py_TYPE(manager.ptr())->tp_name, reason);
    py::throw_error_set(where);
  };
  std::optional<Owned> enter = py::SpecialMethod::look_up(manager, names.dunder_enter);
  if (!enter) refuse("");
  // What could not be left is not entered: the type's `__exit__` is found before, bound after.
  std::optional<Owned> exit = py::SpecialMethod::look_up(manager, names.dunder_exit);
  if (!exit) refuse(" (missed __exit__ method)");
  const Target target(manager, where);
  Owned cursor = py::SpecialMethod(target, std::move(*enter))(target);
  py::SpecialMethod bound_exit(target, std::move(*exit));
  return {std::move(manager), std::move(bound_exit), std::move(cursor)};
}

TransactionBlock::TransactionBlock(const Call& call, py::Where where)
    : TransactionBlock(call, enter(call, where), where) {}

TransactionBlock::TransactionBlock(const Call& call, Entered entered, py::Where where)
    : call_(call),
      where_(where),
      manager_(std::move(entered.manager)),
      exit_(std::move(entered.exit)),
      cursor_(call, std::move(entered.cursor)) {}

void TransactionBlock::complete() const {
  const py::Handle none = Py_None;
  py::drop(exit_(Target(manager_, where_), none, none, none));
}

void TransactionBlock::settle(py::ErrorSet error) const {
  if (!error.traced) call_.trace(error.where);
  Owned exception = Owned::steal(PyErr_GetRaisedException());
  {
    const HandlingScope handling(exception);
    PyObject* frames = PyException_GetTraceback(exception.ptr());
    const Owned traceback = frames == nullptr ? Owned::none() : Owned::steal(frames);
    const Owned swallow = exit_(Target(manager_, where_),
                                py::Handle(reinterpret_cast<PyObject*>(Py_TYPE(exception.ptr()))),
                                exception, traceback);
    if (py::truth(Target(swallow, where_))) return;
  }
  PyErr_SetRaisedException(exception.release());
  throw py::ErrorSet{error.where, true};
}

}  // namespace tessaly::host
