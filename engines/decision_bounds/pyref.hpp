// Owned references, and the one way errors cross C++ code.
//
// A Python error is always set in the interpreter before `PythonError` is thrown; every function
// that Python calls runs its body through `entry`, which turns the error (or any C++ exception)
// into the failure value Python expects.
//
// Nothing here is `noexcept` where it can run Python code (a release can run a finalizer): at exit
// the interpreter ends a daemon thread that asks for the interpreter lock by unwinding it from
// inside that request, and such an unwind must pass through every frame. While it passes, the
// thread holds no lock on the interpreter, so the handles below let go of nothing then (see
// `thread_is_attached`): the thread is ending and the process with it.
#pragma once

#include <cassert>
#include <exception>
#include <new>
#include <utility>

#include "cpython.hpp"

namespace decision_bounds {

// Thrown after a Python exception has been set; carries nothing itself.
struct PythonError {};

[[noreturn, gnu::cold, gnu::noinline]] inline void raise_current() {
    assert(PyErr_Occurred());
    throw PythonError{};
}

// Whether this thread may touch the interpreter's objects: false only once the runtime finalizes on
// another thread, when this one can only be being unwound out of the module. (Only then is the
// thread's own state asked for; it is compared, never read through.)
inline bool thread_is_attached() {
    PyThreadState* finalizing = cpython::finalizing_thread();
    return finalizing == nullptr || finalizing == cpython::current_thread();
}

// An owned (strong) reference, released when the handle goes.
class Ref {
public:
    Ref() noexcept = default;
    Ref(const Ref& other) noexcept : p_(Py_XNewRef(other.p_)) {}
    Ref(Ref&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
    Ref& operator=(const Ref& other) {
        Ref(other).swap(*this);
        return *this;
    }
    Ref& operator=(Ref&& other) {
        Ref(std::move(other)).swap(*this);
        return *this;
    }
    // A release is a call, not code written out at every place a handle goes: the code that uses
    // handles stays small.
    ~Ref() noexcept(false) {
        if (p_ != nullptr) {
            drop(p_);
        }
    }

    // Takes over a new reference, which may be null.
    static Ref steal(PyObject* p) noexcept { return Ref(p); }
    // Takes a new reference to a borrowed one, which may be null.
    static Ref borrow(PyObject* p) noexcept { return Ref(Py_XNewRef(p)); }

    PyObject* get() const noexcept { return p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    // Hands the reference over to the caller (at the edge, to Python).
    PyObject* release() noexcept { return std::exchange(p_, nullptr); }
    void swap(Ref& other) noexcept { std::swap(p_, other.p_); }

private:
    explicit Ref(PyObject* p) noexcept : p_(p) {}
    [[gnu::noinline]] static void drop(PyObject* p) {
        if (cpython::finalizing_thread() != nullptr) [[unlikely]] {
            drop_at_exit(p);
            return;
        }
        Py_DECREF(p);
    }
    [[gnu::noinline, gnu::cold]] static void drop_at_exit(PyObject* p) {
        if (thread_is_attached()) {
            Py_DECREF(p);
        }
    }
    PyObject* p_ = nullptr;
};

// A new reference from a C-API call that returns null on failure.
inline Ref own(PyObject* p) {
    if (p == nullptr) [[unlikely]] {
        raise_current();
    }
    return Ref::steal(p);
}

// A C-API status that is negative on failure.
inline int check(int status) {
    if (status < 0) [[unlikely]] {
        raise_current();
    }
    return status;
}

inline Ref text(const char* value) { return own(PyUnicode_FromString(value)); }
inline Ref integer(long long value) { return own(PyLong_FromLongLong(value)); }
inline Ref real(double value) { return own(PyFloat_FromDouble(value)); }

inline Ref none() noexcept { return Ref::borrow(Py_None); }
inline Ref boolean(bool value) noexcept { return Ref::borrow(value ? Py_True : Py_False); }

inline Ref getattr(PyObject* object, PyObject* name) { return own(PyObject_GetAttr(object, name)); }
inline void setattr(PyObject* object, PyObject* name, PyObject* value) {
    check(PyObject_SetAttr(object, name, value));
}

// Calls that take their arguments as borrowed pointers.
inline Ref call(PyObject* callable) { return own(PyObject_CallNoArgs(callable)); }
template <typename... Args>
Ref call(PyObject* callable, Args... args) {
    PyObject* argv[] = {args...};
    return own(PyObject_Vectorcall(callable, argv, sizeof...(Args), nullptr));
}
template <typename... Args>
Ref call_method(PyObject* object, PyObject* name, Args... args) {
    PyObject* argv[] = {object, args...};
    return own(PyObject_VectorcallMethod(name, argv, (1 + sizeof...(Args)) | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                         nullptr));
}

// Sets the Python error that stands for a C++ exception: a `MemoryError` for `std::bad_alloc`, a
// `SystemError` for anything else.
inline void set_error_from(const std::exception& error) noexcept {
    if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr) {
        PyErr_NoMemory();
    } else {
        PyErr_Format(PyExc_SystemError, "unexpected C++ exception: %s", error.what());
    }
}

// Makes `exception` the one being handled (what `sys.exc_info()` and `exc_info=True` see) for as
// long as it lives, as an `except` clause does, then puts back what was handled before.
class Handling {
public:
    explicit Handling(PyObject* exception) : before_(Ref::steal(PyErr_GetHandledException())) {
        PyErr_SetHandledException(exception);
    }
    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;
    ~Handling() noexcept(false) {
        if (thread_is_attached()) {
            PyErr_SetHandledException(before_.get());
        }
    }

private:
    Ref before_;
};

// Runs a body that gives a `Ref` at an edge that Python calls, giving null with the error set on
// failure. A C++ exception (all the standard library throws derive from `std::exception`) becomes
// a Python error; nothing else is caught, so the unwind that ends a thread at exit passes.
template <typename Body>
PyObject* entry(Body&& body) {
    try {
        return body().release();
    } catch (const PythonError&) {
        return nullptr;
    } catch (const std::exception& error) {
        set_error_from(error);
        return nullptr;
    }
}

// The same for an edge that reports failure as -1.
template <typename Body>
int entry_status(Body&& body) {
    try {
        body();
        return 0;
    } catch (const PythonError&) {
        return -1;
    } catch (const std::exception& error) {
        set_error_from(error);
        return -1;
    }
}

}  // namespace decision_bounds
