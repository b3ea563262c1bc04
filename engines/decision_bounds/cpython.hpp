// The parts of CPython 3.12 that the module uses beyond its limited and stable API, in one place:
// each is exported by the interpreter, and each is here for a reason given beside it.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>
#include <semaphore.h>

namespace decision_bounds::cpython {

// Where an object keeps its attribute dict, made from its inline values if it had none yet; null
// when its class gives it none. Used only where the inline values below cannot be read.
inline PyObject** dict_slot(PyObject* object) { return _PyObject_GetDictPtr(object); }

// Inline values. An instance of a class with `Py_TPFLAGS_MANAGED_DICT` keeps, three words before
// itself, either its attribute dict or, until something asks for that dict, a pointer to an array
// of its attribute values, marked by its lowest bit. The array's slots follow the keys that all
// instances of the class share (`ht_cached_keys`): keys are only ever appended there, so a key keeps
// its slot for the life of the class. Python's own attribute loads and stores use these slots in
// place, and the interpreter specialises method calls only on objects that still have them; the
// records do the same rather than make the dict. Start-up checks all of this on an instance of one
// of the module's classes (`values_are_laid_out`, record.cpp) before anything is read so.
inline PyObject* dict_or_values(PyObject* object) { return reinterpret_cast<PyObject**>(object)[-3]; }
// The values that the word above points to, or null when it holds a dict (or nothing).
inline PyObject** values_of(PyObject* word) {
    auto bits = reinterpret_cast<uintptr_t>(word);
    return (bits & 1) != 0 ? reinterpret_cast<PyObject**>(bits + 1) : nullptr;
}

// `obj.key = value` into a slot that holds a value already, as Python's own store does there. Letting
// go of the old value may run code: nothing read of the object before it may be trusted after.
inline void store_in_slot(PyObject** values, Py_ssize_t slot, PyObject* value) {
    PyObject* old = values[slot];
    values[slot] = Py_NewRef(value);
    Py_DECREF(old);
}

// The shared keys as 3.12 lays them out: a header, a hash index, then (key, value) entries.
struct SharedKeys {
    Py_ssize_t refcount;
    uint8_t log2_size;
    uint8_t log2_index_bytes;
    uint8_t kind;  // 2: split, the kind of keys that a class shares
    uint32_t version;
    Py_ssize_t usable;
    Py_ssize_t entries;  // how many keys there are: the slots used so far
    // the hash index follows, then the entries
};
inline constexpr uint8_t split_keys = 2;
inline const SharedKeys* shared_keys(PyTypeObject* type) {
    return reinterpret_cast<const SharedKeys*>(reinterpret_cast<PyHeapTypeObject*>(type)->ht_cached_keys);
}
// The key of slot `index` (below `keys->entries`): an exact `str`.
inline PyObject* shared_key(const SharedKeys* keys, Py_ssize_t index) {
    const char* entries = reinterpret_cast<const char*>(keys + 1) + (size_t{1} << keys->log2_index_bytes);
    return reinterpret_cast<PyObject* const*>(entries)[2 * index];
}

// The slot of `key`, an interned `str`, among `keys` (tried first at `expected`), or -1 when it has
// none. The keys are exact `str` with their hash kept, so comparing them runs no code.
inline Py_ssize_t slot_of(const SharedKeys* keys, PyObject* key, Py_ssize_t expected) {
    if (expected >= 0 && expected < keys->entries && shared_key(keys, expected) == key) {
        return expected;
    }
    Py_hash_t hash = reinterpret_cast<PyASCIIObject*>(key)->hash;
    for (Py_ssize_t slot = 0; slot < keys->entries; ++slot) {
        PyObject* found = shared_key(keys, slot);
        if (found == key || (PyUnicode_CheckExact(found) && reinterpret_cast<PyASCIIObject*>(found)->hash == hash &&
                             PyUnicode_Compare(found, key) == 0)) {
            return slot;
        }
    }
    return -1;
}

// `type`'s attribute `name` from its method resolution order, without running any code (the
// interpreter's own lookup, with its cache); borrowed, or null.
inline PyObject* type_lookup(PyTypeObject* type, PyObject* name) { return _PyType_Lookup(type, name); }

// What a class with `Py_TPFLAGS_MANAGED_DICT` must do with the dict the interpreter keeps for its
// instances: report it to the garbage collector, and let it go.
inline int visit_managed_dict(PyObject* object, visitproc visit, void* arg) {
    return _PyObject_VisitManagedDict(object, visit, arg);
}
inline void clear_managed_dict(PyObject* object) { _PyObject_ClearManagedDict(object); }

// An int that fits a machine word, read without a call.
inline bool is_compact(PyObject* integer) {
    return PyUnstable_Long_IsCompact(reinterpret_cast<PyLongObject*>(integer));
}
inline Py_ssize_t compact_value(PyObject* integer) {
    return PyUnstable_Long_CompactValue(reinterpret_cast<PyLongObject*>(integer));
}

// A dict's version: every change to the dict (an entry added, replaced or removed, by any path)
// gives it a new one, never used before in the interpreter. A record trusts what it read of a dict
// while this stays the same. (Deprecated for Python code in 3.12, and still kept by every change.)
inline unsigned long long dict_version(PyObject* dict) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag;
#pragma GCC diagnostic pop
}

// Whether a dict keeps its values apart from keys it shares with its class's other instances (the
// interpreter's split table, which an instance's dict usually is): such a dict has exact `str` keys
// only, since any other key makes it an ordinary one first.
inline bool is_split(PyObject* dict) { return reinterpret_cast<PyDictObject*>(dict)->ma_values != nullptr; }

// Whether an object lives for good (None, small ints, interned texts): letting go of it runs nothing.
inline bool is_immortal(PyObject* object) { return _Py_IsImmortal(object); }

// A class's version: any change to the class takes it away, and a new one is never an old one.
inline bool assign_version(PyTypeObject* type) { return PyUnstable_Type_AssignVersionTag(type) != 0; }

// The locks of `_thread` as 3.12 lays them out: the C lock, and for the reentrant lock its owner
// and depth. Taking one that is free, or is this thread's already, then needs no call and no
// argument parsing; waiting for one is left to its own method, which lets go of the interpreter
// lock while it waits. Start-up checks each layout on a lock of its own before any is used so.
struct RLockObject {
    PyObject_HEAD
    PyThread_type_lock lock;
    unsigned long owner;
    unsigned long count;
    PyObject* weakrefs;
};
struct LockObject {
    PyObject_HEAD
    PyThread_type_lock lock;
    PyObject* weakrefs;
    char locked;
};

// A free C lock taken without waiting. On Linux the interpreter's C lock is a POSIX semaphore
// (start-up checks that it behaves as one before anything takes it so): a try of it needs none of
// the clock reading that `PyThread_acquire_lock_timed` does even when it must not wait.
inline bool c_lock_take(PyThread_type_lock lock) { return sem_trywait(static_cast<sem_t*>(lock)) == 0; }
inline int c_lock_count(PyThread_type_lock lock) {
    int value = -1;
    return sem_getvalue(static_cast<sem_t*>(lock), &value) == 0 ? value : -1;
}

// What `RLock.acquire()` does when it need not wait: true when it took the lock.
inline bool rlock_take(PyObject* object) {
    auto* rlock = reinterpret_cast<RLockObject*>(object);
    unsigned long me = PyThread_get_thread_ident();
    if (rlock->count > 0 && rlock->owner == me) {
        if (rlock->count + 1 == 0) {
            return false;  // the method raises for that
        }
        ++rlock->count;
        return true;
    }
    if (!c_lock_take(rlock->lock)) {
        return false;
    }
    rlock->owner = me;
    rlock->count = 1;
    return true;
}
// What `RLock.release()` does when this thread holds the lock: false when it does not (the method
// raises for that).
inline bool rlock_give(PyObject* object) {
    auto* rlock = reinterpret_cast<RLockObject*>(object);
    if (rlock->count == 0 || rlock->owner != PyThread_get_thread_ident()) {
        return false;
    }
    if (--rlock->count == 0) {
        rlock->owner = 0;
        PyThread_release_lock(rlock->lock);
    }
    return true;
}
// `RLock._is_owned()`.
inline bool rlock_is_mine(PyObject* object) {
    auto* rlock = reinterpret_cast<RLockObject*>(object);
    return rlock->count > 0 && rlock->owner == PyThread_get_thread_ident();
}
// `Lock.acquire()` when the lock is free, and `Lock.release()` when it is held.
inline bool lock_take(PyObject* object) {
    auto* lock = reinterpret_cast<LockObject*>(object);
    if (!c_lock_take(lock->lock)) {
        return false;
    }
    lock->locked = 1;
    return true;
}
inline bool lock_give(PyObject* object) {
    auto* lock = reinterpret_cast<LockObject*>(object);
    if (lock->locked == 0) {
        return false;
    }
    lock->locked = 0;
    PyThread_release_lock(lock->lock);
    return true;
}

// The interpreter's runtime, for one word of it: the thread that finalizes the runtime, once that
// has begun. At exit the interpreter ends every other thread that asks for the interpreter lock by
// unwinding it from inside that request, and may have freed that thread's state already, so the
// test compares the pointer and never reads through it. In 3.12 the word follows the runtime's
// five leading ints (`_initialized` ... `initialized`); `runtime_layout_is_known` checks that.
extern "C" char _PyRuntime[];  // `_PyRuntimeState`, exported for the interpreter's own modules

inline PyThreadState* finalizing_thread() {
    return __atomic_load_n(reinterpret_cast<PyThreadState* const*>(_PyRuntime + 3 * sizeof(void*)), __ATOMIC_RELAXED);
}

// The thread state running on this thread now, or null while the thread is detached (as while it
// is unwound at exit): read from the interpreter's thread-local slot, never through the state.
inline PyThreadState* current_thread() { return _PyThreadState_UncheckedGet(); }

// At start-up, in a running interpreter: its five leading ints say initialized, and nothing finalizes.
inline bool runtime_layout_is_known() {
    const int* flags = reinterpret_cast<const int*>(_PyRuntime);
    return flags[0] == 1 && flags[3] == 1 && flags[4] == 1 && finalizing_thread() == nullptr;
}

}  // namespace decision_bounds::cpython
