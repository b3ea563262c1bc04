#include "run_budget.hpp"

#include "shares.hpp"
#include "startup.hpp"

namespace decision_bounds {
namespace {

constexpr const char* budget_doc = R"doc(Bounds one batch pass: its calls, its tokens and its stop. A paid call holds a call slot and
    the tokens it may use from :meth:`hold` until its share settles (:meth:`charge` or
    :meth:`release`); cache hits are free. Once ``should_stop`` says so, no call and no retry
    starts.)doc";

Value stopping(Record& self) {
    FunctionObject* fn = self.fn();
    // `bool(self.should_stop())`; the module's own `never` answers False without being called.
    Builtin to_bool(fn, Fact::bool_, Name::bool_);
    Value should_stop = self.get(Name::should_stop);
    Value result = is_never(fn, should_stop.get()) ? false_value() : Value::own(call(should_stop.get()));
    return to_bool.standard() ? Value::other(boolean(truth(result))) : to_bool.call(result);
}

// `self.calls + self.in_flight >= self.max_calls or self.input_tokens >= self.max_tokens`, with the
// value of `or`: the token test is made only when the call test is false.
Value exhausted_locked(Record& self) {
    Value calls = self.get(Name::calls);
    Value in_flight = self.get(Name::in_flight);
    Value slots = add(calls, in_flight);
    Value out_of_calls = compare(slots, self.get(Name::max_calls), Py_GE);
    if (truth(out_of_calls)) {
        return out_of_calls;
    }
    Value used = self.get(Name::input_tokens);
    return compare(used, self.get(Name::max_tokens), Py_GE);
}

Value exhausted(Record& self) {
    return returned(with(self.fn(), self.get(Name::_changed), [&]() -> Value {
        return Method(self, Name::_exhausted_locked).call<exhausted_locked>();
    }));
}

Value summary_locked(Record& self) {
    FunctionObject* fn = self.fn();
    // The values in the order of the dict display, then the dict.
    Value calls = self.get(Name::calls);
    Value cache_hits = self.get(Name::cache_hits);
    Value input_tokens = self.get(Name::input_tokens);
    Ref round = global(fn, Name::round);
    Value cost = self.get(Name::cost);
    Value cost_usd = Value::own(call(round.get(), cost.get(), Value::of(6LL).get()));
    Value max_calls = self.get(Name::max_calls);
    Value max_tokens = self.get(Name::max_tokens);
    Ref summary = own(PyDict_New());
    const std::pair<Name, const Value*> entries[] = {
        {Name::calls, &calls},         {Name::cache_hits, &cache_hits}, {Name::input_tokens, &input_tokens},
        {Name::cost_usd, &cost_usd}, {Name::max_calls, &max_calls},   {Name::max_tokens, &max_tokens}};
    for (const auto& [key, value] : entries) {
        check(PyDict_SetItem(summary.get(), name(fn, key), value->get()));
    }
    return Value::own(summary);
}

Value summary(Record& self) {
    return returned(with(self.fn(), self.get(Name::_changed), [&]() -> Value {
        return Method(self, Name::_summary_locked).call<summary_locked>();
    }));
}

}  // namespace

Value reserve_loop(Record& self, const Value& tokens, Attempt* attempt) {
    FunctionObject* fn = self.fn();
    // The first stop test takes no lock: a stopping pass is refused without waiting for it.
    if ((attempt == nullptr || attempt->first) && truth(Method(self, Name::stopping).call<stopping>())) {
        raise_error(fn, Name::DecisionStopped, "the pass was asked to stop");
    }
    return returned(with(fn, self.get(Name::_changed), [&]() -> Value {
        for (;;) {
            if (truth(Method(self, Name::_exhausted_locked).call<exhausted_locked>())) {
                raise_built(fn, Name::DecisionBudgetExceeded, [&] {
                    Value summary = Method(self, Name::_summary_locked).call<summary_locked>();
                    Ref shown = own(PyObject_Format(summary.get(), state_of(fn).standard.empty_text));
                    return Value::own(own(PyUnicode_Concat(text("decision budget exhausted: ").get(), shown.get())));
                });
            }
            Method admits(fn, self.get(Name::_held_tokens), Own::_Held, Name::admits);
            Value used = self.get(Name::input_tokens);
            Value limit = self.get(Name::max_tokens);
            if (truth(admits.call<held_admits>(tokens, used, limit))) {
                add_to(self, Name::in_flight, one());
                Method(admits, self.get(Name::_held_tokens), Name::take).call<held_take>(tokens);
                return none_value();
            }
            if (attempt != nullptr) {
                // A try that must not wait makes the tests that `_wait` makes before it waits, and
                // gives the time it would wait.
                Value stop = Value::own(getattr(self.object(), name(fn, Name::stopping)));
                attempt->wait = wait_checks(fn, stop, none_value(), none_value());
                return Value();
            }
            // `_wait(self._changed, self.stopping)`
            Ref wait = global(fn, Name::_wait);
            Value changed = self.get(Name::_changed);
            Value stop = Value::own(getattr(self.object(), name(fn, Name::stopping)));
            PyObject* args[] = {changed.get(), stop.get()};
            if (is_function(wait.get(), state_of(fn).function_type)) {
                call_function(wait.get(), args, 2);
            } else {
                call(wait.get(), args[0], args[1]);
            }
        }
    }));
}

namespace {

Value reserve(Record& self, const Value& tokens) { return reserve_loop(self, tokens, nullptr); }

Value release(Record& self, const Value& tokens) {
    FunctionObject* fn = self.fn();
    with(fn, self.get(Name::_changed), [&]() -> Value {
        one_less(self, Name::in_flight);
        Method(fn, self.get(Name::_held_tokens), Own::_Held, Name::give_back).call<held_give_back>(tokens);
        notify_all(fn, self.get(Name::_changed));
        return Value();
    });
    return none_value();
}

Value charge(Record& self, const Value& result, const Value& tokens) {
    FunctionObject* fn = self.fn();
    with(fn, self.get(Name::_changed), [&]() -> Value {
        if (truth(Value::own(getattr(result.get(), name(fn, Name::cached))))) {
            // A cache hit held nothing, so it frees nothing and wakes nobody.
            add_to(self, Name::cache_hits, one());
            return none_value();
        }
        one_less(self, Name::in_flight);
        Method(fn, self.get(Name::_held_tokens), Own::_Held, Name::give_back).call<held_give_back>(tokens);
        add_to(self, Name::calls, one());
        add_from(self, Name::input_tokens, result, Name::input_tokens);
        add_from(self, Name::cost, result, Name::cost);
        notify_all(fn, self.get(Name::_changed));
        return Value();
    });
    return none_value();
}

// The give-back of one share made by `hold`: `captured[0]` is the budget, `captured[1]` the tokens
// that its reservation took, so the share gives back exactly those.
Ref give_back_body(FunctionObject* fn, PyObject* const* args) {
    Value reply = Value::borrow(args[0]);
    Value budget = Value::borrow(fn->captured[0]);
    Value tokens = Value::borrow(fn->captured[1]);
    if (reply.get() == Py_None) {
        Method(fn, budget, Own::RunBudget, Name::release).call<release>(tokens);
    } else {
        Method(fn, budget, Own::RunBudget, Name::charge).call<charge>(reply, tokens);
    }
    return none();
}

constexpr Param give_back_params[] = {{"reply", "PaidReply | None"}};
constexpr FunctionDef give_back_def = {
    "give_back", "RunBudget.hold.<locals>.give_back", nullptr, give_back_params, "None", give_back_body};

}  // namespace

Value share_of_reservation(Record& self, const Value& tokens) {
    FunctionObject* fn = self.fn();
    Ref give_back = make_closure(fn, give_back_def, self.object(), tokens.get());
    return make_share(fn, [&] { return Value::own(give_back); });
}

namespace {

Value hold(Record& self, const Value& tokens) {
    Method(self, Name::reserve).call<reserve>(tokens);
    return share_of_reservation(self, tokens);
}

constexpr Param self_only[] = {{"self", nullptr}};
constexpr Param tokens_param[] = {{"self", nullptr}, {"tokens", "float"}};
constexpr Param charge_params[] = {{"self", nullptr}, {"result", "PaidReply"}, {"tokens", "float"}};

// In the order of the class body; the methods with a `tokens=0.0` default are marked.
struct MethodDef {
    FunctionDef def;
    bool tokens_default;
};

constexpr MethodDef budget_methods[] = {
    {{"stopping", "RunBudget.stopping", "Whether the pass has been asked to stop.", self_only, "bool",
      method<Own::RunBudget, stopping>},
     false},
    {{"exhausted", "RunBudget.exhausted", nullptr, self_only, "bool", method<Own::RunBudget, exhausted>}, false},
    {{"_exhausted_locked", "RunBudget._exhausted_locked", nullptr, self_only, "bool",
      method<Own::RunBudget, exhausted_locked>},
     false},
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
    {{"_summary_locked", "RunBudget._summary_locked", nullptr, self_only, "dict[str, Any]",
      method<Own::RunBudget, summary_locked>},
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
    for (const MethodDef& method : budget_methods) {
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
