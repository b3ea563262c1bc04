#include "daily_spend.hpp"

#include "shares.hpp"

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


// `self.<field> += reply.<paid>`: the field is read before the reply's attribute.
void add_from(FunctionObject* fn, Self& self, Name field, PyObject* reply, Name paid) {
    Ref value = self.get(field);
    Ref step = getattr(reply, name(fn, paid));
    self.refresh();  // reading the reply may have run code of the caller's
    self.set(field, add_in_place(value.get(), step.get()).get());
}

// `self._changed.notify_all()`, inside the block that holds it.
void notify_all(Self& self, Holding& changed) { changed.notify_all(self.get(Name::_changed).get()); }

// Makes `exception` the one being handled (what `sys.exc_info()` and `exc_info=True` see) for as
// long as it lives, as an `except` clause does, then puts back what was handled before.
class Handling {
public:
    explicit Handling(PyObject* exception) : before_(Ref::steal(PyErr_GetHandledException())) {
        PyErr_SetHandledException(exception);
    }
    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;
    ~Handling() { PyErr_SetHandledException(before_.get()); }

private:
    Ref before_;
};

// Runs `cleanup` after `body`, whatever `body` raised, and then lets `body`'s exception go on; an
// exception from `cleanup` takes its place with it as its context, as a `finally` clause does.
template <typename Body, typename Cleanup>
void finally(Body&& body, Cleanup&& cleanup) {
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

// __init__, _spent_since, _today_locked, spent

Ref daily_init(Self& self, PyObject* cap, PyObject* today, PyObject* ledger) {
    FunctionObject* fn = self.fn();
    self.set(Name::_cap, cap);
    self.set(Name::_today, today);
    self.set(Name::_ledger, ledger);
    Ref condition = call_method(global(fn, Name::threading).get(), name(fn, Name::Condition));
    self.refresh();
    self.set(Name::_changed, condition.get());
    Ref held = call(global(fn, Name::_Held).get());
    self.refresh();
    self.set(Name::_held, held.get());
    self.set(Name::_day, state_of(fn).fast.empty_text);
    self.set(Name::_cost, state_of(fn).fast.zero);
    self.set(Name::_capped, Py_False);
    return none();
}

Ref daily_spent_since(Self& self, PyObject* day) {
    FunctionObject* fn = self.fn();
    Ref ledger = self.get(Name::_ledger);
    if (ledger.get() == Py_None) {
        return Ref::borrow(state_of(fn).fast.zero);
    }
    try {
        Ref figure = call(ledger.get(), day);
        return own(PyNumber_Float(figure.get()));
    } catch (const PythonError&) {
        // Only an `Exception` means the ledger cannot be read; an interrupt or an exit passes on.
        if (!PyErr_ExceptionMatches(PyExc_Exception)) {
            throw;
        }
    }
    Ref error = Ref::steal(PyErr_GetRaisedException());
    {
        Handling handling(error.get());
        Ref logger = global(fn, Name::logger);
        Ref format = text(unreadable_ledger);
        Ref keywords = own(PyTuple_Pack(1, name(fn, Name::exc_info)));
        PyObject* argv[] = {logger.get(), format.get(), day, Py_True};
        own(PyObject_VectorcallMethod(name(fn, Name::warning), argv, 3 | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                      keywords.get()));
    }
    return Ref::borrow(state_of(fn).fast.zero);
}

Ref daily_today_locked(Self& self) {
    // `self._today()`: an instance attribute, read in the instance dict, then called.
    Ref today = call(self.get(Name::_today).get());
    self.refresh();
    if (holds(today.get(), self.get(Name::_day).get(), Py_NE)) {
        // The ledger is read before anything changes: if it is interrupted, the day is tried again.
        Ref figure = self.call(Name::_spent_since, daily_spent_since, today.get());
        self.set(Name::_day, today.get());
        self.set(Name::_cost, figure.get());
        self.set(Name::_capped, Py_False);
    }
    return self.get(Name::_cost);
}

Ref daily_spent(Self& self) {
    return holding(self.fn(), self.get(Name::_changed).get(), [&] {
        self.refresh();
        return self.call(Name::_today_locked, daily_today_locked);
    });
}

// admit, charge, _give_back

Ref formatted(PyObject* value, const char* format) { return own(PyObject_Format(value, text(format).get())); }

// `Share(functools.partial(self._give_back, held))` once `self._held.take(held)` is done, for an
// account whose `self._held.admits(held, cost, self._cap)` is true: all at once on a standard
// account, `_Held` and exact amounts. Null, with nothing taken, when the step-by-step code must
// decide, which then also asks `admits` (which changes nothing) again.
Ref admitted_directly(Self& self, PyObject* held, PyObject* cost) {
    FunctionObject* fn = self.fn();
    if (!self.standard() || !standard_partial(fn) || self.shadows(Name::_give_back)) {
        return Ref();
    }
    PyObject* account = self.field(Name::_held);
    PyObject* cap = self.field(Name::_cap);
    bool unbounded;
    double amount;
    double used;
    double limit;
    if (account == nullptr || cap == nullptr || !share_amount(fn, held, &unbounded, &amount) ||
        !exact_float(cost, &used) || !exact_float(cap, &limit)) {
        return Ref();
    }
    HeldNumbers numbers(fn, account);
    if (!numbers || !numbers.admits(unbounded, used, limit)) {
        return Ref();
    }
    numbers.take(unbounded, amount);
    numbers.store();
    // The class's own `_give_back`, bound to the account as reading `self._give_back` binds it.
    PyObject* method = _PyType_Lookup(Py_TYPE(self.object()), name(fn, Name::_give_back));
    Ref bound = own(PyMethod_New(method, self.object()));
    PyObject* argv[] = {bound.get(), held};
    Ref partial = own(PyObject_Vectorcall(state_of(fn).fast.partial_type, argv, 2, nullptr));
    return make_share(fn, partial.get());
}

Ref daily_admit(Self& self, PyObject* bound, PyObject* deadline, PyObject* clock, PyObject* stopping) {
    FunctionObject* fn = self.fn();
    Ref cost;
    bool first = false;
    {
        Holding changed(fn, self.get(Name::_changed).get());
        for (;;) {
            // Taking the lock, waiting and the caller's callables let anything change meanwhile.
            self.refresh();
            cost = self.call(Name::_today_locked, daily_today_locked);
            if (!holds(cost.get(), self.get(Name::_cap).get(), Py_LT)) {
                break;
            }
            Ref held = call(bound);
            self.refresh();
            if (Ref share = admitted_directly(self, held.get(), cost.get())) {
                changed.leave();
                return share;
            }
            Ref account = self.get(Name::_held);
            Ref cap = self.get(Name::_cap);
            bool admitted = admits(fn, account.get(), held.get(), cost.get(), cap.get());
            self.refresh();
            if (admitted) {
                take(fn, self.get(Name::_held).get(), held.get());
                self.refresh();
                // The share gives back exactly what was taken, whatever `bound()` says later.
                Ref partial = getattr(global(fn, Name::functools).get(), name(fn, Name::partial));
                Ref method = getattr(self.object(), name(fn, Name::_give_back));
                Ref share = make_share(fn, call(partial.get(), method.get(), held.get()).get());
                changed.leave();
                return share;
            }
            Ref wait = global(fn, Name::_wait);
            Ref keywords = own(PyTuple_Pack(2, name(fn, Name::deadline), name(fn, Name::clock)));
            Ref condition = self.get(Name::_changed);
            PyObject* argv[] = {condition.get(), stopping, deadline, clock};
            own(PyObject_Vectorcall(wait.get(), argv, 2, keywords.get()));
        }
        first = !is_true(self.get(Name::_capped).get());
        self.set(Name::_capped, Py_True);
        changed.leave();
    }
    // Logged and raised with the lock free: a handler that blocks must not stall the account.
    self.refresh();
    if (first) {
        Ref logger = global(fn, Name::logger);
        call_method(logger.get(), name(fn, Name::warning), text(cap_reached).get(), cost.get(),
                    self.get(Name::_cap).get());
        self.refresh();
    }
    Ref parts = own(PyTuple_Pack(5, text("the daily decision cost cap is reached: $").get(),
                                 formatted(cost.get(), ".4f").get(), text(" of $").get(),
                                 formatted(self.get(Name::_cap).get(), ".2f").get(),
                                 text(" spent today (UTC)").get()));
    raise_error(fn, Name::DecisionBudgetExceeded, own(PyUnicode_Join(text("").get(), parts.get())));
}

Ref daily_charge(Self& self, PyObject* reply) {
    FunctionObject* fn = self.fn();
    Holding changed(fn, self.get(Name::_changed).get());
    self.refresh();
    self.call(Name::_today_locked, daily_today_locked);
    add_from(fn, self, Name::_cost, reply, Name::cost);
    notify_all(self, changed);
    changed.leave();
    return none();
}

Ref daily_give_back(Self& self, PyObject* held, PyObject* reply) {
    FunctionObject* fn = self.fn();
    Holding changed(fn, self.get(Name::_changed).get());
    self.refresh();
    finally(
        [&] {
            if (reply != Py_None) {
                // Counted on the day it settles: a new day starts from the ledger first.
                self.call(Name::_today_locked, daily_today_locked);
                add_from(fn, self, Name::_cost, reply, Name::cost);
            }
        },
        // Given back even when counting failed: no call holds this share any more, and an amount
        // left held would keep later admissions waiting for good.
        [&] {
            self.refresh();
            give_back(fn, self.get(Name::_held).get(), held);
            self.refresh();
            notify_all(self, changed);
        });
    changed.leave();
    return none();
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
    {"spent", "DailySpend.spent", "What the paid calls of today cost so far, USD.", self_only, "float", method<Own::DailySpend, daily_spent>},
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
    {"_spent_since", "DailySpend._spent_since", nullptr, spent_since_params, "float", method<Own::DailySpend, daily_spent_since>},
};

}  // namespace

void add_daily_spend(PyObject* module) {
    ClassBuilder daily(module, "DailySpend", daily_doc);
    for (const FunctionDef& method : daily_methods) {
        daily.add(method);
    }
    bind(module, "DailySpend", daily.build());
}

}  // namespace decision_bounds
