// Request rates: what a request may cost (USD) and use (input tokens) before its reply says, learnt
// from the paid replies.
#pragma once

#include "startup.hpp"

namespace decision_bounds {

// Binds `_Charges`, then `RequestRates`, in the module's namespace.
void add_request_rates(PyObject* module);

}  // namespace decision_bounds
