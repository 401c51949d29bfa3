#pragma once

#include <Python.h>

#include "call.h"
#include "py/objects.h"

/// How the host's objects are called: the only code that knows. Statements come as str objects,
/// parameters as tuples. Every function here runs the host's Python code, which may do anything to
/// the store meanwhile, and throws what it raises.
namespace tessaly::host {

/// `self.db`, read afresh.
inline py::Owned database(const Call& call, py::Where where = py::Where::current()) {
  return py::attribute(py::Target(call.self(), where), call.names().db);
}

/// `self.db.fetchone(statement, parameters)`: a row or None.
py::Owned fetchone(const Call& call, py::Target statement, py::Handle parameters);

/// `self.db.fetchall(statement, parameters)`: the rows.
py::Owned fetchall(const Call& call, py::Target statement, py::Handle parameters);

/// `self.db.index_generation()`.
py::Owned index_generation(const Call& call, py::Where where = py::Where::current());

/// `stored_vectors(self.db)`, afresh: no codec outlives the step that asked for it.
py::Owned codec(const Call& call, py::Where where = py::Where::current());

/// `stored_vectors(self.db).decode(row[position])`, a stored embedding's components.
py::Owned decode(const Call& call, py::Target row, Py_ssize_t position);

/// An `execute` whose parameters are yet to be computed, by code that may be anybody's: the method
/// is looked up before that, as in `cursor.execute(statement, (f(), g()))`.
class Execution {
 public:
  Execution(py::Owned method, py::Target statement)
      : method_(std::move(method)), statement_(statement) {}
  void run(py::Handle parameters) const;

 private:
  py::Owned method_;
  py::Target statement_;
};

/// The cursor of an open transaction.
class Cursor {
 public:
  Cursor(const Call& call, py::Owned cursor) : call_(call), cursor_(std::move(cursor)) {}

  /// `cursor.execute(statement, parameters)`.
  void execute(py::Target statement, py::Handle parameters) const;

  /// The first half of such a call; its `run` is the second. The statement must outlive it.
  [[nodiscard]] Execution prepare(py::Target statement) const {
    return {py::attribute(py::Target(cursor_, statement.where), call_.names().execute), statement};
  }

  /// `cursor.execute(statement, parameters).fetchone()`: the first row or None.
  py::Owned query_one(py::Target statement, py::Handle parameters) const;

  /// `cursor.execute(statement, parameters).fetchall()`: all rows.
  py::Owned query_all(py::Target statement, py::Handle parameters) const;

  /// `cursor.executemany(statement, rows)`.
  void executemany(py::Target statement, const py::Owned& rows) const;

  [[nodiscard]] py::Owned rowcount(py::Where where = py::Where::current()) const {
    return py::attribute(py::Target(cursor_, where), call_.names().rowcount);
  }

 private:
  [[nodiscard]] py::Owned result_of(py::Target statement, py::Handle parameters) const;

  const Call& call_;
  py::Owned cursor_;
};

/// The steps of `with self.db.transaction() as cursor`, for `transaction` below.
class TransactionBlock {
 public:
  /// Opens the transaction and enters it; `__exit__` is looked up at once. An object that has none
  /// is refused before it is entered.
  explicit TransactionBlock(const Call& call, py::Where where);

  [[nodiscard]] const Cursor& cursor() const noexcept { return cursor_; }

  /// The block came to its end: `__exit__(None, None, None)`.
  void complete() const;

  /// The block ended by `error`, which is set: `__exit__(type, value, traceback)`, while the error
  /// is the one being handled. Throws the error on, unchanged, unless the exit answers true.
  void settle(py::ErrorSet error) const;

 private:
  struct Entered {
    py::Owned manager;
    py::SpecialMethod exit;
    py::Owned cursor;
  };
  static Entered enter(const Call& call, py::Where where);
  TransactionBlock(const Call& call, Entered entered, py::Where where);

  const Call& call_;
  py::Where where_;
  py::Owned manager_;
  py::SpecialMethod exit_;
  Cursor cursor_;
};

/// `with self.db.transaction() as cursor: block(cursor)`. Returns when the block came to its end or
/// when the exit swallowed what it raised; the block says by its own variables how far it came.
template <typename Block>
void transaction(const Call& call, Block&& block, py::Where where = py::Where::current()) {
  const TransactionBlock open(call, where);
  std::optional<py::ErrorSet> failure;
  try {
    block(open.cursor());
  } catch (...) {
    failure = py::set_error_from_caught();
  }
  if (failure)
    open.settle(*failure);
  else
    open.complete();
}

}  // namespace tessaly::host
