// The module's function type: native bodies that look like Python functions to their callers.
//
// Each function is described once by a constant `FunctionDef` (name, qualified name, docstring,
// parameters with their annotation texts, return annotation, body). A function object made from it
// binds its call's arguments the way the interpreter binds a Python function's, into one slot per
// named parameter, and hands them to the body. Defaults live on the object (`__defaults__`,
// `__kwdefaults__`), so changing them changes the next call, as for a Python function.
#pragma once

#include <span>

#include "pyref.hpp"

namespace decision_bounds {

enum class ParamKind : unsigned char { positional_or_keyword, keyword_only, var_positional };

struct Param {
    const char* name;
    const char* annotation;  // the annotation's text; null: not annotated
    ParamKind kind = ParamKind::positional_or_keyword;
};

struct FunctionObject;
struct ModuleState;

// A body gets the bound arguments, one borrowed reference per named parameter in the order of the
// definition (extra positional arguments for a `*name` parameter are not passed on: no body uses them).
using Body = Ref (*)(FunctionObject* self, PyObject* const* args);

// The most named parameters a definition may have.
inline constexpr Py_ssize_t max_params = 8;

// How a definition's parameters divide into the kinds that the interpreter counts.
struct Shape {
    Py_ssize_t positional = 0;    // positional-or-keyword parameters, first in the definition
    Py_ssize_t keyword_only = 0;  // after them
    bool var_positional = false;  // a `*name` parameter, last
};

struct FunctionDef {
    const char* name;
    const char* qualname;
    const char* doc;  // null: no docstring
    std::span<const Param> params;
    const char* returns;  // the return annotation's text; null: not annotated
    Body body;
    // Worked out once from `params`: their kinds counted, and the named ones in the order of the
    // bound slots (positional ones, then keyword-only ones).
    Shape shape;
    const Param* named[max_params] = {};

    constexpr FunctionDef(const char* name, const char* qualname, const char* doc, std::span<const Param> params,
                          const char* returns, Body body)
        : name(name), qualname(qualname), doc(doc), params(params), returns(returns), body(body) {
        for (const Param& p : params) {
            switch (p.kind) {
                case ParamKind::positional_or_keyword: ++shape.positional; break;
                case ParamKind::keyword_only: ++shape.keyword_only; break;
                case ParamKind::var_positional: shape.var_positional = true; break;
            }
        }
        Py_ssize_t slot = 0;
        for (ParamKind kind : {ParamKind::positional_or_keyword, ParamKind::keyword_only}) {
            for (const Param& p : params) {
                if (p.kind == kind) {
                    named[slot++] = &p;
                }
            }
        }
    }

    Py_ssize_t named_count() const { return shape.positional + shape.keyword_only; }
};

struct FunctionObject {
    PyObject_HEAD
    vectorcallfunc vectorcall;
    const FunctionDef* def;
    PyObject* module;       // the defining module: its state and namespace
    ModuleState* state;     // the module's state, which lives as long as the module
    PyObject* globals;      // the module's namespace (`__globals__`)
    PyObject* module_name;  // `__module__`
    PyObject* name;         // `__name__`, `__qualname__`, `__doc__`: made from the definition when first read
    PyObject* qualname;
    PyObject* doc;
    PyObject* defaults;     // a tuple or null (None)
    PyObject* kwdefaults;   // a dict or null (None)
    PyObject* annotations;  // made from the definition when first read
    PyObject* type_params;  // `__type_params__`: null for the empty tuple
    PyObject* code;         // made when first read: it serves introspection and tracebacks
    PyObject* dict;
    PyObject* weakrefs;
    PyObject* captured[2];  // what a function made inside another call keeps (strong, may be null)
    PyObject* keywords;     // the named parameters' names, interned, in slot order: made at the
                            // first call with keyword arguments
};

// The function type's PyType_Spec, to make the type for one module.
PyType_Spec& function_type_spec();

// Calls a function of this type with positional arguments only: its body at once when they are
// exactly its parameters, else through its ordinary call.
Ref call_function(PyObject* function, PyObject* const* args, Py_ssize_t nargs);

// Whether `object` is a function of the module's function type `type`.
inline bool is_function(PyObject* object, PyTypeObject* type) { return Py_IS_TYPE(object, type); }

// Adds an entry for `fn` to the traceback of the exception being raised, as the frame of a Python
// function adds one when an exception passes through it: named after the function, with its code.
void add_traceback(FunctionObject* fn);

// Runs `body` as the body of `fn`: an exception that leaves it carries `fn`'s traceback entry.
template <typename Body>
auto traced(FunctionObject* fn, Body&& body) -> decltype(body()) {
    try {
        return body();
    } catch (const PythonError&) {
        add_traceback(fn);
        throw;
    }
}

// Makes a function from `def` inside a call of `maker` (of the same module), keeping `first` and
// `second` as `captured`, as a nested function keeps what it closes over.
Ref make_closure(FunctionObject* maker, const FunctionDef& def, PyObject* first, PyObject* second);

// Makes a function of `module` from `def`. `defaults` is a tuple or null, `kwdefaults` a dict or
// null; both are taken as they are (new references are kept).
Ref make_function(PyObject* module, const FunctionDef& def, PyObject* defaults = nullptr,
                  PyObject* kwdefaults = nullptr);

}  // namespace decision_bounds
