// The module's state: the names its code looks up, its own classes as start-up left them, the
// standard objects that its shortcuts recognise, what it remembers of its namespace, and the shares
// it keeps for reuse. Every object the module makes reaches this through its module object; nothing
// is kept process-wide.
#pragma once

#include <cstddef>
#include <iterator>
#include <span>

#include "function.hpp"
#include "numbers.hpp"

namespace decision_bounds {

// Every name that the module's code looks up at run time (in the namespace, on objects, or as a
// method), made into an interned string once per module.
#define DECISION_BOUNDS_NAMES(X)                                                                         \
    X(__name__) X(__file__) X(__builtins__) X(__enter__) X(__exit__) X(_POLL_S) X(logger) X(math)        \
    X(isinf) X(inf) X(Lock) X(Condition) X(_lock) X(_cost) X(_tokens) X(_features) X(per_byte)           \
    X(per_call) X(bound) X(learn) X(add) X(cost) X(input_tokens) X(_cap) X(_today) X(_ledger) X(_changed) \
    X(_held) X(_day) X(_capped) X(_today_locked) X(_spent_since) X(warning) X(exc_info) X(admits) X(take) \
    X(give_back) X(deadline) X(clock) X(threading) X(functools) X(partial) X(DecisionBudgetExceeded)      \
    X(DecisionTimeout) X(DecisionStopped) X(Share) X(_Held) X(_wait) X(_Charges) X(_give_back) X(settle)  \
    X(wait) X(notify_all) X(notify) X(holders) X(amount) X(unbounded) X(replace) X(co_argcount)           \
    X(co_kwonlyargcount) X(co_varnames) X(co_nlocals) X(co_flags) X(co_qualname) X(co_filename)          \
    X(_waiters) X(_is_owned) X(should_stop) X(_held_tokens) X(calls) X(cache_hits) X(in_flight)           \
    X(max_calls) X(max_tokens) X(cost_usd) X(stopping) X(_exhausted_locked) X(_summary_locked) X(reserve) \
    X(release) X(charge) X(cached) X(round) X(max) X(min) X(format) X(set) X(Exception)

// Names that are C++ keywords, spelt here with a trailing underscore.
#define DECISION_BOUNDS_KEYWORD_NAMES(Y) Y(bool_, "bool") Y(float_, "float")

enum class Name : int {
#define DECISION_BOUNDS_ENUM(n) n,
#define DECISION_BOUNDS_KEYWORD_ENUM(n, spelt) n,
    DECISION_BOUNDS_NAMES(DECISION_BOUNDS_ENUM) DECISION_BOUNDS_KEYWORD_NAMES(DECISION_BOUNDS_KEYWORD_ENUM)
#undef DECISION_BOUNDS_KEYWORD_ENUM
#undef DECISION_BOUNDS_ENUM
        count
};

// The module's own classes.
enum class Own : int { Share, _Held, _Charges, RequestRates, RunBudget, DailySpend, count };

// One of the module's classes as start-up left it: while the class keeps this version, nothing on
// it has changed (no method replaced, no descriptor added).
struct OwnClass {
    PyTypeObject* type;
    unsigned int version;  // 0: no version could be given, so never taken as unchanged
    // Its instances' shared keys when last counted, compared, never followed (record.cpp): how
    // many there were, and how many of the first of them are the class's fields in their order.
    const void* keys;
    Py_ssize_t keys_seen;
    int slotted;
};

// What the code of the module reads through its namespace and finds standard: the builtins and
// the attributes of standard modules that it uses, and its own `Share`.
enum class Fact : int { max, min, bool_, float_, round, format, set, Exception, math_isinf, math_inf, Share, partial, count };

// The standard objects that the shortcuts recognise; null where one is not found.
struct Standard {
    PyTypeObject* condition_type;    // `threading.Condition`, and the version of its class last seen
    unsigned int condition_version;  // standard: any change to the class gives it another
    PyObject* condition_methods[4];  // its `__enter__`, `__exit__`, `notify_all` and `notify`
    PyTypeObject* deque_type;        // its `_waiters`
    PyTypeObject* rlock_type;        // the reentrant lock it makes by default
    PyCFunctionWithKeywords rlock_acquire;
    PyCFunction rlock_release;
    PyCFunction rlock_is_owned;
    bool rlock_laid_out;  // its fields are where `cpython::RLockObject` says
    PyTypeObject* lock_type;  // `threading.Lock()`'s class, the plain lock
    PyCFunctionWithKeywords lock_acquire;
    PyCFunction lock_release;
    bool lock_laid_out;  // its fields are where `cpython::LockObject` says
    bool values_laid_out;  // instances keep inline values where `cpython.hpp` says
    PyObject* math_module;  // `math` and its `isinf` and `inf`
    PyObject* math_isinf;
    PyObject* math_inf;
    PyObject* functools_module;  // `functools` and its `partial`
    PyObject* partial_type;
    PyObject* builtins;                                   // the module's builtins (a dict)
    PyObject* builtin[static_cast<int>(Fact::Exception) + 1];  // `max` ... `Exception` as start-up found them
    PyObject* empty_tuple;
    PyObject* zero;        // the float 0.0, shared as a constant of the code would be
    PyObject* empty_text;  // ""
};

// What the code found standard in its namespace since the last change to it (names.cpp watches the
// namespace, the builtins and the modules it reads, and forgets everything on any change).
struct Facts {
    bool watched;  // changes are reported; otherwise nothing is remembered
    bool known[static_cast<int>(Fact::count)];
};

// Shares kept for reuse, each with its class and its inline values (shares.cpp).
struct SharePool {
    static constexpr int capacity = 32;
    PyObject* free[capacity];
    int count;
};

// What the module's records read of one of its objects' dicts (record.hpp), kept while the dict is
// unchanged: a dict and its version name one state of one dict, never another (a version is never
// given twice, even to a dict made where a freed one was), so nothing here is a reference.
struct KnownDict {
    static constexpr int most_fields = 10;
    enum class Keys : unsigned char { unknown, fields_only, others };

    PyObject* dict;              // compared, never followed
    unsigned long long version;  // the dict's version when read
    Own cls;
    Keys keys;                      // whether the dict holds the class's fields and nothing else
    unsigned short read;            // which fields have been read (a bit each)
    PyObject* fields[most_fields];  // each field read: its value as the dict holds it, or null: none
    Number numbers[most_fields];    // and that value as a number
};

struct ModuleState {
    PyTypeObject* function_type;
    PyObject* never;     // the module's `never` as start-up made it
    PyObject* names[static_cast<int>(Name::count)];
    PyObject* filename;  // the module's file when it started: what its functions' code says
    OwnClass own[static_cast<int>(Own::count)];
    Standard standard;
    Facts facts;
    SharePool shares;
    // Per class, a few sets of two: the dicts of two objects used together (a budget and its
    // `_Held`) never take each other's place, and two of one class rarely do.
    struct KnownSet {
        KnownDict ways[2];
        unsigned char recent;  // the way used last
    };
    static constexpr int known_sets = 4;
    KnownSet known[static_cast<int>(Own::count)][known_sets];
};

ModuleState& state_of(PyObject* module);
// The module's definition: what tells its module objects from others.
PyModuleDef& module_definition();

// The state's life: its names interned at start-up; its references shown to the garbage collector
// and let go of when the module is cleared; its names let go of when the module is freed.
void intern_names(ModuleState& state);
int traverse_state(ModuleState& state, visitproc visit, void* arg);
void clear_state(ModuleState& state);
void free_names(ModuleState& state);

inline PyObject* name(const ModuleState& state, Name n) { return state.names[static_cast<int>(n)]; }
inline PyObject* name(PyObject* module, Name n) { return name(state_of(module), n); }
inline ModuleState& state_of(const FunctionObject* fn) { return *fn->state; }
inline PyObject* name(const FunctionObject* fn, Name n) { return name(*fn->state, n); }

// Whether calling `callable` with no arguments is calling the module's `never`: False, no effect.
inline bool is_never(const FunctionObject* fn, PyObject* callable) {
    return callable == fn->state->never && callable != nullptr;
}

// Whether `cls` is the module's class `which`, unchanged since start-up (any change to a class takes
// its version away, and a later one gives it another).
inline bool is_own_class(const ModuleState& state, PyTypeObject* type, Own which) {
    const OwnClass& own = state.own[static_cast<int>(which)];
    return type == own.type && own.version != 0 && type->tp_version_tag == own.version;
}
// Whether `object` is exactly an instance of the module's class `cls`, unchanged since start-up.
inline bool is_own(const ModuleState& state, PyObject* object, Own cls) {
    return is_own_class(state, Py_TYPE(object), cls);
}

namespace fields {

// The fields of each of the module's classes, in the order its code stores them in a new instance's
// dict: where a field is usually found, which a read tries first.
inline constexpr Name share[] = {Name::_give_back};
inline constexpr Name held[] = {Name::holders, Name::amount, Name::unbounded};
inline constexpr Name charges[] = {Name::per_byte, Name::per_call};
inline constexpr Name rates[] = {Name::_lock, Name::_cost, Name::_tokens, Name::_features};
inline constexpr Name budget[] = {Name::max_calls, Name::max_tokens, Name::calls,        Name::input_tokens,
                                  Name::cost,      Name::cache_hits, Name::in_flight,    Name::should_stop,
                                  Name::_held_tokens, Name::_changed};
inline constexpr Name daily[] = {Name::_cap,  Name::_today, Name::_ledger, Name::_changed,
                                 Name::_held, Name::_day,   Name::_cost,   Name::_capped};
inline constexpr std::span<const Name> of_class[] = {share, held, charges, rates, budget, daily};
static_assert(std::size(of_class) == static_cast<size_t>(Own::count));

struct Places {
    signed char of[static_cast<size_t>(Own::count)][static_cast<size_t>(Name::count)];
};

constexpr Places make_places() {
    Places places{};
    for (size_t cls = 0; cls < static_cast<size_t>(Own::count); ++cls) {
        for (size_t key = 0; key < static_cast<size_t>(Name::count); ++key) {
            places.of[cls][key] = -1;
        }
        for (size_t i = 0; i < of_class[cls].size(); ++i) {
            places.of[cls][static_cast<size_t>(of_class[cls][i])] = static_cast<signed char>(i);
        }
    }
    return places;
}

inline constexpr Places places = make_places();

}  // namespace fields

// Where each field of each of the module's classes usually is in an instance's dict, or -1 for a
// name that is no field of the class.
inline int place_of(Own cls, Name key) { return fields::places.of[static_cast<size_t>(cls)][static_cast<size_t>(key)]; }
// How many fields the class's instances have.
inline Py_ssize_t field_count(Own cls) {
    return static_cast<Py_ssize_t>(fields::of_class[static_cast<size_t>(cls)].size());
}

}  // namespace decision_bounds
