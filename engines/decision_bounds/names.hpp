// The namespace as the module's code reads it: a module-level name is looked up at each use, in the
// module's namespace and then in its builtins, as the code of a Python module would. What the code
// finds standard there (a builtin, `math.isinf`, `functools.partial`, its own `Share`) is
// remembered until the namespace, the builtins or those modules change: a dict watch reports every
// change.
#pragma once

#include "numbers.hpp"
#include "state.hpp"

namespace decision_bounds {

// The module-level name `n`: the namespace, then the builtins; `NameError` when it is in neither.
Ref global(FunctionObject* fn, Name n);

// Whether reading what `fact` names through the namespace now gives the standard object that
// start-up found, so that the code may use that object's behaviour directly.
bool find_standard(FunctionObject* fn, Fact fact);
inline bool is_standard(FunctionObject* fn, Fact fact) {
    return state_of(fn).facts.known[static_cast<int>(fact)] || find_standard(fn, fact);
}

// `raise <cls>(message)`, with the class looked up in the namespace.
[[noreturn]] void raise_error(FunctionObject* fn, Name cls, const char* message);
// `raise error_class(message)` for a class already read.
[[noreturn]] void raise_instance(const Ref& error_class, const Value& message);
// `raise <cls>(message())`: the class read first, then the message built.
template <typename Message>
[[noreturn]] void raise_built(FunctionObject* fn, Name cls, Message&& message) {
    Ref error_class = global(fn, cls);
    raise_instance(error_class, message());
}

// Finds the standard objects of the namespace and its modules (at start-up, once the imports are
// bound), and starts watching them (at the end of start-up).
void find_standard_names(PyObject* module);
void watch_namespace(PyObject* module);
void unwatch_namespace(ModuleState& state);

}  // namespace decision_bounds
