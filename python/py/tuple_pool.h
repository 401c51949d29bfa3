#pragma once

#include <Python.h>

#include <array>

#include "py/objects.h"
#include "py/reference.h"

namespace tessaly::py {

class TuplePool;

/// A tuple for the arguments of one call. At its end it goes back to the pool, unless somebody kept
/// a reference to it: then it is theirs, as any tuple would be.
class [[nodiscard]] LeasedTuple {
 public:
  LeasedTuple(TuplePool& pool, Owned tuple) noexcept : pool_(pool), tuple_(std::move(tuple)) {}
  LeasedTuple(const LeasedTuple&) = delete;
  LeasedTuple& operator=(const LeasedTuple&) = delete;
  ~LeasedTuple();

  operator Handle() const noexcept { return tuple_; }

 private:
  TuplePool& pool_;
  Owned tuple_;
};

/// Short tuples that nobody refers to, one a length, to be filled again: statement parameters come
/// and go with every call. (The built-in zip keeps its tuple in the same way.)
class TuplePool {
 public:
  /// A tuple of these items; owned rvalues are moved in. Runs no Python code.
  template <typename... Items>
  LeasedTuple lease(Items&&... items) {
    constexpr std::size_t kSize = sizeof...(Items);
    static_assert(kSize > 0, "the empty tuple is everybody's");
    if constexpr (kSize <= kLongest) {
      Member& spare = spare_[kSize];
      // Somebody may have found it by way of the garbage collector: then it is left to them.
      if (spare.is_unshared()) {
        Owned tuple = spare.take();
        Py_ssize_t position = 0;
        // What is overwritten is None.
        ((PyTuple_SET_ITEM(tuple.ptr(), position++,
                           detail::into_reference(std::forward<Items>(items)))),
         ...);
        return {*this, std::move(tuple)};
      }
    }
    return {*this, tuple(std::forward<Items>(items)...)};
  }

  void give_back(Owned tuple) noexcept;
  void clear() noexcept {
    for (Member& spare : spare_) spare.clear();
  }

 private:
  static constexpr std::size_t kLongest = 9;
  std::array<Member, kLongest + 1> spare_;  // hold nothing but None, so need no visit
};

inline LeasedTuple::~LeasedTuple() { pool_.give_back(std::move(tuple_)); }

}  // namespace tessaly::py
