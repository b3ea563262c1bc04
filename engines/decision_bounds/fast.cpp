#include "fast.hpp"

#include <cmath>
#include <iterator>
#include <memory>
#include <vector>

namespace decision_bounds {
namespace {

// The C function behind a method of a built-in type, when it takes the arguments `flags` says.
PyCFunction c_function(PyTypeObject* type, const char* method, int flags) {
    Ref descr = own(PyObject_GetAttrString(reinterpret_cast<PyObject*>(type), method));
    if (!Py_IS_TYPE(descr.get(), &PyMethodDescr_Type)) {
        return nullptr;
    }
    PyMethodDef* def = reinterpret_cast<PyMethodDescrObject*>(descr.get())->d_method;
    if ((def->ml_flags & ~METH_COEXIST) != flags) {
        return nullptr;
    }
    return def->ml_meth;
}

Ref attribute(PyObject* object, const char* key) { return own(PyObject_GetAttrString(object, key)); }

// The object's own attributes, or null when they are not in a dict of its own.
PyObject* instance_dict(PyObject* object) {
    PyObject** dict = _PyObject_GetDictPtr(object);
    return dict != nullptr ? *dict : nullptr;
}

// Whether `dict` has `key` (no error state to look at when it has not).
bool has(PyObject* dict, PyObject* key) { return check(PyDict_Contains(dict, key)) != 0; }

PyObject* item(PyObject* dict, PyObject* key) {
    PyObject* value = PyDict_GetItemWithError(dict, key);
    if (value == nullptr && PyErr_Occurred()) {
        raise_current();
    }
    return value;
}

// Where `threading.Condition.__init__` puts what the shortcuts read of a condition over the
// reentrant lock: `_lock` first, then `acquire`, `release`, `_release_save`, `_acquire_restore`,
// `_is_owned`, `_waiters`.
constexpr Py_ssize_t lock_place = 0;
constexpr Py_ssize_t is_owned_place = 5;
constexpr Py_ssize_t waiters_place = 6;

// Whether `type` is the standard condition class as the shortcuts expect it: its `with` block and
// notifications are the standard methods, and no class attribute stands before the instance's own
// `_lock`, `_waiters` and `_is_owned` (no data descriptor). Checked once per version of the class.
bool standard_condition(FunctionObject* fn, PyTypeObject* type) {
    FastPaths& fast = state_of(fn).fast;
    if (type != fast.condition_type) {
        return false;
    }
    if (type->tp_version_tag == fast.condition_version && fast.condition_version != 0) {
        return true;
    }
    const Name methods[] = {Name::__enter__, Name::__exit__, Name::notify_all, Name::notify};
    for (int i = 0; i < 4; ++i) {
        if (_PyType_Lookup(type, name(fn, methods[i])) != fast.condition_methods[i]) {
            return false;
        }
    }
    for (Name own : {Name::_lock, Name::_waiters, Name::_is_owned}) {
        PyObject* descr = _PyType_Lookup(type, name(fn, own));
        if (descr != nullptr && Py_TYPE(descr)->tp_descr_set != nullptr) {
            return false;
        }
    }
    if (!PyUnstable_Type_AssignVersionTag(type)) {
        return false;
    }
    fast.condition_version = type->tp_version_tag;
    return true;
}

// A number as the arithmetic below takes it.
struct Number {
    enum Kind { other, integer, real } kind = other;
    long long i = 0;
    double d = 0.0;
};

Number number(PyObject* value) {
    Number n;
    if (PyFloat_CheckExact(value)) {
        n.kind = Number::real;
        n.d = PyFloat_AS_DOUBLE(value);
    } else if (PyLong_CheckExact(value)) {
        auto* as_long = reinterpret_cast<PyLongObject*>(value);
        if (PyUnstable_Long_IsCompact(as_long)) {
            n.kind = Number::integer;
            n.i = PyUnstable_Long_CompactValue(as_long);
        } else {
            int overflow = 0;
            n.i = PyLong_AsLongLongAndOverflow(value, &overflow);
            n.kind = overflow == 0 ? Number::integer : Number::other;
        }
    }
    return n;
}

// A number as a float, when it is one exactly: a float, or an int up to 2**53. Float arithmetic and
// comparisons on such values give what the number types' own methods give for them.
bool exact_float(const Number& n, double* out) {
    constexpr long long exact = 1LL << 53;
    if (n.kind == Number::real) {
        *out = n.d;
        return true;
    }
    if (n.kind == Number::integer && -exact <= n.i && n.i <= exact) {
        *out = static_cast<double>(n.i);
        return true;
    }
    return false;
}

// The result of comparing two machine numbers of one kind.
template <typename T>
bool comparison(T a, T b, int op) {
    switch (op) {
        case Py_LT: return a < b;
        case Py_LE: return a <= b;
        case Py_EQ: return a == b;
        case Py_NE: return a != b;
        case Py_GT: return a > b;
        default: return a >= b;
    }
}

// `a <op> b` in machine numbers: false when the shortcut does not apply.
bool compare_numbers(PyObject* a, PyObject* b, int op, bool* result) {
    Number x = number(a);
    Number y = number(b);
    double p;
    double q;
    if (x.kind == Number::integer && y.kind == Number::integer) {
        *result = comparison(x.i, y.i, op);
        return true;
    }
    if (exact_float(x, &p) && exact_float(y, &q)) {
        *result = comparison(p, q, op);
        return true;
    }
    return false;
}

enum class Operation { add, subtract, multiply, divide };

// `a <operation> b` in machine numbers, or null when the shortcut does not apply (a division by
// zero is left to the number types too, which raise for it).
Ref combine_numbers(PyObject* a, PyObject* b, Operation operation) {
    Number x = number(a);
    Number y = number(b);
    double p;
    double q;
    if (x.kind == Number::integer && y.kind == Number::integer && operation != Operation::divide) {
        long long result;
        bool overflow = false;
        switch (operation) {
            case Operation::add: overflow = __builtin_add_overflow(x.i, y.i, &result); break;
            case Operation::subtract: overflow = __builtin_sub_overflow(x.i, y.i, &result); break;
            default: overflow = __builtin_mul_overflow(x.i, y.i, &result); break;
        }
        return overflow ? Ref() : own(PyLong_FromLongLong(result));
    }
    // Otherwise in floats; ints divide this way too, correctly rounded as int division gives it.
    if (!exact_float(x, &p) || !exact_float(y, &q)) {
        return Ref();
    }
    switch (operation) {
        case Operation::add: return real(p + q);
        case Operation::subtract: return real(p - q);
        case Operation::multiply: return real(p * q);
        default: return q == 0.0 ? Ref() : real(p / q);
    }
}

// The states that watch each dict, in one interpreter. A dict watcher's callback is told only which
// dict changed, so the interpreter's own dict keeps this, under a key of the module's.
struct Watching {
    int watcher = -1;
    std::vector<std::pair<PyObject*, ModuleState*>> entries;  // the dict is not owned: only compared
};

constexpr const char* watching_key = "engines.decision_bounds.watching";

void forget_facts(NamespaceFacts& facts) {
    facts.math_isinf = false;
    facts.share = false;
    facts.partial = false;
}

// This interpreter's `Watching`, or null when it has none (and `create` is false).
Watching* watching(bool create) {
    PyObject* interpreter = PyInterpreterState_GetDict(PyInterpreterState_Get());
    if (interpreter == nullptr) {
        return nullptr;
    }
    PyObject* found = PyDict_GetItemString(interpreter, watching_key);
    if (found != nullptr) {
        return static_cast<Watching*>(PyCapsule_GetPointer(found, watching_key));
    }
    if (!create) {
        return nullptr;
    }
    auto made = std::make_unique<Watching>();
    Ref capsule = own(PyCapsule_New(made.get(), watching_key, [](PyObject* capsule) noexcept {
        delete static_cast<Watching*>(PyCapsule_GetPointer(capsule, watching_key));
    }));
    Watching* result = made.release();
    check(PyDict_SetItemString(interpreter, watching_key, capsule.get()));
    return result;
}

// Any change to a watched dict: the states that read it forget what they found standard in it.
int namespace_changed(PyDict_WatchEvent event, PyObject* dict, PyObject*, PyObject*) noexcept {
    Watching* watched = watching(false);
    if (watched == nullptr) {
        return 0;
    }
    for (auto& [watched_dict, state] : watched->entries) {
        if (watched_dict == dict) {
            forget_facts(state->facts);
        }
    }
    if (event == PyDict_EVENT_DEALLOCATED) {
        std::erase_if(watched->entries, [&](const auto& entry) { return entry.first == dict; });
    }
    return 0;
}

// Has the namespace and the modules it takes `isinf` and `partial` from watched for `state`; if
// no watcher can be had, the state only never remembers what it found.
void watch_namespace(PyObject* module) {
    ModuleState& state = state_of(module);
    Watching* watched = watching(true);
    if (watched->watcher < 0) {
        watched->watcher = PyDict_AddWatcher(namespace_changed);
        if (watched->watcher < 0) {
            PyErr_Clear();  // all watchers taken: the namespace is read at each use instead
            return;
        }
    }
    for (PyObject* dict : {PyModule_GetDict(module), PyModule_GetDict(state.fast.math_module),
                           PyModule_GetDict(state.fast.functools_module)}) {
        check(PyDict_Watch(watched->watcher, dict));
        watched->entries.emplace_back(dict, &state);
    }
    state.facts.watched = true;
}

void unwatch_namespace(ModuleState& state) {
    if (Watching* watched = watching(false)) {
        std::erase_if(watched->entries, [&](const auto& entry) { return entry.second == &state; });
    }
    state.facts = NamespaceFacts{};
}

// `module_dict[key]`, borrowed, or null when absent (or unreadable).
PyObject* entry(PyObject* dict, PyObject* key) {
    PyObject* value = PyDict_GetItemWithError(dict, key);
    if (value == nullptr) {
        PyErr_Clear();
    }
    return value;
}

// Whether `namespace[module_key].<attribute_key>` is `expected`, with the module the one expected.
bool standard_attribute(FunctionObject* fn, Name module_key, PyObject* module, Name attribute_key,
                        PyObject* expected) {
    PyObject* found = entry(fn->globals, name(fn, module_key));
    return found != nullptr && found == module && module != nullptr &&
           entry(PyModule_GetDict(module), name(fn, attribute_key)) == expected;
}

}  // namespace

// The module's own classes and the standard objects.

void remember_own_classes(PyObject* module) {
    static constexpr const char* names[] = {"Share", "_Held", "_Charges", "RequestRates", "RunBudget", "DailySpend"};
    static_assert(std::size(names) == static_cast<size_t>(Own::count));
    ModuleState& state = state_of(module);
    for (size_t i = 0; i < std::size(names); ++i) {
        Ref cls = lookup(module, names[i]);
        if (!PyType_Check(cls.get())) {
            PyErr_Format(PyExc_TypeError, "%s is not a class", names[i]);
            raise_current();
        }
        auto* type = reinterpret_cast<PyTypeObject*>(cls.get());
        state.own[i].version = PyUnstable_Type_AssignVersionTag(type) ? type->tp_version_tag : 0;
        state.own[i].type = reinterpret_cast<PyTypeObject*>(cls.release());
    }
    watch_namespace(module);
}

void init_fast_paths(PyObject* module) {
    FastPaths& fast = state_of(module).fast;
    fast.empty_tuple = own(PyTuple_New(0)).release();
    fast.zero = own(PyFloat_FromDouble(0.0)).release();
    fast.empty_text = own(PyUnicode_FromString("")).release();
    fast.zero_int = own(PyLong_FromLong(0)).release();
    fast.one = own(PyLong_FromLong(1)).release();

    Ref threading = own(PyImport_ImportModule("threading"));
    Ref condition = attribute(threading.get(), "Condition");
    Ref collections = own(PyImport_ImportModule("collections"));
    Ref deque = attribute(collections.get(), "deque");
    // The lock that a condition made without one holds: the C reentrant lock.
    Ref thread = own(PyImport_ImportModule("_thread"));
    Ref rlock = attribute(thread.get(), "RLock");
    // The lock's class must be one whose methods nobody can replace.
    if (PyType_Check(condition.get()) && PyType_Check(deque.get()) && PyType_Check(rlock.get()) &&
        PyType_HasFeature(reinterpret_cast<PyTypeObject*>(rlock.get()), Py_TPFLAGS_IMMUTABLETYPE)) {
        auto* type = reinterpret_cast<PyTypeObject*>(rlock.get());
        // A method that takes keywords is stored as a plain `PyCFunction`; it is called as what it is.
        fast.rlock_acquire = reinterpret_cast<PyCFunctionWithKeywords>(
            reinterpret_cast<void (*)()>(c_function(type, "acquire", METH_VARARGS | METH_KEYWORDS)));
        fast.rlock_release = c_function(type, "release", METH_NOARGS);
        fast.rlock_is_owned = c_function(type, "_is_owned", METH_NOARGS);
        auto* cls = reinterpret_cast<PyTypeObject*>(condition.get());
        if (fast.rlock_acquire && fast.rlock_release && fast.rlock_is_owned &&
            PyUnstable_Type_AssignVersionTag(cls)) {
            const char* methods[] = {"__enter__", "__exit__", "notify_all", "notify"};
            for (int i = 0; i < 4; ++i) {
                fast.condition_methods[i] = attribute(condition.get(), methods[i]).release();
            }
            fast.condition_version = cls->tp_version_tag;
            fast.condition_type = reinterpret_cast<PyTypeObject*>(condition.release());
            fast.deque_type = reinterpret_cast<PyTypeObject*>(deque.release());
            fast.rlock_type = reinterpret_cast<PyTypeObject*>(rlock.release());
        }
    }

    Ref allocate = attribute(thread.get(), "allocate_lock");
    Ref plain = call(allocate.get());
    auto* lock_type = Py_TYPE(plain.get());
    if (PyType_HasFeature(lock_type, Py_TPFLAGS_IMMUTABLETYPE)) {
        fast.lock_acquire = reinterpret_cast<PyCFunctionWithKeywords>(
            reinterpret_cast<void (*)()>(c_function(lock_type, "acquire", METH_VARARGS | METH_KEYWORDS)));
        fast.lock_release = c_function(lock_type, "release", METH_NOARGS);
        if (fast.lock_acquire && fast.lock_release) {
            fast.lock_type = reinterpret_cast<PyTypeObject*>(Py_NewRef(lock_type));
        }
    }

    Ref math = own(PyImport_ImportModule("math"));
    fast.math_isinf = attribute(math.get(), "isinf").release();
    fast.math_module = math.release();
    Ref functools = own(PyImport_ImportModule("functools"));
    fast.partial_type = attribute(functools.get(), "partial").release();
    fast.functools_module = functools.release();
}

int traverse_fast_paths(ModuleState& state, visitproc visit, void* arg) {
    for (OwnClass& own : state.own) {
        Py_VISIT(own.type);
    }
    FastPaths& fast = state.fast;
    Py_VISIT(fast.condition_type);
    for (PyObject* method : fast.condition_methods) {
        Py_VISIT(method);
    }
    Py_VISIT(fast.deque_type);
    Py_VISIT(fast.rlock_type);
    Py_VISIT(fast.lock_type);
    Py_VISIT(fast.math_module);
    Py_VISIT(fast.math_isinf);
    Py_VISIT(fast.functools_module);
    Py_VISIT(fast.partial_type);
    return 0;
}

void clear_fast_paths(ModuleState& state) {
    unwatch_namespace(state);
    for (OwnClass& own : state.own) {
        Py_CLEAR(own.type);
        own.version = 0;
    }
    FastPaths& fast = state.fast;
    Py_CLEAR(fast.condition_type);
    for (PyObject*& method : fast.condition_methods) {
        Py_CLEAR(method);
    }
    Py_CLEAR(fast.deque_type);
    Py_CLEAR(fast.rlock_type);
    Py_CLEAR(fast.lock_type);
    Py_CLEAR(fast.math_module);
    Py_CLEAR(fast.math_isinf);
    Py_CLEAR(fast.functools_module);
    Py_CLEAR(fast.partial_type);
    Py_CLEAR(fast.empty_tuple);
    Py_CLEAR(fast.zero);
    Py_CLEAR(fast.empty_text);
    Py_CLEAR(fast.zero_int);
    Py_CLEAR(fast.one);
    fast.condition_version = 0;
    fast.rlock_acquire = nullptr;
    fast.rlock_release = nullptr;
    fast.rlock_is_owned = nullptr;
    fast.lock_acquire = nullptr;
    fast.lock_release = nullptr;
}

// Self

PyObject* item_at(PyObject* dict, Py_ssize_t place, PyObject* key) {
    PyObject* found;
    PyObject* value;
    if (PyDict_Next(dict, &place, &found, &value) && found == key) {
        return value;
    }
    return item(dict, key);
}

void Self::reload() {
    dict_ = Ref();
    slot_ = nullptr;
    if (!is_own(fn_, object_, cls_)) {
        return;
    }
    PyObject** slot = _PyObject_GetDictPtr(object_);
    if (slot != nullptr && *slot != nullptr && PyDict_CheckExact(*slot)) {
        slot_ = slot;
        dict_ = Ref::borrow(*slot);
    }
}

bool Self::shadows(Name method) const { return has(dict_.get(), name(fn_, method)); }

Ref Self::get(Name key) const {
    if (dict_) {
        if (PyObject* value = field(key)) {
            return Ref::borrow(value);
        }
    }
    // Not an attribute of its own: the class's, or the `AttributeError`.
    return getattr(object_, name(fn_, key));
}

void Self::set(Name key, PyObject* value) const {
    if (dict_) {
        store(key, value);
    } else {
        setattr(object_, name(fn_, key), value);
    }
}

void Self::add_to(Name field, PyObject* step) {
    Ref value = get(field);
    Ref sum = combine_numbers(value.get(), step, Operation::add);
    if (!sum) {
        sum = own(PyNumber_InPlaceAdd(value.get(), step));
        refresh();  // the addition may have run code of the caller's
    }
    set(field, sum.get());
}

void Self::take_from(Name field, PyObject* step, PyObject* floor) {
    Ref value = get(field);
    Ref less = combine_numbers(value.get(), step, Operation::subtract);
    Ref kept;
    if (less) {
        kept = larger(floor, less.get());
    } else {
        less = own(PyNumber_Subtract(value.get(), step));
        kept = larger(floor, less.get());
        refresh();  // the subtraction and the comparison may have run code of the caller's
    }
    set(field, kept.get());
}

// What the namespace holds.

namespace {

// Whether `fact` holds: known when remembered, else found by `find()`, and then remembered as long
// as changes to the namespace are reported.
template <typename Find>
bool remembered(FunctionObject* fn, bool NamespaceFacts::*fact, Find find) {
    NamespaceFacts& facts = state_of(fn).facts;
    if (facts.*fact) {
        return true;
    }
    if (!find()) {
        return false;
    }
    facts.*fact = facts.watched;
    return true;
}

}  // namespace

bool standard_isinf(FunctionObject* fn) {
    const FastPaths& fast = state_of(fn).fast;
    return remembered(fn, &NamespaceFacts::math_isinf, [&] {
        return standard_attribute(fn, Name::math, fast.math_module, Name::isinf, fast.math_isinf);
    });
}

bool standard_share(FunctionObject* fn) {
    PyObject* share = reinterpret_cast<PyObject*>(state_of(fn).own[static_cast<int>(Own::Share)].type);
    return remembered(fn, &NamespaceFacts::share, [&] {
        return share != nullptr && entry(fn->globals, name(fn, Name::Share)) == share;
    });
}

bool standard_partial(FunctionObject* fn) {
    const FastPaths& fast = state_of(fn).fast;
    return remembered(fn, &NamespaceFacts::partial, [&] {
        return standard_attribute(fn, Name::functools, fast.functools_module, Name::partial, fast.partial_type);
    });
}

// The standard condition and locks.

void find_direct_lock(FunctionObject* fn, PyObject* condition, DirectLock& direct) {
    const FastPaths& fast = state_of(fn).fast;
    PyTypeObject* type = Py_TYPE(condition);
    if (type == fast.lock_type && type != nullptr) {
        // Its class cannot change: its `__enter__` and `__exit__` are its C `acquire` and `release`.
        direct.lock = Py_NewRef(condition);
        direct.acquire = fast.lock_acquire;
        direct.release = fast.lock_release;
        direct.fast = &fast;
        return;
    }
    // `with condition:` runs the class's `__enter__` and `__exit__`, which only pass on to the
    // lock's own: the class must be the standard one, changed in nothing since start-up.
    if (!standard_condition(fn, type)) {
        return;
    }
    PyObject* dict = instance_dict(condition);
    PyObject* lock = dict ? item_at(dict, lock_place, name(fn, Name::_lock)) : nullptr;
    if (lock == nullptr || Py_TYPE(lock) != fast.rlock_type) {
        return;
    }
    direct.lock = Py_NewRef(lock);
    direct.acquire = fast.rlock_acquire;
    direct.release = fast.rlock_release;
    direct.fast = &fast;
}

void acquire_direct(const DirectLock& direct) {
    Ref done = own(direct.acquire(direct.lock, direct.fast->empty_tuple, nullptr));
}

PyObject* release_direct(const DirectLock& direct) noexcept { return direct.release(direct.lock, nullptr); }

bool nobody_waits(FunctionObject* fn, const DirectLock& direct, PyObject* condition) {
    const FastPaths& fast = *direct.fast;
    // `notify_all` is `self.notify(len(self._waiters))`, and `notify` wakes nobody when the deque is
    // empty, once `self._is_owned()` has said that this thread holds the lock.
    if (!standard_condition(fn, Py_TYPE(condition))) {
        return false;
    }
    PyObject* dict = instance_dict(condition);
    if (dict == nullptr) {
        return false;
    }
    PyObject* waiters = item_at(dict, waiters_place, name(fn, Name::_waiters));
    if (waiters == nullptr || Py_TYPE(waiters) != fast.deque_type || PyObject_Size(waiters) != 0) {
        return false;
    }
    PyObject* is_owned = item_at(dict, is_owned_place, name(fn, Name::_is_owned));
    if (is_owned == nullptr || !PyCFunction_Check(is_owned) || PyCFunction_GET_FUNCTION(is_owned) != fast.rlock_is_owned ||
        PyCFunction_GET_SELF(is_owned) != direct.lock) {
        return false;
    }
    if (has(dict, name(fn, Name::notify_all)) || has(dict, name(fn, Name::notify))) {
        return false;
    }
    Ref owned = own(fast.rlock_is_owned(direct.lock, nullptr));
    return owned.get() == Py_True;
}

bool isinf_directly(FunctionObject* fn, PyObject* value, bool* result) {
    double number;
    if (PyFloat_CheckExact(value)) {
        number = PyFloat_AS_DOUBLE(value);
    } else if (PyLong_CheckExact(value)) {
        // An int too large for a float makes `isinf` raise: that is left to the real call.
        number = PyLong_AsDouble(value);
        if (number == -1.0 && PyErr_Occurred()) {
            PyErr_Clear();
            return false;
        }
    } else {
        return false;
    }
    // `math.isinf` as the function body reads it: the module from the namespace, then its attribute.
    if (!standard_isinf(fn)) {
        return false;
    }
    *result = std::isinf(number);
    return true;
}

// Numbers

bool exact_int(PyObject* value, long long* out) {
    Number n = number(value);
    *out = n.i;
    return n.kind == Number::integer;
}

bool exact_float(PyObject* value, double* out) { return exact_float(number(value), out); }

Ref exact_sum(PyObject* a, PyObject* b) { return combine_numbers(a, b, Operation::add); }

Ref plain_attribute(FunctionObject* fn, PyObject* object, Name key) {
    PyTypeObject* type = Py_TYPE(object);
    if (type->tp_getattro != PyObject_GenericGetAttr) {
        return Ref();
    }
    PyObject* descr = _PyType_Lookup(type, name(fn, key));
    if (descr != nullptr && Py_TYPE(descr)->tp_descr_get != nullptr) {
        return Ref();
    }
    PyObject* value = PyObject_GenericGetAttr(object, name(fn, key));
    if (value == nullptr) {
        PyErr_Clear();  // the ordinary read that follows raises it again
    }
    return Ref::steal(value);
}

namespace {

// `a <operation> b` in machine numbers when it can be, else by the number protocol's `generic`.
Ref arithmetic(PyObject* a, PyObject* b, Operation operation, binaryfunc generic) {
    Ref result = combine_numbers(a, b, operation);
    return result ? result : own(generic(a, b));
}

}  // namespace

Ref add(PyObject* a, PyObject* b) { return arithmetic(a, b, Operation::add, PyNumber_Add); }
// Ints and floats have no in-place addition of their own: `+=` adds them as `+` does.
Ref add_in_place(PyObject* a, PyObject* b) { return arithmetic(a, b, Operation::add, PyNumber_InPlaceAdd); }
Ref subtract(PyObject* a, PyObject* b) { return arithmetic(a, b, Operation::subtract, PyNumber_Subtract); }
Ref multiply(PyObject* a, PyObject* b) { return arithmetic(a, b, Operation::multiply, PyNumber_Multiply); }
Ref divide(PyObject* a, PyObject* b) { return arithmetic(a, b, Operation::divide, PyNumber_TrueDivide); }

Ref compared(PyObject* a, PyObject* b, int op) {
    bool result;
    if (compare_numbers(a, b, op, &result)) {
        return boolean(result);
    }
    return own(PyObject_RichCompare(a, b, op));
}

bool holds(PyObject* a, PyObject* b, int op) {
    bool result;
    if (compare_numbers(a, b, op, &result)) {
        return result;
    }
    return is_true(own(PyObject_RichCompare(a, b, op)).get());
}

Ref larger(PyObject* kept, PyObject* candidate) {
    return Ref::borrow(holds(candidate, kept, Py_GT) ? candidate : kept);
}

bool is_true(PyObject* value) {
    if (value == Py_True) {
        return true;
    }
    if (value == Py_False || value == Py_None) {
        return false;
    }
    return check(PyObject_IsTrue(value)) != 0;
}

}  // namespace decision_bounds
