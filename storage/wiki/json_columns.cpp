#include "wiki/json_columns.h"

namespace tessaly::wiki {

namespace {

const py::Text kNoCitations{"[]"};

Owned loads(const Call& call) {
  return py::module_attribute(call.global(call.names().json), call.names().loads);
}

}  // namespace

Owned dump_list(const Call& call, Handle json, Handle value) {
  const Owned dumps = py::module_attribute(json, call.names().dumps);
  return py::truth(value) ? call.json().dumps(dumps, value) : call.json().dumps_empty_list(dumps);
}

Owned dump_object(const Call& call, Handle json, Handle value) {
  const Owned dumps = py::module_attribute(json, call.names().dumps);
  return py::truth(value) ? call.json().dumps(dumps, value) : call.json().dumps_empty_dict(dumps);
}

Owned dump_citations(const Call& call, Handle value) {
  return dump(call, call.global(call.names().json), [&] { return value; });
}

Owned load_citations(const Call& call, Handle stored) {
  const Owned function = loads(call);
  return call.json().loads(function, py::truth(stored) ? stored : call.text(kNoCitations));
}

Owned load_citations_if_any(const Call& call, Handle stored) {
  if (!py::truth(stored)) return py::new_list();
  return call.json().loads(loads(call), stored);
}

}  // namespace tessaly::wiki
