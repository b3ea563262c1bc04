#include "condition.hpp"

namespace decision_bounds {
namespace {

// Where `threading.Condition.__init__` puts what the shortcuts read of a condition over the
// reentrant lock: `_lock` first, then `acquire`, `release`, `_release_save`, `_acquire_restore`,
// `_is_owned`, `_waiters`.
constexpr Py_ssize_t lock_place = 0;
constexpr Py_ssize_t is_owned_place = 5;
constexpr Py_ssize_t waiters_place = 6;

// `dict[key]` at `place` or by lookup, borrowed, or null; a failed lookup counts as absent.
PyObject* entry_at(PyObject* dict, Py_ssize_t place, PyObject* key) {
    PyObject* found;
    PyObject* value;
    if (PyDict_Next(dict, &place, &found, &value) && found == key) {
        return value;
    }
    value = PyDict_GetItemWithError(dict, key);
    if (value == nullptr) {
        PyErr_Clear();
    }
    return value;
}

// The inline values of a standard condition that still keeps its attributes there, or null.
PyObject** inline_values(const ModuleState& state, PyObject* object) {
    return state.standard.values_laid_out ? cpython::values_of(cpython::dict_or_values(object)) : nullptr;
}

// Its own attribute `key`, borrowed, or null, where the class's code put it at `place`: read in
// place while it keeps inline values (as Python's own loads do, never making it a dict).
PyObject* attribute_in_values(PyObject* object, PyObject** values, Py_ssize_t place, PyObject* key) {
    Py_ssize_t slot = cpython::slot_of(cpython::shared_keys(Py_TYPE(object)), key, place);
    return slot >= 0 ? values[slot] : nullptr;
}

PyObject* instance_dict(PyObject* object) {
    PyObject** slot = cpython::dict_slot(object);
    return slot != nullptr && *slot != nullptr && PyDict_CheckExact(*slot) ? *slot : nullptr;
}

// Whether `type` is the standard condition class as the shortcuts expect it: its `with` block and
// notifications are the standard methods, and no class attribute stands before the instance's own
// `_lock`, `_waiters` and `_is_owned` (no data descriptor). Checked once per version of the class.
bool standard_condition(ModuleState& state, PyTypeObject* type) {
    Standard& standard = state.standard;
    if (type != standard.condition_type || type == nullptr) {
        return false;
    }
    if (standard.condition_version != 0 && type->tp_version_tag == standard.condition_version) {
        return true;
    }
    const Name methods[] = {Name::__enter__, Name::__exit__, Name::notify_all, Name::notify};
    for (int i = 0; i < 4; ++i) {
        if (cpython::type_lookup(type, name(state, methods[i])) != standard.condition_methods[i]) {
            return false;
        }
    }
    for (Name own : {Name::_lock, Name::_waiters, Name::_is_owned}) {
        PyObject* descr = cpython::type_lookup(type, name(state, own));
        if (descr != nullptr && Py_TYPE(descr)->tp_descr_set != nullptr) {
            return false;
        }
    }
    if (!cpython::assign_version(type)) {
        return false;
    }
    standard.condition_version = type->tp_version_tag;
    return true;
}

// `type(manager).<special>`, bound to the manager as the `with` statement binds it; null if the
// type has none.
Ref special_method(PyObject* manager, PyObject* special) {
    PyObject* found = cpython::type_lookup(Py_TYPE(manager), special);
    if (found == nullptr) {
        return Ref();
    }
    Ref method = Ref::borrow(found);  // binding may run code that takes it off the class
    if (descrgetfunc bind = Py_TYPE(found)->tp_descr_get) {
        return own(bind(method.get(), manager, reinterpret_cast<PyObject*>(Py_TYPE(manager))));
    }
    return method;
}

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

PyCFunctionWithKeywords c_function_with_keywords(PyTypeObject* type, const char* method) {
    // A method that takes keywords is stored as a plain `PyCFunction`; it is called as what it is.
    return reinterpret_cast<PyCFunctionWithKeywords>(
        reinterpret_cast<void (*)()>(c_function(type, method, METH_VARARGS | METH_KEYWORDS)));
}

}  // namespace

Entered::Entered(FunctionObject* fn, const Value& manager) : fn_(fn), manager_(manager.ref()) {
    ModuleState& state = state_of(fn);
    const Standard& standard = state.standard;
    PyObject* object = manager_.get();
    PyTypeObject* type = Py_TYPE(object);
    PyCFunctionWithKeywords acquire = nullptr;
    bool (*take)(PyObject*) = nullptr;
    if (type == standard.lock_type && type != nullptr) {
        // Its class cannot change: its `__enter__` and `__exit__` are its C `acquire` and `release`.
        lock_ = manager_;
        acquire = standard.lock_acquire;
        release_ = standard.lock_release;
        if (standard.lock_laid_out) {
            take = cpython::lock_take;
            give_ = cpython::lock_give;
        }
    } else if (standard_condition(state, type)) {
        // The class's `__enter__` and `__exit__` pass on to its lock's own.
        PyObject* lock = nullptr;
        if (PyObject** values = inline_values(state, object)) {
            lock = attribute_in_values(object, values, lock_place, name(state, Name::_lock));
        } else if (PyObject* dict = instance_dict(object)) {
            lock = entry_at(dict, lock_place, name(state, Name::_lock));
        }
        if (lock != nullptr && Py_TYPE(lock) == standard.rlock_type) {
            lock_ = Ref::borrow(lock);
            acquire = standard.rlock_acquire;
            release_ = standard.rlock_release;
            if (standard.rlock_laid_out) {
                take = cpython::rlock_take;
                give_ = cpython::rlock_give;
            }
        }
    }
    if (lock_) {
        // A lock that is free (or this thread's) is taken at once; otherwise its method waits, with
        // the interpreter lock released.
        if (take == nullptr || !take(lock_.get())) {
            own(acquire(lock_.get(), standard.empty_tuple, nullptr));
        }
        entered_ = true;
        return;
    }
    Ref enter = special_method(object, name(state, Name::__enter__));
    if (!enter) {
        if (!PyErr_Occurred()) {
            PyErr_Format(PyExc_TypeError, "'%.200s' object does not support the context manager protocol",
                         type->tp_name);
        }
        raise_current();
    }
    exit_ = special_method(object, name(state, Name::__exit__));
    if (!exit_) {
        if (!PyErr_Occurred()) {
            PyErr_Format(PyExc_TypeError,
                         "'%.200s' object does not support the context manager protocol (missed __exit__ method)",
                         type->tp_name);
        }
        raise_current();
    }
    call(enter.get());
    entered_ = true;
}

bool Entered::release_directly() {
    entered_ = false;
    if (give_ != nullptr && give_(lock_.get())) {
        return true;
    }
    // Not this thread's to release: the method says so.
    Ref done = Ref::steal(release_(lock_.get(), nullptr));
    return static_cast<bool>(done);
}

void Entered::exit() {
    if (lock_) {
        if (!release_directly()) {
            raise_current();
        }
        return;
    }
    entered_ = false;
    call(exit_.get(), Py_None, Py_None, Py_None);
}

bool Entered::exit_with_error() {
    if (lock_) {
        Ref error = Ref::steal(PyErr_GetRaisedException());
        if (!release_directly()) {
            PyObject* later = PyErr_GetRaisedException();
            PyException_SetContext(later, error.release());
            PyErr_SetRaisedException(later);
            return false;
        }
        PyErr_SetRaisedException(error.release());
        return false;
    }
    entered_ = false;
    Ref error = Ref::steal(PyErr_GetRaisedException());
    Ref traceback = Ref::steal(PyException_GetTraceback(error.get()));
    // While `__exit__` runs, the exception is the one being handled, as inside the statement.
    Ref before = Ref::steal(PyErr_GetHandledException());
    PyErr_SetHandledException(error.get());
    PyObject* args[] = {reinterpret_cast<PyObject*>(Py_TYPE(error.get())), error.get(),
                        traceback ? traceback.get() : Py_None};
    Ref result = Ref::steal(PyObject_Vectorcall(exit_.get(), args, 3, nullptr));
    PyErr_SetHandledException(before.get());
    if (!result) {
        PyObject* later = PyErr_GetRaisedException();
        if (later != error.get()) {
            Ref context = Ref::steal(PyException_GetContext(later));
            if (!context) {
                PyException_SetContext(later, error.release());
            }
        }
        PyErr_SetRaisedException(later);
        return false;
    }
    int suppressed = PyObject_IsTrue(result.get());
    if (suppressed < 0) {
        return false;  // what the truth test raised stands
    }
    if (suppressed == 0) {
        PyErr_SetRaisedException(error.release());
        return false;
    }
    return true;
}

Entered::~Entered() noexcept(false) {
    if (!entered_ || !thread_is_attached()) {
        return;
    }
    // Left by something that was no Python error and went past `with` (it cannot happen as the
    // template is written): release what was taken, reporting nothing.
    PyObject* pending = PyErr_GetRaisedException();
    if (lock_) {
        release_directly();
    } else {
        Ref ignored = Ref::steal(PyObject_CallFunctionObjArgs(exit_.get(), Py_None, Py_None, Py_None, nullptr));
    }
    PyErr_Clear();
    PyErr_SetRaisedException(pending);
}

namespace {

// What `notify_all` reads of a standard condition when it makes the call a no-op whenever nobody
// waits (no `notify_all` or `notify` of its own, a standard `_waiters` deque and `_is_owned`): the
// deque and the lock of `_is_owned`, borrowed from the condition; nulls otherwise.
struct Quiet {
    PyObject* waiters = nullptr;
    PyObject* lock = nullptr;
};

Quiet quiet(const Standard& standard, PyObject* waiters, PyObject* is_owned) {
    if (waiters == nullptr || Py_TYPE(waiters) != standard.deque_type || is_owned == nullptr ||
        !PyCFunction_Check(is_owned) || PyCFunction_GET_FUNCTION(is_owned) != standard.rlock_is_owned ||
        Py_TYPE(PyCFunction_GET_SELF(is_owned)) != standard.rlock_type) {
        return {};
    }
    return {.waiters = waiters, .lock = PyCFunction_GET_SELF(is_owned)};
}

// Read in place from a condition that keeps its attributes in inline values.
Quiet quiet_values(const ModuleState& state, PyObject* object, PyObject** values) {
    if (attribute_in_values(object, values, -1, name(state, Name::notify_all)) != nullptr ||
        attribute_in_values(object, values, -1, name(state, Name::notify)) != nullptr) {
        return {};
    }
    return quiet(state.standard, attribute_in_values(object, values, waiters_place, name(state, Name::_waiters)),
                 attribute_in_values(object, values, is_owned_place, name(state, Name::_is_owned)));
}

// Read from a condition's dict, which the caller holds: the lookups first, as they may run code;
// then the entries, read with nothing run between.
Quiet quiet_entries(const ModuleState& state, PyObject* dict) {
    if (check(PyDict_Contains(dict, name(state, Name::notify_all))) != 0 ||
        check(PyDict_Contains(dict, name(state, Name::notify))) != 0) {
        return {};
    }
    return quiet(state.standard, entry_at(dict, waiters_place, name(state, Name::_waiters)),
                 entry_at(dict, is_owned_place, name(state, Name::_is_owned)));
}

}  // namespace

void notify_all(FunctionObject* fn, const Value& condition) {
    ModuleState& state = state_of(fn);
    const Standard& standard = state.standard;
    PyObject* object = condition.get();
    // `notify_all` is `self.notify(len(self._waiters))`, and `notify` wakes nobody when the deque is
    // empty, once `self._is_owned()` has said that this thread holds the lock.
    if (standard_condition(state, Py_TYPE(object))) {
        Quiet found;
        Ref dict;  // held while what was read of it is used: its lookups may run code that replaces it
        if (PyObject** values = inline_values(state, object)) {
            found = quiet_values(state, object, values);
        } else if ((dict = Ref::borrow(instance_dict(object)))) {
            found = quiet_entries(state, dict.get());
        }
        if (found.waiters != nullptr && PyObject_Size(found.waiters) == 0) {
            Ref lock = Ref::borrow(found.lock);
            bool mine = standard.rlock_laid_out ? cpython::rlock_is_mine(lock.get())
                                                : own(standard.rlock_is_owned(lock.get(), nullptr)).get() == Py_True;
            if (mine) {
                return;
            }
        }
    }
    call_method(object, name(state, Name::notify_all));
}

namespace {

// Whether the C lock of a `_thread` lock is held now (a try to take it fails), leaving it as it was.
bool c_lock_held(PyThread_type_lock lock) {
    if (PyThread_acquire_lock_timed(lock, 0, 0) != PY_LOCK_ACQUIRED) {
        return true;
    }
    PyThread_release_lock(lock);
    return false;
}
// Whether it counts as a semaphore does: 0 while held, 1 while free.
bool c_lock_counts(PyThread_type_lock lock, bool held) { return cpython::c_lock_count(lock) == (held ? 0 : 1); }

// Whether a reentrant lock made now keeps its C lock, owner and depth where `cpython::RLockObject`
// says, as its own methods set them.
bool rlock_is_laid_out(const Standard& standard) {
    PyTypeObject* type = standard.rlock_type;
    if (type->tp_basicsize != sizeof(cpython::RLockObject)) {
        return false;
    }
    Ref lock = call(reinterpret_cast<PyObject*>(type));
    const auto* fields = reinterpret_cast<const cpython::RLockObject*>(lock.get());
    unsigned long me = PyThread_get_thread_ident();
    bool fresh = fields->lock != nullptr && fields->count == 0 && !c_lock_held(fields->lock) &&
                 c_lock_counts(fields->lock, false);
    own(standard.rlock_acquire(lock.get(), standard.empty_tuple, nullptr));
    own(standard.rlock_acquire(lock.get(), standard.empty_tuple, nullptr));
    bool twice = fresh && fields->count == 2 && fields->owner == me && c_lock_held(fields->lock) &&
                 c_lock_counts(fields->lock, true);
    own(standard.rlock_release(lock.get(), nullptr));
    bool once = twice && fields->count == 1 && fields->owner == me && c_lock_held(fields->lock);
    own(standard.rlock_release(lock.get(), nullptr));
    return once && fields->count == 0 && fields->owner == 0 && !c_lock_held(fields->lock) &&
           c_lock_counts(fields->lock, false);
}

// The same for the plain lock and `cpython::LockObject`.
bool lock_is_laid_out(const Standard& standard, PyObject* lock) {
    if (Py_TYPE(lock)->tp_basicsize != sizeof(cpython::LockObject)) {
        return false;
    }
    const auto* fields = reinterpret_cast<const cpython::LockObject*>(lock);
    bool fresh = fields->lock != nullptr && fields->locked == 0 && !c_lock_held(fields->lock) &&
                 c_lock_counts(fields->lock, false);
    own(standard.lock_acquire(lock, standard.empty_tuple, nullptr));
    bool taken = fresh && fields->locked == 1 && c_lock_held(fields->lock) && c_lock_counts(fields->lock, true);
    own(standard.lock_release(lock, nullptr));
    return taken && fields->locked == 0 && !c_lock_held(fields->lock) && c_lock_counts(fields->lock, false);
}

}  // namespace

void find_standard_locks(PyObject* module) {
    Standard& standard = state_of(module).standard;
    auto attribute = [](PyObject* object, const char* key) { return own(PyObject_GetAttrString(object, key)); };
    Ref threading = own(PyImport_ImportModule("threading"));
    Ref condition = attribute(threading.get(), "Condition");
    Ref deque = attribute(own(PyImport_ImportModule("collections")).get(), "deque");
    // The lock that a condition made without one holds: the C reentrant lock, whose methods nobody
    // can replace.
    Ref thread = own(PyImport_ImportModule("_thread"));
    Ref rlock = attribute(thread.get(), "RLock");
    if (PyType_Check(condition.get()) && PyType_Check(deque.get()) && PyType_Check(rlock.get()) &&
        PyType_HasFeature(reinterpret_cast<PyTypeObject*>(rlock.get()), Py_TPFLAGS_IMMUTABLETYPE)) {
        auto* type = reinterpret_cast<PyTypeObject*>(rlock.get());
        standard.rlock_acquire = c_function_with_keywords(type, "acquire");
        standard.rlock_release = c_function(type, "release", METH_NOARGS);
        standard.rlock_is_owned = c_function(type, "_is_owned", METH_NOARGS);
        auto* cls = reinterpret_cast<PyTypeObject*>(condition.get());
        if (standard.rlock_acquire && standard.rlock_release && standard.rlock_is_owned && cpython::assign_version(cls)) {
            const char* methods[] = {"__enter__", "__exit__", "notify_all", "notify"};
            for (int i = 0; i < 4; ++i) {
                standard.condition_methods[i] = attribute(condition.get(), methods[i]).release();
            }
            standard.condition_version = cls->tp_version_tag;
            standard.condition_type = reinterpret_cast<PyTypeObject*>(condition.release());
            standard.deque_type = reinterpret_cast<PyTypeObject*>(deque.release());
            standard.rlock_type = reinterpret_cast<PyTypeObject*>(rlock.release());
            standard.rlock_laid_out = rlock_is_laid_out(standard);
        }
    }
    Ref plain = call(attribute(thread.get(), "allocate_lock").get());
    PyTypeObject* lock_type = Py_TYPE(plain.get());
    if (PyType_HasFeature(lock_type, Py_TPFLAGS_IMMUTABLETYPE)) {
        standard.lock_acquire = c_function_with_keywords(lock_type, "acquire");
        standard.lock_release = c_function(lock_type, "release", METH_NOARGS);
        if (standard.lock_acquire && standard.lock_release) {
            standard.lock_type = reinterpret_cast<PyTypeObject*>(Py_NewRef(lock_type));
            standard.lock_laid_out = lock_is_laid_out(standard, plain.get());
        }
    }
}

}  // namespace decision_bounds
