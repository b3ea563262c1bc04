// Daily spend: the account of the daily USD cost cap, its day rollover from the caller's ledger,
// admission and settlement.
#pragma once

#include "module.hpp"

namespace decision_bounds {

// Binds `DailySpend` in the module's namespace.
void add_daily_spend(PyObject* module);

}  // namespace decision_bounds
