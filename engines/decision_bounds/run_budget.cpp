#include "run_budget.hpp"

#include "shares.hpp"

namespace decision_bounds {
namespace {

constexpr const char* budget_doc = R"doc(Bounds one batch pass: its calls, its tokens and its stop. A paid call holds a call slot and
    the tokens it may use from :meth:`hold` until its share settles (:meth:`charge` or
    :meth:`release`); cache hits are free. Once ``should_stop`` says so, no call and no retry
    starts.)doc";


// The budget's own fields (and its `_Held`'s), straight from their instance dicts (fast.hpp).
Ref attr(FunctionObject* fn, PyObject* object, Name n) { return get_field(fn, object, n); }
void set_attr(FunctionObject* fn, PyObject* object, Name n, PyObject* value) { set_field(fn, object, n, value); }
// What a reply says, read as any attribute.
Ref read(FunctionObject* fn, PyObject* reply, Name n) { return getattr(reply, name(fn, n)); }

// `self.<counter> += step`, read, added and stored as the augmented assignment does it.
void add_to(FunctionObject* fn, PyObject* self, Name counter, PyObject* step) {
    Ref value = attr(fn, self, counter);
    set_attr(fn, self, counter, own(PyNumber_InPlaceAdd(value.get(), step)).get());
}

// `self.<counter> += <reply>.<counter>`: the counter is read before the reply's attribute.
void add_from(FunctionObject* fn, PyObject* self, Name counter, PyObject* reply) {
    Ref value = attr(fn, self, counter);
    Ref step = read(fn, reply, counter);
    set_attr(fn, self, counter, own(PyNumber_InPlaceAdd(value.get(), step.get())).get());
}

// `self.in_flight = max(0, self.in_flight - 1)`
void free_slot(FunctionObject* fn, PyObject* self) {
    Ref value = attr(fn, self, Name::in_flight);
    Ref less = own(PyNumber_Subtract(value.get(), integer(1).get()));
    set_attr(fn, self, Name::in_flight, maximum(integer(0).get(), less.get()).get());
}

Ref stopping_body(FunctionObject* fn, PyObject* const* args) {
    // `self.should_stop()`: a field, read in the instance dict, then called.
    return boolean(truthy(call(attr(fn, args[0], Name::should_stop).get()).get()));
}

Ref exhausted_body(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    return holding(fn, attr(fn, self, Name::_changed).get(),
                   [&] { return call_method_of(fn, self, Name::_exhausted_locked); });
}

// `self.calls + self.in_flight >= self.max_calls or self.input_tokens >= self.max_tokens`, with the
// value of `or`: the token test is made only when the call test is false.
Ref exhausted_locked_body(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    Ref calls = attr(fn, self, Name::calls);
    Ref in_flight = attr(fn, self, Name::in_flight);
    Ref slots = own(PyNumber_Add(calls.get(), in_flight.get()));
    Ref max_calls = attr(fn, self, Name::max_calls);
    Ref out_of_calls = own(PyObject_RichCompare(slots.get(), max_calls.get(), Py_GE));
    if (truthy(out_of_calls.get())) {
        return out_of_calls;
    }
    Ref input_tokens = attr(fn, self, Name::input_tokens);
    Ref max_tokens = attr(fn, self, Name::max_tokens);
    return own(PyObject_RichCompare(input_tokens.get(), max_tokens.get(), Py_GE));
}

Ref reserve_body(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    PyObject* tokens = args[1];
    // The first stop test takes no lock: a stopping pass is refused without waiting for it.
    if (truthy(call_method_of(fn, self, Name::stopping).get())) {
        raise_error(fn, Name::DecisionStopped, "the pass was asked to stop");
    }
    Holding changed(fn, attr(fn, self, Name::_changed).get());
    for (;;) {
        // Every field is read afresh on each pass: a wait lets other threads change all of them.
        if (truthy(call_method_of(fn, self, Name::_exhausted_locked).get())) {
            Ref summary = call_method_of(fn, self, Name::_summary_locked);
            raise_error(fn, Name::DecisionBudgetExceeded,
                       own(PyUnicode_FromFormat("decision budget exhausted: %S", summary.get())));
        }
        Ref held = attr(fn, self, Name::_held_tokens);
        Ref input_tokens = attr(fn, self, Name::input_tokens);
        Ref max_tokens = attr(fn, self, Name::max_tokens);
        if (truthy(call_method_of(fn, held.get(), Name::admits, tokens, input_tokens.get(), max_tokens.get())
                       .get())) {
            add_to(fn, self, Name::in_flight, integer(1).get());
            call_method_of(fn, attr(fn, self, Name::_held_tokens).get(), Name::take, tokens);
            changed.leave();
            return none();
        }
        Ref wait = global(fn, Name::_wait);
        Ref condition = attr(fn, self, Name::_changed);
        Ref stopping = attr(fn, self, Name::stopping);
        call(wait.get(), condition.get(), stopping.get());
    }
}

// The give-back of one share made by `hold`: `captured[0]` is the budget, `captured[1]` the tokens
// that its reservation took, so the share gives back exactly those.
Ref give_back_body(FunctionObject* fn, PyObject* const* args) {
    PyObject* reply = args[0];
    PyObject* budget = fn->captured[0];
    PyObject* tokens = fn->captured[1];
    if (reply == Py_None) {
        call_method_of(fn, budget, Name::release, tokens);
    } else {
        call_method_of(fn, budget, Name::charge, reply, tokens);
    }
    return none();
}

constexpr Param give_back_params[] = {{"reply", "PaidReply | None"}};
constexpr FunctionDef give_back_def = {
    "give_back", "RunBudget.hold.<locals>.give_back", nullptr, give_back_params, "None", give_back_body};

Ref hold_body(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    PyObject* tokens = args[1];
    call_method_of(fn, self, Name::reserve, tokens);
    Ref give_back = make_function(fn->module, give_back_def);
    auto* closure = reinterpret_cast<FunctionObject*>(give_back.get());
    closure->captured[0] = Py_NewRef(self);
    closure->captured[1] = Py_NewRef(tokens);
    return call(global(fn, Name::Share).get(), give_back.get());
}

// `self._changed.notify_all()`, inside the block that holds it.
void notify_all(FunctionObject* fn, PyObject* self, Holding& changed) {
    changed.notify_all(attr(fn, self, Name::_changed).get());
}

Ref release_body(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    PyObject* tokens = args[1];
    Holding changed(fn, attr(fn, self, Name::_changed).get());
    free_slot(fn, self);
    call_method_of(fn, attr(fn, self, Name::_held_tokens).get(), Name::give_back, tokens);
    notify_all(fn, self, changed);
    changed.leave();
    return none();
}

Ref charge_body(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    PyObject* result = args[1];
    PyObject* tokens = args[2];
    Holding changed(fn, attr(fn, self, Name::_changed).get());
    if (truthy(read(fn, result, Name::cached).get())) {
        // A cache hit held nothing, so it frees nothing and wakes nobody.
        add_to(fn, self, Name::cache_hits, integer(1).get());
        changed.leave();
        return none();
    }
    free_slot(fn, self);
    call_method_of(fn, attr(fn, self, Name::_held_tokens).get(), Name::give_back, tokens);
    add_to(fn, self, Name::calls, integer(1).get());
    add_from(fn, self, Name::input_tokens, result);
    add_from(fn, self, Name::cost, result);
    notify_all(fn, self, changed);
    changed.leave();
    return none();
}

Ref summary_body(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    return holding(fn, attr(fn, self, Name::_changed).get(),
                   [&] { return call_method_of(fn, self, Name::_summary_locked); });
}

Ref summary_locked_body(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    Ref summary = own(PyDict_New());
    auto put = [&](Name key, const Ref& value) { check(PyDict_SetItem(summary.get(), name(fn, key), value.get())); };
    put(Name::calls, attr(fn, self, Name::calls));
    put(Name::cache_hits, attr(fn, self, Name::cache_hits));
    put(Name::input_tokens, attr(fn, self, Name::input_tokens));
    Ref cost = attr(fn, self, Name::cost);
    put(Name::cost_usd, call(global(fn, Name::round).get(), cost.get(), integer(6).get()));
    put(Name::max_calls, attr(fn, self, Name::max_calls));
    put(Name::max_tokens, attr(fn, self, Name::max_tokens));
    return summary;
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
    {{"stopping", "RunBudget.stopping", "Whether the pass has been asked to stop.", self_only, "bool", stopping_body},
     false},
    {{"exhausted", "RunBudget.exhausted", nullptr, self_only, "bool", exhausted_body}, false},
    {{"_exhausted_locked", "RunBudget._exhausted_locked", nullptr, self_only, "bool", exhausted_locked_body}, false},
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
      tokens_param, "None", reserve_body},
     true},
    {{"hold", "RunBudget.hold",
      ":meth:`reserve` a call slot and ``tokens``, as a share that settles by :meth:`charge`\n"
      "        with the paid reply, or by :meth:`release` without one.",
      tokens_param, "Share", hold_body},
     false},
    {{"release", "RunBudget.release", "Give a reserved slot and its ``tokens`` back after a failed call.", tokens_param,
      "None", release_body},
     true},
    {{"charge", "RunBudget.charge",
      "Record a completed call (settling its reserved slot and ``tokens``) or a cache hit.", charge_params, "None",
      charge_body},
     true},
    {{"summary", "RunBudget.summary", nullptr, self_only, "dict[str, Any]", summary_body}, false},
    {{"_summary_locked", "RunBudget._summary_locked", nullptr, self_only, "dict[str, Any]", summary_locked_body},
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
