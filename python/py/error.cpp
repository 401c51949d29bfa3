#include "py/error.h"

#include <exception>
#include <new>

namespace tessaly::py {

ErrorSet set_error_from_caught() noexcept {
  try {
    throw;
  } catch (const ErrorSet& error) {
    // A C function that answers null without an error: the interpreter would say the same.
    if (!PyErr_Occurred()) PyErr_SetString(PyExc_SystemError, "error return without exception set");
    return error;
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& error) {
    PyErr_Format(PyExc_SystemError, "native code failed: %s", error.what());
  } catch (...) {
    PyErr_SetString(PyExc_SystemError, "native code failed");
  }
  return {};
}

}  // namespace tessaly::py
