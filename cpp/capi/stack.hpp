#pragma once

namespace quorvane::capi {

// Whether so little of this thread's stack is left that a further call should be refused. Up to
// Python 3.13 the interpreter counts calls and does not ask for their room, and allows more of them
// than a thread with a small stack can hold.
bool stack_is_short() noexcept;

}  // namespace quorvane::capi
