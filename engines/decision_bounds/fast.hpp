// Shortcuts through the objects that the hot paths use, taken only when an object is exactly what
// start-up found: one of the module's own classes unchanged since (its version), the standard
// `threading.Condition` over the C reentrant lock, `math.isinf`, exact ints and floats. Anything
// else gets the ordinary calls that the Python code of the method would make, so the shortcuts
// change how fast a method runs, never what it does.
#pragma once

#include <array>
#include <iterator>
#include <span>
#include <utility>

#include "module.hpp"

namespace decision_bounds {

// Finds the standard objects (at start-up, after the imports are bound).
void init_fast_paths(PyObject* module);
// Notes the module's own classes as they are at the end of start-up, and starts watching the
// namespace.
void remember_own_classes(PyObject* module);
int traverse_fast_paths(ModuleState& state, visitproc visit, void* arg);
void clear_fast_paths(ModuleState& state);

// Whether `cls` is the module's class `which`, unchanged since start-up (any change to a class
// takes its version away, and a later one gives it another).
inline bool is_own_class(const ModuleState& state, PyObject* cls, Own which) {
    const OwnClass& own = state.own[static_cast<int>(which)];
    auto* type = reinterpret_cast<PyTypeObject*>(cls);
    return type == own.type && own.version != 0 && type->tp_version_tag == own.version;
}
inline bool is_own_class(FunctionObject* fn, PyObject* cls, Own which) { return is_own_class(state_of(fn), cls, which); }
// Whether `object` is exactly an instance of the module's class `cls`, unchanged since start-up.
inline bool is_own(FunctionObject* fn, PyObject* object, Own cls) {
    return is_own_class(fn, reinterpret_cast<PyObject*>(Py_TYPE(object)), cls);
}

namespace fields {

// The fields of each of the module's classes, in the order its code stores them in a new instance's
// dict: where a field is usually found, which a read tries first.
inline constexpr Name share[] = {Name::_give_back};
inline constexpr Name held[] = {Name::holders, Name::amount, Name::unbounded};
inline constexpr Name charges[] = {Name::per_byte, Name::per_call};
inline constexpr Name rates[] = {Name::_lock, Name::_cost, Name::_tokens, Name::_features};
inline constexpr Name budget[] = {Name::max_calls, Name::max_tokens, Name::calls,       Name::input_tokens,
                                  Name::cost,      Name::cache_hits, Name::in_flight,   Name::should_stop,
                                  Name::_held_tokens, Name::_changed};
inline constexpr Name daily[] = {Name::_cap,  Name::_today, Name::_ledger, Name::_changed,
                                 Name::_held, Name::_day,   Name::_cost,   Name::_capped};
inline constexpr std::span<const Name> of_class[] = {share, held, charges, rates, budget, daily};
static_assert(std::size(of_class) == static_cast<size_t>(Own::count));

using Places = std::array<std::array<signed char, static_cast<size_t>(Name::count)>, static_cast<size_t>(Own::count)>;

constexpr Places make_places() {
    Places places{};
    for (size_t cls = 0; cls < places.size(); ++cls) {
        places[cls].fill(-1);
        for (size_t i = 0; i < of_class[cls].size(); ++i) {
            places[cls][static_cast<size_t>(of_class[cls][i])] = static_cast<signed char>(i);
        }
    }
    return places;
}

inline constexpr Places places = make_places();

}  // namespace fields

// Where each field of each of the module's classes usually is in an instance's dict (the order its
// code stores them in a new instance), or -1 for a name that is no field of the class.
inline int place_of(Own cls, Name key) {
    return fields::places[static_cast<size_t>(cls)][static_cast<size_t>(key)];
}

// `dict[key]`, borrowed, or null when absent: looked for first at `place` in the dict's order, then
// looked up. Raises what the lookup raises.
PyObject* item_at(PyObject* dict, Py_ssize_t place, PyObject* key);

// `self` in a method of one of the module's classes: `self.<name>` read, written and called as the
// Python body of the method would, and straight in the object's dict while the object is exactly
// of that class and the class is as start-up left it, since then no descriptor, override or
// `__getattr__` can stand in between. Otherwise through the ordinary attribute calls.
//
// The caller's code can change the object's class or replace its dict: `refresh()` after each call
// out. `call` refreshes after the method it calls.
class Self {
public:
    Self(FunctionObject* fn, PyObject* object, Own cls) : fn_(fn), object_(object), cls_(cls) { reload(); }

    PyObject* object() const noexcept { return object_; }
    // Whether the shortcuts apply (the object is exactly of its class, unchanged, with its dict).
    bool standard() const noexcept { return static_cast<bool>(dict_); }
    void refresh() {
        // Still of its class, unchanged, with the same dict in its slot: nothing to do.
        if (!(dict_ && *slot_ == dict_.get() && is_own(fn_, object_, cls_))) {
            reload();
        }
    }

    // For the direct paths, which run only while `standard()`: the value of a field, borrowed from
    // the dict (read where the class's code stores it), or null when the dict has none; whether
    // the dict has an entry that shadows one of the class's methods; how many entries it has.
    PyObject* field(Name key) const { return item_at(dict_.get(), place_of(cls_, key), name(fn_, key)); }
    bool shadows(Name method) const;
    Py_ssize_t size() const { return PyDict_GET_SIZE(dict_.get()); }
    void store(Name key, PyObject* value) const { check(PyDict_SetItem(dict_.get(), name(fn_, key), value)); }

    Ref get(Name key) const;
    void set(Name key, PyObject* value) const;
    // `self.<field> += step`: read, added and stored as the augmented assignment does it.
    void add_to(Name field, PyObject* step);
    // `self.<field> = max(floor, self.<field> - step)`
    void take_from(Name field, PyObject* step, PyObject* floor);

    // `self.<method>(args...)`, where `body` is what the class defines for it: run directly, on this
    // very view, unless the instance's own dict has something of that name. `body` is called as
    // `body(self, args...)`.
    template <typename Body, typename... Args>
    Ref call(Name method, Body&& body, Args... args) {
        Ref result = dict_ && !shadows(method) ? body(*this, args...) : call_method(object_, name(fn_, method), args...);
        refresh();
        return result;
    }

    FunctionObject* fn() const noexcept { return fn_; }

private:
    void reload();

    FunctionObject* fn_;
    PyObject* object_;
    Own cls_;
    PyObject** slot_ = nullptr;  // where the object keeps its dict
    Ref dict_;  // the object's dict while the shortcuts apply; kept alive, whatever replaces it
};

// The body (function.hpp) of a method of the class `cls` from its implementation on a `Self`,
// `impl(self, args...)`: so that a method that calls another of its object's methods runs that one
// on its own view.
template <typename Impl>
struct Arity;
template <typename... Args>
struct Arity<Ref (*)(Self&, Args...)> {
    static constexpr size_t value = sizeof...(Args);
};

template <Own cls, auto impl>
Ref method(FunctionObject* fn, PyObject* const* args) {
    Self self(fn, args[0], cls);
    return [&]<size_t... I>(std::index_sequence<I...>) {
        return impl(self, args[I + 1]...);
    }(std::make_index_sequence<Arity<decltype(impl)>::value>());
}

// The ints 0 and 1, as the constants of the code would be.
inline PyObject* zero_int(FunctionObject* fn) { return state_of(fn).fast.zero_int; }
inline PyObject* one(FunctionObject* fn) { return state_of(fn).fast.one; }

// Whether calling `callable` with no arguments is calling the module's `never`: False, no effect.
bool is_never(FunctionObject* fn, PyObject* callable);

// Whether the namespace's `math.isinf`, `Share` and `functools.partial` are the standard ones
// (the last two: the module's own class, the standard class).
bool standard_isinf(FunctionObject* fn);
bool standard_share(FunctionObject* fn);
bool standard_partial(FunctionObject* fn);

// The lock that a `with` block on `object` takes, and how to take it directly: `object` itself when
// it is exactly a standard `threading.Lock()`; the lock inside it when it is exactly a standard
// `threading.Condition`, its class unchanged since start-up, over the standard reentrant lock. Null
// otherwise: the caller then uses the object's own `__enter__` and `__exit__`.
struct DirectLock {
    PyObject* lock = nullptr;  // owned when set
    PyCFunctionWithKeywords acquire = nullptr;
    PyCFunction release = nullptr;
    const FastPaths* fast = nullptr;

    DirectLock() = default;
    DirectLock(const DirectLock&) = delete;
    DirectLock& operator=(const DirectLock&) = delete;
    ~DirectLock() { Py_XDECREF(lock); }

    explicit operator bool() const noexcept { return lock != nullptr; }
};

// Fills `direct` when the shortcut applies; may raise only what reading `_lock` raises.
void find_direct_lock(FunctionObject* fn, PyObject* object, DirectLock& direct);
// `lock.acquire()` / `lock.release()` of the standard lock, by its C functions. Acquiring waits
// with the interpreter lock released, as the method does.
void acquire_direct(const DirectLock& direct);
// Returns null with the error set on failure (so that it can run while an error is being carried).
PyObject* release_direct(const DirectLock& direct) noexcept;
// Whether `condition.notify_all()` would do nothing: its class is the standard one, unchanged, its
// `notify_all` and `notify` are not shadowed on the instance, its `_is_owned` says that this thread
// holds the lock, and its `_waiters` is empty. False when in doubt: the caller then calls the method.
bool nobody_waits(FunctionObject* fn, const DirectLock& direct, PyObject* condition);

// Whether `value` is an exact float or int and the namespace's `math.isinf` is the standard one,
// in which case `*result` is what `math.isinf(value)` returns.
bool isinf_directly(FunctionObject* fn, PyObject* value, bool* result);

// Arithmetic and comparisons of amounts and counters, in machine numbers when both sides are exact
// ints within 64 bits, exact floats, or one of each with the int exactly a float (up to 2**53):
// there the results are the ones the number types give. Anything else goes to the number calls.
Ref add(PyObject* a, PyObject* b);          // `a + b`; for numbers also what `a += b` gives
Ref add_in_place(PyObject* a, PyObject* b);  // `a += b`
Ref subtract(PyObject* a, PyObject* b);     // `a - b`
Ref multiply(PyObject* a, PyObject* b);     // `a * b`
Ref divide(PyObject* a, PyObject* b);       // `a / b`
Ref compared(PyObject* a, PyObject* b, int op);  // `a <op> b`, the result object
bool holds(PyObject* a, PyObject* b, int op);    // `bool(a <op> b)` as an `if` takes it
// `value` in machine numbers, when it is an exact int within 64 bits.
bool exact_int(PyObject* value, long long* out);
// `value` as a float, when it is exactly one: an exact float, or an exact int up to 2**53.
bool exact_float(PyObject* value, double* out);
// `a + b` for exact numbers as above, or null (nothing raised) for anything else.
Ref exact_sum(PyObject* a, PyObject* b);
// `object.<key>` when reading it runs no code: the class has the generic attribute access and no
// descriptor of that name (a property, say). Null, with nothing raised, otherwise or when missing.
Ref plain_attribute(FunctionObject* fn, PyObject* object, Name key);
// `max(kept, candidate)` as the built-in picks it: the candidate only when strictly greater.
Ref larger(PyObject* kept, PyObject* candidate);
// `bool(value)`
bool is_true(PyObject* value);

}  // namespace decision_bounds
