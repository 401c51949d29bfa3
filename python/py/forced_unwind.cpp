// What happens to a thread of ours that the interpreter ends.

#include <unistd.h>
#include <unwind.h>

// Once the interpreter has begun to end, CPython 3.13 answers a thread that wants its lock by
// ending the thread: the C library unwinds its stack by force, and the destructors on the way would
// drop references without the lock. Later versions keep such a thread waiting until the process is
// gone, and so is it done here. Every frame of C++ is unwound through its language's personality
// routine; the linker puts this one before it (--wrap), in the extension modules only. It costs
// nothing until then.
extern "C" {

// The names are the linker's.
// NOLINTBEGIN(bugprone-reserved-identifier)
_Unwind_Reason_Code __real___gxx_personality_v0(int version, _Unwind_Action actions,
                                                _Unwind_Exception_Class exception_class,
                                                _Unwind_Exception* exception,
                                                _Unwind_Context* context);

[[gnu::used]] _Unwind_Reason_Code __wrap___gxx_personality_v0(
    int version, _Unwind_Action actions, _Unwind_Exception_Class exception_class,
    _Unwind_Exception* exception, _Unwind_Context* context) {
  if ((actions & _UA_FORCE_UNWIND) != 0)
    for (;;) pause();
  return __real___gxx_personality_v0(version, actions, exception_class, exception, context);
}
// NOLINTEND(bugprone-reserved-identifier)
}
