#include "daily_spend.hpp"

#include <optional>

#include "shares.hpp"
#include "startup.hpp"

namespace decision_bounds {
namespace {

constexpr const char* daily_doc = R"doc(What the paid calls of each UTC day cost against ``kel.daily_cost_cap_usd``, and what the
    calls in flight hold of it. A day starts from what the ledger says it has cost so far. The calls
    in flight hold their shares across midnight: each is counted on the day it settles.)doc";

constexpr const char* unreadable_ledger =
    "Could not read what the decision calls of %s cost; the daily cap counts from 0";

constexpr const char* cap_reached =
    "The daily decision cost cap is reached: $%.4f of $%.2f spent today (UTC); paid calls resume tomorrow, "
    "cached answers are still used";

// Whether the exception being raised is one that `except Exception:` catches, the name read from the
// namespace as the clause reads it. What reading it raises, or the `TypeError` for a name that is no
// exception class, takes the exception's place, with it as its context.
bool caught_as_exception(FunctionObject* fn) {
    Ref raised = Ref::steal(PyErr_GetRaisedException());
    auto replace = [&] {
        PyObject* later = PyErr_GetRaisedException();
        PyException_SetContext(later, raised.release());
        PyErr_SetRaisedException(later);
        raise_current();
    };
    Ref cls;
    try {
        cls = is_standard(fn, Fact::Exception) ? Ref::borrow(PyExc_Exception) : global(fn, Name::Exception);
    } catch (const PythonError&) {
        replace();
    }
    bool valid = PyExceptionClass_Check(cls.get());
    if (PyTuple_Check(cls.get())) {
        valid = true;
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(cls.get()); ++i) {
            valid = valid && PyExceptionClass_Check(PyTuple_GET_ITEM(cls.get(), i));
        }
    }
    if (!valid) {
        PyErr_SetString(PyExc_TypeError, "catching classes that do not inherit from BaseException is not allowed");
        replace();
    }
    bool matches = PyErr_GivenExceptionMatches(raised.get(), cls.get()) != 0;
    PyErr_SetRaisedException(raised.release());
    return matches;
}

// __init__, _spent_since, _today_locked, spent

Value daily_init(Record& self, const Value& cap, const Value& today, const Value& ledger) {
    FunctionObject* fn = self.fn();
    self.set(Name::_cap, cap);
    self.set(Name::_today, today);
    self.set(Name::_ledger, ledger);
    self.set(Name::_changed, made_by(fn, Name::threading, Name::Condition));
    self.set(Name::_held, Value::own(call(global(fn, Name::_Held).get())));
    self.set(Name::_day, Value::other(Ref::borrow(state_of(fn).standard.empty_text)));
    self.set(Name::_cost, zero_float(fn));
    self.set(Name::_capped, false_value());
    return none_value();
}

Value daily_spent_since(Record& self, const Value& day) {
    FunctionObject* fn = self.fn();
    if (self.get(Name::_ledger).get() == Py_None) {
        return zero_float(fn);
    }
    try {
        // `float(self._ledger(day))`
        Builtin to_float(fn, Fact::float_, Name::float_);
        Value ledger = self.get(Name::_ledger);
        Value figure = Value::own(call(ledger.get(), day.get()));
        return to_float.standard() ? Value::own(own(PyNumber_Float(figure.get()))) : to_float.call(figure);
    } catch (const PythonError&) {
        // Only an `Exception` means the ledger cannot be read; an interrupt or an exit passes on.
        if (!caught_as_exception(fn)) {
            throw;
        }
    }
    // The exception was raised in this method: its traceback shows it, as the logged record does.
    add_own_traceback(fn, Own::DailySpend, Name::_spent_since);
    Ref error = Ref::steal(PyErr_GetRaisedException());
    {
        Handling handling(error.get());
        Ref logger = global(fn, Name::logger);
        Ref warning = getattr(logger.get(), name(fn, Name::warning));
        Ref format = text(unreadable_ledger);
        Ref keywords = own(PyTuple_Pack(1, name(fn, Name::exc_info)));
        PyObject* argv[] = {format.get(), day.get(), Py_True};
        own(PyObject_Vectorcall(warning.get(), argv, 2, keywords.get()));
    }
    return zero_float(fn);
}

Value daily_today_locked(Record& self) {
    // `self._today()`: an instance attribute, read, then called.
    Value today = Value::own(call(self.get(Name::_today).get()));
    if (holds(today, self.get(Name::_day), Py_NE)) {
        // The ledger is read before anything changes: if it is interrupted, the day is tried again.
        Value spent = Method(self, Name::_spent_since).call<daily_spent_since>(today);
        self.set(Name::_day, today);
        self.set(Name::_cost, spent);
        self.set(Name::_capped, false_value());
    }
    return self.get(Name::_cost);
}

Value daily_spent(Record& self) {
    return returned(with(self.fn(), self.get(Name::_changed), [&]() -> Value {
        return Method(self, Name::_today_locked).call<daily_today_locked>();
    }));
}

// admit, charge, _give_back

// `format(value(), spec)`, `format` read first.
template <typename Formatted>
Value formatted(FunctionObject* fn, Formatted&& value, const char* spec) {
    Builtin format(fn, Fact::format, Name::format);
    Value shown = value();
    Value how = Value::other(text(spec));
    return format.standard() ? Value::own(own(PyObject_Format(shown.get(), how.get()))) : format.call(shown, how);
}

// `a + b` of two texts, as the code concatenates them.
Value joined(const Value& a, const Value& b) { return add(a, b); }

// `functools.partial(self._give_back, held)`
Value give_back_of(Record& self, const Value& held) {
    FunctionObject* fn = self.fn();
    Ref partial = is_standard(fn, Fact::partial)
                      ? Ref::borrow(state_of(fn).standard.partial_type)
                      : getattr(global(fn, Name::functools).get(), name(fn, Name::partial));
    Value method = self.get(Name::_give_back);
    return Value::own(call(partial.get(), method.get(), held.get()));
}

// `_wait(self._changed, stopping, deadline=deadline, clock=clock)`
void wait_for_room(Record& self, const Value& stopping, const Value& deadline, const Value& clock) {
    FunctionObject* fn = self.fn();
    Ref wait = global(fn, Name::_wait);
    Value changed = self.get(Name::_changed);
    Ref keywords = own(PyTuple_Pack(2, name(fn, Name::deadline), name(fn, Name::clock)));
    PyObject* argv[] = {changed.get(), stopping.get(), deadline.get(), clock.get()};
    own(PyObject_Vectorcall(wait.get(), argv, 2, keywords.get()));
}

Value daily_admit(Record& self, const Value& bound, const Value& deadline, const Value& clock,
                  const Value& stopping) {
    return admit_loop(self, bound, deadline, clock, stopping, nullptr);
}

Value daily_charge(Record& self, const Value& reply) {
    FunctionObject* fn = self.fn();
    with(fn, self.get(Name::_changed), [&]() -> Value {
        Method(self, Name::_today_locked).call<daily_today_locked>();
        add_from(self, Name::_cost, reply, Name::cost);
        notify_all(fn, self.get(Name::_changed));
        return Value();
    });
    return none_value();
}

Value daily_give_back(Record& self, const Value& held, const Value& reply) {
    FunctionObject* fn = self.fn();
    with(fn, self.get(Name::_changed), [&]() -> Value {
        try_finally(
            [&] {
                if (reply.get() != Py_None) {
                    // Counted on the day it settles: a new day starts from the ledger first.
                    Method(self, Name::_today_locked).call<daily_today_locked>();
                    add_from(self, Name::_cost, reply, Name::cost);
                }
            },
            // Given back even when counting failed: no call holds this share any more, and an
            // amount left held would keep later admissions waiting for good.
            [&] {
                Method(fn, self.get(Name::_held), Own::_Held, Name::give_back).call<held_give_back>(held);
                notify_all(fn, self.get(Name::_changed));
            });
        return Value();
    });
    return none_value();
}

constexpr Param init_params[] = {{"self", nullptr},
                                 {"cap", "float"},
                                 {"today", "Callable[[], str]"},
                                 {"ledger", "Callable[[str], float] | None"}};
constexpr Param self_only[] = {{"self", nullptr}};
constexpr Param admit_params[] = {{"self", nullptr},
                                  {"bound", "Callable[[], float]"},
                                  {"deadline", "float | None", ParamKind::keyword_only},
                                  {"clock", "Callable[[], float]", ParamKind::keyword_only},
                                  {"stopping", "Callable[[], bool]", ParamKind::keyword_only}};
constexpr Param charge_params[] = {{"self", nullptr}, {"reply", "PaidReply"}};
constexpr Param give_back_params[] = {{"self", nullptr}, {"held", "float"}, {"reply", "PaidReply | None"}};
constexpr Param spent_since_params[] = {{"self", nullptr}, {"day", "str"}};

constexpr FunctionDef daily_methods[] = {
    {"__init__", "DailySpend.__init__", R"doc(Create the day's account.

        Args:
            cap: USD the paid calls of one UTC day may cost.
            today: Today's UTC date, ``YYYY-MM-DD``.
            ledger: What the paid calls since a date cost, USD; None: nothing is kept.
        )doc",
     init_params, "None", method<Own::DailySpend, daily_init>},
    {"spent", "DailySpend.spent", "What the paid calls of today cost so far, USD.", self_only, "float",
     method<Own::DailySpend, daily_spent>},
    {"admit", "DailySpend.admit", R"doc(Hold what a paid call may cost before it is made.

        Args:
            bound: The most the call may cost, USD (``math.inf`` when not known), asked again
                after each wait: a reply that settles meanwhile may bound it.
            deadline: When the call ends, on ``clock``; None: it waits until a call in flight
                ends or ``stopping`` says so.
            clock: The client's monotonic clock.
            stopping: Whether the pass the call belongs to is stopping.

        Returns:
            The share held: settled with the paid reply, it counts the reply's cost today.

        Raises:
            DecisionBudgetExceeded: Today's settled calls cost the cap (warned once a day).
            DecisionTimeout: The deadline passed while the calls in flight held the rest.
            DecisionStopped: The pass is stopping.
        )doc",
     admit_params, "Share", method<Own::DailySpend, daily_admit>},
    {"charge", "DailySpend.charge", R"doc(Count what ``reply`` cost today without a share: an attempt of a call that settled
        with another reply, sent and never read (the endpoint may bill it).)doc",
     charge_params, "None", method<Own::DailySpend, daily_charge>},
    {"_give_back", "DailySpend._give_back",
     "Give back what a call held, and count what its paid ``reply`` cost today.", give_back_params, "None",
     method<Own::DailySpend, daily_give_back>},
    {"_today_locked", "DailySpend._today_locked",
     R"doc(Today's spend; a new day starts from what the ledger says it has cost so far, and keeps
        the shares of the calls in flight, which it is charged when they settle.)doc",
     self_only, "float", method<Own::DailySpend, daily_today_locked>},
    {"_spent_since", "DailySpend._spent_since", nullptr, spent_since_params, "float",
     method<Own::DailySpend, daily_spent_since>},
};

}  // namespace

Value admit_loop(Record& self, const Value& bound, const Value& deadline, const Value& clock, const Value& stopping,
                 Attempt* attempt) {
    FunctionObject* fn = self.fn();
    Value cost;
    std::optional<bool> first;
    Value share = with(fn, self.get(Name::_changed), [&]() -> Value {
        for (;;) {
            cost = Method(self, Name::_today_locked).call<daily_today_locked>();
            if (!holds(cost, self.get(Name::_cap), Py_LT)) {
                break;
            }
            Value held = Value::own(call(bound.get()));
            Method admits(fn, self.get(Name::_held), Own::_Held, Name::admits);
            Value cap = self.get(Name::_cap);
            if (truth(admits.call<held_admits>(held, cost, cap))) {
                Method(admits, self.get(Name::_held), Name::take).call<held_take>(held);
                // The share gives back exactly what was taken, whatever `bound()` says later.
                return make_share(fn, [&] { return give_back_of(self, held); });
            }
            if (attempt != nullptr) {
                // A try that must not wait makes the tests that `_wait` makes before it waits.
                attempt->wait = wait_checks(fn, stopping, deadline, clock);
                return Value();
            }
            wait_for_room(self, stopping, deadline, clock);
        }
        first = !truth(self.get(Name::_capped));
        self.set(Name::_capped, Value::other(boolean(true)));
        return Value();
    });
    if (share) {
        return share;
    }
    if (attempt != nullptr && attempt->wait) {
        return none_value();
    }
    // After the `with` block, with the lock free: a handler that blocks must not stall the account.
    if (!first) {
        // Left by an exception that `__exit__` suppressed before the refusal was decided.
        PyErr_SetString(PyExc_UnboundLocalError,
                        "cannot access local variable 'first' where it is not associated with a value");
        raise_current();
    }
    if (*first) {
        Ref logger = global(fn, Name::logger);
        Ref warning = getattr(logger.get(), name(fn, Name::warning));
        Value format = Value::other(text(cap_reached));
        Value cap = self.get(Name::_cap);
        call(warning.get(), format.get(), cost.get(), cap.get());
    }
    raise_built(fn, Name::DecisionBudgetExceeded, [&] {
        Value message = Value::other(text("the daily decision cost cap is reached: $"));
        message = joined(message, formatted(fn, [&] { return cost; }, ".4f"));
        message = joined(message, Value::other(text(" of $")));
        message = joined(message, formatted(fn, [&] { return self.get(Name::_cap); }, ".2f"));
        return joined(message, Value::other(text(" spent today (UTC)")));
    });
}

void add_daily_spend(PyObject* module) {
    ClassBuilder daily(module, "DailySpend", daily_doc);
    for (const FunctionDef& method : daily_methods) {
        daily.add(method);
    }
    bind(module, "DailySpend", daily.build());
}

}  // namespace decision_bounds
