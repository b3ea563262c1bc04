#include "request_rates.hpp"


#include "shares.hpp"
#include "startup.hpp"

namespace decision_bounds {
namespace {

// _Charges

constexpr const char* charges_doc = "The most one measure of the paid replies came to: for one call, and per request byte.";

// `max(self.per_byte * size, self.per_call)`: on a tie the product is the answer, with its type.
Value charges_bound(Record& self, const Value& size) {
    Builtin max(self.fn(), Fact::max, Name::max);
    Value product = multiply(self.get(Name::per_byte), size);
    return maximum(max, product, self.get(Name::per_call));
}

Value charges_learn(Record& self, const Value& size, const Value& charge) {
    FunctionObject* fn = self.fn();
    // `self.per_byte = max(self.per_byte, charge / max(size, 1))`: an empty request counts as one byte.
    Builtin max(fn, Fact::max, Name::max);
    Value kept = self.get(Name::per_byte);
    Builtin max_bytes(fn, Fact::max, Name::max);
    Value bytes = maximum(max_bytes, size, one());
    self.set(Name::per_byte, maximum(max, kept, divide(charge, bytes)));
    // The charge itself is kept, so an integer token count stays an integer.
    Builtin max_call(fn, Fact::max, Name::max);
    Value per_call = self.get(Name::per_call);
    self.set(Name::per_call, maximum(max_call, per_call, charge));
    return none_value();
}

constexpr Param bound_params[] = {{"self", nullptr}, {"size", "int"}};
constexpr Param learn_charge_params[] = {{"self", nullptr}, {"size", "int"}, {"charge", "float"}};

constexpr FunctionDef charges_methods[] = {
    {"bound", "_Charges.bound",
     "The most a request of ``size`` bytes may come to: never less than the most one call\n"
     "        came to, and for a request larger than those seen, the most per byte times its size (the\n"
     "        part of a charge that grows with the request's bytes).",
     bound_params, "float", method<Own::_Charges, charges_bound>},
    {"learn", "_Charges.learn", nullptr, learn_charge_params, "None", method<Own::_Charges, charges_learn>},
};

// RequestRates

constexpr const char* rates_doc = R"doc(What a request may cost, in USD and in input tokens, before its reply says.

    Its cost is held at the most a paid call has cost, of any feature, once its feature has had a
    paid reply, and is not known (infinite) before: a cheap feature's replies do not bound the
    first call of a dear one, which runs alone. Its input tokens grow with its bytes whatever its
    feature, and are not known before the first paid reply.
    )doc";

// `math.inf`
Value not_known(FunctionObject* fn) {
    if (is_standard(fn, Fact::math_inf)) {
        return Value::borrow(state_of(fn).standard.math_inf);
    }
    Ref math = global(fn, Name::math);
    return Value::own(getattr(math.get(), name(fn, Name::inf)));
}

Value rates_init(Record& self) {
    FunctionObject* fn = self.fn();
    self.set(Name::_lock, made_by(fn, Name::threading, Name::Lock));
    self.set(Name::_cost, Value::own(call(global(fn, Name::_Charges).get())));
    self.set(Name::_tokens, Value::own(call(global(fn, Name::_Charges).get())));
    Builtin set(fn, Fact::set, Name::set);
    self.set(Name::_features, set.standard() ? Value::other(own(PySet_New(nullptr))) : set.call());
    return none_value();
}

Value rates_cost(Record& self, const Value& size, const Value& feature) {
    FunctionObject* fn = self.fn();
    return returned(with(fn, self.get(Name::_lock), [&]() -> Value {
        Value features = self.get(Name::_features);
        if (check(PySequence_Contains(features.get(), feature.get())) != 0) {
            return Method(fn, self.get(Name::_cost), Own::_Charges, Name::bound).call<charges_bound>(size);
        }
        return not_known(fn);
    }));
}

Value rates_tokens(Record& self, const Value& size) {
    FunctionObject* fn = self.fn();
    return returned(with(fn, self.get(Name::_lock), [&]() -> Value {
        // Tokens grow with bytes whatever the feature: any paid reply makes them known.
        if (truth(self.get(Name::_features))) {
            return Method(fn, self.get(Name::_tokens), Own::_Charges, Name::bound).call<charges_bound>(size);
        }
        return not_known(fn);
    }));
}

// `self.<measure>.learn(size, reply.<paid>)`
void learn_into(Record& self, Name measure, const Value& size, const Value& reply, Name paid) {
    FunctionObject* fn = self.fn();
    Method learn(fn, self.get(measure), Own::_Charges, Name::learn);
    Value charge = Value::own(getattr(reply.get(), name(fn, paid)));
    learn.call<charges_learn>(size, charge);
}

Value rates_learn(Record& self, const Value& size, const Value& feature, const Value& reply) {
    FunctionObject* fn = self.fn();
    with(fn, self.get(Name::_lock), [&]() -> Value {
        // `self._features.add(feature)`: a set's own `add`, which nothing can replace.
        Value features = self.get(Name::_features);
        if (PySet_CheckExact(features.get())) {
            check(PySet_Add(features.get(), feature.get()));
        } else {
            call_method(features.get(), name(fn, Name::add), feature.get());
        }
        learn_into(self, Name::_cost, size, reply, Name::cost);
        learn_into(self, Name::_tokens, size, reply, Name::input_tokens);
        return Value();
    });
    return none_value();
}

constexpr Param self_only[] = {{"self", nullptr}};
constexpr Param cost_params[] = {{"self", nullptr}, {"size", "int"}, {"feature", "str"}};
constexpr Param tokens_params[] = {{"self", nullptr}, {"size", "int"}};
constexpr Param learn_params[] = {{"self", nullptr}, {"size", "int"}, {"feature", "str"}, {"reply", "PaidReply"}};

constexpr FunctionDef rates_methods[] = {
    {"__init__", "RequestRates.__init__", nullptr, self_only, "None", method<Own::RequestRates, rates_init>},
    {"cost", "RequestRates.cost",
     "The most a request of ``size`` bytes of ``feature`` may cost, USD; ``math.inf`` while\n"
     "        no reply of ``feature`` has been paid for.",
     cost_params, "float", method<Own::RequestRates, rates_cost>},
    {"tokens", "RequestRates.tokens",
     "The most input tokens a request of ``size`` bytes may use; ``math.inf`` while not\n        known.",
     tokens_params, "float", method<Own::RequestRates, rates_tokens>},
    {"learn", "RequestRates.learn", "Take in what a paid reply of ``feature`` to a request of ``size`` bytes cost.",
     learn_params, "None", method<Own::RequestRates, rates_learn>},
};

}  // namespace

void add_request_rates(PyObject* module) {
    ClassBuilder charges(module, "_Charges", charges_doc, {{"per_byte", "float"}, {"per_call", "float"}});
    charges.add("per_byte", real(0.0));
    charges.add("per_call", real(0.0));
    for (const FunctionDef& method : charges_methods) {
        charges.add(method);
    }
    bind(module, "_Charges", as_dataclass(module, charges.build()));

    ClassBuilder rates(module, "RequestRates", rates_doc);
    for (const FunctionDef& method : rates_methods) {
        rates.add(method);
    }
    bind(module, "RequestRates", rates.build());
}

}  // namespace decision_bounds
