#pragma once

#include <Python.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "py/reference.h"

namespace tessaly::py {

/// A constant text, declared beside its use as a namespace-scope constexpr variable. UTF-8.
struct Text {
  const char* utf8;
};

/// The str objects of the Texts that were asked for, one each, found by the Text's address. Every
/// module object has a pool of its own; the same Text always gives the same object, so that its
/// hash is computed once and caches keyed by it find it by identity.
class TextPool {
 public:
  TextPool() = default;
  TextPool(const TextPool&) = delete;
  TextPool& operator=(const TextPool&) = delete;
  ~TextPool() { clear(); }

  /// Borrowed from the pool, which keeps it until cleared. Runs no Python code.
  Handle get(const Text& text) {
    if (!entries_.empty()) {
      for (std::size_t i = slot_of(&text);; i = (i + 1) & (entries_.size() - 1)) {
        if (entries_[i].text == &text) return entries_[i].object;
        if (entries_[i].text == nullptr) break;
      }
    }
    return add(text);
  }
  void clear() noexcept;

 private:
  struct Entry {
    const Text* text = nullptr;
    PyObject* object = nullptr;
  };

  [[nodiscard]] std::size_t slot_of(const Text* text) const noexcept {
    const auto address = reinterpret_cast<std::uintptr_t>(text);
    return (address * 0x9E3779B97F4A7C15U >> 32U) & (entries_.size() - 1);
  }
  Handle add(const Text& text);
  void place(Entry entry) noexcept;

  std::vector<Entry> entries_;  // open addressing; the size is a power of two, at most half full
  std::size_t used_ = 0;
};

}  // namespace tessaly::py
