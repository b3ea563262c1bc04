#include "shares.hpp"

#include <cmath>
#include <tuple>

#include "startup.hpp"

namespace decision_bounds {
namespace {

// Share
//
// A class of the module's own making rather than one made by `type()`, laid out as a Python class
// is: its instances keep their attributes (inline values, or a dict) and their weak references in
// the space the interpreter manages before the object, so its instances are the size of
// `object`'s and it combines with other bases as a class statement's class would.

// The head of the share's list of weak references: where the class says it keeps it.
PyObject** weakrefs_of(PyObject* share) {
    return reinterpret_cast<PyObject**>(reinterpret_cast<char*>(share) + Py_TYPE(share)->tp_weaklistoffset);
}

constexpr const char* share_doc = R"doc(What one admitted call holds of a bound, given back exactly once: settled with the paid
    reply that ends the call, or released when it ends without one (on leaving the ``with`` block
    that holds it, whatever ended it: an error, a stop or an interrupt).)doc";

Value share_init(Record& self, const Value& give_back) {
    self.set(Name::_give_back, give_back);
    return none_value();
}

Value share_settle(Record& self, const Value& reply) {
    // Read and cleared with nothing run between the two, so that no other settle can obtain the
    // callback, and the share counts as given back even if the callback raises.
    Value give_back = self.get(Name::_give_back);
    self.set(Name::_give_back, none_value());
    PyObject* callback = give_back.get();
    if (callback == Py_None) {
        return none_value();
    }
    PyObject* argument = reply.get();
    // The bounds' give-backs are mostly the module's own functions: run at once.
    if (is_function(callback, state_of(self.fn()).function_type)) {
        call_function(callback, &argument, 1);
    } else {
        call(callback, argument);
    }
    return none_value();
}

Ref share_enter(FunctionObject*, PyObject* const* args) { return Ref::borrow(args[0]); }

Value share_exit(Record& self) {
    Method(self, Name::settle).call<share_settle>(none_value());
    return none_value();
}

constexpr Param share_init_params[] = {{"self", nullptr}, {"give_back", "Callable[[PaidReply | None], None]"}};
constexpr Param share_settle_params[] = {{"self", nullptr}, {"reply", "PaidReply | None"}};
constexpr Param self_only[] = {{"self", nullptr}};
constexpr Param share_exit_params[] = {{"self", nullptr}, {"_exc", "object", ParamKind::var_positional}};

constexpr FunctionDef share_methods[] = {
    {"__init__", "Share.__init__",
     "Create a share.\n\n        Args:\n            give_back: Gives the share back to its bound, counting the reply "
     "(None: not paid).\n        ",
     share_init_params, "None", method<Own::Share, share_init>},
    {"settle", "Share.settle",
     "Give the share back, counting ``reply`` (None: the call was not paid); a share given\n        back already "
     "is not given back again.",
     share_settle_params, "None", method<Own::Share, share_settle>},
    {"__enter__", "Share.__enter__", nullptr, self_only, "Share", share_enter},
    {"__exit__", "Share.__exit__", nullptr, share_exit_params, "None", method<Own::Share, share_exit>},
};

// The state of the module that made `type`, while that type is still its `Share`; null otherwise
// (a subclass, or the module is being cleared).
ModuleState* share_state(PyTypeObject* type) {
    PyObject* module = reinterpret_cast<PyHeapTypeObject*>(type)->ht_module;
    if (module == nullptr) {
        return nullptr;
    }
    ModuleState& state = state_of(module);
    return state.own[static_cast<int>(Own::Share)].type == type ? &state : nullptr;
}

// The pool
//
// A share is made and dropped for every admitted call, so the module keeps a few that were freed
// with their attributes still in their inline values (nobody ever asked for their dict) and holding
// `_give_back` alone, and makes new ones from there. A kept share holds its class (shown to the
// garbage collector by the module) and None in its slot: no callback stays alive, and nothing
// outside the module can reach it. Under AddressSanitizer a kept block never reaches free(), which
// would hide a use after free, so the sanitizer build leaves the pool out.

#if DECISION_BOUNDS_SHARE_POOL

// The share's inline values when the pool can keep it: `_give_back` in its slot and nothing else.
PyObject** keepable(ModuleState& state, PyObject* share) {
    PyObject** values = cpython::values_of(cpython::dict_or_values(share));
    if (values == nullptr || slotted_fields(state, Own::Share) < 1 || values[0] == nullptr) {
        return nullptr;
    }
    const cpython::SharedKeys* keys = cpython::shared_keys(Py_TYPE(share));
    for (Py_ssize_t slot = 1; slot < keys->entries; ++slot) {
        if (values[slot] != nullptr) {
            return nullptr;
        }
    }
    return values;
}

// Keeps a share of the module's own class that is being freed, when the pool can; a callback still
// held is let go of first, as freeing the share would.
bool keep_for_reuse(PyObject* share) {
    ModuleState* state = share_state(Py_TYPE(share));
    if (state == nullptr || state->shares.count == SharePool::capacity) {
        return false;
    }
    PyObject** values = keepable(*state, share);
    if (values == nullptr) {
        return false;
    }
    if (values[0] != Py_None) {
        cpython::store_in_slot(values, 0, Py_None);
        // What that ran cannot reach the share (out of the collector's list, without weak
        // references), but may have filled the pool or cleared the module: look again.
        state = share_state(Py_TYPE(share));
        if (state == nullptr || state->shares.count == SharePool::capacity) {
            return false;
        }
    }
    state->shares.free[state->shares.count++] = share;
    return true;
}

// A kept share made new: its reference to its class becomes the new share's.
PyObject* reuse(ModuleState& state, PyTypeObject* type) {
    if (state.shares.count == 0) {
        return nullptr;
    }
    PyObject* share = state.shares.free[--state.shares.count];
    PyObject_Init(share, type);
    Py_DECREF(type);
    return share;
}

#endif

void share_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    if (*weakrefs_of(self) != nullptr) {
        PyObject_ClearWeakRefs(self);
    }
#if DECISION_BOUNDS_SHARE_POOL
    // A subclass's instances are freed through here too; only the module's own class's are kept.
    if (type->tp_dealloc == share_dealloc && keep_for_reuse(self)) {
        return;
    }
#endif
    cpython::clear_managed_dict(self);
    type->tp_free(self);
    Py_DECREF(type);
}

int share_traverse(PyObject* self, visitproc visit, void* arg) noexcept {
    Py_VISIT(Py_TYPE(self));
    return cpython::visit_managed_dict(self, visit, arg);
}

int share_clear(PyObject* self) {
    cpython::clear_managed_dict(self);
    return 0;
}

// `__weakref__` as a Python class has it.
PyObject* share_weakrefs(PyObject* self, void*) noexcept {
    PyObject* head = *weakrefs_of(self);
    return Py_NewRef(head != nullptr ? head : Py_None);
}

PyGetSetDef share_getset[] = {
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, "dictionary for instance variables", nullptr},
    {"__weakref__", share_weakrefs, nullptr, "list of weak references to the object", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot share_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(share_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(share_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(share_clear)},
    {Py_tp_getset, share_getset},
    {0, nullptr},
};

PyType_Spec share_spec = {
    .name = "engines.decision_bounds.Share",
    .basicsize = sizeof(PyObject),
    .itemsize = 0,
    .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_MANAGED_DICT |
             Py_TPFLAGS_MANAGED_WEAKREF,
    .slots = share_slots,
};

// A share of the class as start-up left it, holding `give_back`: what `Share(give_back)` makes
// (`object.__new__`, then `__init__`, which stores the callback).
Ref new_share(ModuleState& state, PyTypeObject* type, PyObject* give_back) {
    Ref share;
#if DECISION_BOUNDS_SHARE_POOL
    share = Ref::steal(reuse(state, type));
#endif
    if (!share) {
        share = own(PyBaseObject_Type.tp_new(type, state.standard.empty_tuple, nullptr));
    }
    // `self._give_back = give_back`: in place when the share's slot holds a value already (a kept
    // share's None), else as Python stores it.
    PyObject** values = cpython::values_of(cpython::dict_or_values(share.get()));
    if (values != nullptr && values[0] != nullptr && slotted_fields(state, Own::Share) >= 1) {
        cpython::store_in_slot(values, 0, give_back);
    } else {
        setattr(share.get(), name(state, Name::_give_back), give_back);
    }
    if (!PyObject_GC_IsTracked(share.get())) {
        PyObject_GC_Track(share.get());
    }
    return share;
}

// `Share(...)`: made at once for the usual call with the callback alone, while the class is as
// start-up left it (so `__new__` is `object`'s and `__init__` the module's); any other call goes
// through the class's ordinary call, `type.__call__`.
PyObject* share_call(PyObject* cls, PyObject* const* args, size_t nargsf, PyObject* kwnames) {
    auto* type = reinterpret_cast<PyTypeObject*>(cls);
    Py_ssize_t nargs = PyVectorcall_NARGS(nargsf);
    ModuleState* state = share_state(type);
    if (state != nullptr && nargs == 1 && kwnames == nullptr && is_own_class(*state, type, Own::Share)) {
        return entry([&] { return new_share(*state, type, args[0]); });
    }
    return entry([&] {
        Ref positional = own(PyTuple_New(nargs));
        for (Py_ssize_t i = 0; i < nargs; ++i) {
            PyTuple_SET_ITEM(positional.get(), i, Py_NewRef(args[i]));
        }
        Ref keywords;
        if (kwnames != nullptr) {
            keywords = own(PyDict_New());
            for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(kwnames); ++k) {
                check(PyDict_SetItem(keywords.get(), PyTuple_GET_ITEM(kwnames, k), args[nargs + k]));
            }
        }
        return own(PyType_Type.tp_call(cls, positional.get(), keywords.get()));
    });
}

// Makes the class and gives its dict the entries, in the order, that a class statement would:
// `__module__`, `__doc__`, the methods, then `__dict__` and `__weakref__`.
Ref share_class(PyObject* module) {
    Ref cls = own(PyType_FromMetaclass(nullptr, module, &share_spec, nullptr));
    auto* type = reinterpret_cast<PyTypeObject*>(cls.get());
    // Named as a class statement names it (also in messages such as "'Share' object has no ...").
    check(PyObject_SetAttrString(cls.get(), "__name__", text("Share").get()));
    Ref dict = own(PyType_GetDict(type));
    Ref instance_dict = own(PyMapping_GetItemString(dict.get(), "__dict__"));
    Ref weakrefs = own(PyMapping_GetItemString(dict.get(), "__weakref__"));
    PyDict_Clear(dict.get());
    PyType_Modified(type);
    auto set = [&](const char* key, const Ref& value) { check(PyObject_SetAttrString(cls.get(), key, value.get())); };
    set("__module__", lookup(module, "__name__"));
    set("__doc__", text(share_doc));
    Ref defaults = own(PyTuple_Pack(1, lookup(module, "_nothing").get()));
    set(share_methods[0].name, make_function(module, share_methods[0], defaults.get()));
    for (const FunctionDef& method : std::span(share_methods).subspan(1)) {
        set(method.name, make_function(module, method));
    }
    // Entries that no attribute assignment on a class can make: the descriptors of its instances.
    check(PyDict_SetItemString(dict.get(), "__dict__", instance_dict.get()));
    check(PyDict_SetItemString(dict.get(), "__weakref__", weakrefs.get()));
    PyType_Modified(type);
    type->tp_vectorcall = share_call;
    return cls;
}

// _Held

constexpr const char* held_doc = R"doc(What the admitted calls hold of one bound: how many hold a share, the sum of the bounded
    shares, and how many hold an unbounded one (``math.inf``).)doc";

constexpr Param admits_params[] = {{"self", nullptr}, {"share", "float"}, {"used", "float"}, {"limit", "float"}};
constexpr Param share_params[] = {{"self", nullptr}, {"share", "float"}};

constexpr FunctionDef held_methods[] = {
    {"admits", "_Held.admits",
     "Whether a call that would hold ``share`` may start: nothing unbounded is held, an\n        unbounded share is "
     "held by no other call, and ``used`` plus what is held is below\n        ``limit``.",
     admits_params, "bool", method<Own::_Held, held_admits>},
    {"take", "_Held.take", nullptr, share_params, "None", method<Own::_Held, held_take>},
    {"give_back", "_Held.give_back", nullptr, share_params, "None", method<Own::_Held, held_give_back>},
};

// _wait

Ref wait_body(FunctionObject* fn, PyObject* const* args) {
    Value changed = Value::borrow(args[0]);
    Value timeout = wait_checks(fn, Value::borrow(args[1]), Value::borrow(args[2]), Value::borrow(args[3]));
    call_method(changed.get(), name(fn, Name::wait), timeout.get());
    return none();
}

constexpr Param wait_params[] = {
    {"changed", "threading.Condition"},
    {"stopping", "Callable[[], bool]"},
    {"deadline", "float | None", ParamKind::keyword_only},
    {"clock", "Callable[[], float] | None", ParamKind::keyword_only},
};

constexpr FunctionDef wait_def = {
    "_wait", "_wait",
    "Wait, holding ``changed``, until a held share is given back or a poll interval passes.\n\n    Raises:\n"
    "        DecisionStopped: The pass is stopping.\n        DecisionTimeout: ``deadline`` (on ``clock``) passed.\n"
    "    ",
    wait_params, "None", wait_body};

}  // namespace

bool is_unbounded(FunctionObject* fn, const Value& value) {
    double number;
    if ((value.is_real() || value.is_integer()) && is_standard(fn, Fact::math_isinf)) {
        // `math.isinf` of an int converts it to a float first, which an int of 64 bits survives.
        number = value.is_real() ? value.real() : static_cast<double>(value.integer());
        return std::isinf(number);
    }
    Ref math = global(fn, Name::math);
    Ref isinf = getattr(math.get(), name(fn, Name::isinf));
    return truth(Value::own(call(isinf.get(), value.get())));
}

Builtin::Builtin(FunctionObject* fn, Fact fact, Name builtin) {
    if (!is_standard(fn, fact)) {
        object_ = global(fn, builtin);
    }
}

Value Builtin::call() const { return Value::own(decision_bounds::call(object_.get())); }

Value Builtin::call(const Value& argument) const { return Value::own(decision_bounds::call(object_.get(), argument.get())); }

Value Builtin::call(const Value& first, const Value& second) const {
    return Value::own(decision_bounds::call(object_.get(), first.get(), second.get()));
}

Value maximum(const Builtin& max, const Value& kept, const Value& candidate) {
    return max.standard() ? larger(kept, candidate) : max.call(kept, candidate);
}

Value minimum(const Builtin& min, const Value& kept, const Value& candidate) {
    return min.standard() ? smaller(kept, candidate) : min.call(kept, candidate);
}

Value made_by(FunctionObject* fn, Name module, Name attribute) {
    Ref found = global(fn, module);
    Ref maker = getattr(found.get(), name(fn, attribute));
    return Value::own(call(maker.get()));
}

void add_to(Record& self, Name field, const Value& step) { self.set(field, add_in_place(self.get(field), step)); }

void add_from(Record& self, Name field, const Value& reply, Name paid) {
    Value value = self.get(field);
    Value step = Value::own(getattr(reply.get(), name(self.fn(), paid)));
    self.set(field, add_in_place(value, step));
}

void one_less(Record& self, Name field) {
    Builtin max(self.fn(), Fact::max, Name::max);
    Value less = subtract(self.get(field), one());
    self.set(field, maximum(max, zero(), less));
}

Value new_share_of(FunctionObject* fn, const Ref& cls, const Value& give_back) {
    ModuleState& state = state_of(fn);
    auto* type = reinterpret_cast<PyTypeObject*>(cls.get());
    if (is_own_class(state, type, Own::Share)) {
        return Value::own(new_share(state, type, give_back.get()));
    }
    return Value::own(call(cls.get(), give_back.get()));
}

Value held_admits(Record& self, const Value& share, const Value& used, const Value& limit) {
    FunctionObject* fn = self.fn();
    if (truth(self.get(Name::unbounded))) {
        return false_value();
    }
    if (is_unbounded(fn, share) && truth(self.get(Name::holders))) {
        return false_value();
    }
    return compare(add(used, self.get(Name::amount)), limit, Py_LT);
}

Value held_take(Record& self, const Value& share) {
    FunctionObject* fn = self.fn();
    self.set(Name::holders, add_in_place(self.get(Name::holders), one()));
    if (is_unbounded(fn, share)) {
        self.set(Name::unbounded, add_in_place(self.get(Name::unbounded), one()));
    } else {
        self.set(Name::amount, add_in_place(self.get(Name::amount), share));
    }
    return none_value();
}

Value held_give_back(Record& self, const Value& share) {
    FunctionObject* fn = self.fn();
    Builtin max(fn, Fact::max, Name::max);
    Value holders = maximum(max, zero(), subtract(self.get(Name::holders), one()));
    self.set(Name::holders, holders);
    if (is_unbounded(fn, share)) {
        Builtin max_again(fn, Fact::max, Name::max);
        self.set(Name::unbounded, maximum(max_again, zero(), subtract(self.get(Name::unbounded), one())));
    } else {
        Builtin max_again(fn, Fact::max, Name::max);
        Value held = self.get(Name::amount);
        Value amount = maximum(max_again, zero_float(fn), subtract(held, share));
        // Once nothing is held the statement below writes 0.0 over this. When the numbers were
        // machine numbers, `max` the standard one and the write would run no code, nothing can see
        // the value in between: the one write below stands for both.
        bool overwritten = holders.is_integer() && holders.integer() == 0 && held.is_real() &&
                           (share.is_real() || share.is_integer()) && max_again.standard() && self.writes_quietly();
        if (!overwritten) {
            self.set(Name::amount, amount);
        }
    }
    // Once nothing is held, the sum is exactly zero, whatever residue float arithmetic left.
    if (holds(self.get(Name::holders), zero(), Py_EQ)) {
        self.set(Name::amount, zero_float(fn));
    }
    return none_value();
}

Value wait_checks(FunctionObject* fn, const Value& stopping, const Value& deadline, const Value& clock) {
    if (truth(Value::own(call(stopping.get())))) {
        raise_error(fn, Name::DecisionStopped, "the pass was asked to stop");
    }
    Value timeout = Value::own(global(fn, Name::_POLL_S));
    if (deadline.get() != Py_None && clock.get() != Py_None) {
        Value left = subtract(deadline, Value::own(call(clock.get())));
        if (holds(left, zero(), Py_LE)) {
            raise_error(fn, Name::DecisionTimeout,
                        "the decision call ran out of its deadline while the calls in flight held the rest of "
                        "the daily cost cap");
        }
        // `min(_POLL_S, left)`: the wait never runs past the deadline.
        Builtin min(fn, Fact::min, Name::min);
        timeout = minimum(min, Value::own(global(fn, Name::_POLL_S)), left);
    }
    return timeout;
}

void add_shares(PyObject* module) {
    bind(module, "Share", share_class(module));

    ClassBuilder held(module, "_Held", held_doc, {{"holders", "int"}, {"amount", "float"}, {"unbounded", "int"}});
    held.add("holders", integer(0));
    held.add("amount", real(0.0));
    held.add("unbounded", integer(0));
    for (const FunctionDef& method : held_methods) {
        held.add(method);
    }
    bind(module, "_Held", as_dataclass(module, held.build()));

    Ref kwdefaults = own(Py_BuildValue("{sOsO}", "deadline", Py_None, "clock", Py_None));
    bind(module, "_wait", make_function(module, wait_def, nullptr, kwdefaults.get()));
}

int traverse_share_pool(ModuleState& state, visitproc visit, void* arg) {
    for (int i = 0; i < state.shares.count; ++i) {
        PyObject* share = state.shares.free[i];
        Py_VISIT(Py_TYPE(share));
        if (int result = cpython::visit_managed_dict(share, visit, arg)) {
            return result;
        }
    }
    return 0;
}

void clear_share_pool(ModuleState& state) {
    SharePool& pool = state.shares;
    while (pool.count > 0) {
        PyObject* share = pool.free[--pool.count];
        PyTypeObject* type = Py_TYPE(share);
        cpython::clear_managed_dict(share);
        PyObject_GC_Del(share);
        Py_DECREF(type);
    }
}

}  // namespace decision_bounds
