// The `with` statement on the owners' conditions and locks, and their notifications.
//
// A `with` block runs as the statement does: `__enter__` and `__exit__` are looked up on the type of
// the manager (not on the instance) and bound, `__enter__` is called, then the body, then
// `__exit__` with the exception that ended the body (or three Nones); a true result of `__exit__`
// suppresses that exception, and the statement then ends as if its body had run to the end.
//
// For the standard `threading.Condition` over its default reentrant lock (its class unchanged since
// start-up) and for the standard `threading.Lock`, whose `__enter__` and `__exit__` only take and
// release a C lock and never suppress, the block takes and releases that lock by its C functions
// (or, when the lock is free, by its fields, as those functions would).
#pragma once


#include "numbers.hpp"
#include "state.hpp"

namespace decision_bounds {

// A manager that a `with` statement has entered, until it exits.
class Entered {
public:
    Entered(FunctionObject* fn, const Value& manager);
    Entered(const Entered&) = delete;
    Entered& operator=(const Entered&) = delete;
    // Left by an unwind that ends the thread at exit: the lock stays held, as a Python frame
    // ended that way leaves it.
    ~Entered() noexcept(false);

    // `__exit__(None, None, None)`: the body ran to its end or returned.
    void exit();
    // `__exit__(type, value, traceback)` for the exception being raised: whether it suppressed
    // it (then no exception is set). Otherwise the exception is set again, or the one `__exit__`
    // raised, with the first as its context.
    bool exit_with_error();

private:
    bool release_directly();

    FunctionObject* fn_;
    Ref manager_;
    Ref exit_;                  // the bound `__exit__`, unless the lock is taken directly
    Ref lock_;                  // the C lock taken directly, or null
    PyCFunction release_ = nullptr;
    bool (*give_)(PyObject*) = nullptr;  // its release without a call, when the module knows the lock's layout
    bool entered_ = false;
};

// `with manager: <body>`. The body gives what the code inside the block returns, or an unset value
// when it runs to the end; so does the statement, and an unset value also when `__exit__`
// suppressed the body's exception.
template <typename Body>
Value with(FunctionObject* fn, const Value& manager, Body&& body) {
    Entered entered(fn, manager);
    Value result;
    try {
        result = body();
    } catch (const PythonError&) {
        if (entered.exit_with_error()) {
            return Value();
        }
        throw;
    } catch (const std::exception& error) {
        set_error_from(error);
        if (entered.exit_with_error()) {
            return Value();
        }
        throw PythonError{};
    }
    entered.exit();
    return result;
}

// The value of a body that returns inside `with`, or None when the statement ended without a
// `return` (the body ran to its end, or `__exit__` suppressed its exception).
inline Value returned(const Value& result) { return result ? result : Value::other(none()); }

// `condition.notify_all()`, skipped when it would do nothing: the condition is a standard one whose
// lock this thread holds and on which nobody waits, with nothing in its own dict standing for
// `notify_all` or `notify`.
void notify_all(FunctionObject* fn, const Value& condition);

// Finds the standard condition, locks and deque (at start-up).
void find_standard_locks(PyObject* module);

}  // namespace decision_bounds
