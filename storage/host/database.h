#pragma once

#include <Python.h>

#include "call.h"
#include "py/special_method.h"

/// The host's Database, its transactions and their cursors. Statements come as constant texts or as
/// str objects, parameters as what goes into a tuple. Every function here runs the host's Python
/// code, which may do anything to the store meanwhile, and throws what it raises.
namespace tessaly::host {

/// `self.db`, read afresh.
inline py::Owned database(const Call& call) { return py::attribute(call.self(), call.names().db); }

/// `self.db.fetchone(statement, parameters)`: a row or None.
inline py::Owned fetchone(const Call& call, py::Handle statement, py::Handle parameters) {
  return py::call_method(database(call), call.names().fetchone, statement, parameters);
}

/// `self.db.fetchall(statement, parameters)`: the rows.
inline py::Owned fetchall(const Call& call, py::Handle statement, py::Handle parameters) {
  return py::call_method(database(call), call.names().fetchall, statement, parameters);
}

/// `self.db.index_generation()`.
inline py::Owned index_generation(const Call& call) {
  return py::call_method(database(call), call.names().index_generation);
}

/// The cursor of an open transaction.
class Cursor {
 public:
  Cursor(const Call& call, py::Owned cursor) : call_(call), cursor_(std::move(cursor)) {}

  /// `cursor.execute(statement, parameters)`, and what it returned.
  py::Owned execute(const py::Text& statement, py::Handle parameters) const {
    return py::call_method(cursor_, call_.names().execute, call_.text(statement), parameters);
  }

  /// `cursor.execute(statement, (...))` with parameters that are yet to be computed, by code that
  /// may be anybody's: the method is looked up before that.
  template <std::invocable Compute>
  py::Owned execute(const py::Text& statement, Compute&& parameters) const {
    const py::Owned method = py::attribute(cursor_, call_.names().execute);
    return py::call(method, call_.text(statement), parameters());
  }

  /// `cursor.executemany(statement, rows)`.
  void executemany(const py::Text& statement, py::Handle rows) const {
    py::drop(py::call_method(cursor_, call_.names().executemany, call_.text(statement), rows));
  }

  [[nodiscard]] py::Owned rowcount() const {
    return py::attribute(cursor_, call_.names().rowcount);
  }

  /// `result.fetchone()` and `result.fetchall()` of what an `execute` returned.
  [[nodiscard]] py::Owned one(py::Handle result) const {
    return py::call_method(result, call_.names().fetchone);
  }
  [[nodiscard]] py::Owned all(py::Handle result) const {
    return py::call_method(result, call_.names().fetchall);
  }

 private:
  const Call& call_;
  py::Owned cursor_;
};

/// The steps of `with self.db.transaction() as cursor`, for `transaction` below.
class Transaction {
 public:
  /// Opens the transaction and enters it; `__exit__` is looked up right after.
  explicit Transaction(const Call& call);

  [[nodiscard]] const Cursor& cursor() const noexcept { return cursor_; }

  /// The block came to its end: `__exit__(None, None, None)`.
  void complete() const;

  /// Inside a catch block: `__exit__(type, value, traceback)` of the error, while it is the one
  /// being handled. Throws the error on, unchanged, unless the exit answers true.
  void fail() const;

 private:
  const Call& call_;
  py::Owned manager_;
  Cursor cursor_;
  py::SpecialMethod exit_;
};

/// `with self.db.transaction() as cursor: block(cursor)`. Returns when the block came to its end or
/// when the exit swallowed what it raised; the block says by its own variables how far it came.
template <typename Block>
void transaction(const Call& call, Block&& block) {
  const Transaction open(call);
  try {
    block(open.cursor());
  } catch (...) {
    return open.fail();
  }
  open.complete();
}

}  // namespace tessaly::host
