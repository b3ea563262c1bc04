// What builds the module's namespace at start-up: binding names in their order, reading back what
// earlier steps bound, and making classes as class statements make them.
#pragma once

#include <initializer_list>
#include <utility>

#include "state.hpp"

namespace decision_bounds {

// Binds `key` in the module's namespace.
void bind(PyObject* module, const char* key, const Ref& value);
// Reads a name as the module's code at start-up would: its namespace, then the builtins.
Ref lookup(PyObject* module, const char* key);

// Builds a class as its `class` statement would: the namespace in the order the interpreter fills
// it (`__module__`, `__qualname__`, `__annotations__` if any, `__doc__`, then the body), handed to
// the metaclass.
class ClassBuilder {
public:
    using Annotation = std::pair<const char*, const char*>;

    ClassBuilder(PyObject* module, const char* name, const char* doc,
                 std::initializer_list<Annotation> annotations = {});

    void add(const char* key, const Ref& value);
    void add(const FunctionDef& def, PyObject* defaults = nullptr, PyObject* kwdefaults = nullptr);
    // The class made by `metaclass(name, bases, namespace)`; no bases: `()`, no metaclass: `type`.
    Ref build(PyObject* bases = nullptr, PyObject* metaclass = nullptr);

private:
    PyObject* module_;
    const char* name_;
    Ref namespace_;
};

// The class that the namespace's `dataclass` makes of `cls`.
Ref as_dataclass(PyObject* module, const Ref& cls);

}  // namespace decision_bounds
