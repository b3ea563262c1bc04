#include "shares.hpp"

namespace decision_bounds {
namespace {

// Share
//
// A class of the module's own making rather than one made by `type()`, laid out as a Python class
// is: its instances keep their attribute dict and their weak references in the space the
// interpreter manages before the object, so its instances are the size of `object`'s and it
// combines with other bases as a class statement's class would. The module can make and free its
// instances cheaply: a share is made and dropped for every admitted call, so the ones freed while
// nothing else refers to them or to their dict are kept, dict and all, and made again from there.

// The share's attribute dict (made from its inline values if it had none yet), or null.
PyObject* dict_of(PyObject* share) {
    PyObject** slot = _PyObject_GetDictPtr(share);
    return slot != nullptr ? *slot : nullptr;
}

// The head of the share's list of weak references: where the class says it keeps it.
PyObject** weakrefs_of(PyObject* share) {
    return reinterpret_cast<PyObject**>(reinterpret_cast<char*>(share) + Py_TYPE(share)->tp_weaklistoffset);
}

constexpr const char* share_doc = R"doc(What one admitted call holds of a bound, given back exactly once: settled with the paid
    reply that ends the call, or released when it ends without one (on leaving the ``with`` block
    that holds it, whatever ended it: an error, a stop or an interrupt).)doc";

Ref share_init(Self& self, PyObject* give_back) {
    self.set(Name::_give_back, give_back);
    return none();
}

Ref share_settle(Self& self, PyObject* reply) {
    // Read and cleared with nothing run between the two, so that no other settle can obtain the
    // callback, and the share counts as given back even if the callback raises.
    Ref give_back = self.get(Name::_give_back);
    self.set(Name::_give_back, Py_None);
    if (give_back.get() == Py_None) {
        return none();
    }
    // The bounds' give-backs are mostly the module's own functions: run at once.
    if (Py_IS_TYPE(give_back.get(), state_of(self.fn()).function_type)) {
        call_function(give_back.get(), &reply, 1);
    } else {
        call(give_back.get(), reply);
    }
    return none();
}

Ref share_enter(FunctionObject*, PyObject* const* args) { return Ref::borrow(args[0]); }

Ref share_exit(Self& self) {
    // A dict that holds `_give_back` alone shadows no method: `settle` is the class's.
    if (self.standard() && self.size() == 1 && self.field(Name::_give_back) != nullptr) {
        return share_settle(self, Py_None);
    }
    self.call(Name::settle, share_settle, Py_None);
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
     share_init_params, "None", method<Own::Share, share_init>},
    {"settle", "Share.settle",
     "Give the share back, counting ``reply`` (None: the call was not paid); a share given\n        back already "
     "is not given back again.",
     share_settle_params, "None", method<Own::Share, share_settle>},
    {"__enter__", "Share.__enter__", nullptr, self_only, "Share", share_enter},
    {"__exit__", "Share.__exit__", nullptr, share_exit_params, "None", method<Own::Share, share_exit>},
};

// The state of the module that made `type`, while that type is still its `Share`; null otherwise
// (the module is being cleared).
ModuleState* share_state(PyTypeObject* type) {
    PyObject* module = reinterpret_cast<PyHeapTypeObject*>(type)->ht_module;
    if (module == nullptr) {
        return nullptr;
    }
    ModuleState& state = state_of(module);
    return state.own[static_cast<int>(Own::Share)].type == type ? &state : nullptr;
}

// A share of the class as start-up left it, holding `give_back`: what `Share(give_back)` makes
// (`object.__new__`, then `__init__`, which stores the callback in the new dict), from the pool
// when it has one.
Ref new_share(ModuleState& state, PyTypeObject* type, PyObject* give_back) {
    SharePool& pool = state.shares;
    Ref share;
    if (pool.count > 0) {
        share = Ref::steal(PyObject_Init(pool.free[--pool.count], type));
        Py_DECREF(type);  // the pool's own reference to the class, now the share's
    } else {
        share = own(PyBaseObject_Type.tp_new(type, state.fast.empty_tuple, nullptr));
    }
    PyObject* dict = dict_of(share.get());
    if (dict == nullptr) {
        PyErr_NoMemory();  // making the dict of the inline values failed
        raise_current();
    }
    check(PyDict_SetItem(dict, state.names[static_cast<int>(Name::_give_back)], give_back));
    if (!PyObject_GC_IsTracked(share.get())) {
        PyObject_GC_Track(share.get());
    }
    return share;
}

// Keeps a share that is being freed when it is of the module's own class (not a subclass) and
// nothing but the share refers to its dict, which holds `_give_back` alone; the callback is let go
// of now, as freeing the share would.
bool keep_for_reuse(PyObject* share) {
    ModuleState* state = share_state(Py_TYPE(share));
    PyObject* dict = state != nullptr ? dict_of(share) : nullptr;
    if (state == nullptr || state->shares.count == SharePool::capacity || dict == nullptr ||
        !PyDict_CheckExact(dict) || Py_REFCNT(dict) != 1 || PyDict_GET_SIZE(dict) != 1) {
        return false;
    }
    Py_ssize_t position = 0;
    PyObject* key;
    PyObject* value;
    if (!PyDict_Next(dict, &position, &key, &value) || key != state->names[static_cast<int>(Name::_give_back)]) {
        return false;
    }
    if (value != Py_None && PyDict_SetItem(dict, key, Py_None) < 0) {
        PyErr_WriteUnraisable(nullptr);  // not the share: it is being freed
        return false;
    }
    // Letting go of the callback may have run code that filled the pool meanwhile.
    if (state->shares.count == SharePool::capacity) {
        return false;
    }
    // The pooled share keeps its reference to its class: freeing it later needs the class.
    state->shares.free[state->shares.count++] = share;
    return true;
}

void share_dealloc(PyObject* self) noexcept {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    if (*weakrefs_of(self) != nullptr) {
        PyObject_ClearWeakRefs(self);
    }
    // A subclass's instances are freed through here too; only the module's own class's are kept.
    if (type->tp_dealloc == share_dealloc && keep_for_reuse(self)) {
        return;
    }
    _PyObject_ClearManagedDict(self);
    type->tp_free(self);
    Py_DECREF(type);
}

int share_traverse(PyObject* self, visitproc visit, void* arg) noexcept {
    Py_VISIT(Py_TYPE(self));
    return _PyObject_VisitManagedDict(self, visit, arg);
}

int share_clear(PyObject* self) noexcept {
    _PyObject_ClearManagedDict(self);
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

// `Share(...)`: a share from the pool for the usual call with the callback alone, while the class
// is as start-up left it (so `__new__` is `object`'s and `__init__` the module's); any other call
// goes through the class's ordinary call, `type.__call__`.
PyObject* share_call(PyObject* cls, PyObject* const* args, size_t nargsf, PyObject* kwnames) noexcept {
    auto* type = reinterpret_cast<PyTypeObject*>(cls);
    Py_ssize_t nargs = PyVectorcall_NARGS(nargsf);
    ModuleState* state = share_state(type);
    if (state != nullptr && nargs == 1 && kwnames == nullptr && is_own_class(*state, cls, Own::Share)) {
        return guarded([&] { return new_share(*state, type, args[0]); });
    }
    return guarded([&] {
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
    PyObject* changed = args[0];
    PyObject* stopping = args[1];
    PyObject* deadline = args[2];
    PyObject* clock = args[3];
    if (is_true(call(stopping).get())) {
        raise_error(fn, Name::DecisionStopped, "the pass was asked to stop");
    }
    Ref timeout = global(fn, Name::_POLL_S);
    if (deadline != Py_None && clock != Py_None) {
        Ref now = call(clock);
        Ref left = subtract(deadline, now.get());
        if (holds(left.get(), zero_int(fn), Py_LE)) {
            raise_error(fn, Name::DecisionTimeout,
                        "the decision call ran out of its deadline while the calls in flight held the rest of "
                        "the daily cost cap");
        }
        // `min(_POLL_S, left)`: the wait never runs past the deadline.
        Ref poll = global(fn, Name::_POLL_S);
        timeout = holds(left.get(), poll.get(), Py_LT) ? left : poll;
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

bool share_amount(FunctionObject* fn, PyObject* share, bool* unbounded, double* amount) {
    *amount = 0.0;
    return isinf_directly(fn, share, unbounded) && (*unbounded || exact_float(share, amount));
}

HeldNumbers::HeldNumbers(const Self& held) : self_(held) {
    // Its three fields and nothing else: then no method of the class is shadowed either.
    if (!self_.standard() || self_.size() != 3) {
        return;
    }
    PyObject* holders = self_.field(Name::holders);
    PyObject* amount = self_.field(Name::amount);
    PyObject* unbounded = self_.field(Name::unbounded);
    // Counts far from the ends of 64 bits, so that adding or taking one cannot overflow.
    constexpr long long most = 1LL << 53;
    loaded_ = holders != nullptr && amount != nullptr && unbounded != nullptr && PyFloat_CheckExact(amount) &&
              exact_int(holders, &holders_) && exact_int(unbounded, &unbounded_) && -most <= holders_ &&
              holders_ <= most && -most <= unbounded_ && unbounded_ <= most;
    amount_ = loaded_ ? PyFloat_AS_DOUBLE(amount) : 0.0;
}

bool HeldNumbers::admits(bool unbounded, double used, double limit) const {
    if (unbounded_ != 0 || (unbounded && holders_ != 0)) {
        return false;
    }
    return used + amount_ < limit;
}

void HeldNumbers::take(bool unbounded, double share) {
    holders_ += 1;
    changed_[0] = true;
    if (unbounded) {
        unbounded_ += 1;
        changed_[2] = true;
    } else {
        amount_ += share;
        amount_zeroed_ = false;
        changed_[1] = true;
    }
}

void HeldNumbers::give_back(bool unbounded, double share) {
    // `max(0, n - 1)` keeps the 0 unless the difference is greater; `max(0.0, ...)` likewise, also
    // when the difference is not a number.
    holders_ = holders_ > 1 ? holders_ - 1 : 0;
    changed_[0] = true;
    if (unbounded) {
        unbounded_ = unbounded_ > 1 ? unbounded_ - 1 : 0;
        changed_[2] = true;
    } else {
        double less = amount_ - share;
        amount_zeroed_ = !(less > 0.0);
        amount_ = amount_zeroed_ ? 0.0 : less;
        changed_[1] = true;
    }
    if (holders_ == 0) {
        amount_ = 0.0;
        amount_zeroed_ = true;
        changed_[1] = true;
    }
}

void HeldNumbers::store() const {
    // The new values first: making one may fail, and then nothing is written.
    Ref values[3];
    if (changed_[0]) {
        values[0] = own(PyLong_FromLongLong(holders_));
    }
    if (changed_[1]) {
        values[1] = amount_zeroed_ ? Ref::borrow(state_of(self_.fn()).fast.zero) : real(amount_);
    }
    if (changed_[2]) {
        values[2] = own(PyLong_FromLongLong(unbounded_));
    }
    static constexpr Name names[] = {Name::holders, Name::amount, Name::unbounded};
    for (int i = 0; i < 3; ++i) {
        if (values[i]) {
            self_.store(names[i], values[i].get());
        }
    }
}

namespace {

// `admits(share, used, limit)` at once in machine numbers, on a standard `_Held` and exact amounts:
// false, with `*answer` not set, otherwise.
bool admits_directly(const Self& held, PyObject* share, PyObject* used, PyObject* limit, bool* answer) {
    HeldNumbers numbers(held);
    bool unbounded;
    double amount;
    double used_amount;
    double limit_amount;
    if (!numbers || !share_amount(held.fn(), share, &unbounded, &amount) || !exact_float(used, &used_amount) ||
        !exact_float(limit, &limit_amount)) {
        return false;
    }
    *answer = numbers.admits(unbounded, used_amount, limit_amount);
    return true;
}

}  // namespace

Ref held_admits(Self& self, PyObject* share, PyObject* used, PyObject* limit) {
    FunctionObject* fn = self.fn();
    if (bool answer; admits_directly(self, share, used, limit, &answer)) {
        return boolean(answer);
    }
    if (is_true(self.get(Name::unbounded).get())) {
        return boolean(false);
    }
    if (is_unbounded(fn, share, self) && is_true(self.get(Name::holders).get())) {
        return boolean(false);
    }
    Ref total = add(used, self.get(Name::amount).get());
    return compared(total.get(), limit, Py_LT);
}

namespace {

// `change(numbers, unbounded, amount)`, then the changes stored, at once on a standard `_Held` and a
// share of an exact amount; false, with nothing changed, otherwise.
template <typename Change>
bool change_directly(const Self& held, PyObject* share, Change change) {
    HeldNumbers numbers(held);
    bool unbounded;
    double amount;
    if (!numbers || !share_amount(held.fn(), share, &unbounded, &amount)) {
        return false;
    }
    change(numbers, unbounded, amount);
    numbers.store();
    return true;
}

void take_numbers(HeldNumbers& numbers, bool unbounded, double amount) { numbers.take(unbounded, amount); }
void give_back_numbers(HeldNumbers& numbers, bool unbounded, double amount) { numbers.give_back(unbounded, amount); }

}  // namespace

Ref held_take(Self& self, PyObject* share) {
    FunctionObject* fn = self.fn();
    if (change_directly(self, share, take_numbers)) {
        return none();
    }
    self.add_to(Name::holders, one(fn));
    if (is_unbounded(fn, share, self)) {
        self.add_to(Name::unbounded, one(fn));
    } else {
        self.add_to(Name::amount, share);
    }
    return none();
}

Ref held_give_back(Self& self, PyObject* share) {
    FunctionObject* fn = self.fn();
    if (change_directly(self, share, give_back_numbers)) {
        return none();
    }
    PyObject* zero = state_of(fn).fast.zero;
    self.take_from(Name::holders, one(fn), zero_int(fn));
    if (is_unbounded(fn, share, self)) {
        self.take_from(Name::unbounded, one(fn), zero_int(fn));
    } else {
        self.take_from(Name::amount, share, zero);
    }
    // Once nothing is held, the sum is exactly zero, whatever residue float arithmetic left.
    if (holds(self.get(Name::holders).get(), zero_int(fn), Py_EQ)) {
        self.set(Name::amount, zero);
    }
    return none();
}

bool admits(FunctionObject* fn, PyObject* held, PyObject* share, PyObject* used, PyObject* limit) {
    // A standard `_Held` (its three fields alone) shadows no method: `admits` is the class's.
    Self self(fn, held, Own::_Held);
    if (bool answer; admits_directly(self, share, used, limit, &answer)) {
        return answer;
    }
    return is_true(self.call(Name::admits, held_admits, share, used, limit).get());
}

void take(FunctionObject* fn, PyObject* held, PyObject* share) {
    // A standard `_Held` (its three fields alone) shadows no method: `take` is the class's.
    if (Self self(fn, held, Own::_Held); !change_directly(self, share, take_numbers)) {
        self.call(Name::take, held_take, share);
    }
}

void give_back(FunctionObject* fn, PyObject* held, PyObject* share) {
    if (Self self(fn, held, Own::_Held); !change_directly(self, share, give_back_numbers)) {
        self.call(Name::give_back, held_give_back, share);
    }
}

Ref make_share(FunctionObject* fn, PyObject* give_back) {
    ModuleState& state = state_of(fn);
    PyObject* own_class = reinterpret_cast<PyObject*>(state.own[static_cast<int>(Own::Share)].type);
    if (standard_share(fn) && is_own_class(fn, own_class, Own::Share)) {
        return new_share(state, reinterpret_cast<PyTypeObject*>(own_class), give_back);
    }
    Ref cls = global(fn, Name::Share);
    return call(cls.get(), give_back);
}

void clear_share_pool(ModuleState& state) {
    SharePool& pool = state.shares;
    while (pool.count > 0) {
        PyObject* share = pool.free[--pool.count];
        PyTypeObject* type = Py_TYPE(share);
        _PyObject_ClearManagedDict(share);
        PyObject_GC_Del(share);
        Py_DECREF(type);
    }
}

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

bool is_unbounded(FunctionObject* fn, PyObject* value, Self& self) {
    bool result;
    if (isinf_directly(fn, value, &result)) {
        return result;
    }
    Ref math = global(fn, Name::math);
    Ref isinf = getattr(math.get(), name(fn, Name::isinf));
    result = is_true(call(isinf.get(), value).get());
    self.refresh();
    return result;
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

}  // namespace decision_bounds
