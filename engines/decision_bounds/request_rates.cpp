#include "request_rates.hpp"

#include "shares.hpp"

namespace decision_bounds {
namespace {

// _Charges

constexpr const char* charges_doc = "The most one measure of the paid replies came to: for one call, and per request byte.";

// `max(self.per_byte * size, self.per_call)`: on a tie the product is the answer, with its type.
Ref charges_bound(Self& self, PyObject* size) {
    Ref product = multiply(self.get(Name::per_byte).get(), size);
    return larger(product.get(), self.get(Name::per_call).get());
}

Ref charges_learn(Self& self, PyObject* size, PyObject* charge) {
    FunctionObject* fn = self.fn();
    // `self.per_byte = max(self.per_byte, charge / max(size, 1))`: an empty request counts as one byte.
    Ref per_byte = self.get(Name::per_byte);
    Ref rate = divide(charge, larger(size, one(fn)).get());
    self.set(Name::per_byte, larger(per_byte.get(), rate.get()).get());
    // The charge itself is kept, so an integer token count stays an integer.
    self.set(Name::per_call, larger(self.get(Name::per_call).get(), charge).get());
    return none();
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

Ref not_known(FunctionObject* fn) {
    Ref math = global(fn, Name::math);
    return getattr(math.get(), name(fn, Name::inf));
}

Ref rates_init(Self& self) {
    FunctionObject* fn = self.fn();
    Ref lock = call_method(global(fn, Name::threading).get(), name(fn, Name::Lock));
    self.refresh();
    self.set(Name::_lock, lock.get());
    for (Name measure : {Name::_cost, Name::_tokens}) {
        Ref charges = call(global(fn, Name::_Charges).get());
        self.refresh();
        self.set(measure, charges.get());
    }
    self.set(Name::_features, own(PySet_New(nullptr)).get());
    return none();
}

// `self.<measure>.bound(size)`
Ref bound_of(FunctionObject* fn, Self& self, Name measure, PyObject* size) {
    return Self(fn, self.get(measure).get(), Own::_Charges).call(Name::bound, charges_bound, size);
}

Ref rates_cost(Self& self, PyObject* size, PyObject* feature) {
    FunctionObject* fn = self.fn();
    return holding(fn, self.get(Name::_lock).get(), [&] {
        self.refresh();
        bool known = check(PySequence_Contains(self.get(Name::_features).get(), feature)) != 0;
        self.refresh();  // a feature's own hash or comparison may be code of the caller's
        return known ? bound_of(fn, self, Name::_cost, size) : not_known(fn);
    });
}

Ref rates_tokens(Self& self, PyObject* size) {
    FunctionObject* fn = self.fn();
    return holding(fn, self.get(Name::_lock).get(), [&] {
        self.refresh();
        // Tokens grow with bytes whatever the feature: any paid reply makes them known.
        return is_true(self.get(Name::_features).get()) ? bound_of(fn, self, Name::_tokens, size) : not_known(fn);
    });
}

// `self.<measure>.learn(size, reply.<paid>)`
void learn_into(FunctionObject* fn, Self& self, Name measure, PyObject* size, PyObject* reply, Name paid) {
    Ref charges = self.get(measure);
    Ref charge = getattr(reply, name(fn, paid));
    Self(fn, charges.get(), Own::_Charges).call(Name::learn, charges_learn, size, charge.get());
    self.refresh();  // reading the reply may have run code of the caller's
}

Ref rates_learn(Self& self, PyObject* size, PyObject* feature, PyObject* reply) {
    FunctionObject* fn = self.fn();
    Holding lock(fn, self.get(Name::_lock).get());
    self.refresh();
    Ref features = self.get(Name::_features);
    if (PySet_CheckExact(features.get())) {
        check(PySet_Add(features.get(), feature));
    } else {
        call_method(features.get(), name(fn, Name::add), feature);
    }
    self.refresh();
    learn_into(fn, self, Name::_cost, size, reply, Name::cost);
    learn_into(fn, self, Name::_tokens, size, reply, Name::input_tokens);
    lock.leave();
    return none();
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
