#include "unit_matrix_type.h"

#include <memory>
#include <new>
#include <optional>
#include <vector>

#include "numbers.h"
#include "py/containers.h"
#include "py/heap_type.h"
#include "unit_matrix.h"

namespace tessaly::vectors {
namespace {

using py::Handle;
using py::Owned;

struct UnitMatrixObject {
  PyObject_HEAD
  std::size_t dimension;
  // Replaced whole by load: a search keeps the one that it started with.
  std::shared_ptr<const UnitMatrix> matrix;
};

UnitMatrixObject& native(PyObject* self) { return *reinterpret_cast<UnitMatrixObject*>(self); }

/// Lets other threads run Python for the length of a scope that touches none.
class WithoutInterpreter {
 public:
  WithoutInterpreter() noexcept : state_(PyEval_SaveThread()) {}
  WithoutInterpreter(const WithoutInterpreter&) = delete;
  WithoutInterpreter& operator=(const WithoutInterpreter&) = delete;
  ~WithoutInterpreter() { PyEval_RestoreThread(state_); }

 private:
  PyThreadState* state_;
};

std::int64_t chunk_id(Handle object) {
  const long long id = PyLong_AsLongLong(object.ptr());
  if (id == -1 && PyErr_Occurred() != nullptr) py::throw_error_set();
  return id;
}

/// One pair of the caller's list: kept by a tuple that nobody can change.
class Pair {
 public:
  explicit Pair(Handle item)
      : items_(PyTuple_CheckExact(item.ptr()) != 0 ? Owned::borrow(item)
                                                   : Owned::steal(PySequence_Tuple(item.ptr()))) {
    if (PyTuple_GET_SIZE(items_.ptr()) != 2)
      py::raise(PyExc_ValueError, "a vector comes as (chunk id, embedding), not as %zd items",
                PyTuple_GET_SIZE(items_.ptr()));
  }
  [[nodiscard]] Handle id() const { return PyTuple_GET_ITEM(items_.ptr(), 0); }
  [[nodiscard]] Handle embedding() const { return PyTuple_GET_ITEM(items_.ptr(), 1); }

 private:
  Owned items_;
};

/// False when the embedding's length is not the matrix's dimension; then nothing is appended.
bool append(UnitMatrix& matrix, std::int64_t id, Handle embedding, std::vector<double>& numbers) {
  {
    const FloatBuffer buffer(embedding);
    if (buffer.holds<float>()) {
      const auto row = buffer.row<float>();
      if (row.size() != matrix.dimension()) return false;
      matrix.append(id, row.data());
      return true;
    }
  }
  read_numbers(embedding, numbers);
  if (numbers.size() != matrix.dimension()) return false;
  matrix.append(id, numbers.data());
  return true;
}

Owned load(UnitMatrixObject& self, Handle vectors) {
  // A tuple of our own: embeddings may run Python code, which may shorten the caller's list.
  const Owned pairs = Owned::steal(PySequence_Tuple(vectors.ptr()));
  const Py_ssize_t count = PyTuple_GET_SIZE(pairs.ptr());
  auto matrix = std::make_shared<UnitMatrix>(self.dimension, static_cast<std::size_t>(count));
  std::vector<double> numbers;
  Py_ssize_t left_out = 0;
  for (Py_ssize_t i = 0; i < count; ++i) {
    const Pair pair(PyTuple_GET_ITEM(pairs.ptr(), i));
    const std::int64_t id = chunk_id(pair.id());
    if (!matrix->ids().empty() && id <= matrix->ids().back())
      py::raise(PyExc_ValueError, "chunk ids must ascend: %lld comes after %lld",
                static_cast<long long>(id), static_cast<long long>(matrix->ids().back()));
    if (!append(*matrix, id, pair.embedding(), numbers)) ++left_out;
  }
  self.matrix = std::move(matrix);
  return py::integer(left_out);
}

std::vector<float> unit_query(const UnitMatrixObject& self, Handle query) {
  std::vector<double> numbers;
  read_numbers(query, numbers);
  if (numbers.size() != self.dimension)
    py::raise(PyExc_ValueError, "the query embedding has %zu components, the index %zu",
              numbers.size(), self.dimension);
  std::vector<float> unit(self.dimension);
  unit_vector(numbers.data(), numbers.size(), unit.data());
  return unit;
}

Owned nearest(const UnitMatrixObject& self, Handle query, Handle top_k,
              std::optional<Handle> score) {
  const std::vector<float> unit = unit_query(self, query);
  // Beyond the range of a size it is cut off there, which is as good.
  const Py_ssize_t wanted = PyNumber_AsSsize_t(top_k.ptr(), nullptr);
  if (wanted == -1 && PyErr_Occurred() != nullptr) py::throw_error_set();
  std::vector<Hit> hits;
  if (wanted > 0) {
    const std::shared_ptr<const UnitMatrix> matrix = self.matrix;
    const WithoutInterpreter released;
    hits = matrix->nearest(unit.data(), static_cast<std::size_t>(wanted));
  }
  Owned found = py::new_list();
  for (const Hit& hit : hits) {
    Owned id = Owned::steal(PyLong_FromLongLong(hit.id));
    Owned cosine = Owned::steal(PyFloat_FromDouble(static_cast<double>(hit.similarity)));
    py::append(found, score ? py::tuple(std::move(id), std::move(cosine), *score)
                            : py::tuple(std::move(id), std::move(cosine)));
  }
  return found;
}

Owned similarities(const UnitMatrixObject& self, Handle query, Handle chunk_ids) {
  const std::vector<float> unit = unit_query(self, query);
  const Owned ids = Owned::steal(PySequence_Tuple(chunk_ids.ptr()));
  const std::shared_ptr<const UnitMatrix> matrix = self.matrix;
  return py::list_of(ids, [&](const Owned& id) {
    const float similarity = matrix->similarity(unit.data(), chunk_id(id));
    return Owned::steal(PyFloat_FromDouble(static_cast<double>(similarity)));
  });
}

void check_count(const char* method, Py_ssize_t count, Py_ssize_t most = 2) {
  if (count < 2 || count > most)
    py::raise(PyExc_TypeError, "%s() cannot take %zd arguments", method, count);
}

extern "C" {

PyObject* unit_matrix_load(PyObject* self, PyObject* vectors) {
  return py::guarded([&] { return load(native(self), vectors); });
}

PyObject* unit_matrix_nearest(PyObject* self, PyObject* const* arguments, Py_ssize_t count) {
  return py::guarded([&] {
    check_count("nearest", count, 3);
    std::optional<Handle> score;
    if (count == 3) score = arguments[2];
    return nearest(native(self), arguments[0], arguments[1], score);
  });
}

PyObject* unit_matrix_similarities(PyObject* self, PyObject* const* arguments, Py_ssize_t count) {
  return py::guarded([&] {
    check_count("similarities", count);
    return similarities(native(self), arguments[0], arguments[1]);
  });
}

PyObject* unit_matrix_sum(PyObject* self, PyObject*) {
  return PyFloat_FromDouble(static_cast<double>(native(self).matrix->component_sum()));
}

PyObject* unit_matrix_dimension(PyObject* self, void*) {
  return PyLong_FromSize_t(native(self).dimension);
}

Py_ssize_t unit_matrix_length(PyObject* self) {
  return static_cast<Py_ssize_t>(native(self).matrix->ids().size());
}

PyObject* unit_matrix_new(PyTypeObject* type, PyObject* arguments, PyObject* keywords) {
  return py::guarded([&] {
    static const char* const names[] = {"dimension", nullptr};
    Py_ssize_t dimension = 0;
    if (PyArg_ParseTupleAndKeywords(arguments, keywords, "n:UnitMatrix", const_cast<char**>(names),
                                    &dimension) == 0)
      py::throw_error_set();
    if (dimension < 0) py::raise(PyExc_ValueError, "a dimension is not negative: %zd", dimension);
    const auto size = static_cast<std::size_t>(dimension);
    auto empty = std::make_shared<const UnitMatrix>(size, 0);
    Owned self = Owned::steal(type->tp_alloc(type, 0));
    native(self.ptr()).dimension = size;
    new (&native(self.ptr()).matrix) std::shared_ptr<const UnitMatrix>(std::move(empty));
    return self;
  });
}

int unit_matrix_traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  return 0;
}

/// Called once, at the object's end: a matrix refers to no object.
int unit_matrix_destroy(PyObject* self) {
  std::destroy_at(&native(self).matrix);
  return 0;
}

}  // extern "C"

/// A method that takes its arguments as METH_FASTCALL says, as a method table takes it.
template <typename Function>
PyCFunction as_method(Function* function) {
  return reinterpret_cast<PyCFunction>(py::slot(function));
}

}  // namespace

Owned make_unit_matrix_type(Handle module) {
  static PyMethodDef methods[] = {
      {"load", unit_matrix_load, METH_O,
       "load($self, vectors, /)\n--\n\n"
       "Replace the contents by (chunk id, embedding) pairs of ascending id; an error leaves the\n"
       "old ones. Returns how many were left out because their length is not the dimension."},
      {"nearest", as_method(unit_matrix_nearest), METH_FASTCALL,
       "nearest($self, query, top_k, /, *score)\n--\n\n"
       "The at most top_k pairs (chunk id, cosine) most similar to the query, best first, ties\n"
       "by chunk id; triples, if there is a score to put into each. A vector without a direction\n"
       "(zero or not finite) has cosine 0.0."},
      {"similarities", as_method(unit_matrix_similarities), METH_FASTCALL,
       "similarities($self, query, chunk_ids, /)\n--\n\n"
       "The cosine of each of the chunks to the query; 0.0 for one that is not here."},
      {"sum", unit_matrix_sum, METH_NOARGS,
       "sum($self, /)\n--\n\n"
       "The sum of all components, by one plain pass over the matrix: what a search must read."},
      {}};
  static PyGetSetDef attributes[] = {
      {"dimension", unit_matrix_dimension, nullptr, "Components of each vector.", nullptr}, {}};
  PyType_Slot slots[] = {
      {Py_tp_doc, const_cast<char*>("UnitMatrix(dimension)\n--\n\n"
                                    "Embeddings under chunk ids, searched by exact cosine.")},
      {Py_tp_new, py::slot(unit_matrix_new)},
      {Py_tp_dealloc, py::slot(py::dealloc<unit_matrix_destroy>)},
      {Py_tp_traverse, py::slot(unit_matrix_traverse)},
      {Py_sq_length, py::slot(unit_matrix_length)},
      {Py_tp_methods, methods},
      {Py_tp_getset, attributes},
      {0, nullptr}};
  PyType_Spec spec{.name = "tessaly.storage._vector_index.UnitMatrix",
                   .basicsize = sizeof(UnitMatrixObject),
                   .itemsize = 0,
                   .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC |
                            Py_TPFLAGS_IMMUTABLETYPE,
                   .slots = slots};
  return Owned::steal(PyType_FromModuleAndSpec(module.ptr(), &spec, nullptr));
}

}  // namespace tessaly::vectors
