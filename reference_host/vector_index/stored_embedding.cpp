#include "stored_embedding.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "numbers.h"
#include "py/containers.h"
#include "py/heap_type.h"

namespace tessaly::vectors {

using py::Handle;
using py::Owned;

namespace {

constexpr bool kLittleEndian = std::endian::native == std::endian::little;

/// Unknown to garbage collection: all it refers to is bytes, which refer to nothing.
struct StoredEmbedding {
  PyObject_HEAD
  py::Member block;  // the bytes object that it lies in
  const char* data;
  Py_ssize_t bytes;
  Py_ssize_t length;  // of it as a sequence: its bytes, or its floats
  bool shows_floats;
};

constexpr Py_ssize_t kFloat = sizeof(float);

StoredEmbedding& native(PyObject* self) { return *reinterpret_cast<StoredEmbedding*>(self); }

Owned make(PyTypeObject* type, Handle block, const char* data, Py_ssize_t bytes, bool floats) {
  Owned made = Owned::steal(type->tp_alloc(type, 0));
  StoredEmbedding& embedding = native(made.ptr());
  embedding.block.set(Owned::borrow(block));
  embedding.data = data;
  embedding.bytes = bytes;
  embedding.length = floats ? bytes / kFloat : bytes;
  embedding.shows_floats = floats;
  return made;
}

/// Copies BLOBs into bytes objects that many embeddings share.
class Blocks {
 public:
  explicit Blocks(Handle type) : type_(reinterpret_cast<PyTypeObject*>(type.ptr())) {}

  Owned copy_of(Handle blob) {
    const Py_ssize_t bytes = PyBytes_GET_SIZE(blob.ptr());
    if (block_.empty() || bytes > PyBytes_GET_SIZE(block_.ptr()) - used_) start_block(bytes);
    char* const copy = PyBytes_AS_STRING(block_.ptr()) + used_;
    std::memcpy(copy, PyBytes_AS_STRING(blob.ptr()), static_cast<std::size_t>(bytes));
    used_ += bytes;
    return make(type_, block_, copy, bytes, false);
  }

 private:
  // Of a large block the allocator takes no more from the system than what is written to.
  static constexpr Py_ssize_t kFirst = Py_ssize_t{1} << 14;
  static constexpr Py_ssize_t kLargest = Py_ssize_t{1} << 25;

  void start_block(Py_ssize_t least) {
    next_ = std::min(std::max(2 * next_, kFirst), kLargest);
    block_.set(Owned::steal(PyBytes_FromStringAndSize(nullptr, std::max(next_, least))));
    used_ = 0;
  }

  PyTypeObject* type_;
  py::Member block_;
  Py_ssize_t used_ = 0;
  Py_ssize_t next_ = 0;
};

bool is_stored_form(PyObject* value) {
  return kLittleEndian && PyBytes_CheckExact(value) && PyBytes_GET_SIZE(value) % kFloat == 0;
}

/// Spares garbage collection a row that refers to nothing it knows, which it would find out itself
/// by looking at all of its values.
void untrack(Handle row) {
  for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(row.ptr()); ++i)
    if (PyObject_IS_GC(PyTuple_GET_ITEM(row.ptr(), i)) != 0) return;
  PyObject_GC_UnTrack(row.ptr());
}

/// The rows of the cursor, which have a value at least; the last one, when it is a stored form, has
/// become an embedding.
Owned fetch(Handle type, Handle cursor) {
  Blocks blocks(type);
  return py::list_of(cursor, [&blocks](Owned row) {
    // A tuple that nobody else refers to may still change.
    if (!PyTuple_CheckExact(row.ptr()) || Py_REFCNT(row.ptr()) != 1) return row;
    const Py_ssize_t last = PyTuple_GET_SIZE(row.ptr()) - 1;
    PyObject* const stored = PyTuple_GET_ITEM(row.ptr(), last);
    if (is_stored_form(stored))
      py::checked(PyTuple_SetItem(row.ptr(), last, blocks.copy_of(stored).release()));
    untrack(row);
    return row;
  });
}

float little_endian(float component) noexcept {
  if constexpr (kLittleEndian) return component;
  return std::bit_cast<float>(__builtin_bswap32(std::bit_cast<std::uint32_t>(component)));
}

extern "C" {

PyObject* stored_embedding_fetch(PyObject* type, PyObject* cursor) {
  return py::guarded([&] { return fetch(type, cursor); });
}

PyObject* stored_embedding_floats(PyObject* self, PyObject*) {
  const StoredEmbedding& stored = native(self);
  return py::guarded(
      [&] { return make(Py_TYPE(self), stored.block, stored.data, stored.bytes, true); });
}

Py_ssize_t stored_embedding_length(PyObject* self) { return native(self).length; }

PyObject* stored_embedding_item(PyObject* self, Py_ssize_t position) {
  const StoredEmbedding& embedding = native(self);
  if (position < 0 || position >= embedding.length) {
    PyErr_SetString(PyExc_IndexError, "an embedding has no such component");
    return nullptr;
  }
  if (!embedding.shows_floats)
    return PyLong_FromLong(static_cast<unsigned char>(embedding.data[position]));
  float component = 0;
  std::memcpy(&component, embedding.data + position * kFloat, sizeof(component));
  return PyFloat_FromDouble(static_cast<double>(component));
}

PyObject* stored_embedding_compare(PyObject* self, PyObject* other, int operation) {
  if (!Py_IS_TYPE(other, Py_TYPE(self)) || (operation != Py_EQ && operation != Py_NE))
    Py_RETURN_NOTIMPLEMENTED;
  const StoredEmbedding& a = native(self);
  const StoredEmbedding& b = native(other);
  const bool equal =
      a.length == b.length && std::equal(a.data, a.data + a.bytes, b.data, b.data + b.bytes);
  return PyBool_FromLong(equal == (operation == Py_EQ));
}

int stored_embedding_buffer(PyObject* self, Py_buffer* view, int flags) {
  static Py_ssize_t stride = kFloat;
  StoredEmbedding& embedding = native(self);
  if (PyBuffer_FillInfo(view, self, const_cast<char*>(embedding.data), embedding.bytes, 1, flags) <
      0)
    return -1;
  if (!embedding.shows_floats) return 0;
  view->itemsize = stride;
  if (view->format != nullptr) view->format = const_cast<char*>("f");
  if (view->shape != nullptr) view->shape = &embedding.length;
  if (view->strides != nullptr) view->strides = &stride;
  return 0;
}

void stored_embedding_dealloc(PyObject* self) {
  PyTypeObject* const type = Py_TYPE(self);
  native(self).block.clear();
  type->tp_free(self);
  py::drop(Owned::steal(reinterpret_cast<PyObject*>(type)));
}

}  // extern "C"

}  // namespace

Owned encode(Handle embedding) {
  std::vector<double> numbers;
  read_numbers(embedding, numbers);
  std::vector<float> floats(numbers.size());
  bool finite = true;
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const auto component = static_cast<float>(numbers[i]);
    finite &= std::isfinite(component);
    floats[i] = little_endian(component);
  }
  if (!finite)
    py::raise(PyExc_ValueError,
              "an embedding's components must be finite, in the range of 32 bits");
  return Owned::steal(
      PyBytes_FromStringAndSize(reinterpret_cast<const char*>(floats.data()),
                                static_cast<Py_ssize_t>(floats.size() * sizeof(float))));
}

Owned make_stored_embedding_type(Handle module) {
  static PyMethodDef methods[] = {
      {"fetch", stored_embedding_fetch, METH_O | METH_CLASS,
       "fetch($type, cursor, /)\n--\n\n"
       "The rows that the cursor has left, as a list; a BLOB that ends a row comes as such an\n"
       "embedding, unless its length is none."},
      {"floats", stored_embedding_floats, METH_NOARGS,
       "floats($self, /)\n--\n\nIts components: a read-only sequence and buffer of 32-bit floats."},
      {}};
  PyType_Slot slots[] = {
      {Py_tp_doc, const_cast<char*>("An embedding as a row of the database holds it: bytes, not\n"
                                    "to be written. Made by fetch.")},
      {Py_tp_methods, methods},
      {Py_tp_dealloc, py::slot(stored_embedding_dealloc)},
      {Py_tp_richcompare, py::slot(stored_embedding_compare)},
      {Py_sq_length, py::slot(stored_embedding_length)},
      {Py_sq_item, py::slot(stored_embedding_item)},
      {Py_bf_getbuffer, py::slot(stored_embedding_buffer)},
      {0, nullptr}};
  PyType_Spec spec{
      .name = "tessaly.storage._vector_index.StoredEmbedding",
      .basicsize = sizeof(StoredEmbedding),
      .itemsize = 0,
      .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_DISALLOW_INSTANTIATION,
      .slots = slots};
  return Owned::steal(PyType_FromModuleAndSpec(module.ptr(), &spec, nullptr));
}

}  // namespace tessaly::vectors
