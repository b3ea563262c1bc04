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


Ref attribute(FunctionObject* fn, PyObject* self, Name n) { return get_field(fn, self, n); }
void set_attribute(FunctionObject* fn, PyObject* self, Name n, PyObject* value) { set_field(fn, self, n, value); }

// `self.<n>()`, as a method call, so a subclass's override is the one called.
Ref call_own(FunctionObject* fn, PyObject* self, Name n) { return call_method_of(fn, self, n); }

// `self._changed.notify_all()`, inside the block that holds it.
void notify_all(FunctionObject* fn, PyObject* self, Holding& changed) {
    changed.notify_all(attribute(fn, self, Name::_changed).get());
}

// `self._cost += reply.cost`
void count(FunctionObject* fn, PyObject* self, PyObject* reply) {
    Ref cost = attribute(fn, self, Name::_cost);
    Ref paid = attribute(fn, reply, Name::cost);
    set_attribute(fn, self, Name::_cost, own(PyNumber_InPlaceAdd(cost.get(), paid.get())).get());
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

// __init__, spent, _today_locked, _spent_since

Ref daily_init(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    set_attribute(fn, self, Name::_cap, args[1]);
    set_attribute(fn, self, Name::_today, args[2]);
    set_attribute(fn, self, Name::_ledger, args[3]);
    Ref threading = global(fn, Name::threading);
    set_attribute(fn, self, Name::_changed, call_method(threading.get(), name(fn, Name::Condition)).get());
    set_attribute(fn, self, Name::_held, call(global(fn, Name::_Held).get()).get());
    set_attribute(fn, self, Name::_day, text("").get());
    set_attribute(fn, self, Name::_cost, real(0.0).get());
    set_attribute(fn, self, Name::_capped, Py_False);
    return none();
}

Ref daily_spent(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    return holding(fn, attribute(fn, self, Name::_changed).get(),
                   [&] { return call_own(fn, self, Name::_today_locked); });
}

Ref daily_today_locked(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    // `self._today()`: an instance attribute, read in the instance dict, then called.
    Ref today = call(attribute(fn, self, Name::_today).get());
    Ref day = attribute(fn, self, Name::_day);
    if (compare(today.get(), day.get(), Py_NE)) {
        // The ledger is read before anything changes: if it is interrupted, the day is tried again.
        Ref figure = call_method_of(fn, self, Name::_spent_since, today.get());
        set_attribute(fn, self, Name::_day, today.get());
        set_attribute(fn, self, Name::_cost, figure.get());
        set_attribute(fn, self, Name::_capped, Py_False);
    }
    return attribute(fn, self, Name::_cost);
}

Ref daily_spent_since(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    PyObject* day = args[1];
    Ref ledger = attribute(fn, self, Name::_ledger);
    if (ledger.get() == Py_None) {
        return real(0.0);
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
    return real(0.0);
}

// admit, charge, _give_back

Ref formatted(PyObject* value, const char* format) { return own(PyObject_Format(value, text(format).get())); }

Ref daily_admit(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    PyObject* bound = args[1];
    PyObject* deadline = args[2];
    PyObject* clock = args[3];
    PyObject* stopping = args[4];
    Ref cap;
    Ref cost;
    bool first = false;
    {
        Ref condition = attribute(fn, self, Name::_changed);
        Holding changed(fn, condition.get());
        for (;;) {
            cost = call_own(fn, self, Name::_today_locked);
            cap = attribute(fn, self, Name::_cap);
            if (!compare(cost.get(), cap.get(), Py_LT)) {
                break;
            }
            Ref held = call(bound);
            // Read afresh after `bound()`, which runs the caller's code.
            cap = attribute(fn, self, Name::_cap);
            Ref account = attribute(fn, self, Name::_held);
            if (truthy(call_method_of(fn, account.get(), Name::admits, held.get(), cost.get(), cap.get()).get())) {
                call_method_of(fn, account.get(), Name::take, held.get());
                // The share gives back exactly what was taken, whatever `bound()` says later.
                Ref partial = getattr(global(fn, Name::functools).get(), name(fn, Name::partial));
                Ref give_back = call(partial.get(), getattr(self, name(fn, Name::_give_back)).get(), held.get());
                Ref share = call(global(fn, Name::Share).get(), give_back.get());
                changed.leave();
                return share;
            }
            Ref wait = global(fn, Name::_wait);
            Ref keywords = own(PyTuple_Pack(2, name(fn, Name::deadline), name(fn, Name::clock)));
            Ref changed_now = attribute(fn, self, Name::_changed);
            PyObject* argv[] = {changed_now.get(), stopping, deadline, clock};
            own(PyObject_Vectorcall(wait.get(), argv, 2, keywords.get()));
        }
        first = !truthy(attribute(fn, self, Name::_capped).get());
        set_attribute(fn, self, Name::_capped, Py_True);
        changed.leave();
    }
    // Logged and raised with the lock free: a handler that blocks must not stall the account.
    if (first) {
        Ref logger = global(fn, Name::logger);
        call_method(logger.get(), name(fn, Name::warning), text(cap_reached).get(), cost.get(), cap.get());
    }
    Ref parts = own(PyTuple_Pack(5, text("the daily decision cost cap is reached: $").get(),
                                 formatted(cost.get(), ".4f").get(), text(" of $").get(),
                                 formatted(cap.get(), ".2f").get(), text(" spent today (UTC)").get()));
    raise_error(fn, Name::DecisionBudgetExceeded, own(PyUnicode_Join(text("").get(), parts.get())));
}

Ref daily_charge(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    Holding changed(fn, attribute(fn, self, Name::_changed).get());
    call_own(fn, self, Name::_today_locked);
    count(fn, self, args[1]);
    notify_all(fn, self, changed);
    changed.leave();
    return none();
}

Ref daily_give_back(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    PyObject* held = args[1];
    PyObject* reply = args[2];
    Holding changed(fn, attribute(fn, self, Name::_changed).get());
    finally(
        [&] {
            if (reply != Py_None) {
                // Counted on the day it settles: a new day starts from the ledger first.
                call_own(fn, self, Name::_today_locked);
                count(fn, self, reply);
            }
        },
        // Given back even when counting failed: no call holds this share any more, and an amount
        // left held would keep later admissions waiting for good.
        [&] {
            call_method_of(fn, attribute(fn, self, Name::_held).get(), Name::give_back, held);
            notify_all(fn, self, changed);
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
     init_params, "None", daily_init},
    {"spent", "DailySpend.spent", "What the paid calls of today cost so far, USD.", self_only, "float", daily_spent},
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
     admit_params, "Share", daily_admit},
    {"charge", "DailySpend.charge", R"doc(Count what ``reply`` cost today without a share: an attempt of a call that settled
        with another reply, sent and never read (the endpoint may bill it).)doc",
     charge_params, "None", daily_charge},
    {"_give_back", "DailySpend._give_back",
     "Give back what a call held, and count what its paid ``reply`` cost today.", give_back_params, "None",
     daily_give_back},
    {"_today_locked", "DailySpend._today_locked",
     R"doc(Today's spend; a new day starts from what the ledger says it has cost so far, and keeps
        the shares of the calls in flight, which it is charged when they settle.)doc",
     self_only, "float", daily_today_locked},
    {"_spent_since", "DailySpend._spent_since", nullptr, spent_since_params, "float", daily_spent_since},
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
