#pragma once

#include <Python.h>

#include <cstddef>
#include <vector>

#include "py/objects.h"

namespace tessaly::py {

/// A constant text in UTF-8, declared beside its use at namespace scope. Each takes numbers of its
/// own when the library is loaded, by which a TextPool finds the str objects made of it.
class Text {
 public:
  explicit Text(const char* text) noexcept : Text(text, nullptr, nullptr, 1) {}

  /// A text to be put together: head + columns + middle + "?,?,..." + tail.
  Text(const char* head, const char* middle, const char* tail) noexcept
      : Text(head, middle, tail, 1 + kMostMarksKept) {}

 private:
  friend class TextPool;
  static constexpr std::size_t kMostMarksKept = 64;  // longer ones are rare, and large

  Text(const char* head, const char* middle, const char* tail, std::size_t numbers) noexcept
      : head_(head), middle_(middle), tail_(tail), number_(numbers_taken_) {
    numbers_taken_ += numbers;
  }

  inline static std::size_t numbers_taken_ = 0;  // changes no more once the library is loaded
  const char* head_;
  const char* middle_;
  const char* tail_;
  std::size_t number_;
};

/// The str objects of the Texts, one pool a module object. The same text is always the same object,
/// so that its hash is computed once and the database driver's statement cache finds it by
/// identity. Runs no Python code.
class TextPool {
 public:
  TextPool() : entries_(Text::numbers_taken_) {}

  /// Borrowed from the pool, which keeps it until cleared.
  Handle get(const Text& text) {
    Member& kept = entries_[text.number_].text;
    if (kept.empty()) kept.set(py::text(text.head_));
    return kept;
  }

  /// The text put together with `columns`, an exact str or None for nothing, and so many
  /// placeholders; the same object as the last time if the parts are the same.
  Owned get(const Text& text, Handle columns, std::size_t marks);

  void clear() noexcept { entries_.clear(); }

 private:
  struct Entry {
    Member columns;
    Member text;
  };
  std::vector<Entry> entries_;  // by number; a text put together has one for each count of marks
};

}  // namespace tessaly::py
