// The run budget of one batch pass: its call slots, its input tokens and its stop.
#pragma once

#include "record.hpp"

namespace decision_bounds {

// Binds `RunBudget` in the module's namespace (after `Share`, `_Held` and `_wait`, which it uses).
void add_run_budget(PyObject* module);

// A try of an admission that must not wait (for callers that wait their own way): `first` for a
// call's first try, which tests the stop before taking the lock as the blocking call does. When the
// calls in flight leave no room, the try makes the tests that precede a wait and sets `wait` to the
// longest the caller should wait before it tries again.
struct Attempt {
    bool first = true;
    Value wait;
};

// `RunBudget.reserve(tokens)`, or one try of it.
Value reserve_loop(Record& self, const Value& tokens, Attempt* attempt);
// The share that `RunBudget.hold` makes of a reservation of `tokens`.
Value share_of_reservation(Record& self, const Value& tokens);

}  // namespace decision_bounds
