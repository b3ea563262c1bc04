// The run budget of one batch pass: its call slots, its input tokens and its stop.
#pragma once

#include "module.hpp"

namespace decision_bounds {

// Binds `RunBudget` in the module's namespace (after `Share`, `_Held` and `_wait`, which it uses).
void add_run_budget(PyObject* module);

}  // namespace decision_bounds
