// Amounts and counters as the module's code computes them.
//
// A `Value` owns what it holds: a Python object, and, when that object is exactly an int that fits
// 64 bits or exactly a float, the machine number too; a value computed in machine numbers gets its
// object only when something needs one. The arithmetic and comparisons below give what the number
// types give: in machine numbers where that is the same result, and otherwise by asking the
// objects, which may run the caller's code.
#pragma once

#include "pyref.hpp"

namespace decision_bounds {

class Value {
public:
    Value() noexcept = default;

    // The value of an object, taken over or borrowed.
    [[gnu::always_inline]] static Value own(Ref object) {
        Value value;
        PyObject* p = object.get();
        if (PyFloat_CheckExact(p)) {
            value.kind_ = Kind::real;
            value.real_ = PyFloat_AS_DOUBLE(p);
        } else if (PyLong_CheckExact(p) && cpython::is_compact(p)) {
            value.kind_ = Kind::integer;
            value.integer_ = cpython::compact_value(p);
        } else {
            value.classify_other(p);
        }
        value.object_ = std::move(object);
        return value;
    }
    [[gnu::always_inline]] static Value borrow(PyObject* object) { return own(Ref::borrow(object)); }
    // An object known to be no int or float (None, a bool, a text): nothing to classify.
    [[gnu::always_inline]] static Value other(Ref object) noexcept {
        Value value;
        value.kind_ = Kind::object;
        value.object_ = std::move(object);
        return value;
    }
    // A number computed in machine arithmetic.
    static Value of(long long number) noexcept;
    static Value of(double number) noexcept;

    explicit operator bool() const noexcept { return kind_ != Kind::unset; }
    bool is_integer() const noexcept { return kind_ == Kind::integer; }
    bool is_real() const noexcept { return kind_ == Kind::real; }
    long long integer() const noexcept { return integer_; }
    double real() const noexcept { return real_; }
    // The number as a float when it is exactly one: a float, or an int of at most 2**53 either way.
    bool exact_float(double* out) const noexcept;

    // The object (made when first asked for), borrowed from the value.
    [[gnu::always_inline]] PyObject* get() const { return object_ ? object_.get() : made(); }
    Ref ref() const { return Ref::borrow(get()); }

private:
    enum class Kind : unsigned char { unset, object, integer, real };

    void classify_other(PyObject* object);
    PyObject* made() const;

    Kind kind_ = Kind::unset;
    long long integer_ = 0;
    double real_ = 0.0;
    mutable Ref object_;
};

// The operations in full: machine numbers where they give what the number types give, the objects'
// own methods otherwise. The inline forms below take the common cases first.
Value add_slowly(const Value& a, const Value& b);
Value add_in_place_slowly(const Value& a, const Value& b);
Value subtract_slowly(const Value& a, const Value& b);
Value multiply_slowly(const Value& a, const Value& b);
Value divide_slowly(const Value& a, const Value& b);
Value compare_slowly(const Value& a, const Value& b, int op);
bool holds_slowly(const Value& a, const Value& b, int op);
bool truth_slowly(const Value& value);

inline Value add(const Value& a, const Value& b) {  // `a + b`
    long long sum;
    if (a.is_integer() && b.is_integer() && !__builtin_add_overflow(a.integer(), b.integer(), &sum)) {
        return Value::of(sum);
    }
    if (a.is_real() && b.is_real()) {
        return Value::of(a.real() + b.real());
    }
    return add_slowly(a, b);
}

// `a += b`: ints and floats have no in-place addition of their own, and add as `+` does.
inline Value add_in_place(const Value& a, const Value& b) {
    long long sum;
    if (a.is_integer() && b.is_integer() && !__builtin_add_overflow(a.integer(), b.integer(), &sum)) {
        return Value::of(sum);
    }
    if (a.is_real() && b.is_real()) {
        return Value::of(a.real() + b.real());
    }
    return add_in_place_slowly(a, b);
}

inline Value subtract(const Value& a, const Value& b) {  // `a - b`
    long long difference;
    if (a.is_integer() && b.is_integer() && !__builtin_sub_overflow(a.integer(), b.integer(), &difference)) {
        return Value::of(difference);
    }
    if (a.is_real() && b.is_real()) {
        return Value::of(a.real() - b.real());
    }
    return subtract_slowly(a, b);
}

inline Value multiply(const Value& a, const Value& b) { return multiply_slowly(a, b); }  // `a * b`
inline Value divide(const Value& a, const Value& b) { return divide_slowly(a, b); }      // `a / b`

template <typename T>
bool comparison(T a, T b, int op) {
    switch (op) {
        case Py_LT: return a < b;
        case Py_LE: return a <= b;
        case Py_EQ: return a == b;
        case Py_NE: return a != b;
        case Py_GT: return a > b;
        default: return a >= b;
    }
}

// `bool(a <op> b)`, as an `if` takes it.
inline bool holds(const Value& a, const Value& b, int op) {
    if (a.is_integer() && b.is_integer()) {
        return comparison(a.integer(), b.integer(), op);
    }
    if (a.is_real() && b.is_real()) {
        return comparison(a.real(), b.real(), op);
    }
    return holds_slowly(a, b, op);
}

// `a <op> b`, the result as it is.
inline Value compare(const Value& a, const Value& b, int op) {
    if ((a.is_integer() && b.is_integer()) || (a.is_real() && b.is_real())) {
        return Value::other(boolean(holds(a, b, op)));
    }
    return compare_slowly(a, b, op);
}

// `bool(value)`
inline bool truth(const Value& value) {
    if (value.is_integer()) {
        return value.integer() != 0;
    }
    if (value.is_real()) {
        return value.real() != 0.0;
    }
    return truth_slowly(value);
}

// What the built-in `max(kept, candidate)` and `min(kept, candidate)` give: `candidate` only when it
// is strictly greater (smaller), else `kept`, the very object.
inline Value larger(const Value& kept, const Value& candidate) { return holds(candidate, kept, Py_GT) ? candidate : kept; }
inline Value smaller(const Value& kept, const Value& candidate) { return holds(candidate, kept, Py_LT) ? candidate : kept; }

}  // namespace decision_bounds
