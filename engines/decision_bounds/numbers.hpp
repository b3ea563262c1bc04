// Amounts and counters as the module's code computes them.
//
// A `Value` owns what it holds: a machine number when it is exactly an int that fits 64 bits or
// exactly a float, and otherwise a reference to the object. A number gets an object only when
// something needs one (a write, a call), a new one of the same value. The arithmetic and
// comparisons below give what the number types give: in machine numbers where that is the same
// result, and otherwise by asking the objects, which may run the caller's code.
#pragma once

#include "pyref.hpp"

namespace decision_bounds {

// What an object is as a number: exactly an int within 64 bits, exactly a float, or neither.
struct Number {
    enum class Kind : unsigned char { other, integer, real };
    Kind kind = Kind::other;
    union {
        long long integer = 0;
        double real;
    };

    static Number of(PyObject* object) noexcept;
    static Number of(long long value) noexcept {
        Number number;
        number.kind = Kind::integer;
        number.integer = value;
        return number;
    }
    static Number of(double value) noexcept {
        Number number;
        number.kind = Kind::real;
        number.real = value;
        return number;
    }
};

class Value {
public:
    Value() noexcept = default;

    // The value of an object already read as a number.
    static Value known(PyObject* object, const Number& number) {
        Value value;
        value.number_ = number;
        if (number.kind == Number::Kind::other) {
            value.object_ = Ref::borrow(object);
        }
        return value;
    }
    // What the value is as a number.
    const Number& number() const noexcept { return number_; }

    // The value of an object, taken over or borrowed: a number is read, anything else kept.
    static Value own(Ref object);
    static Value borrow(PyObject* object);
    // An object known to be no int or float (None, a bool, a text): nothing to classify.
    static Value other(Ref object) noexcept {
        Value value;
        value.object_ = std::move(object);
        return value;
    }
    // A number computed in machine arithmetic.
    static Value of(long long number) noexcept {
        Value value;
        value.number_ = Number::of(number);
        return value;
    }
    static Value of(double number) noexcept {
        Value value;
        value.number_ = Number::of(number);
        return value;
    }

    // Unset: neither a number nor an object.
    explicit operator bool() const noexcept { return number_.kind != Number::Kind::other || object_; }
    bool is_integer() const noexcept { return number_.kind == Number::Kind::integer; }
    bool is_real() const noexcept { return number_.kind == Number::Kind::real; }
    long long integer() const noexcept { return number_.integer; }
    double real() const noexcept { return number_.real; }
    // The number as a float when it is exactly one: a float, or an int of at most 2**53 either way.
    bool exact_float(double* out) const noexcept;

    // The object (made when first asked for), borrowed from the value.
    PyObject* get() const { return object_ ? object_.get() : made(); }
    Ref ref() const { return Ref::borrow(get()); }

private:
    PyObject* made() const;

    Number number_;       // the machine number, if it is one
    mutable Ref object_;  // the object, if it is none, or once made for the number
};

// The operations, as the number types give them: in machine numbers for exact ints (within 64 bits)
// and floats, and by asking the objects otherwise. They are called, not written out where used: the
// code that uses them stays small, and one copy of each is all the hot code there is.
Value add(const Value& a, const Value& b);           // `a + b`
Value add_in_place(const Value& a, const Value& b);  // `a += b`
Value subtract(const Value& a, const Value& b);      // `a - b`
Value multiply(const Value& a, const Value& b);      // `a * b`
Value divide(const Value& a, const Value& b);        // `a / b`
Value compare(const Value& a, const Value& b, int op);  // `a <op> b`, the result as it is
bool holds(const Value& a, const Value& b, int op);      // `bool(a <op> b)`, as an `if` takes it
bool truth(const Value& value);                          // `bool(value)`
// What the built-in `max(kept, candidate)` and `min(kept, candidate)` give: `candidate` only when it
// is strictly greater (smaller), else `kept`, the very object.
Value larger(const Value& kept, const Value& candidate);
Value smaller(const Value& kept, const Value& candidate);

}  // namespace decision_bounds
