// Shares and admission: the give-back-exactly-once `Share`, the held-amount record `_Held` with the
// one admission rule of every bound, and `_wait`, the bounded wait for room. Also what the bounds
// share: their methods' bodies as the function type runs them, making a share, the test for an
// unbounded amount, calling a builtin as the code would.
#pragma once

#include <utility>

#include "condition.hpp"
#include "record.hpp"

namespace decision_bounds {

// The body (function.hpp) of a method of the class `cls` from its implementation on a record,
// `impl(self, args...)`, which takes and gives `Value`s.
template <typename Impl>
struct Arity;
template <typename... Args>
struct Arity<Value (*)(Record&, Args...)> {
    static constexpr size_t value = sizeof...(Args);
};

template <Own cls, auto impl>
Ref method(FunctionObject* fn, PyObject* const* args) {
    Record self(fn, args[0], cls);
    return [&]<size_t... I>(std::index_sequence<I...>) {
        return impl(self, Value::borrow(args[I + 1])...).ref();
    }(std::make_index_sequence<Arity<decltype(impl)>::value>());
}

// The ints 0 and 1 and the float 0.0, as the constants of the code are.
inline Value zero() { return Value::of(0LL); }
inline Value one() { return Value::of(1LL); }
inline Value zero_float(FunctionObject* fn) { return Value::borrow(state_of(fn).standard.zero); }
inline Value none_value() { return Value::other(none()); }
inline Value false_value() { return Value::other(boolean(false)); }

// A builtin as the code reads it, before the call's arguments are evaluated: the standard one,
// whose result the module gives itself, or whatever the namespace gives, called.
class Builtin {
public:
    Builtin(FunctionObject* fn, Fact fact, Name builtin);
    bool standard() const noexcept { return !object_; }
    Value call() const;
    Value call(const Value& argument) const;
    Value call(const Value& first, const Value& second) const;

private:
    Ref object_;  // null when the standard one
};

// `max(kept, candidate)` and `min(kept, candidate)` with `max` and `min` as read.
Value maximum(const Builtin& max, const Value& kept, const Value& candidate);
Value minimum(const Builtin& min, const Value& kept, const Value& candidate);

// `math.isinf(value)`, with `math` read from the namespace.
bool is_unbounded(FunctionObject* fn, const Value& value);

// `<module>.<attribute>()`, the module read from the namespace.
Value made_by(FunctionObject* fn, Name module, Name attribute);

// Statements on a record's fields, as the code writes them.
void add_to(Record& self, Name field, const Value& step);             // `self.<field> += step`
void add_from(Record& self, Name field, const Value& reply, Name paid);  // `self.<field> += reply.<paid>`
void one_less(Record& self, Name field);                               // `self.<field> = max(0, self.<field> - 1)`

// `try: body() finally: cleanup()`: `cleanup` runs whatever `body` raised, and then `body`'s
// exception goes on; an exception from `cleanup` takes its place, with it as its context.
template <typename Body, typename Cleanup>
void try_finally(Body&& body, Cleanup&& cleanup) {
    try {
        body();
    } catch (const PythonError&) {
        Ref pending = Ref::steal(PyErr_GetRaisedException());
        try {
            cleanup();
        } catch (const PythonError&) {
            PyObject* later = PyErr_GetRaisedException();
            PyException_SetContext(later, pending.release());
            PyErr_SetRaisedException(later);
            throw;
        }
        PyErr_SetRaisedException(pending.release());
        throw;
    }
    cleanup();
}

// `Share(give_back)` as the code makes one: `Share` read from the namespace first, then
// `give_back()` evaluated, then the call.
Value new_share_of(FunctionObject* fn, const Ref& cls, const Value& give_back);
template <typename GiveBack>
Value make_share(FunctionObject* fn, GiveBack&& give_back) {
    PyObject* own = reinterpret_cast<PyObject*>(state_of(fn).own[static_cast<int>(Own::Share)].type);
    Ref cls = is_standard(fn, Fact::Share) ? Ref::borrow(own) : global(fn, Name::Share);
    Value argument = give_back();
    return new_share_of(fn, cls, argument);
}

// `_Held`'s methods, for the owners that call them directly.
Value held_admits(Record& self, const Value& share, const Value& used, const Value& limit);
Value held_take(Record& self, const Value& share);
Value held_give_back(Record& self, const Value& share);

// What `_wait` does before it waits: the stop test, then the deadline test; raises as `_wait` does,
// and otherwise gives the timeout of the wait.
Value wait_checks(FunctionObject* fn, const Value& stopping, const Value& deadline, const Value& clock);

// Binds `Share`, `_Held` and `_wait` in the module's namespace.
void add_shares(PyObject* module);
// The shares kept for reuse, shown to the garbage collector and let go of with the module.
int traverse_share_pool(ModuleState& state, visitproc visit, void* arg);
void clear_share_pool(ModuleState& state);

}  // namespace decision_bounds
