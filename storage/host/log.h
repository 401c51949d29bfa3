#pragma once

#include "call.h"

/// The module's logger, as it is now.
namespace tessaly::host {

/// `logger.warning`, to be called with a format and its values.
inline py::Owned warning(const Call& call) {
  return py::attribute(call.global(call.names().logger), call.names().warning);
}

}  // namespace tessaly::host
