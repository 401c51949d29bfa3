#pragma once

#include <Python.h>

#include <source_location>

namespace tessaly::py {

/// A place in the source. As a default argument, `Where::current()` is the place of the call.
#ifdef __cpp_lib_source_location
using Where = std::source_location;
#else
/// For tools that read this without knowing the standard's.
class Where {
 public:
  static constexpr Where current(const char* file = __builtin_FILE(),
                                 unsigned line = __builtin_LINE()) noexcept {
    return {file, line};
  }
  [[nodiscard]] constexpr const char* file_name() const noexcept { return file_; }
  [[nodiscard]] constexpr unsigned line() const noexcept { return line_; }

 private:
  constexpr Where(const char* file, unsigned line) noexcept : file_(file), line_(line) {}
  const char* file_;
  unsigned line_;
};
#endif

/// Thrown when a Python error is set in the current thread, and only then. It carries no more than
/// the place of the call that failed, for the traceback; the error itself stays where Python keeps
/// it, so that nothing on the way can change it.
struct ErrorSet {
  Where where;
  bool traced = false;  // the traceback names the place already
};

[[noreturn]] inline void throw_error_set(Where where = Where::current()) { throw ErrorSet{where}; }

/// The funnel for C API calls that answer -1 with an error set.
inline int checked(int status, Where where = Where::current()) {
  if (status < 0) [[unlikely]]
    throw ErrorSet{where};
  return status;
}

inline Py_ssize_t checked_size(Py_ssize_t size, Where where = Where::current()) {
  if (size < 0) [[unlikely]]
    throw ErrorSet{where};
  return size;
}

/// A printf-style text (with the conversions of PyErr_Format) and the place that raises it.
struct Message {
  Message(const char* text, Where at = Where::current()) : format(text), where(at) {}
  const char* format;
  Where where;
};

/// Sets an error of `type` with that text and throws.
template <typename... Arguments>
[[noreturn]] void raise(PyObject* type, Message message, Arguments... arguments) {
  PyErr_Format(type, message.format, arguments...);
  throw_error_set(message.where);
}

/// Called inside a catch block: leaves a Python error set whatever was caught, and answers what is
/// known of its place. Memory exhaustion becomes MemoryError; any other C++ exception is a fault of
/// this module and becomes SystemError with its text.
[[nodiscard]] ErrorSet set_error_from_caught() noexcept;

}  // namespace tessaly::py
