#pragma once

#include <Python.h>

#include <cstddef>
#include <string_view>
#include <utility>

#include "call.h"

namespace tessaly {

/// Runs a method's body with its arguments, in the order of the signature and without `self`.
using Invoke = py::Owned (*)(const Call& call, PyObject* const* arguments);

/// A method, declared: all there is to know of it.
struct MethodRow {
  const char* name;
  const char* signature;   // as after `def name`: "(self, branch: str) -> int"
  const char* doc;         // with the layout of a docstring in its source
  std::size_t parameters;  // with self
  Invoke invoke;
};

inline constexpr std::size_t kMostParameters = 20;

/// How many parameters a signature declares; a bare `*` is none.
consteval std::size_t count_parameters(std::string_view signature) {
  std::size_t count = 0;
  int depth = 0;
  bool named = false;
  for (const char c : signature) {
    if (c == ']' || (c == ')' && depth > 1)) --depth;
    if (depth == 1 && (c == ',' || c == ')')) {
      count += named ? 1 : 0;
      named = false;
      if (c == ')') break;
    } else if (depth == 1 && c != ' ' && c != '*') {
      named = true;
    }
    if (c == '[' || c == '(') ++depth;
  }
  return count;
}

namespace detail {

template <auto Body, typename... Arguments>
consteval MethodRow method_of(py::Owned (*)(const Call&, Arguments...), const char* name,
                              const char* signature, const char* doc) {
  constexpr std::size_t kArguments = sizeof...(Arguments);
  static_assert(1 + kArguments <= kMostParameters);
  if (count_parameters(signature) != 1 + kArguments)
    throw "the signature and the body differ in their parameters";
  constexpr Invoke kInvoke = [](const Call& call, [[maybe_unused]] PyObject* const* arguments) {
    return [&]<std::size_t... I>(std::index_sequence<I...>) {
      return Body(call, py::Handle(arguments[I])...);
    }
    (std::make_index_sequence<kArguments>());
  };
  return {name, signature, doc, 1 + kArguments, kInvoke};
}

}  // namespace detail

/// A row of the method table. `Body` takes the call and one Handle for each parameter after `self`;
/// a signature that declares another number does not compile.
template <auto Body>
consteval MethodRow method(const char* name, const char* signature, const char* doc) {
  return detail::method_of<Body>(Body, name, signature, doc);
}

/// Creates the type of the methods: functions that live in a class, bind like Python functions and
/// show their attributes, and run native bodies. The type belongs to `module`.
py::Owned create_method_type(py::Handle module);

/// A method of the class `class_name`. It owns `module`, whose state it runs on, and `signature`: a
/// Python function with the same parameters that returns its locals(). The function holds what can
/// be seen of the method (names, annotations, defaults, code) and takes every call whose arguments
/// are out of the ordinary, so that errors are the interpreter's own.
py::Owned create_method(ModuleState& state, const MethodRow& row, py::Handle module,
                        py::Owned signature);

}  // namespace tessaly
