#pragma once

#include <cstddef>  // says which C++ library this is
#include <unistd.h>

#ifdef __GLIBCXX__
#include <cxxabi.h>
#endif

namespace tessaly::py {

/// Runs a call into the interpreter that may run Python code or wait for the interpreter's lock.
///
/// Once the interpreter has begun to end, CPython 3.13 answers a thread that wants the lock by
/// unwinding its stack (pthread_exit), as an exception that may not be stopped: destructors would
/// then drop references without the lock. Later versions keep such a thread waiting until the
/// process is gone; that is done here. It costs nothing until it happens.
template <typename Function>
auto in_interpreter(Function&& function) {
#ifdef __GLIBCXX__
  try {
    return function();
  } catch (abi::__forced_unwind&) {
    for (;;) pause();
  }
#else
  return function();
#endif
}

}  // namespace tessaly::py
