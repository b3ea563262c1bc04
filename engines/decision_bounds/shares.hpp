// Shares and admission: the give-back-exactly-once `Share`, the held-amount record `_Held` with the
// one admission rule of every bound, and `_wait`, the bounded wait for room. Also the pieces the
// bounds share: the `with` block on an owner's condition, the making of shares, the test for an
// unbounded amount and the raising of the module's errors.
#pragma once

#include "fast.hpp"

namespace decision_bounds {

// Binds `Share`, `_Held` and `_wait` in the module's namespace.
void add_shares(PyObject* module);
// Frees the shares kept for reuse (when the module is cleared).
void clear_share_pool(ModuleState& state);

// `Share(give_back)`, with `Share` as the namespace has it now.
Ref make_share(FunctionObject* fn, PyObject* give_back);

// A `_Held` in machine numbers, for the direct paths of its methods and of its owners: exactly a
// `_Held` of the class as start-up left it, its dict holding its three fields alone, `holders` and
// `unbounded` exact ints and `amount` an exact float. Changes are kept until `store`.
class HeldNumbers {
public:
    HeldNumbers(FunctionObject* fn, PyObject* held) : HeldNumbers(Self(fn, held, Own::_Held)) {}
    explicit HeldNumbers(const Self& held);
    // False when `held` is not such a `_Held`: nothing else may be asked then.
    explicit operator bool() const noexcept { return loaded_; }

    // What `admits`, `take` and `give_back` do, for a share that is unbounded or else `share`.
    bool admits(bool unbounded, double used, double limit) const;
    void take(bool unbounded, double share);
    void give_back(bool unbounded, double share);
    // Writes the fields that changed into the dict.
    void store() const;

private:
    Self self_;
    bool loaded_ = false;
    long long holders_ = 0;
    double amount_ = 0.0;
    long long unbounded_ = 0;
    bool amount_zeroed_ = false;  // set to the constant 0.0, as the code does once nothing is held
    bool changed_[3] = {};
};

// A share as the direct paths take it: whether it is unbounded (`math.isinf`, the standard one),
// and else its amount, exactly a float. False when that cannot be known without calling code.
bool share_amount(FunctionObject* fn, PyObject* share, bool* unbounded, double* amount);

// `_Held.admits`, `take` and `give_back` as the bodies of the methods.
Ref held_admits(Self& self, PyObject* share, PyObject* used, PyObject* limit);
Ref held_take(Self& self, PyObject* share);
Ref held_give_back(Self& self, PyObject* share);

// `held.admits(share, used, limit)` (as an `if` takes it), `held.take(share)` and
// `held.give_back(share)` for the owners: at once on a standard `_Held` (which also proves that
// nothing shadows the method), as method calls otherwise.
bool admits(FunctionObject* fn, PyObject* held, PyObject* share, PyObject* used, PyObject* limit);
void take(FunctionObject* fn, PyObject* held, PyObject* share);
void give_back(FunctionObject* fn, PyObject* held, PyObject* share);

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
    // `condition.notify_all()`, inside the block, for a condition read afresh: nothing when it is
    // still the one held and the notification would wake nobody (fast.hpp).
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

// `math.isinf(value)`, with `math` looked up in the namespace. When that runs code of the caller's,
// `self` is refreshed after it.
bool is_unbounded(FunctionObject* fn, PyObject* value, Self& self);

}  // namespace decision_bounds
