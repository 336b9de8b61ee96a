#pragma once

#include "capi/error.hpp"
#include "capi/stack.hpp"

namespace quorvane::capi {

// Bounds how deep native code is nested in itself, by the interpreter's count and by the room that
// is left: everything that runs Python code, which may come back, holds one while it does.
class RecursionGuard {
public:
    RecursionGuard() {
        if (stack_is_short()) {
            raise(PyExc_RecursionError,
                  "maximum recursion depth exceeded while calling a native function: "
                  "the thread's stack is nearly full");
        }
        // Any non-zero answer is a failure; some interpreters give 1.
        if (Py_EnterRecursiveCall(" while calling a native function") != 0) throw PythonError();
    }
    RecursionGuard(const RecursionGuard&) = delete;
    RecursionGuard& operator=(const RecursionGuard&) = delete;
    ~RecursionGuard() { Py_LeaveRecursiveCall(); }
};

}  // namespace quorvane::capi
