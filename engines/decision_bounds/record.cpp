#include "record.hpp"

namespace decision_bounds {

PyObject* item_at(PyObject* dict, Py_ssize_t place, PyObject* key) {
    PyObject* found;
    PyObject* value;
    if (place >= 0 && PyDict_Next(dict, &place, &found, &value) && found == key) {
        return value;
    }
    value = PyDict_GetItemWithError(dict, key);
    if (value == nullptr && PyErr_Occurred()) {
        raise_current();
    }
    return value;
}

bool Record::reload() {
    dict_ = Ref();
    slot_ = nullptr;
    if (!is_own(state_of(fn_), object_, cls_)) {
        return false;
    }
    PyObject** slot = cpython::dict_slot(object_);
    if (slot == nullptr || *slot == nullptr || !PyDict_CheckExact(*slot)) {
        return false;
    }
    slot_ = slot;
    dict_ = Ref::borrow(*slot);
    return true;
}

Value Record::get(Name field) {
    PyObject* key = name(fn_, field);
    if (standard()) {
        // Owned at once: the lookup may have run code, and the next may run more.
        if (PyObject* value = item_at(dict_.get(), place_of(cls_, field), key)) {
            return Value::borrow(value);
        }
    }
    // Not an attribute of its own: the class's, or the `AttributeError`.
    return Value::own(getattr(object_, key));
}

void Record::set(Name field, const Value& value) {
    PyObject* object = value.get();
    PyObject* key = name(fn_, field);
    if (standard()) {
        check(PyDict_SetItem(dict_.get(), key, object));
    } else {
        setattr(object_, key, object);
    }
}

bool Record::finds_own(Name method) {
    if (!standard()) {
        return false;
    }
    Ref dict = dict_;  // the lookup may run code that replaces it
    return check(PyDict_Contains(dict.get(), name(fn_, method))) == 0;
}

Method::Method(FunctionObject* fn, const Value& object, Own cls, Name method)
    : fn_(fn), object_(object.ref()), cls_(cls), method_(method) {
    Record record(fn, object_.get(), cls);
    if (!record.finds_own(method)) {
        bound_ = getattr(object_.get(), name(fn, method));
    }
}

Method::Method(Record& self, Name method) : fn_(self.fn()), cls_(self.cls()), method_(method) {
    if (self.finds_own(method)) {
        self_ = &self;
    } else {
        bound_ = getattr(self.object(), name(fn_, method));
    }
}

void add_own_traceback(FunctionObject* fn, Own cls, Name method) {
    // The class's function of that name: looked up only now that an exception needs its entry.
    PyTypeObject* type = state_of(fn).own[static_cast<int>(cls)].type;
    PyObject* function = type != nullptr ? cpython::type_lookup(type, name(fn, method)) : nullptr;
    if (function != nullptr && is_function(function, state_of(fn).function_type)) {
        add_traceback(reinterpret_cast<FunctionObject*>(function));
    }
}

}  // namespace decision_bounds
