// Owned references and the one way errors cross C++ code.
//
// A Python error is always set in the interpreter before `PythonError` is thrown; every function
// that Python calls catches it at its edge and returns the failure value, leaving the error set.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <cassert>
#include <utility>

namespace decision_bounds {

// Thrown after a Python exception has been set; carries nothing itself.
struct PythonError {};

[[noreturn]] inline void raise_current() {
    assert(PyErr_Occurred());
    throw PythonError{};
}

// An owned (strong) reference, released when the handle goes.
class Ref {
public:
    Ref() noexcept = default;
    Ref(const Ref& other) noexcept : p_(Py_XNewRef(other.p_)) {}
    Ref(Ref&& other) noexcept : p_(std::exchange(other.p_, nullptr)) {}
    Ref& operator=(Ref other) noexcept {
        std::swap(p_, other.p_);
        return *this;
    }
    ~Ref() { Py_XDECREF(p_); }

    // Takes over a new reference, which may be null.
    static Ref steal(PyObject* p) noexcept { return Ref(p); }
    // Takes a new reference to a borrowed one, which may be null.
    static Ref borrow(PyObject* p) noexcept { return Ref(Py_XNewRef(p)); }

    PyObject* get() const noexcept { return p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    // Hands the reference over to the caller (at the edge, to Python).
    PyObject* release() noexcept { return std::exchange(p_, nullptr); }

private:
    explicit Ref(PyObject* p) noexcept : p_(p) {}
    PyObject* p_ = nullptr;
};

// A new reference from a C-API call that returns null on failure.
inline Ref own(PyObject* p) {
    if (p == nullptr) {
        raise_current();
    }
    return Ref::steal(p);
}

// A C-API status that is negative on failure.
inline int check(int status) {
    if (status < 0) {
        raise_current();
    }
    return status;
}

inline Ref text(const char* value) { return own(PyUnicode_FromString(value)); }
inline Ref integer(long value) { return own(PyLong_FromLong(value)); }
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

// Runs a body that may throw `PythonError` at an edge that Python calls, giving null on failure.
template <typename Body>
PyObject* guarded(Body&& body) noexcept {
    try {
        return body().release();
    } catch (const PythonError&) {
        return nullptr;
    } catch (const std::bad_alloc&) {
        return PyErr_NoMemory();
    }
}

}  // namespace decision_bounds
