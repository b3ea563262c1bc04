// Shares and admission: the give-back-exactly-once `Share`, the held-amount record `_Held` with the
// one admission rule of every bound, and `_wait`, the bounded wait for room. Also the pieces the
// bounds share: the `with` block on an owner's condition and the raising of the module's errors.
#pragma once

#include "fast.hpp"

namespace decision_bounds {

// Binds `Share`, `_Held` and `_wait` in the module's namespace.
void add_shares(PyObject* module);

// A `with condition:` block. `leave()` ends it normally (what `__exit__` raises then passes out);
// if the block is left by an exception instead, `__exit__` gets that exception, as the `with`
// statement gives it, and an exception from `__exit__` itself is chained to it.
//
// For a standard `threading.Condition` over its default lock, whose `__enter__` and `__exit__` only
// take and release that lock, the block takes and releases the lock itself (fast.hpp).
class Holding {
public:
    Holding(FunctionObject* fn, PyObject* condition);
    Holding(const Holding&) = delete;
    Holding& operator=(const Holding&) = delete;
    ~Holding();

    void leave();
    // `condition.notify_all()`, inside the block; nothing when it would wake nobody (fast.hpp). Given
    // a condition read afresh, the shortcut is taken only when it is still the one held.
    void notify_all();
    void notify_all(PyObject* condition);

private:
    FunctionObject* fn_;
    Ref condition_;
    DirectLock direct_;
    bool held_ = false;
};

// The result of `body()` computed inside `with condition:`.
template <typename Body>
Ref holding(FunctionObject* fn, PyObject* condition, Body&& body) {
    Holding held(fn, condition);
    Ref result = body();
    held.leave();
    return result;
}

// Raises the module's exception class `cls`, looked up in the namespace, with one message.
[[noreturn]] void raise_error(FunctionObject* fn, Name cls, const Ref& message);
[[noreturn]] inline void raise_error(FunctionObject* fn, Name cls, const char* message) {
    raise_error(fn, cls, text(message));
}

// `math.isinf(value)`, with `math` looked up in the namespace.
bool is_unbounded(FunctionObject* fn, PyObject* value);

}  // namespace decision_bounds
