#include "run_budget.hpp"

#include "shares.hpp"

#include <climits>

namespace decision_bounds {
namespace {

constexpr const char* budget_doc = R"doc(Bounds one batch pass: its calls, its tokens and its stop. A paid call holds a call slot and
    the tokens it may use from :meth:`hold` until its share settles (:meth:`charge` or
    :meth:`release`); cache hits are free. Once ``should_stop`` says so, no call and no retry
    starts.)doc";

// What a reply says, read as any attribute.
Ref read(FunctionObject* fn, PyObject* reply, Name n) { return getattr(reply, name(fn, n)); }

// `self.<counter> += <reply>.<counter>`: the counter is read before the reply's attribute.
void add_from(FunctionObject* fn, Self& self, Name counter, PyObject* reply) {
    Ref value = self.get(counter);
    Ref step = read(fn, reply, counter);
    self.refresh();  // reading the reply may have run code of the caller's
    self.set(counter, add_in_place(value.get(), step.get()).get());
}

// `self._changed.notify_all()`, inside the block that holds it.
void notify_all(Self& self, Holding& changed) { changed.notify_all(self.get(Name::_changed).get()); }

// The direct paths: the common outcome of `reserve`, `release` and `charge`, done at once in machine
// numbers on a standard budget, writing what the step-by-step code would write. Each answers false,
// having changed nothing, whenever anything is not standard or the outcome is another (a refusal,
// a wait): the step-by-step code then does it.

// `max(0, count - 1)`
long long one_less(long long count) { return count > 1 ? count - 1 : 0; }

Ref count(long long value) { return own(PyLong_FromLongLong(value)); }

// One pass of the admission loop that admits the call: its slot and tokens taken.
bool admit_directly(FunctionObject* fn, Self& self, PyObject* tokens) {
    if (!self.standard() || self.shadows(Name::_exhausted_locked)) {
        return false;
    }
    long long calls;
    long long in_flight;
    long long max_calls;
    long long slots;
    double used;
    double limit;
    PyObject* values[] = {self.field(Name::calls), self.field(Name::in_flight), self.field(Name::max_calls),
                          self.field(Name::input_tokens), self.field(Name::max_tokens)};
    for (PyObject* value : values) {
        if (value == nullptr) {
            return false;
        }
    }
    if (!exact_int(values[0], &calls) || !exact_int(values[1], &in_flight) || !exact_int(values[2], &max_calls) ||
        __builtin_add_overflow(calls, in_flight, &slots) || in_flight == LLONG_MAX ||
        !exact_float(values[3], &used) || !exact_float(values[4], &limit)) {
        return false;
    }
    // `_exhausted_locked()`: refused step by step.
    if (slots >= max_calls || used >= limit) {
        return false;
    }
    PyObject* held_tokens = self.field(Name::_held_tokens);
    if (held_tokens == nullptr) {
        return false;
    }
    HeldNumbers held(fn, held_tokens);
    bool unbounded;
    double share;
    if (!held || !share_amount(fn, tokens, &unbounded, &share) || !held.admits(unbounded, used, limit)) {
        return false;
    }
    self.store(Name::in_flight, count(in_flight + 1).get());
    held.take(unbounded, share);
    held.store();
    return true;
}

// The slot and the tokens of a reservation given back, for `release` and a paid `charge`; null
// when something is not standard.
struct GiveBack {
    long long in_flight;
    PyObject* changed;
};

bool give_back_directly(FunctionObject* fn, Self& self, PyObject* tokens, GiveBack* out) {
    PyObject* in_flight = self.field(Name::in_flight);
    PyObject* held_tokens = self.field(Name::_held_tokens);
    out->changed = self.field(Name::_changed);
    if (in_flight == nullptr || held_tokens == nullptr || out->changed == nullptr ||
        !exact_int(in_flight, &out->in_flight)) {
        return false;
    }
    HeldNumbers held(fn, held_tokens);
    bool unbounded;
    double share;
    if (!held || !share_amount(fn, tokens, &unbounded, &share)) {
        return false;
    }
    self.store(Name::in_flight, count(one_less(out->in_flight)).get());
    held.give_back(unbounded, share);
    held.store();
    return true;
}

// `release(tokens)` inside its block: the slot and tokens given back, the waiters woken.
bool release_directly(FunctionObject* fn, Self& self, PyObject* tokens, Holding& changed) {
    GiveBack given;
    if (!self.standard() || !give_back_directly(fn, self, tokens, &given)) {
        return false;
    }
    changed.notify_all(given.changed);
    return true;
}

// `charge(result, tokens)` inside its block, for a reply whose attributes are plain values and a
// `cached` that is True or False.
bool charge_directly(FunctionObject* fn, Self& self, PyObject* result, PyObject* tokens, Holding& changed) {
    if (!self.standard()) {
        return false;
    }
    Ref cached = plain_attribute(fn, result, Name::cached);
    if (cached.get() == Py_True) {
        long long hits;
        PyObject* cache_hits = self.field(Name::cache_hits);
        if (cache_hits == nullptr || !exact_int(cache_hits, &hits) || hits == LLONG_MAX) {
            return false;
        }
        self.store(Name::cache_hits, count(hits + 1).get());
        return true;
    }
    long long calls;
    PyObject* settled = self.field(Name::calls);
    PyObject* used = self.field(Name::input_tokens);
    PyObject* spent = self.field(Name::cost);
    if (cached.get() != Py_False || settled == nullptr || used == nullptr || spent == nullptr ||
        !exact_int(settled, &calls) || calls == LLONG_MAX) {
        return false;
    }
    Ref paid_tokens = plain_attribute(fn, result, Name::input_tokens);
    Ref paid_cost = plain_attribute(fn, result, Name::cost);
    Ref input_tokens = paid_tokens ? exact_sum(used, paid_tokens.get()) : Ref();
    Ref cost = paid_cost ? exact_sum(spent, paid_cost.get()) : Ref();
    Ref calls_now = count(calls + 1);
    GiveBack given;
    if (!input_tokens || !cost || !give_back_directly(fn, self, tokens, &given)) {
        return false;
    }
    self.store(Name::calls, calls_now.get());
    self.store(Name::input_tokens, input_tokens.get());
    self.store(Name::cost, cost.get());
    changed.notify_all(given.changed);
    return true;
}

// `self.stopping()`: False at once for a standard budget whose stop is `never`.
bool stops(FunctionObject* fn, Self& self);

Ref stopping(Self& self) {
    // `self.should_stop()`: a field, read in the instance dict, then called.
    Ref should_stop = self.get(Name::should_stop);
    if (is_never(self.fn(), should_stop.get())) {
        return boolean(false);
    }
    return boolean(is_true(call(should_stop.get()).get()));
}

bool stops(FunctionObject* fn, Self& self) {
    if (self.standard() && !self.shadows(Name::stopping)) {
        PyObject* should_stop = self.field(Name::should_stop);
        if (should_stop != nullptr && is_never(fn, should_stop)) {
            return false;
        }
    }
    return is_true(self.call(Name::stopping, stopping).get());
}

// `self.calls + self.in_flight >= self.max_calls or self.input_tokens >= self.max_tokens`, with the
// value of `or`: the token test is made only when the call test is false.
Ref exhausted_locked(Self& self) {
    Ref slots = add(self.get(Name::calls).get(), self.get(Name::in_flight).get());
    Ref out_of_calls = compared(slots.get(), self.get(Name::max_calls).get(), Py_GE);
    if (is_true(out_of_calls.get())) {
        return out_of_calls;
    }
    return compared(self.get(Name::input_tokens).get(), self.get(Name::max_tokens).get(), Py_GE);
}

Ref exhausted(Self& self) {
    return holding(self.fn(), self.get(Name::_changed).get(), [&] {
        self.refresh();
        return self.call(Name::_exhausted_locked, exhausted_locked);
    });
}

Ref summary_locked(Self& self) {
    FunctionObject* fn = self.fn();
    Ref summary = own(PyDict_New());
    auto put = [&](Name key, const Ref& value) { check(PyDict_SetItem(summary.get(), name(fn, key), value.get())); };
    put(Name::calls, self.get(Name::calls));
    put(Name::cache_hits, self.get(Name::cache_hits));
    put(Name::input_tokens, self.get(Name::input_tokens));
    Ref cost = self.get(Name::cost);
    put(Name::cost_usd, call(global(fn, Name::round).get(), cost.get(), integer(6).get()));
    self.refresh();  // `round` is looked up in the namespace: it may be code of the caller's
    put(Name::max_calls, self.get(Name::max_calls));
    put(Name::max_tokens, self.get(Name::max_tokens));
    return summary;
}

Ref summary(Self& self) {
    return holding(self.fn(), self.get(Name::_changed).get(), [&] {
        self.refresh();
        return self.call(Name::_summary_locked, summary_locked);
    });
}

Ref reserve(Self& self, PyObject* tokens) {
    FunctionObject* fn = self.fn();
    // The first stop test takes no lock: a stopping pass is refused without waiting for it.
    if (stops(fn, self)) {
        raise_error(fn, Name::DecisionStopped, "the pass was asked to stop");
    }
    Holding changed(fn, self.get(Name::_changed).get());
    for (;;) {
        // Every field is read afresh on each pass: taking the lock or waiting for it lets other
        // threads change all of them.
        self.refresh();
        if (admit_directly(fn, self, tokens)) {
            changed.leave();
            return none();
        }
        if (is_true(self.call(Name::_exhausted_locked, exhausted_locked).get())) {
            Ref summary = self.call(Name::_summary_locked, summary_locked);
            raise_error(fn, Name::DecisionBudgetExceeded,
                        own(PyUnicode_FromFormat("decision budget exhausted: %S", summary.get())));
        }
        Ref held = self.get(Name::_held_tokens);
        Ref input_tokens = self.get(Name::input_tokens);
        Ref max_tokens = self.get(Name::max_tokens);
        bool admitted = admits(fn, held.get(), tokens, input_tokens.get(), max_tokens.get());
        self.refresh();
        if (admitted) {
            self.add_to(Name::in_flight, one(fn));
            take(fn, self.get(Name::_held_tokens).get(), tokens);
            changed.leave();
            return none();
        }
        Ref wait = global(fn, Name::_wait);
        Ref condition = self.get(Name::_changed);
        Ref stopping = self.get(Name::stopping);
        call(wait.get(), condition.get(), stopping.get());
    }
}

Ref release(Self& self, PyObject* tokens) {
    FunctionObject* fn = self.fn();
    Holding changed(fn, self.get(Name::_changed).get());
    self.refresh();
    if (release_directly(fn, self, tokens, changed)) {
        changed.leave();
        return none();
    }
    self.take_from(Name::in_flight, one(fn), zero_int(fn));
    give_back(fn, self.get(Name::_held_tokens).get(), tokens);
    self.refresh();
    notify_all(self, changed);
    changed.leave();
    return none();
}

Ref charge(Self& self, PyObject* result, PyObject* tokens) {
    FunctionObject* fn = self.fn();
    Holding changed(fn, self.get(Name::_changed).get());
    self.refresh();
    if (charge_directly(fn, self, result, tokens, changed)) {
        changed.leave();
        return none();
    }
    bool cached = is_true(read(fn, result, Name::cached).get());
    self.refresh();
    if (cached) {
        // A cache hit held nothing, so it frees nothing and wakes nobody.
        self.add_to(Name::cache_hits, one(fn));
        changed.leave();
        return none();
    }
    self.take_from(Name::in_flight, one(fn), zero_int(fn));
    give_back(fn, self.get(Name::_held_tokens).get(), tokens);
    self.refresh();
    self.add_to(Name::calls, one(fn));
    add_from(fn, self, Name::input_tokens, result);
    add_from(fn, self, Name::cost, result);
    notify_all(self, changed);
    changed.leave();
    return none();
}

// The give-back of one share made by `hold`: `captured[0]` is the budget, `captured[1]` the tokens
// that its reservation took, so the share gives back exactly those.
Ref give_back_body(FunctionObject* fn, PyObject* const* args) {
    PyObject* reply = args[0];
    Self budget(fn, fn->captured[0], Own::RunBudget);
    PyObject* tokens = fn->captured[1];
    if (reply == Py_None) {
        budget.call(Name::release, release, tokens);
    } else {
        budget.call(Name::charge, charge, reply, tokens);
    }
    return none();
}

constexpr Param give_back_params[] = {{"reply", "PaidReply | None"}};
constexpr FunctionDef give_back_def = {
    "give_back", "RunBudget.hold.<locals>.give_back", nullptr, give_back_params, "None", give_back_body};

Ref hold(Self& self, PyObject* tokens) {
    FunctionObject* fn = self.fn();
    self.call(Name::reserve, reserve, tokens);
    Ref give_back = make_closure(fn, give_back_def, self.object(), tokens);
    return make_share(fn, give_back.get());
}

constexpr Param self_only[] = {{"self", nullptr}};
constexpr Param tokens_param[] = {{"self", nullptr}, {"tokens", "float"}};
constexpr Param charge_params[] = {{"self", nullptr}, {"result", "PaidReply"}, {"tokens", "float"}};

// In the order of the class body; the methods with a `tokens=0.0` default are marked.
struct Method {
    FunctionDef def;
    bool tokens_default;
};

constexpr Method budget_methods[] = {
    {{"stopping", "RunBudget.stopping", "Whether the pass has been asked to stop.", self_only, "bool", method<Own::RunBudget, stopping>},
     false},
    {{"exhausted", "RunBudget.exhausted", nullptr, self_only, "bool", method<Own::RunBudget, exhausted>}, false},
    {{"_exhausted_locked", "RunBudget._exhausted_locked", nullptr, self_only, "bool", method<Own::RunBudget, exhausted_locked>}, false},
    {{"reserve", "RunBudget.reserve",
      "Take a call slot and ``tokens`` before a network call, waiting while the calls in flight\n"
      "        hold the rest of the tokens.\n"
      "\n"
      "        Args:\n"
      "            tokens: The most input tokens the call may use; ``math.inf`` when that is not known.\n"
      "\n"
      "        Raises:\n"
      "            DecisionBudgetExceeded: No call or no token is left.\n"
      "            DecisionStopped: The pass is stopping, before or while the call waits.\n"
      "        ",
      tokens_param, "None", method<Own::RunBudget, reserve>},
     true},
    {{"hold", "RunBudget.hold",
      ":meth:`reserve` a call slot and ``tokens``, as a share that settles by :meth:`charge`\n"
      "        with the paid reply, or by :meth:`release` without one.",
      tokens_param, "Share", method<Own::RunBudget, hold>},
     false},
    {{"release", "RunBudget.release", "Give a reserved slot and its ``tokens`` back after a failed call.", tokens_param,
      "None", method<Own::RunBudget, release>},
     true},
    {{"charge", "RunBudget.charge",
      "Record a completed call (settling its reserved slot and ``tokens``) or a cache hit.", charge_params, "None",
      method<Own::RunBudget, charge>},
     true},
    {{"summary", "RunBudget.summary", nullptr, self_only, "dict[str, Any]", method<Own::RunBudget, summary>}, false},
    {{"_summary_locked", "RunBudget._summary_locked", nullptr, self_only, "dict[str, Any]", method<Own::RunBudget, summary_locked>},
     false},
};

// `field(<default_key>=value, repr=False, compare=False)`, with `field` as the namespace has it now.
Ref private_field(PyObject* module, const char* default_key, const Ref& value) {
    Ref kwargs = own(PyDict_New());
    check(PyDict_SetItemString(kwargs.get(), default_key, value.get()));
    check(PyDict_SetItemString(kwargs.get(), "repr", Py_False));
    check(PyDict_SetItemString(kwargs.get(), "compare", Py_False));
    Ref no_args = own(PyTuple_New(0));
    return own(PyObject_Call(lookup(module, "field").get(), no_args.get(), kwargs.get()));
}

}  // namespace

void add_run_budget(PyObject* module) {
    ClassBuilder budget(module, "RunBudget", budget_doc,
                        {{"max_calls", "int"},
                         {"max_tokens", "int"},
                         {"calls", "int"},
                         {"input_tokens", "int"},
                         {"cost", "float"},
                         {"cache_hits", "int"},
                         {"in_flight", "int"},
                         {"should_stop", "Callable[[], bool]"},
                         {"_held_tokens", "_Held"},
                         {"_changed", "threading.Condition"}});
    budget.add("calls", integer(0));
    budget.add("input_tokens", integer(0));
    budget.add("cost", real(0.0));
    budget.add("cache_hits", integer(0));
    budget.add("in_flight", integer(0));
    budget.add("should_stop", private_field(module, "default", lookup(module, "never")));
    budget.add("_held_tokens", private_field(module, "default_factory", lookup(module, "_Held")));
    Ref condition = getattr(lookup(module, "threading").get(), text("Condition").get());
    budget.add("_changed", private_field(module, "default_factory", condition));
    for (const Method& method : budget_methods) {
        if (method.tokens_default) {
            Ref defaults = own(Py_BuildValue("(d)", 0.0));
            budget.add(method.def, defaults.get());
        } else {
            budget.add(method.def);
        }
    }
    bind(module, "RunBudget", as_dataclass(module, budget.build()));
}

}  // namespace decision_bounds
