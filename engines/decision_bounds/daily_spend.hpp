// Daily spend: the account of the daily USD cost cap, its day rollover from the caller's ledger,
// admission and settlement.
#pragma once

#include "run_budget.hpp"

namespace decision_bounds {

// Binds `DailySpend` in the module's namespace.
void add_daily_spend(PyObject* module);

// `DailySpend.admit(bound, deadline=..., clock=..., stopping=...)`, or one try of it (run_budget.hpp):
// the share, or None when a try finds no room.
Value admit_loop(Record& self, const Value& bound, const Value& deadline, const Value& clock, const Value& stopping,
                 Attempt* attempt);

}  // namespace decision_bounds
