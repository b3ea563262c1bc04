#include "function.hpp"

#include <frameobject.h>

#include <cstddef>

#include "state.hpp"

namespace decision_bounds {
namespace {

constexpr int co_optimized = 0x1;
constexpr int co_newlocals = 0x2;
constexpr int co_varargs = 0x4;

FunctionObject* as_function(PyObject* self) { return reinterpret_cast<FunctionObject*>(self); }

PyObject* qualname_of(FunctionObject* fn);

// The `TypeError`s of argument binding, worded as the interpreter words them for a function.
void raise_missing(FunctionObject* fn, const char* kind, PyObject* const* slots, Py_ssize_t from,
                   Py_ssize_t to, PyObject* kwdefaults_hit[]) {
    const FunctionDef& def = *fn->def;
    Ref names = own(PyList_New(0));
    for (Py_ssize_t i = from; i < to; ++i) {
        if (slots[i] == nullptr && (kwdefaults_hit == nullptr || kwdefaults_hit[i] == nullptr)) {
            Ref param = text(def.named[i]->name);
            check(PyList_Append(names.get(), own(PyObject_Repr(param.get())).get()));
        }
    }
    Py_ssize_t count = PyList_GET_SIZE(names.get());
    Ref listed;
    if (count == 1) {
        listed = Ref::borrow(PyList_GET_ITEM(names.get(), 0));
    } else if (count == 2) {
        listed = own(PyUnicode_FromFormat("%U and %U", PyList_GET_ITEM(names.get(), 0),
                                          PyList_GET_ITEM(names.get(), 1)));
    } else {
        Ref head = own(PyList_GetSlice(names.get(), 0, count - 1));
        Ref sep = text(", ");
        Ref joined = own(PyUnicode_Join(sep.get(), head.get()));
        listed = own(PyUnicode_FromFormat("%U, and %U", joined.get(), PyList_GET_ITEM(names.get(), count - 1)));
    }
    PyErr_Format(PyExc_TypeError, "%U() missing %zd required %s argument%s: %U", qualname_of(fn), count, kind,
                 count == 1 ? "" : "s", listed.get());
    raise_current();
}

void raise_too_many(FunctionObject* fn, const Shape& shape, Py_ssize_t given, Py_ssize_t defcount,
                    Py_ssize_t kwonly_given) {
    Ref sig;
    bool plural;
    if (defcount) {
        plural = true;
        sig = own(PyUnicode_FromFormat("from %zd to %zd", shape.positional - defcount, shape.positional));
    } else {
        plural = shape.positional != 1;
        sig = own(PyUnicode_FromFormat("%zd", shape.positional));
    }
    Ref kwonly_sig;
    if (kwonly_given) {
        kwonly_sig = own(PyUnicode_FromFormat(" positional argument%s (and %zd keyword-only argument%s)",
                                              given != 1 ? "s" : "", kwonly_given, kwonly_given != 1 ? "s" : ""));
    } else {
        kwonly_sig = text("");
    }
    PyErr_Format(PyExc_TypeError, "%U() takes %U positional argument%s but %zd%U %s given", qualname_of(fn),
                 sig.get(), plural ? "s" : "", given, kwonly_sig.get(),
                 given == 1 && !kwonly_given ? "was" : "were");
    raise_current();
}

// Whether a str equals an ASCII text; without decoding for the usual compact ASCII str.
bool equals_ascii(PyObject* text, const char* ascii) {
    if (PyUnicode_IS_COMPACT_ASCII(text)) {
        const char* data = static_cast<const char*>(PyUnicode_DATA(text));
        Py_ssize_t length = PyUnicode_GET_LENGTH(text);
        for (Py_ssize_t i = 0; i < length; ++i) {
            if (ascii[i] == '\0' || ascii[i] != data[i]) {
                return false;
            }
        }
        return ascii[length] == '\0';
    }
    return PyUnicode_CompareWithASCIIString(text, ascii) == 0;
}

// The interned names of the named parameters, in slot order, made once per function.
PyObject* keywords_of(FunctionObject* fn) {
    if (fn->keywords == nullptr) {
        const FunctionDef& def = *fn->def;
        Ref names = own(PyTuple_New(def.named_count()));
        for (Py_ssize_t i = 0; i < def.named_count(); ++i) {
            PyTuple_SET_ITEM(names.get(), i, own(PyUnicode_InternFromString(def.named[i]->name)).release());
        }
        fn->keywords = names.release();
    }
    return fn->keywords;
}

// Finds the slot of a keyword argument, or -1: by identity first, as the interpreter does, since
// the names a call passes are interned as the parameters' are; then by value.
Py_ssize_t slot_of_keyword(FunctionObject* fn, PyObject* keyword) {
    PyObject* names = keywords_of(fn);
    Py_ssize_t count = fn->def->named_count();
    for (Py_ssize_t i = 0; i < count; ++i) {
        if (PyTuple_GET_ITEM(names, i) == keyword) {
            return i;
        }
    }
    for (Py_ssize_t i = 0; i < count; ++i) {
        if (equals_ascii(keyword, fn->def->named[i]->name)) {
            return i;
        }
    }
    return -1;
}

// The value of a keyword-only default, borrowed from `kwdefaults`, or null.
PyObject* keyword_default(PyObject* kwdefaults, const char* param) {
    if (kwdefaults == nullptr) {
        return nullptr;
    }
    Py_ssize_t pos = 0;
    PyObject* key;
    PyObject* value;
    while (PyDict_Next(kwdefaults, &pos, &key, &value)) {
        if (PyUnicode_Check(key) && equals_ascii(key, param)) {
            return value;
        }
    }
    return nullptr;
}

// Binds a call's arguments into `slots` as the interpreter binds a Python function's, in its order
// of checks. Defaults that fill a slot are kept alive in `owned` while the body runs: the body may
// call code that replaces the function's defaults.
void bind_arguments(FunctionObject* fn, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames,
                    PyObject** slots, Ref* owned) {
    const FunctionDef& def = *fn->def;
    const Shape& shape = def.shape;
    Py_ssize_t named = def.named_count();
    Py_ssize_t taken = nargs < shape.positional ? nargs : shape.positional;
    for (Py_ssize_t i = 0; i < taken; ++i) {
        slots[i] = args[i];
    }
    for (Py_ssize_t i = taken; i < named; ++i) {
        slots[i] = nullptr;
    }
    Py_ssize_t nkw = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
    for (Py_ssize_t k = 0; k < nkw; ++k) {
        PyObject* keyword = PyTuple_GET_ITEM(kwnames, k);
        Py_ssize_t i = slot_of_keyword(fn, keyword);
        if (i < 0) {
            PyErr_Format(PyExc_TypeError, "%U() got an unexpected keyword argument '%S'", qualname_of(fn), keyword);
            raise_current();
        }
        if (slots[i] != nullptr) {
            PyErr_Format(PyExc_TypeError, "%U() got multiple values for argument '%S'", qualname_of(fn), keyword);
            raise_current();
        }
        slots[i] = args[nargs + k];
    }
    Py_ssize_t defcount = fn->defaults ? PyTuple_GET_SIZE(fn->defaults) : 0;
    if (nargs > shape.positional && !shape.var_positional) {
        Py_ssize_t kwonly_given = 0;
        for (Py_ssize_t i = shape.positional; i < named; ++i) {
            kwonly_given += slots[i] != nullptr;
        }
        raise_too_many(fn, shape, nargs, defcount, kwonly_given);
    }
    Py_ssize_t first_default = shape.positional - defcount;
    if (nargs < shape.positional) {
        for (Py_ssize_t i = nargs; i < first_default; ++i) {
            if (slots[i] == nullptr) {
                raise_missing(fn, "positional", slots, nargs, first_default, nullptr);
            }
        }
        for (Py_ssize_t i = nargs > first_default ? nargs - first_default : 0; i < defcount; ++i) {
            if (slots[first_default + i] == nullptr) {
                owned[first_default + i] = Ref::borrow(PyTuple_GET_ITEM(fn->defaults, i));
                slots[first_default + i] = owned[first_default + i].get();
            }
        }
    }
    if (shape.keyword_only > 0) {
        PyObject* found[max_params] = {};
        bool missing = false;
        for (Py_ssize_t i = shape.positional; i < named; ++i) {
            if (slots[i] == nullptr) {
                found[i] = keyword_default(fn->kwdefaults, def.named[i]->name);
                missing = missing || found[i] == nullptr;
            }
        }
        if (missing) {
            raise_missing(fn, "keyword-only", slots, shape.positional, named, found);
        }
        for (Py_ssize_t i = shape.positional; i < named; ++i) {
            if (found[i] != nullptr) {
                owned[i] = Ref::borrow(found[i]);
                slots[i] = found[i];
            }
        }
    }
}

// Whether a call's arguments are the bound slots as they stand: positional only, one per named
// parameter, and any more only for a `*name` parameter (whose values no body reads).
bool binds_as_given(const FunctionDef& def, Py_ssize_t nargs, PyObject* kwnames) {
    if (kwnames != nullptr) {
        return false;
    }
    auto count = static_cast<Py_ssize_t>(def.params.size());
    if (count > 0 && def.params.back().kind == ParamKind::var_positional) {
        // Keyword-only parameters would follow it: all before it are positional.
        return nargs >= count - 1;
    }
    return count == nargs && (nargs == 0 || def.params.back().kind == ParamKind::positional_or_keyword);
}

// Whether a call leaves only trailing positional parameters to their defaults: positional
// arguments alone, for a definition of positional parameters alone.
bool binds_with_defaults(FunctionObject* fn, Py_ssize_t nargs, PyObject* kwnames) {
    const FunctionDef& def = *fn->def;
    auto count = static_cast<Py_ssize_t>(def.params.size());
    return kwnames == nullptr && nargs < count && fn->defaults != nullptr &&
           def.params.back().kind == ParamKind::positional_or_keyword &&
           nargs >= count - PyTuple_GET_SIZE(fn->defaults);
}

PyObject* function_vectorcall(PyObject* self, PyObject* const* args, size_t nargsf, PyObject* kwnames) {
    FunctionObject* fn = as_function(self);
    Py_ssize_t nargs = PyVectorcall_NARGS(nargsf);
    if (binds_as_given(*fn->def, nargs, kwnames)) {
        return entry([&] { return traced(fn, [&] { return fn->def->body(fn, args); }); });
    }
    if (binds_with_defaults(fn, nargs, kwnames)) {
        return entry([&] {
            // Kept while the body runs: it may run code that replaces the function's defaults.
            Ref defaults = Ref::borrow(fn->defaults);
            auto count = static_cast<Py_ssize_t>(fn->def->params.size());
            Py_ssize_t first_default = count - PyTuple_GET_SIZE(defaults.get());
            PyObject* slots[max_params];
            for (Py_ssize_t i = 0; i < count; ++i) {
                slots[i] = i < nargs ? args[i] : PyTuple_GET_ITEM(defaults.get(), i - first_default);
            }
            return traced(fn, [&] { return fn->def->body(fn, slots); });
        });
    }
    return entry([&] {
        PyObject* slots[max_params];
        Ref owned[max_params];
        // A binding error is raised before the function runs: no entry of its own, as in Python.
        bind_arguments(fn, args, nargs, kwnames, slots, owned);
        return traced(fn, [&] { return fn->def->body(fn, slots); });
    });
}

// Attributes made from the definition when first read.

PyObject* text_or_none(const char* text) {
    return text ? PyUnicode_FromString(text) : Py_NewRef(Py_None);
}

PyObject* materialize(PyObject*& slot, const char* text) {
    if (slot == nullptr) {
        slot = text_or_none(text);
    }
    return slot;
}

PyObject* qualname_of(FunctionObject* fn) {
    PyObject* q = materialize(fn->qualname, fn->def->qualname);
    if (q == nullptr) {
        raise_current();
    }
    return q;
}

Ref annotations_of(FunctionObject* fn) {
    if (fn->annotations == nullptr) {
        Ref dict = own(PyDict_New());
        auto put = [&](const char* key, const char* annotation) {
            Ref value = text(annotation);
            check(PyDict_SetItemString(dict.get(), key, value.get()));
        };
        for (const Param& p : fn->def->params) {
            if (p.annotation) {
                put(p.name, p.annotation);
            }
        }
        if (fn->def->returns) {
            put("return", fn->def->returns);
        }
        fn->annotations = dict.release();
    }
    return Ref::borrow(fn->annotations);
}

// A code object that states the parameters, for `inspect` and for tracebacks: an empty code object
// given the argument counts, names and flags of the definition, and the module's file as the
// module had it at start-up (kept as the text it was, which need not be valid UTF-8).
Ref code_of(FunctionObject* fn) {
    if (fn->code != nullptr) {
        return Ref::borrow(fn->code);
    }
    const FunctionDef& def = *fn->def;
    const Shape& shape = def.shape;
    ModuleState& state = state_of(fn);
    Ref empty = own(reinterpret_cast<PyObject*>(PyCode_NewEmpty("", def.name, 1)));
    Ref varnames = own(PyTuple_New(static_cast<Py_ssize_t>(def.params.size())));
    Py_ssize_t index = 0;
    for (Py_ssize_t i = 0; i < def.named_count(); ++i) {
        PyTuple_SET_ITEM(varnames.get(), index++, text(def.named[i]->name).release());
    }
    if (shape.var_positional) {
        PyTuple_SET_ITEM(varnames.get(), index, text(def.params.back().name).release());
    }
    Ref kwargs = own(PyDict_New());
    auto put = [&](Name key, const Ref& value) { check(PyDict_SetItem(kwargs.get(), name(fn, key), value.get())); };
    put(Name::co_argcount, integer(shape.positional));
    put(Name::co_kwonlyargcount, integer(shape.keyword_only));
    put(Name::co_nlocals, integer(PyTuple_GET_SIZE(varnames.get())));
    put(Name::co_varnames, varnames);
    put(Name::co_flags, integer(co_optimized | co_newlocals | (shape.var_positional ? co_varargs : 0)));
    put(Name::co_qualname, text(def.qualname));
    if (state.filename != nullptr) {
        put(Name::co_filename, Ref::borrow(state.filename));
    }
    Ref replace = getattr(empty.get(), name(fn, Name::replace));
    Ref code = own(PyObject_Call(replace.get(), state.standard.empty_tuple, kwargs.get()));
    // Made again by a racing thread meanwhile: the first one stays.
    if (fn->code == nullptr) {
        fn->code = Py_NewRef(code.get());
    }
    return Ref::borrow(fn->code);
}

// Getters and setters.

PyObject* get_name(PyObject* self, void*) noexcept {
    return Py_XNewRef(materialize(as_function(self)->name, as_function(self)->def->name));
}

PyObject* get_qualname(PyObject* self, void*) noexcept {
    return Py_XNewRef(materialize(as_function(self)->qualname, as_function(self)->def->qualname));
}

PyObject* get_doc(PyObject* self, void*) noexcept {
    return Py_XNewRef(materialize(as_function(self)->doc, as_function(self)->def->doc));
}

int set_text(PyObject*& slot, PyObject* value, const char* what) {
    if (value == nullptr || !PyUnicode_Check(value)) {
        PyErr_Format(PyExc_TypeError, "%s must be set to a string object", what);
        return -1;
    }
    Py_XSETREF(slot, Py_NewRef(value));
    return 0;
}

int set_name(PyObject* self, PyObject* value, void*) {
    return set_text(as_function(self)->name, value, "__name__");
}

int set_qualname(PyObject* self, PyObject* value, void*) {
    return set_text(as_function(self)->qualname, value, "__qualname__");
}

int set_doc(PyObject* self, PyObject* value, void*) {
    Py_XSETREF(as_function(self)->doc, Py_NewRef(value ? value : Py_None));
    return 0;
}

PyObject* get_or_none(PyObject* value) { return Py_NewRef(value ? value : Py_None); }

PyObject* get_defaults(PyObject* self, void*) noexcept { return get_or_none(as_function(self)->defaults); }

int set_defaults(PyObject* self, PyObject* value, void*) {
    if (value == Py_None) {
        value = nullptr;
    }
    if (value != nullptr && !PyTuple_Check(value)) {
        PyErr_SetString(PyExc_TypeError, "__defaults__ must be set to a tuple object");
        return -1;
    }
    Py_XSETREF(as_function(self)->defaults, Py_XNewRef(value));
    return 0;
}

PyObject* get_kwdefaults(PyObject* self, void*) noexcept { return get_or_none(as_function(self)->kwdefaults); }

int set_kwdefaults(PyObject* self, PyObject* value, void*) {
    if (value == Py_None) {
        value = nullptr;
    }
    if (value != nullptr && !PyDict_Check(value)) {
        PyErr_SetString(PyExc_TypeError, "__kwdefaults__ must be set to a dict object");
        return -1;
    }
    Py_XSETREF(as_function(self)->kwdefaults, Py_XNewRef(value));
    return 0;
}

PyObject* get_annotations(PyObject* self, void*) {
    return entry([&] { return annotations_of(as_function(self)); });
}

int set_annotations(PyObject* self, PyObject* value, void*) {
    if (value == Py_None) {
        value = nullptr;
    }
    if (value != nullptr && !PyDict_Check(value)) {
        PyErr_SetString(PyExc_TypeError, "__annotations__ must be set to a dict object");
        return -1;
    }
    // Deleting leaves an empty dict behind, as for a Python function.
    Py_XSETREF(as_function(self)->annotations, value ? Py_NewRef(value) : PyDict_New());
    return as_function(self)->annotations ? 0 : -1;
}

PyObject* get_code(PyObject* self, void*) {
    return entry([&] { return code_of(as_function(self)); });
}

PyObject* get_type_params(PyObject* self, void*) noexcept {
    PyObject* params = as_function(self)->type_params;
    return params != nullptr ? Py_NewRef(params) : PyTuple_New(0);
}

int set_type_params(PyObject* self, PyObject* value, void*) {
    if (value == nullptr || !PyTuple_Check(value)) {
        PyErr_SetString(PyExc_TypeError, "__type_params__ must be set to a tuple");
        return -1;
    }
    Py_XSETREF(as_function(self)->type_params, Py_NewRef(value));
    return 0;
}

PyObject* get_module(PyObject* self, void*) noexcept { return get_or_none(as_function(self)->module_name); }

int set_module(PyObject* self, PyObject* value, void*) {
    Py_XSETREF(as_function(self)->module_name, Py_XNewRef(value));
    return 0;
}

PyObject* get_globals(PyObject* self, void*) noexcept { return Py_NewRef(as_function(self)->globals); }

// The builtins that the module's code reads: its namespace's at start-up, as a Python function
// keeps the builtins of its globals from when it was made.
PyObject* get_builtins(PyObject* self, void*) noexcept {
    PyObject* builtins = state_of(as_function(self)).standard.builtins;
    return Py_NewRef(builtins != nullptr ? builtins : Py_None);
}

// Pickled by reference, as a Python function is: its module and qualified name; and so `copy`
// gives the function itself.
PyObject* function_reduce(PyObject* self, PyObject*) {
    return entry([&] { return Ref::borrow(qualname_of(as_function(self))); });
}

PyMethodDef function_methods[] = {
    {"__reduce__", function_reduce, METH_NOARGS, nullptr},
    {nullptr, nullptr, 0, nullptr},
};

PyGetSetDef function_getset[] = {
    {"__module__", get_module, set_module, nullptr, nullptr},
    {"__name__", get_name, set_name, nullptr, nullptr},
    {"__qualname__", get_qualname, set_qualname, nullptr, nullptr},
    {"__doc__", get_doc, set_doc, nullptr, nullptr},
    {"__defaults__", get_defaults, set_defaults, nullptr, nullptr},
    {"__kwdefaults__", get_kwdefaults, set_kwdefaults, nullptr, nullptr},
    {"__annotations__", get_annotations, set_annotations, nullptr, nullptr},
    {"__type_params__", get_type_params, set_type_params, nullptr, nullptr},
    {"__code__", get_code, nullptr, nullptr, nullptr},
    {"__globals__", get_globals, nullptr, nullptr, nullptr},
    {"__builtins__", get_builtins, nullptr, nullptr, nullptr},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMemberDef function_members[] = {
    {"__dictoffset__", Py_T_PYSSIZET, offsetof(FunctionObject, dict), Py_READONLY, nullptr},
    {"__weaklistoffset__", Py_T_PYSSIZET, offsetof(FunctionObject, weakrefs), Py_READONLY, nullptr},
    {"__vectorcalloffset__", Py_T_PYSSIZET, offsetof(FunctionObject, vectorcall), Py_READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

// Found on an instance, a function binds as a method, as a Python function does.
PyObject* function_descr_get(PyObject* self, PyObject* obj, PyObject*) noexcept {
    if (obj == nullptr || obj == Py_None) {
        return Py_NewRef(self);
    }
    return PyMethod_New(self, obj);
}

PyObject* function_repr(PyObject* self) {
    return entry([&] { return own(PyUnicode_FromFormat("<function %U at %p>", qualname_of(as_function(self)), self)); });
}

int function_traverse(PyObject* self, visitproc visit, void* arg) noexcept {
    FunctionObject* fn = as_function(self);
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(fn->module);
    Py_VISIT(fn->globals);
    Py_VISIT(fn->module_name);
    Py_VISIT(fn->name);
    Py_VISIT(fn->qualname);
    Py_VISIT(fn->doc);
    Py_VISIT(fn->defaults);
    Py_VISIT(fn->kwdefaults);
    Py_VISIT(fn->annotations);
    Py_VISIT(fn->type_params);
    Py_VISIT(fn->code);
    Py_VISIT(fn->dict);
    Py_VISIT(fn->keywords);
    for (PyObject* kept : fn->captured) {
        Py_VISIT(kept);
    }
    return 0;
}

// Letting go of what a function refers to can run finalizers, so this is not `noexcept`.
int function_clear(PyObject* self) {
    FunctionObject* fn = as_function(self);
    Py_CLEAR(fn->module);
    Py_CLEAR(fn->globals);
    Py_CLEAR(fn->module_name);
    Py_CLEAR(fn->name);
    Py_CLEAR(fn->qualname);
    Py_CLEAR(fn->doc);
    Py_CLEAR(fn->defaults);
    Py_CLEAR(fn->kwdefaults);
    Py_CLEAR(fn->annotations);
    Py_CLEAR(fn->type_params);
    Py_CLEAR(fn->code);
    Py_CLEAR(fn->dict);
    Py_CLEAR(fn->keywords);
    for (PyObject*& kept : fn->captured) {
        Py_CLEAR(kept);
    }
    return 0;
}

void function_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    if (as_function(self)->weakrefs != nullptr) {
        PyObject_ClearWeakRefs(self);
    }
    function_clear(self);
    type->tp_free(self);
    Py_DECREF(type);
}

PyType_Slot function_slots[] = {
    {Py_tp_call, reinterpret_cast<void*>(PyVectorcall_Call)},
    {Py_tp_descr_get, reinterpret_cast<void*>(function_descr_get)},
    {Py_tp_repr, reinterpret_cast<void*>(function_repr)},
    {Py_tp_traverse, reinterpret_cast<void*>(function_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(function_clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(function_dealloc)},
    {Py_tp_getset, function_getset},
    {Py_tp_methods, function_methods},
    {Py_tp_members, function_members},
    {0, nullptr},
};

PyType_Spec function_spec = {
    .name = "engines.decision_bounds.function",
    .basicsize = sizeof(FunctionObject),
    .itemsize = 0,
    .flags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL | Py_TPFLAGS_METHOD_DESCRIPTOR |
             Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_IMMUTABLETYPE,
    .slots = function_slots,
};

}  // namespace

PyType_Spec& function_type_spec() { return function_spec; }

Ref call_function(PyObject* function, PyObject* const* args, Py_ssize_t nargs) {
    FunctionObject* fn = as_function(function);
    // Kept alive while it runs, whatever its body does to the class it came from.
    Ref keep = Ref::borrow(function);
    if (binds_as_given(*fn->def, nargs, nullptr)) {
        return traced(fn, [&] { return fn->def->body(fn, args); });
    }
    return own(PyObject_Vectorcall(function, args, static_cast<size_t>(nargs), nullptr));
}

namespace {

// A new function of `def` for the module `module` (with its state and namespace), its other
// attributes not set yet.
Ref new_function(PyTypeObject* type, const FunctionDef& def, PyObject* module, ModuleState* state, PyObject* globals,
                 PyObject* module_name) {
    FunctionObject* fn = PyObject_GC_New(FunctionObject, type);
    if (fn == nullptr) {
        raise_current();
    }
    fn->vectorcall = function_vectorcall;
    fn->def = &def;
    fn->module = Py_NewRef(module);
    fn->state = state;
    fn->globals = Py_NewRef(globals);
    fn->module_name = Py_XNewRef(module_name);
    fn->name = fn->qualname = fn->doc = nullptr;
    fn->defaults = fn->kwdefaults = nullptr;
    fn->annotations = fn->type_params = fn->code = fn->dict = fn->weakrefs = nullptr;
    fn->captured[0] = fn->captured[1] = nullptr;
    fn->keywords = nullptr;
    PyObject_GC_Track(fn);
    return Ref::steal(reinterpret_cast<PyObject*>(fn));
}

}  // namespace

Ref make_closure(FunctionObject* maker, const FunctionDef& def, PyObject* first, PyObject* second) {
    Ref result = new_function(Py_TYPE(maker), def, maker->module, maker->state, maker->globals, maker->module_name);
    auto* fn = as_function(result.get());
    fn->captured[0] = Py_NewRef(first);
    fn->captured[1] = Py_NewRef(second);
    return result;
}

Ref make_function(PyObject* module, const FunctionDef& def, PyObject* defaults, PyObject* kwdefaults) {
    PyObject* globals = PyModule_GetDict(module);
    PyObject* module_name = PyDict_GetItemWithError(globals, name(module, Name::__name__));
    if (module_name == nullptr && PyErr_Occurred()) {
        raise_current();
    }
    ModuleState& state = state_of(module);
    Ref result = new_function(state.function_type, def, module, &state, globals, module_name);
    auto* fn = as_function(result.get());
    fn->defaults = Py_XNewRef(defaults);
    fn->kwdefaults = Py_XNewRef(kwdefaults);
    return result;
}

void add_traceback(FunctionObject* fn) {
    // The exception being raised stays the one raised: making the entry must not replace it.
    Ref raised = Ref::steal(PyErr_GetRaisedException());
    Ref frame;
    try {
        Ref code = code_of(fn);
        frame = own(reinterpret_cast<PyObject*>(
            PyFrame_New(PyThreadState_Get(), reinterpret_cast<PyCodeObject*>(code.get()), fn->globals, nullptr)));
    } catch (const PythonError&) {
        PyErr_Clear();
    }
    PyErr_SetRaisedException(raised.release());
    if (frame && PyTraceBack_Here(reinterpret_cast<PyFrameObject*>(frame.get())) < 0) {
        PyErr_Clear();  // only out of memory; the exception goes on without the entry
    }
}

}  // namespace decision_bounds
