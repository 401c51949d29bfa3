#pragma once

#include <Python.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "bound_arguments.h"
#include "call.h"

namespace tessaly {

/// Runs a method's body with its arguments, in the order of the signature and without `self`.
using Invoke = py::Owned (*)(const Call& call, PyObject* const* arguments);

/// The parameters that a signature declares, `self` among them.
struct Parameters {
  std::array<std::string_view, kMostParameters> names;
  std::size_t count = 0;
  std::size_t positional = kMostParameters;  // how many come before a bare `*`

  constexpr void add(std::string_view parameter) {
    parameter.remove_prefix(std::min(parameter.find_first_not_of(' '), parameter.size()));
    const std::string_view name = parameter.substr(0, parameter.find_first_of(": ="));
    if (name == "*")
      positional = count;
    else if (!name.empty())
      names[count++] = name;
  }
};

/// A method, declared: all there is to know of it.
struct MethodRow {
  const char* name;
  const char* signature;  // as after `def name`: "(self, branch: str) -> int"
  const char* doc;        // with the layout of a docstring in its source
  int line;               // of the row
  Parameters parameters;
  Invoke invoke;
};

constexpr Parameters parameters_of(std::string_view signature) {
  Parameters found;
  int depth = 0;
  std::size_t start = 0;
  for (std::size_t i = 0; i < signature.size(); ++i) {
    const char c = signature[i];
    if (c == ')' || c == ']') --depth;
    if (depth == 0 && c == ')') {
      found.add(signature.substr(start, i - start));
      break;
    }
    if (depth == 1 && c == ',') {
      found.add(signature.substr(start, i - start));
      start = i + 1;
    }
    if (c == '(' || c == '[')
      if (depth++ == 0) start = i + 1;
  }
  found.positional = std::min(found.positional, found.count);
  return found;
}

template <auto Body, typename... Arguments>
consteval MethodRow method_of(py::Owned (*)(const Call&, Arguments...), const char* name,
                              const char* signature, const char* doc, int line) {
  const Parameters parameters = parameters_of(signature);
  if (parameters.count != 1 + sizeof...(Arguments))
    throw "the signature and the body differ in their parameters";
  constexpr Invoke kInvoke = [](const Call& call, [[maybe_unused]] PyObject* const* arguments) {
    return [&]<std::size_t... I>(std::index_sequence<I...>) {
      return Body(call, py::Handle(arguments[I])...);
    }(std::index_sequence_for<Arguments...>());
  };
  return {name, signature, doc, line, parameters, kInvoke};
}

/// A row of the method table. `Body` takes the call and one Handle for each parameter after `self`;
/// a signature that declares another number does not compile.
template <auto Body>
consteval MethodRow method(const char* name, const char* signature, const char* doc,
                           int line = __builtin_LINE()) {
  return method_of<Body>(Body, name, signature, doc, line);
}

/// The builtin `native(number, self, ...)`, which runs the body of the method of that number with
/// all its arguments in their order. It owns `module`, whose state it runs on.
py::Owned create_native(py::Handle module);

/// The native entry of the method of that number: `function` is a Python function of its signature,
/// whose body hands its arguments to `native`, the one variable that it has from outside. Ordinary
/// calls run the body straight; everything else is left to the function as it is by then: wrong
/// arguments, other code, another closure.
PyObject* call_method(std::size_t number, PyObject* function, PyObject* const* passed,
                      std::size_t flags_and_count, PyObject* keyword_names) noexcept;

}  // namespace tessaly
