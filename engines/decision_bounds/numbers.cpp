#include "numbers.hpp"

namespace decision_bounds {
namespace {

// Ints up to this size, either way, are floats exactly; so are sums and comparisons made with them.
constexpr long long exact_limit = 1LL << 53;

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

Number Number::of(PyObject* object) noexcept {
    if (PyFloat_CheckExact(object)) {
        return of(PyFloat_AS_DOUBLE(object));
    }
    if (!PyLong_CheckExact(object)) {
        return {};
    }
    if (cpython::is_compact(object)) {
        return of(static_cast<long long>(cpython::compact_value(object)));
    }
    // Beyond a machine word's fast form an int may still fit 64 bits.
    int overflow = 0;
    long long number = PyLong_AsLongLongAndOverflow(object, &overflow);
    return overflow == 0 ? of(number) : Number{};
}

Value Value::own(Ref object) {
    Number number = Number::of(object.get());
    return number.kind == Number::Kind::other ? other(std::move(object)) : known(nullptr, number);
}

Value Value::borrow(PyObject* object) { return known(object, Number::of(object)); }

bool Value::exact_float(double* out) const noexcept {
    if (is_real()) {
        *out = real();
        return true;
    }
    if (is_integer() && -exact_limit <= integer() && integer() <= exact_limit) {
        *out = static_cast<double>(integer());
        return true;
    }
    return false;
}

PyObject* Value::made() const {
    assert(is_integer() || is_real());
    object_ = is_integer() ? decision_bounds::integer(integer()) : decision_bounds::real(real());
    return object_.get();
}

Value add(const Value& a, const Value& b) { return arithmetic(a, b, Operation::add, PyNumber_Add); }
// Ints and floats have no in-place addition of their own: `+=` adds them as `+` does.
Value add_in_place(const Value& a, const Value& b) { return arithmetic(a, b, Operation::add, PyNumber_InPlaceAdd); }
Value subtract(const Value& a, const Value& b) { return arithmetic(a, b, Operation::subtract, PyNumber_Subtract); }
Value multiply(const Value& a, const Value& b) { return arithmetic(a, b, Operation::multiply, PyNumber_Multiply); }
Value divide(const Value& a, const Value& b) { return arithmetic(a, b, Operation::divide, PyNumber_TrueDivide); }

Value compare(const Value& a, const Value& b, int op) {
    bool result;
    if (compare_numbers(a, b, op, &result)) {
        return Value::other(boolean(result));
    }
    return Value::own(own(PyObject_RichCompare(a.get(), b.get(), op)));
}

bool holds(const Value& a, const Value& b, int op) {
    bool result;
    if (compare_numbers(a, b, op, &result)) {
        return result;
    }
    return truth(Value::own(own(PyObject_RichCompare(a.get(), b.get(), op))));
}

bool truth(const Value& value) {
    if (value.is_integer()) {
        return value.integer() != 0;
    }
    if (value.is_real()) {
        return value.real() != 0.0;
    }
    PyObject* object = value.get();
    if (object == Py_True) {
        return true;
    }
    if (object == Py_False || object == Py_None) {
        return false;
    }
    return check(PyObject_IsTrue(object)) != 0;
}

Value larger(const Value& kept, const Value& candidate) { return holds(candidate, kept, Py_GT) ? candidate : kept; }
Value smaller(const Value& kept, const Value& candidate) { return holds(candidate, kept, Py_LT) ? candidate : kept; }

}  // namespace decision_bounds
