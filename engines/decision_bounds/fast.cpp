#include "fast.hpp"

#include <cmath>
#include <cstdint>

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

// The condition's own attributes, or null when they are not in a dict of its own.
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

// The object's dict, when `object.<key>` reads and writes it as a plain instance attribute: the
// class's generic attribute access, and no data descriptor of that name on the class.
PyObject* plain_dict(FunctionObject* fn, PyObject* object, Name key) {
    PyTypeObject* type = Py_TYPE(object);
    if (type->tp_getattro != PyObject_GenericGetAttr || type->tp_setattro != PyObject_GenericSetAttr) {
        return nullptr;
    }
    static_assert(static_cast<int>(Name::count) <= 128, "one bit per name");
    auto bit = static_cast<unsigned>(key);
    unsigned long long mask = 1ULL << (bit % 64);
    // Classes are a kilobyte apart or so: the address is mixed before it picks one of 16 places.
    uint64_t mixed = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(type)) * 0x9E3779B97F4A7C15ULL;
    PlainFields& known = state_of(fn).fast.plain[mixed >> 60];
    bool valid = PyType_HasFeature(type, Py_TPFLAGS_VALID_VERSION_TAG) && type->tp_version_tag != 0;
    if (!(valid && known.type == type && known.version == type->tp_version_tag && (known.names[bit / 64] & mask))) {
        PyObject* descr = _PyType_Lookup(type, name(fn, key));
        if (descr != nullptr && Py_TYPE(descr)->tp_descr_set != nullptr) {
            return nullptr;
        }
        // The lookup gives the class a version if it had none.
        if (PyType_HasFeature(type, Py_TPFLAGS_VALID_VERSION_TAG) && type->tp_version_tag != 0) {
            if (known.type != type || known.version != type->tp_version_tag) {
                known = PlainFields{type, type->tp_version_tag, {0, 0}};
            }
            known.names[bit / 64] |= mask;
        }
    }
    return instance_dict(object);
}

}  // namespace

Ref get_field(FunctionObject* fn, PyObject* object, Name key) {
    if (PyObject* dict = plain_dict(fn, object, key)) {
        if (PyObject* value = item(dict, name(fn, key))) {
            return Ref::borrow(value);
        }
    }
    // Not an attribute of its own: the class's, or the `AttributeError`.
    return getattr(object, name(fn, key));
}

void set_field(FunctionObject* fn, PyObject* object, Name key, PyObject* value) {
    if (PyObject* dict = plain_dict(fn, object, key)) {
        check(PyDict_SetItem(dict, name(fn, key), value));
    } else {
        setattr(object, name(fn, key), value);
    }
}

void init_fast_paths(PyObject* module) {
    FastPaths& fast = state_of(module).fast;
    fast.empty_tuple = own(PyTuple_New(0)).release();
    fast.zero = own(PyFloat_FromDouble(0.0)).release();

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
}

int traverse_fast_paths(FastPaths& fast, visitproc visit, void* arg) {
    Py_VISIT(fast.condition_type);
    for (PyObject* method : fast.condition_methods) {
        Py_VISIT(method);
    }
    Py_VISIT(fast.deque_type);
    Py_VISIT(fast.rlock_type);
    Py_VISIT(fast.lock_type);
    Py_VISIT(fast.math_module);
    Py_VISIT(fast.math_isinf);
    return 0;
}

void clear_fast_paths(FastPaths& fast) {
    Py_CLEAR(fast.condition_type);
    for (PyObject*& method : fast.condition_methods) {
        Py_CLEAR(method);
    }
    Py_CLEAR(fast.deque_type);
    Py_CLEAR(fast.rlock_type);
    Py_CLEAR(fast.lock_type);
    Py_CLEAR(fast.math_module);
    Py_CLEAR(fast.math_isinf);
    Py_CLEAR(fast.empty_tuple);
    Py_CLEAR(fast.zero);
    fast.condition_version = 0;
    fast.rlock_acquire = nullptr;
    fast.rlock_release = nullptr;
    fast.rlock_is_owned = nullptr;
    fast.lock_acquire = nullptr;
    fast.lock_release = nullptr;
}

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
    PyObject* lock = dict ? item(dict, name(fn, Name::_lock)) : nullptr;
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
    if (dict == nullptr || has(dict, name(fn, Name::notify_all)) || has(dict, name(fn, Name::notify))) {
        return false;
    }
    PyObject* waiters = item(dict, name(fn, Name::_waiters));
    PyObject* is_owned = item(dict, name(fn, Name::_is_owned));
    if (waiters == nullptr || Py_TYPE(waiters) != fast.deque_type || is_owned == nullptr ||
        !PyCFunction_Check(is_owned) || PyCFunction_GET_FUNCTION(is_owned) != fast.rlock_is_owned ||
        PyCFunction_GET_SELF(is_owned) != direct.lock) {
        return false;
    }
    if (PyObject_Size(waiters) != 0) {
        return false;
    }
    Ref owned = own(fast.rlock_is_owned(direct.lock, nullptr));
    return owned.get() == Py_True;
}
PyObject* own_method(FunctionObject* fn, PyObject* object, Name key) {
    PyTypeObject* type = Py_TYPE(object);
    if (type->tp_getattro != PyObject_GenericGetAttr) {
        return nullptr;
    }
    PyObject* method = _PyType_Lookup(type, name(fn, key));
    if (method == nullptr || Py_TYPE(method) != state_of(fn).function_type) {
        return nullptr;
    }
    PyObject* dict = instance_dict(object);
    if (dict != nullptr && has(dict, name(fn, key))) {
        return nullptr;
    }
    return method;
}

bool isinf_directly(FunctionObject* fn, PyObject* value, bool* result) {
    const FastPaths& fast = state_of(fn).fast;
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
    PyObject* math = item(fn->globals, name(fn, Name::math));
    if (math == nullptr || math != fast.math_module) {
        return false;
    }
    PyObject* isinf = item(PyModule_GetDict(math), name(fn, Name::isinf));
    if (isinf == nullptr || isinf != fast.math_isinf) {
        return false;
    }
    *result = std::isinf(number);
    return true;
}

}  // namespace decision_bounds
