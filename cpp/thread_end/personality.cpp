// A thread that is ended in the middle of our frames leaves them as they are.
//
// Up to Python 3.13 a daemon thread that asks for the interpreter's lock once the interpreter has
// begun to exit is ended by pthread_exit, which unwinds the stack by force. C frames have nothing
// to say to that, and ours must not either: their destructors would give up references without the
// lock, in an interpreter that is being taken apart, and what is noexcept or catches everything
// would abort the process. So to such an unwinding every frame says that it has no cleanups. What
// the frames own is lost with the thread, as it is with the interpreter's own.
//
// The linker puts these functions in the place of those that the compiler names in every frame
// (--wrap, see cpp/CMakeLists.txt), within our own libraries only. C's is named too: GCC's
// link-time optimisation may choose it for a frame that has cleanups and catches nothing.

#include <unwind.h>

namespace {

using Personality = _Unwind_Reason_Code(int version, _Unwind_Action actions,
                                        _Unwind_Exception_Class exception_class,
                                        _Unwind_Exception* exception, _Unwind_Context* context);

// What a frame's own routine says, but to an unwinding by force: nothing.
template <class... Rest>
_Unwind_Reason_Code unless_forced(Personality& routine, int version, _Unwind_Action actions,
                                  Rest... rest) {
    if ((actions & _UA_FORCE_UNWIND) != 0) return _URC_CONTINUE_UNWIND;
    return routine(version, actions, rest...);
}

}  // namespace

extern "C" {

// The linker makes these names of the compiler's own.
// NOLINTBEGIN(bugprone-reserved-identifier)

Personality __real___gxx_personality_v0;
Personality __real___gcc_personality_v0;

[[gnu::visibility("hidden")]] _Unwind_Reason_Code __wrap___gxx_personality_v0(
    int version, _Unwind_Action actions, _Unwind_Exception_Class exception_class,
    _Unwind_Exception* exception, _Unwind_Context* context) {
    return unless_forced(__real___gxx_personality_v0, version, actions, exception_class, exception,
                         context);
}

[[gnu::visibility("hidden")]] _Unwind_Reason_Code __wrap___gcc_personality_v0(
    int version, _Unwind_Action actions, _Unwind_Exception_Class exception_class,
    _Unwind_Exception* exception, _Unwind_Context* context) {
    return unless_forced(__real___gcc_personality_v0, version, actions, exception_class, exception,
                         context);
}

// NOLINTEND(bugprone-reserved-identifier)
}
