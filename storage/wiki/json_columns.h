#pragma once

#include <concepts>

#include "wiki/methods.h"

/// The JSON columns of the tables: what the standard module's `dumps` writes and `loads` reads.
/// `json` is the module that the caller imported, or read from the store's namespace.
namespace tessaly::wiki {

/// `json.dumps(value())`: the function is looked up before the value is computed.
template <std::invocable Compute>
Owned dump(const Call& call, Handle json, Compute&& value) {
  const Owned dumps = py::module_attribute(json, call.names().dumps);
  return call.json().dumps(dumps, value());
}

/// `json.dumps(value or [])` and `json.dumps(value or {})`.
Owned dump_list(const Call& call, Handle json, Handle value);
Owned dump_object(const Call& call, Handle json, Handle value);

/// `json.dumps(value)` with the store's `json`.
Owned dump_citations(const Call& call, Handle value);

/// `json.loads(stored or "[]")`, and `json.loads(stored) if stored else []`, which reads `json`
/// only if it needs it; both with the store's.
Owned load_citations(const Call& call, Handle stored);
Owned load_citations_if_any(const Call& call, Handle stored);

}  // namespace tessaly::wiki
