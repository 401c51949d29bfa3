#pragma once

#include <Python.h>

#include <array>
#include <cstdint>

#include "py/reference.h"

namespace tessaly::py {

/// A dict and the state it was in when it was last looked at.
class WatchedDict {
 public:
  void set(Owned dict) noexcept { dict_.set(std::move(dict)); }
  void clear() noexcept { dict_.clear(); }
  [[nodiscard]] const Member& member() const noexcept { return dict_; }
  [[nodiscard]] PyObject* ptr() const noexcept { return dict_.ptr(); }

  /// Whether the dict is as it was at the last `remember`.
  [[nodiscard]] bool unchanged() const noexcept { return seen_ == version(); }
  void remember() noexcept { seen_ = version(); }

  /// CPython 3.13 gives a dict another version with every change. The field goes with 3.14, and
  /// then so does this shortcut: an `unchanged` that is always false leaves everything right.
  [[nodiscard]] std::uint64_t version() const noexcept {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return reinterpret_cast<PyDictObject*>(dict_.ptr())->ma_version_tag;
#pragma GCC diagnostic pop
  }

 private:
  Member dict_;
  std::uint64_t seen_ = 0;  // no dict that holds anything has this version
};

/// The names that a function reads as its globals: those of a module, then the builtins. A name
/// that was read is remembered until either namespace changes, and no longer.
class GlobalNames {
 public:
  void set(Owned module_namespace, Owned builtins) noexcept;

  /// The value of `name`, an interned str, as it is now; NameError when there is none. Runs no
  /// Python code otherwise.
  Owned get(Handle name, Where where) {
    if (module_.unchanged() && builtins_.unchanged()) [[likely]] {
      const Entry& entry = entry_of(name);
      if (entry.name == name.ptr()) return Owned::borrow(entry.value);
    }
    return look_up(name, where);
  }

  /// A builtin of that name, or nothing.
  [[nodiscard]] std::optional<Owned> builtin(Handle name, Where where) const;

  [[nodiscard]] PyObject* module_namespace() const noexcept { return module_.ptr(); }
  [[nodiscard]] int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;

 private:
  struct Entry {
    PyObject* name = nullptr;  // both borrowed: while the dicts are unchanged, they hold them
    PyObject* value = nullptr;
  };

  Entry& entry_of(Handle name) noexcept {
    return entries_[(reinterpret_cast<std::uintptr_t>(name.ptr()) >> 4U) % kEntries];
  }
  Owned look_up(Handle name, Where where);

  static constexpr std::size_t kEntries = 32;
  WatchedDict module_;
  WatchedDict builtins_;
  std::array<Entry, kEntries> entries_{};
};

}  // namespace tessaly::py
