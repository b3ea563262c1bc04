#include "request_rates.hpp"

#include "shares.hpp"

namespace decision_bounds {
namespace {

// _Charges

constexpr const char* charges_doc = "The most one measure of the paid replies came to: for one call, and per request byte.";

// `max(self.per_byte * size, self.per_call)`: on a tie the product is the answer, with its type.
Ref charges_bound(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    Ref per_byte = get_field(fn, self, Name::per_byte);
    Ref product = own(PyNumber_Multiply(per_byte.get(), args[1]));
    Ref per_call = get_field(fn, self, Name::per_call);
    return maximum(product.get(), per_call.get());
}

Ref charges_learn(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    PyObject* size = args[1];
    PyObject* charge = args[2];
    // An empty request counts as one byte.
    Ref bytes = maximum(size, integer(1).get());
    Ref rate = own(PyNumber_TrueDivide(charge, bytes.get()));
    Ref per_byte = get_field(fn, self, Name::per_byte);
    set_field(fn, self, Name::per_byte, maximum(per_byte.get(), rate.get()).get());
    // The charge itself is kept, so an integer token count stays an integer.
    Ref per_call = get_field(fn, self, Name::per_call);
    set_field(fn, self, Name::per_call, maximum(per_call.get(), charge).get());
    return none();
}

constexpr Param bound_params[] = {{"self", nullptr}, {"size", "int"}};
constexpr Param learn_charge_params[] = {{"self", nullptr}, {"size", "int"}, {"charge", "float"}};

constexpr FunctionDef charges_methods[] = {
    {"bound", "_Charges.bound",
     "The most a request of ``size`` bytes may come to: never less than the most one call\n"
     "        came to, and for a request larger than those seen, the most per byte times its size (the\n"
     "        part of a charge that grows with the request's bytes).",
     bound_params, "float", charges_bound},
    {"learn", "_Charges.learn", nullptr, learn_charge_params, "None", charges_learn},
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

Ref rates_init(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    Ref threading = global(fn, Name::threading);
    set_field(fn, self, Name::_lock, call_method(threading.get(), name(fn, Name::Lock)).get());
    set_field(fn, self, Name::_cost, call(global(fn, Name::_Charges).get()).get());
    set_field(fn, self, Name::_tokens, call(global(fn, Name::_Charges).get()).get());
    set_field(fn, self, Name::_features, own(PySet_New(nullptr)).get());
    return none();
}

Ref rates_cost(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    return holding(fn, get_field(fn, self, Name::_lock).get(), [&] {
        Ref features = get_field(fn, self, Name::_features);
        if (!check(PySequence_Contains(features.get(), args[2]))) {
            return not_known(fn);
        }
        return call_method_of(fn, get_field(fn, self, Name::_cost).get(), Name::bound, args[1]);
    });
}

Ref rates_tokens(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    return holding(fn, get_field(fn, self, Name::_lock).get(), [&] {
        // Tokens grow with bytes whatever the feature: any paid reply makes them known.
        if (!truthy(get_field(fn, self, Name::_features).get())) {
            return not_known(fn);
        }
        return call_method_of(fn, get_field(fn, self, Name::_tokens).get(), Name::bound, args[1]);
    });
}

Ref rates_learn(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    PyObject* size = args[1];
    PyObject* reply = args[3];
    Holding lock(fn, get_field(fn, self, Name::_lock).get());
    Ref features = get_field(fn, self, Name::_features);
    call_method(features.get(), name(fn, Name::add), args[2]);
    Ref cost = get_field(fn, self, Name::_cost);
    call_method_of(fn, cost.get(), Name::learn, size, getattr(reply, name(fn, Name::cost)).get());
    Ref tokens = get_field(fn, self, Name::_tokens);
    call_method_of(fn, tokens.get(), Name::learn, size, getattr(reply, name(fn, Name::input_tokens)).get());
    lock.leave();
    return none();
}

constexpr Param self_only[] = {{"self", nullptr}};
constexpr Param cost_params[] = {{"self", nullptr}, {"size", "int"}, {"feature", "str"}};
constexpr Param tokens_params[] = {{"self", nullptr}, {"size", "int"}};
constexpr Param learn_params[] = {{"self", nullptr}, {"size", "int"}, {"feature", "str"}, {"reply", "PaidReply"}};

constexpr FunctionDef rates_methods[] = {
    {"__init__", "RequestRates.__init__", nullptr, self_only, "None", rates_init},
    {"cost", "RequestRates.cost",
     "The most a request of ``size`` bytes of ``feature`` may cost, USD; ``math.inf`` while\n"
     "        no reply of ``feature`` has been paid for.",
     cost_params, "float", rates_cost},
    {"tokens", "RequestRates.tokens",
     "The most input tokens a request of ``size`` bytes may use; ``math.inf`` while not\n        known.",
     tokens_params, "float", rates_tokens},
    {"learn", "RequestRates.learn", "Take in what a paid reply of ``feature`` to a request of ``size`` bytes cost.",
     learn_params, "None", rates_learn},
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
