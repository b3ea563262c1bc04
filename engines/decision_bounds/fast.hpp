// Shortcuts through the standard objects that the hot paths use, taken only when the object is
// exactly the standard one, unchanged since start-up; any other object gets the plain calls.
//
// What is known at start-up is kept in the module state (`FastPaths`): the standard
// `threading.Condition` class with the version its class had (any change to the class gives it
// another), the C functions of the reentrant lock it makes by default, and the `math` module with
// its `isinf`.
#pragma once

#include "module.hpp"

namespace decision_bounds {

// Finds the standard objects (at start-up, after the imports are bound).
void init_fast_paths(PyObject* module);
int traverse_fast_paths(FastPaths& fast, visitproc visit, void* arg);
void clear_fast_paths(FastPaths& fast);

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

// `object.<key>` and `object.<key> = value` for a plain instance attribute: straight in the
// object's dict when its class adds nothing between (the generic attribute access, and no data
// descriptor of that name), through the usual attribute calls otherwise.
// What was found about a class (by its version) is remembered per name in the module state.
Ref get_field(FunctionObject* fn, PyObject* object, Name key);
void set_field(FunctionObject* fn, PyObject* object, Name key, PyObject* value);

// The module's own function that `object.<key>(...)` would call as a method: the class's, when the
// instance has no attribute of that name (its dict is made if it has none yet, so this serves
// long-lived objects). Null otherwise.
PyObject* own_method(FunctionObject* fn, PyObject* object, Name key);

// `object.<key>(args...)`, running the module's own method directly when that is what it calls.
template <typename... Args>
Ref call_method_of(FunctionObject* fn, PyObject* object, Name key, Args... args) {
    if (PyObject* method = own_method(fn, object, key)) {
        PyObject* argv[] = {object, args...};
        return call_function(method, argv, static_cast<Py_ssize_t>(1 + sizeof...(Args)));
    }
    return call_method(object, name(fn, key), args...);
}

// Whether `value` is an exact float or int and the namespace's `math.isinf` is the standard one,
// in which case `*result` is what `math.isinf(value)` returns.
bool isinf_directly(FunctionObject* fn, PyObject* value, bool* result);

}  // namespace decision_bounds
