#define QUORVANE_DEFINES_NUMPY_API
#include "capi/numpy.hpp"

#include "capi/error.hpp"

namespace quorvane::capi {

void import_numpy() {
    if (_import_array() < 0) throw PythonError();
}

}  // namespace quorvane::capi
