#pragma once

#include <Python.h>

#include "py/json_text.h"
#include "py/reference.h"

namespace tessaly::py {

/// `json.dumps` and `json.loads`, taken natively where the outcome is certain to be the same.
///
/// The functions are known by identity: each is the genuine one while it is the function object,
/// and the module `json` holds the shared coder object, that were there at `capture`. Nothing else
/// is watched.
class Json {
 public:
  /// Takes the functions of `module` for genuine if they are, at this moment, Python functions of
  /// that module that use its standard coders with default options, which one document through
  /// both of them shows. Otherwise every call goes to the real ones. Never throws, imports nothing.
  void capture(Handle module) noexcept;

  /// `function(value)` and `function(text)`, of a function that the caller read.
  Owned dumps(Handle function, Handle value);
  Owned dumps_empty_list(Handle function);
  Owned dumps_empty_dict(Handle function);
  Owned loads(Handle function, Handle text);

  [[nodiscard]] int traverse(visitproc visit, void* arg) const;
  void clear() noexcept;

 private:
  struct Genuine {
    Member function;
    Member coder;
    Member coder_name;

    [[nodiscard]] bool is(Handle candidate) const;
  };
  static bool take(Genuine& genuine, Handle names, const char* function, const char* coder,
                   const char* coder_class);

  Genuine dumps_;
  Genuine loads_;
  Member empty_list_, empty_dict_;  // their texts
  json::KeyCache keys_;
};

}  // namespace tessaly::py
