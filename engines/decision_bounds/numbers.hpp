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
    long long integer = 0;
    double real = 0.0;

    static Number of(PyObject* object) noexcept;
};

class Value {
public:
    Value() noexcept = default;

    // The value of an object already read as a number.
    static Value known(PyObject* object, const Number& number) {
        Value value;
        switch (number.kind) {
            case Number::Kind::integer: value.kind_ = Kind::integer; value.integer_ = number.integer; break;
            case Number::Kind::real: value.kind_ = Kind::real; value.real_ = number.real; break;
            default: value.kind_ = Kind::object; value.object_ = Ref::borrow(object); break;
        }
        return value;
    }
    // What the value is as a number.
    Number number() const noexcept {
        return {.kind = kind_ == Kind::integer ? Number::Kind::integer
                        : kind_ == Kind::real  ? Number::Kind::real
                                               : Number::Kind::other,
                .integer = integer_,
                .real = real_};
    }

    // The value of an object, taken over or borrowed: a number is read, anything else kept.
    static Value own(Ref object);
    static Value borrow(PyObject* object);
    // An object known to be no int or float (None, a bool, a text): nothing to classify.
    static Value other(Ref object) noexcept {
        Value value;
        value.kind_ = Kind::object;
        value.object_ = std::move(object);
        return value;
    }
    // A number computed in machine arithmetic.
    static Value of(long long number) noexcept {
        Value value;
        value.kind_ = Kind::integer;
        value.integer_ = number;
        return value;
    }
    static Value of(double number) noexcept {
        Value value;
        value.kind_ = Kind::real;
        value.real_ = number;
        return value;
    }

    explicit operator bool() const noexcept { return kind_ != Kind::unset; }
    bool is_integer() const noexcept { return kind_ == Kind::integer; }
    bool is_real() const noexcept { return kind_ == Kind::real; }
    long long integer() const noexcept { return integer_; }
    double real() const noexcept { return real_; }
    // The number as a float when it is exactly one: a float, or an int of at most 2**53 either way.
    bool exact_float(double* out) const noexcept;

    // The object (made when first asked for), borrowed from the value.
    PyObject* get() const { return object_ ? object_.get() : made(); }
    Ref ref() const { return Ref::borrow(get()); }

private:
    enum class Kind : unsigned char { unset, object, integer, real };


    PyObject* made() const;

    Kind kind_ = Kind::unset;
    long long integer_ = 0;
    double real_ = 0.0;
    mutable Ref object_;
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
