#include "startup.hpp"

namespace decision_bounds {

void bind(PyObject* module, const char* key, const Ref& value) {
    check(PyDict_SetItemString(PyModule_GetDict(module), key, value.get()));
}

Ref lookup(PyObject* module, const char* key) {
    Ref k = text(key);
    PyObject* value = PyDict_GetItemWithError(PyModule_GetDict(module), k.get());
    if (value == nullptr && !PyErr_Occurred()) {
        value = PyDict_GetItemWithError(PyEval_GetBuiltins(), k.get());
    }
    if (value == nullptr) {
        if (!PyErr_Occurred()) {
            PyErr_Format(PyExc_NameError, "name '%s' is not defined", key);
        }
        raise_current();
    }
    return Ref::borrow(value);
}

ClassBuilder::ClassBuilder(PyObject* module, const char* name, const char* doc,
                           std::initializer_list<Annotation> annotations)
    : module_(module), name_(name), namespace_(own(PyDict_New())) {
    add("__module__", lookup(module, "__name__"));
    add("__qualname__", text(name));
    if (annotations.size() != 0) {
        Ref texts = own(PyDict_New());
        for (const auto& [field, annotation] : annotations) {
            check(PyDict_SetItemString(texts.get(), field, text(annotation).get()));
        }
        add("__annotations__", texts);
    }
    add("__doc__", doc ? text(doc) : none());
}

void ClassBuilder::add(const char* key, const Ref& value) {
    check(PyDict_SetItemString(namespace_.get(), key, value.get()));
}

void ClassBuilder::add(const FunctionDef& def, PyObject* defaults, PyObject* kwdefaults) {
    add(def.name, make_function(module_, def, defaults, kwdefaults));
}

Ref ClassBuilder::build(PyObject* bases, PyObject* metaclass) {
    Ref no_bases = own(PyTuple_New(0));
    PyObject* meta = metaclass ? metaclass : reinterpret_cast<PyObject*>(&PyType_Type);
    return call(meta, text(name_).get(), bases ? bases : no_bases.get(), namespace_.get());
}

Ref as_dataclass(PyObject* module, const Ref& cls) { return call(lookup(module, "dataclass").get(), cls.get()); }

}  // namespace decision_bounds
