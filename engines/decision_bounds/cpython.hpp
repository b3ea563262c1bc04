// The parts of CPython 3.12 that the module uses beyond its limited and stable API, in one place:
// each is exported by the interpreter, and each is here for a reason given beside it.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

namespace decision_bounds::cpython {

// Where an object keeps its attribute dict, made from its inline values if it had none yet; null
// when its class gives it none. The records read their fields straight from that dict.
inline PyObject** dict_slot(PyObject* object) { return _PyObject_GetDictPtr(object); }

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
inline bool is_compact(PyObject* integer) { return PyUnstable_Long_IsCompact(reinterpret_cast<PyLongObject*>(integer)); }
inline Py_ssize_t compact_value(PyObject* integer) {
    return PyUnstable_Long_CompactValue(reinterpret_cast<PyLongObject*>(integer));
}

// A class's version: any change to the class takes it away, and a new one is never an old one.
inline bool assign_version(PyTypeObject* type) { return PyUnstable_Type_AssignVersionTag(type) != 0; }

// Whether `thread` (a state this thread entered the module with) is the one running now. A thread
// that the interpreter ends at exit (a daemon thread asking for the interpreter lock while it
// finalizes) is unwound from inside that request, with its state detached: then nothing may touch
// the interpreter's objects.
inline bool is_attached(const PyThreadState* thread) { return thread->_status.active != 0; }

}  // namespace decision_bounds::cpython
