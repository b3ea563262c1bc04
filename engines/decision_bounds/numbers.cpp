#include "numbers.hpp"

namespace decision_bounds {
namespace {

// Ints up to this size, either way, are floats exactly; so are sums and comparisons made with them.
constexpr long long exact_limit = 1LL << 53;

// `a <op> b` in machine numbers: false when that would not be what the number types give.
bool compare_numbers(const Value& a, const Value& b, int op, bool* result) {
    if (a.is_integer() && b.is_integer()) {
        *result = comparison(a.integer(), b.integer(), op);
        return true;
    }
    double p;
    double q;
    if (a.exact_float(&p) && b.exact_float(&q)) {
        *result = comparison(p, q, op);
        return true;
    }
    return false;
}

enum class Operation { add, subtract, multiply, divide };

// `a <operation> b` in machine numbers, or an unset value when that would not be what the number
// types give (an int result beyond 64 bits, a division by zero, which they raise for).
Value combine_numbers(const Value& a, const Value& b, Operation operation) {
    if (a.is_integer() && b.is_integer() && operation != Operation::divide) {
        long long result;
        bool overflow;
        switch (operation) {
            case Operation::add: overflow = __builtin_add_overflow(a.integer(), b.integer(), &result); break;
            case Operation::subtract: overflow = __builtin_sub_overflow(a.integer(), b.integer(), &result); break;
            default: overflow = __builtin_mul_overflow(a.integer(), b.integer(), &result); break;
        }
        return overflow ? Value() : Value::of(result);
    }
    // Otherwise in floats: ints that are floats exactly divide this way too, correctly rounded as
    // int division is.
    double p;
    double q;
    if (!a.exact_float(&p) || !b.exact_float(&q)) {
        return Value();
    }
    switch (operation) {
        case Operation::add: return Value::of(p + q);
        case Operation::subtract: return Value::of(p - q);
        case Operation::multiply: return Value::of(p * q);
        default: return q == 0.0 ? Value() : Value::of(p / q);
    }
}

Value arithmetic(const Value& a, const Value& b, Operation operation, binaryfunc generic) {
    if (Value result = combine_numbers(a, b, operation)) {
        return result;
    }
    return Value::own(own(generic(a.get(), b.get())));
}

}  // namespace

// An int beyond a machine word's fast form may still fit 64 bits; anything else is an object.
void Value::classify_other(PyObject* object) {
    kind_ = Kind::object;
    if (PyLong_CheckExact(object)) {
        int overflow = 0;
        long long number = PyLong_AsLongLongAndOverflow(object, &overflow);
        if (overflow == 0) {
            kind_ = Kind::integer;
            integer_ = number;
        }
    }
}

Value Value::of(long long number) noexcept {
    Value value;
    value.kind_ = Kind::integer;
    value.integer_ = number;
    return value;
}

Value Value::of(double number) noexcept {
    Value value;
    value.kind_ = Kind::real;
    value.real_ = number;
    return value;
}

bool Value::exact_float(double* out) const noexcept {
    if (kind_ == Kind::real) {
        *out = real_;
        return true;
    }
    if (kind_ == Kind::integer && -exact_limit <= integer_ && integer_ <= exact_limit) {
        *out = static_cast<double>(integer_);
        return true;
    }
    return false;
}

PyObject* Value::made() const {
    assert(kind_ == Kind::integer || kind_ == Kind::real);
    object_ = kind_ == Kind::integer ? decision_bounds::integer(integer_) : decision_bounds::real(real_);
    return object_.get();
}

Value add_slowly(const Value& a, const Value& b) { return arithmetic(a, b, Operation::add, PyNumber_Add); }
Value add_in_place_slowly(const Value& a, const Value& b) {
    return arithmetic(a, b, Operation::add, PyNumber_InPlaceAdd);
}
Value subtract_slowly(const Value& a, const Value& b) { return arithmetic(a, b, Operation::subtract, PyNumber_Subtract); }
Value multiply_slowly(const Value& a, const Value& b) { return arithmetic(a, b, Operation::multiply, PyNumber_Multiply); }
Value divide_slowly(const Value& a, const Value& b) { return arithmetic(a, b, Operation::divide, PyNumber_TrueDivide); }

Value compare_slowly(const Value& a, const Value& b, int op) {
    bool result;
    if (compare_numbers(a, b, op, &result)) {
        return Value::other(boolean(result));
    }
    return Value::own(own(PyObject_RichCompare(a.get(), b.get(), op)));
}

bool holds_slowly(const Value& a, const Value& b, int op) {
    bool result;
    if (compare_numbers(a, b, op, &result)) {
        return result;
    }
    return truth(Value::own(own(PyObject_RichCompare(a.get(), b.get(), op))));
}

bool truth_slowly(const Value& value) {
    PyObject* object = value.get();
    if (object == Py_True) {
        return true;
    }
    if (object == Py_False || object == Py_None) {
        return false;
    }
    return check(PyObject_IsTrue(object)) != 0;
}

}  // namespace decision_bounds
