// The module object: its state, the names its code looks up, and the helpers that build its
// namespace at start-up.
#pragma once

#include <initializer_list>
#include <utility>

#include "function.hpp"

namespace decision_bounds {

// Every name that the module's code looks up at run time (in the namespace, on objects, or as a
// method), made into an interned string once per module.
#define DECISION_BOUNDS_NAMES(X)                                                                     \
    X(__name__) X(__file__) X(__enter__) X(__exit__) X(_POLL_S) X(logger) X(math) X(isinf) X(inf)    \
    X(Lock) X(Condition) X(_lock) X(_cost) X(_tokens) X(_features) X(per_byte) X(per_call) X(bound)  \
    X(learn) X(add) X(cost) X(input_tokens) X(_cap) X(_today) X(_ledger) X(_changed) X(_held)        \
    X(_day) X(_capped) X(_today_locked) X(_spent_since) X(warning) X(exc_info) X(admits) X(take)     \
    X(give_back) X(deadline) X(clock) X(threading) X(functools) X(partial) X(DecisionBudgetExceeded) \
    X(DecisionTimeout) X(DecisionStopped) X(Share) X(_Held) X(_wait) X(_Charges) X(_give_back)       \
    X(settle) X(wait) X(notify_all) X(holders) X(amount) X(unbounded) X(replace) X(co_argcount)      \
    X(co_kwonlyargcount) X(co_varnames) X(co_nlocals) X(co_flags) X(co_qualname) X(_waiters)         \
    X(_is_owned) X(notify) X(__init__) X(should_stop) X(_held_tokens) X(calls) X(cache_hits)         \
    X(in_flight) X(max_calls) X(max_tokens) X(cost_usd) X(stopping) X(_exhausted_locked)             \
    X(_summary_locked) X(reserve) X(release) X(charge) X(cached) X(round)

enum class Name : int {
#define DECISION_BOUNDS_ENUM(n) n,
    DECISION_BOUNDS_NAMES(DECISION_BOUNDS_ENUM)
#undef DECISION_BOUNDS_ENUM
        count
};

// The module's own classes, which the shortcuts of fast.hpp recognise.
enum class Own : int { Share, _Held, _Charges, RequestRates, RunBudget, DailySpend, count };

// One of the module's classes as start-up left it: while the class keeps this version, nothing on
// it has changed (no method replaced, no descriptor added).
struct OwnClass {
    PyTypeObject* type;
    unsigned int version;  // 0: no version could be given, so never taken as unchanged
};

// A few `Share` objects kept for reuse, each with its attribute dict (shares.cpp).
struct SharePool {
    static constexpr int capacity = 32;
    PyObject* free[capacity];
    int count;
};

// The standard objects that the shortcuts of fast.hpp recognise; null where one is not found.
struct FastPaths {
    PyTypeObject* condition_type;    // `threading.Condition`, and the version of its class last seen
    unsigned int condition_version;  // standard: any change to the class gives it another
    PyObject* condition_methods[4];  // its `__enter__`, `__exit__`, `notify_all` and `notify`
    PyTypeObject* deque_type;        // its `_waiters`
    PyTypeObject* rlock_type;        // the reentrant lock it makes by default
    PyCFunctionWithKeywords rlock_acquire;
    PyCFunction rlock_release;
    PyCFunction rlock_is_owned;
    PyTypeObject* lock_type;         // `threading.Lock()`'s class, the plain lock
    PyCFunctionWithKeywords lock_acquire;
    PyCFunction lock_release;
    PyObject* math_module;           // `math` and its `isinf`
    PyObject* math_isinf;
    PyObject* functools_module;      // `functools` and its `partial`
    PyObject* partial_type;
    PyObject* empty_tuple;
    PyObject* zero;                  // the float 0.0, as a constant of the code would be shared
    PyObject* empty_text;            // ""
    PyObject* zero_int;              // the ints 0 and 1
    PyObject* one;
};

// What the hot paths read of the namespace, found standard after the last change to it (fast.cpp
// watches the module's namespace and those of `math` and `functools`, and forgets these on any).
struct NamespaceFacts {
    bool watched;     // changes are reported; otherwise nothing is remembered
    bool math_isinf;  // `math.isinf` is the standard function
    bool share;       // `Share` is the module's own class
    bool partial;     // `functools.partial` is the standard class
};

struct ModuleState {
    PyTypeObject* function_type;
    PyObject* names[static_cast<int>(Name::count)];
    OwnClass own[static_cast<int>(Own::count)];
    FastPaths fast;
    NamespaceFacts facts;
    SharePool shares;
};

ModuleState& state_of(PyObject* module);

inline PyObject* name(PyObject* module, Name n) { return state_of(module).names[static_cast<int>(n)]; }
inline ModuleState& state_of(FunctionObject* fn) { return *fn->state; }
inline PyObject* name(FunctionObject* fn, Name n) { return fn->state->names[static_cast<int>(n)]; }

// Looks up a module-level name as the code of a Python module would at each use: the module's
// namespace, then the builtins; `NameError` when it is in neither.
Ref global(PyObject* globals, PyObject* key);
inline Ref global(FunctionObject* fn, Name n) { return global(fn->globals, name(fn, n)); }

// Binds `key` in the module's namespace (at start-up).
void bind(PyObject* module, const char* key, const Ref& value);
// Reads a name from the module's namespace (at start-up: it must be there).
Ref lookup(PyObject* module, const char* key);

// Builds a class as its `class` statement would: the namespace in the order the interpreter fills
// it (`__module__`, `__qualname__`, `__annotations__` if any, `__doc__`, then the body), handed to
// the metaclass.
class ClassBuilder {
public:
    using Annotation = std::pair<const char*, const char*>;

    ClassBuilder(PyObject* module, const char* name, const char* doc,
                 std::initializer_list<Annotation> annotations = {});

    void add(const char* key, const Ref& value);
    void add(const FunctionDef& def, PyObject* defaults = nullptr, PyObject* kwdefaults = nullptr);
    // The class made by `metaclass(name, bases, namespace)`; no bases: `()`, no metaclass: `type`.
    Ref build(PyObject* bases = nullptr, PyObject* metaclass = nullptr);

private:
    PyObject* module_;
    const char* name_;
    Ref namespace_;
};

// The class that the namespace's `dataclass` makes of `cls`.
Ref as_dataclass(PyObject* module, const Ref& cls);

}  // namespace decision_bounds
