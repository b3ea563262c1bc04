#include "shares.hpp"

namespace decision_bounds {
namespace {

// Share

constexpr const char* share_doc = R"doc(What one admitted call holds of a bound, given back exactly once: settled with the paid
    reply that ends the call, or released when it ends without one (on leaving the ``with`` block
    that holds it, whatever ended it: an error, a stop or an interrupt).)doc";

Ref share_init(FunctionObject* fn, PyObject* const* args) {
    setattr(args[0], name(fn, Name::_give_back), args[1]);
    return none();
}

Ref share_settle(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    // Read and cleared with nothing run between the two, so that no other settle can obtain the
    // callback, and the share counts as given back even if the callback raises.
    Ref give_back = getattr(self, name(fn, Name::_give_back));
    setattr(self, name(fn, Name::_give_back), Py_None);
    if (give_back.get() != Py_None) {
        call(give_back.get(), args[1]);
    }
    return none();
}

Ref share_enter(FunctionObject*, PyObject* const* args) { return Ref::borrow(args[0]); }

Ref share_exit(FunctionObject* fn, PyObject* const* args) {
    call_method(args[0], name(fn, Name::settle), Py_None);
    return none();
}

constexpr Param share_init_params[] = {{"self", nullptr}, {"give_back", "Callable[[PaidReply | None], None]"}};
constexpr Param share_settle_params[] = {{"self", nullptr}, {"reply", "PaidReply | None"}};
constexpr Param self_only[] = {{"self", nullptr}};
constexpr Param share_exit_params[] = {{"self", nullptr}, {"_exc", "object", ParamKind::var_positional}};

constexpr FunctionDef share_methods[] = {
    {"__init__", "Share.__init__",
     "Create a share.\n\n        Args:\n            give_back: Gives the share back to its bound, counting the reply "
     "(None: not paid).\n        ",
     share_init_params, "None", share_init},
    {"settle", "Share.settle",
     "Give the share back, counting ``reply`` (None: the call was not paid); a share given\n        back already "
     "is not given back again.",
     share_settle_params, "None", share_settle},
    {"__enter__", "Share.__enter__", nullptr, self_only, "Share", share_enter},
    {"__exit__", "Share.__exit__", nullptr, share_exit_params, "None", share_exit},
};

// `Share(give_back)`: what `type.__call__` does for the class, without its argument tuple:
// `object.__new__`, then `__init__` with the arguments as given, whose result must be None. Taken
// only while `__new__` is `object`'s and `__init__` is this module's own; otherwise the class is
// called as any class is. The module is reached through the class (`ht_module`, set at start-up).
PyObject* share_call(PyObject* cls, PyObject* const* args, size_t nargsf, PyObject* kwnames) noexcept {
    auto* type = reinterpret_cast<PyTypeObject*>(cls);
    Py_ssize_t nargs = PyVectorcall_NARGS(nargsf);
    Py_ssize_t given = nargs + (kwnames ? PyTuple_GET_SIZE(kwnames) : 0);
    PyObject* module = reinterpret_cast<PyHeapTypeObject*>(type)->ht_module;
    PyObject* init = nullptr;
    if (module != nullptr && type->tp_new == PyBaseObject_Type.tp_new && !(type->tp_flags & Py_TPFLAGS_IS_ABSTRACT) &&
        given < max_params) {
        ModuleState& state = state_of(module);
        init = _PyType_Lookup(type, state.names[static_cast<int>(Name::__init__)]);
        if (init != nullptr && (Py_TYPE(init) != state.function_type ||
                                reinterpret_cast<FunctionObject*>(init)->def != &share_methods[0])) {
            init = nullptr;
        }
    }
    return guarded([&] {
        if (init == nullptr) {
            Ref positional = own(PyTuple_New(nargs));
            for (Py_ssize_t i = 0; i < nargs; ++i) {
                PyTuple_SET_ITEM(positional.get(), i, Py_NewRef(args[i]));
            }
            Ref keywords;
            if (kwnames != nullptr) {
                keywords = own(PyDict_New());
                for (Py_ssize_t k = 0; k < given - nargs; ++k) {
                    check(PyDict_SetItem(keywords.get(), PyTuple_GET_ITEM(kwnames, k), args[nargs + k]));
                }
            }
            return own(PyType_Type.tp_call(cls, positional.get(), keywords.get()));
        }
        Ref init_ref = Ref::borrow(init);  // kept while it runs, whatever it does to the class
        Ref empty = own(PyTuple_New(0));
        Ref self = own(PyBaseObject_Type.tp_new(type, empty.get(), nullptr));
        PyObject* argv[max_params + 1];
        argv[0] = self.get();
        for (Py_ssize_t i = 0; i < given; ++i) {
            argv[i + 1] = args[i];
        }
        Ref result = own(PyObject_Vectorcall(init, argv, static_cast<size_t>(nargs + 1), kwnames));
        if (result.get() != Py_None) {
            PyErr_Format(PyExc_TypeError, "__init__() should return None, not '%.200s'", Py_TYPE(result.get())->tp_name);
            raise_current();
        }
        return self;
    });
}

// _Held

constexpr const char* held_doc = R"doc(What the admitted calls hold of one bound: how many hold a share, the sum of the bounded
    shares, and how many hold an unbounded one (``math.inf``).)doc";


Ref held_admits(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    PyObject* share = args[1];
    if (truthy(get_field(fn, self, Name::unbounded).get())) {
        return boolean(false);
    }
    if (is_unbounded(fn, share) && truthy(get_field(fn, self, Name::holders).get())) {
        return boolean(false);
    }
    Ref amount = get_field(fn, self, Name::amount);
    PyObject* used = args[2];
    PyObject* limit = args[3];
    if (PyFloat_CheckExact(used) && PyFloat_CheckExact(amount.get()) && PyFloat_CheckExact(limit)) {
        return boolean(PyFloat_AS_DOUBLE(used) + PyFloat_AS_DOUBLE(amount.get()) < PyFloat_AS_DOUBLE(limit));
    }
    Ref total = own(PyNumber_Add(used, amount.get()));
    return own(PyObject_RichCompare(total.get(), limit, Py_LT));
}

// `self.<counter> += step`
void add_to(FunctionObject* fn, PyObject* self, Name counter, PyObject* step) {
    Ref value = get_field(fn, self, counter);
    if (PyFloat_CheckExact(value.get()) && PyFloat_CheckExact(step)) {
        set_field(fn, self, counter, real(PyFloat_AS_DOUBLE(value.get()) + PyFloat_AS_DOUBLE(step)).get());
        return;
    }
    set_field(fn, self, counter, own(PyNumber_InPlaceAdd(value.get(), step)).get());
}

// `self.<counter> = max(floor, self.<counter> - step)`
void take_from(FunctionObject* fn, PyObject* self, Name counter, PyObject* step, const Ref& floor) {
    Ref value = get_field(fn, self, counter);
    if (PyFloat_CheckExact(value.get()) && PyFloat_CheckExact(step) && PyFloat_CheckExact(floor.get())) {
        // As `max` keeps the floor unless the difference is greater (so also when it is not a number).
        double less = PyFloat_AS_DOUBLE(value.get()) - PyFloat_AS_DOUBLE(step);
        set_field(fn, self, counter, less > PyFloat_AS_DOUBLE(floor.get()) ? real(less).get() : floor.get());
        return;
    }
    Ref less = own(PyNumber_Subtract(value.get(), step));
    set_field(fn, self, counter, maximum(floor.get(), less.get()).get());
}

Ref held_take(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    PyObject* share = args[1];
    add_to(fn, self, Name::holders, integer(1).get());
    if (is_unbounded(fn, share)) {
        add_to(fn, self, Name::unbounded, integer(1).get());
    } else {
        add_to(fn, self, Name::amount, share);
    }
    return none();
}

Ref held_give_back(FunctionObject* fn, PyObject* const* args) {
    PyObject* self = args[0];
    PyObject* share = args[1];
    take_from(fn, self, Name::holders, integer(1).get(), integer(0));
    if (is_unbounded(fn, share)) {
        take_from(fn, self, Name::unbounded, integer(1).get(), integer(0));
    } else {
        take_from(fn, self, Name::amount, share, Ref::borrow(state_of(fn).fast.zero));
    }
    // Once nothing is held, the sum is exactly zero, whatever residue float arithmetic left.
    Ref holders = get_field(fn, self, Name::holders);
    if (compare(holders.get(), integer(0).get(), Py_EQ)) {
        set_field(fn, self, Name::amount, state_of(fn).fast.zero);
    }
    return none();
}

constexpr Param admits_params[] = {{"self", nullptr}, {"share", "float"}, {"used", "float"}, {"limit", "float"}};
constexpr Param share_params[] = {{"self", nullptr}, {"share", "float"}};

constexpr FunctionDef held_methods[] = {
    {"admits", "_Held.admits",
     "Whether a call that would hold ``share`` may start: nothing unbounded is held, an\n        unbounded share is "
     "held by no other call, and ``used`` plus what is held is below\n        ``limit``.",
     admits_params, "bool", held_admits},
    {"take", "_Held.take", nullptr, share_params, "None", held_take},
    {"give_back", "_Held.give_back", nullptr, share_params, "None", held_give_back},
};

// _wait

Ref wait_body(FunctionObject* fn, PyObject* const* args) {
    PyObject* changed = args[0];
    PyObject* stopping = args[1];
    PyObject* deadline = args[2];
    PyObject* clock = args[3];
    if (truthy(call(stopping).get())) {
        raise_error(fn, Name::DecisionStopped, "the pass was asked to stop");
    }
    Ref timeout = global(fn, Name::_POLL_S);
    if (deadline != Py_None && clock != Py_None) {
        Ref now = call(clock);
        Ref left = own(PyNumber_Subtract(deadline, now.get()));
        if (compare(left.get(), integer(0).get(), Py_LE)) {
            raise_error(fn, Name::DecisionTimeout,
                        "the decision call ran out of its deadline while the calls in flight held the rest of "
                        "the daily cost cap");
        }
        // `min(_POLL_S, left)`: the wait never runs past the deadline.
        Ref poll = global(fn, Name::_POLL_S);
        timeout = compare(left.get(), poll.get(), Py_LT) ? left : poll;
    }
    call_method(changed, name(fn, Name::wait), timeout.get());
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

Holding::Holding(FunctionObject* fn, PyObject* condition) : fn_(fn), condition_(Ref::borrow(condition)) {
    find_direct_lock(fn, condition, direct_);
    if (direct_) {
        acquire_direct(direct_);
    } else {
        call_method(condition, name(fn, Name::__enter__));
    }
    held_ = true;
}

void Holding::leave() {
    held_ = false;
    if (direct_) {
        own(release_direct(direct_));
    } else {
        call_method(condition_.get(), name(fn_, Name::__exit__), Py_None, Py_None, Py_None);
    }
}

void Holding::notify_all() { notify_all(condition_.get()); }

void Holding::notify_all(PyObject* condition) {
    if (direct_ && condition == condition_.get() && nobody_waits(fn_, direct_, condition)) {
        return;
    }
    call_method(condition, name(fn_, Name::notify_all));
}

Holding::~Holding() {
    if (!held_) {
        return;
    }
    PyObject* error = PyErr_GetRaisedException();
    PyObject* type = error ? reinterpret_cast<PyObject*>(Py_TYPE(error)) : Py_None;
    PyObject* traceback = error ? PyException_GetTraceback(error) : nullptr;
    PyObject* args[] = {condition_.get(), type, error ? error : Py_None, traceback ? traceback : Py_None};
    PyObject* result = direct_ ? release_direct(direct_)
                               : PyObject_VectorcallMethod(name(fn_, Name::__exit__), args, 4, nullptr);
    Py_XDECREF(traceback);
    if (result != nullptr) {
        Py_DECREF(result);
        if (error != nullptr) {
            PyErr_SetRaisedException(error);
        }
    } else if (error != nullptr) {
        PyObject* during_exit = PyErr_GetRaisedException();
        PyException_SetContext(during_exit, error);
        PyErr_SetRaisedException(during_exit);
    } else {
        // Left without an error but without `leave()` either: nobody can take this one.
        PyErr_WriteUnraisable(condition_.get());
    }
}

void raise_error(FunctionObject* fn, Name cls, const Ref& message) {
    Ref error_class = global(fn, cls);
    Ref error = call(error_class.get(), message.get());
    if (!PyExceptionInstance_Check(error.get())) {
        PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException");
    } else {
        // As a `raise` statement does, this chains the exception being handled, if any.
        PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.get())), error.get());
    }
    raise_current();
}

bool is_unbounded(FunctionObject* fn, PyObject* value) {
    bool result;
    if (isinf_directly(fn, value, &result)) {
        return result;
    }
    Ref math = global(fn, Name::math);
    Ref isinf = getattr(math.get(), name(fn, Name::isinf));
    return truthy(call(isinf.get(), value).get());
}

void add_shares(PyObject* module) {
    ClassBuilder share(module, "Share", share_doc);
    Ref nothing = lookup(module, "_nothing");
    Ref defaults = own(PyTuple_Pack(1, nothing.get()));
    share.add(share_methods[0], defaults.get());
    for (const FunctionDef& method : std::span(share_methods).subspan(1)) {
        share.add(method);
    }
    Ref share_class = share.build();
    auto* share_type = reinterpret_cast<PyHeapTypeObject*>(share_class.get());
    Py_XSETREF(share_type->ht_module, Py_NewRef(module));
    share_type->ht_type.tp_vectorcall = share_call;
    bind(module, "Share", share_class);

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

}  // namespace decision_bounds
