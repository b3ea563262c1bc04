#include "names.hpp"

#include <iterator>
#include <memory>
#include <utility>
#include <vector>

namespace decision_bounds {
namespace {

// `dict[key]`, borrowed, or null when absent; what the lookup raises passes on.
PyObject* item(PyObject* dict, PyObject* key) {
    PyObject* value = PyDict_GetItemWithError(dict, key);
    if (value == nullptr && PyErr_Occurred()) {
        raise_current();
    }
    return value;
}

// The builtins that each fact stands for, in the order of `Fact`.
constexpr Name builtin_names[] = {Name::max,    Name::min, Name::bool_, Name::float_,
                                  Name::round,  Name::format, Name::set, Name::Exception};
static_assert(std::size(builtin_names) == static_cast<size_t>(Fact::Exception) + 1);

// Whether `module_key` in the namespace is the standard `module` and its `attribute` is `expected`.
bool standard_attribute(FunctionObject* fn, Name module_key, PyObject* module, Name attribute, PyObject* expected) {
    if (module == nullptr) {
        return false;
    }
    Ref found = Ref::borrow(item(fn->globals, name(fn, module_key)));
    return found.get() == module && item(PyModule_GetDict(module), name(fn, attribute)) == expected;
}

bool find(FunctionObject* fn, Fact fact) {
    const ModuleState& state = state_of(fn);
    const Standard& standard = state.standard;
    auto index = static_cast<int>(fact);
    if (fact <= Fact::Exception) {
        // A builtin: not shadowed by the namespace, and the builtins' own.
        PyObject* expected = standard.builtin[index];
        return expected != nullptr && standard.builtins != nullptr &&
               item(fn->globals, name(fn, builtin_names[index])) == nullptr &&
               item(standard.builtins, name(fn, builtin_names[index])) == expected;
    }
    switch (fact) {
        case Fact::math_isinf:
            return standard_attribute(fn, Name::math, standard.math_module, Name::isinf, standard.math_isinf);
        case Fact::math_inf:
            return standard_attribute(fn, Name::math, standard.math_module, Name::inf, standard.math_inf);
        case Fact::partial:
            return standard_attribute(fn, Name::functools, standard.functools_module, Name::partial,
                                      standard.partial_type);
        default: {  // Fact::Share
            auto* own = reinterpret_cast<PyObject*>(state.own[static_cast<int>(Own::Share)].type);
            return own != nullptr && item(fn->globals, name(fn, Name::Share)) == own;
        }
    }
}

// The states that watch each dict, in one interpreter. A dict watcher's callback is told only which
// dict changed, so the interpreter's own dict keeps this, under a key of the module's.
struct Watching {
    int watcher = -1;
    std::vector<std::pair<PyObject*, ModuleState*>> entries;  // the dict is not owned: only compared
};

constexpr const char* watching_key = "engines.decision_bounds.watching";

// This interpreter's `Watching`, or null when it has none (and `create` is false).
Watching* watching(bool create) {
    PyObject* interpreter = PyInterpreterState_GetDict(PyInterpreterState_Get());
    if (interpreter == nullptr) {
        return nullptr;
    }
    PyObject* found = PyDict_GetItemString(interpreter, watching_key);
    if (found != nullptr) {
        return static_cast<Watching*>(PyCapsule_GetPointer(found, watching_key));
    }
    if (!create) {
        return nullptr;
    }
    auto made = std::make_unique<Watching>();
    Ref capsule = own(PyCapsule_New(made.get(), watching_key, [](PyObject* capsule) noexcept {
        delete static_cast<Watching*>(PyCapsule_GetPointer(capsule, watching_key));
    }));
    Watching* result = made.release();
    check(PyDict_SetItemString(interpreter, watching_key, capsule.get()));
    return result;
}

// Any change to a watched dict: the states that read it forget what they found standard in it.
int namespace_changed(PyDict_WatchEvent event, PyObject* dict, PyObject*, PyObject*) noexcept {
    Watching* watched = watching(false);
    if (watched == nullptr) {
        return 0;
    }
    for (auto& [watched_dict, state] : watched->entries) {
        if (watched_dict == dict) {
            state->facts = Facts{.watched = state->facts.watched, .known = {}};
        }
    }
    if (event == PyDict_EVENT_DEALLOCATED) {
        std::erase_if(watched->entries, [&](const auto& entry) { return entry.first == dict; });
    }
    return 0;
}

}  // namespace

Ref global(FunctionObject* fn, Name n) {
    PyObject* key = name(fn, n);
    if (PyObject* value = item(fn->globals, key)) {
        return Ref::borrow(value);
    }
    PyObject* builtins = state_of(fn).standard.builtins;
    if (builtins != nullptr) {
        if (PyObject* value = item(builtins, key)) {
            return Ref::borrow(value);
        }
    }
    // Worded and carrying `name` as the interpreter's own NameError.
    Ref message = own(PyUnicode_FromFormat("name '%U' is not defined", key));
    Ref error = call(PyExc_NameError, message.get());
    setattr(error.get(), text("name").get(), key);
    PyErr_SetObject(PyExc_NameError, error.get());
    raise_current();
}

bool find_standard(FunctionObject* fn, Fact fact) {
    Facts& facts = state_of(fn).facts;
    auto index = static_cast<int>(fact);
    if (!find(fn, fact)) {
        return false;
    }
    facts.known[index] = facts.watched;
    return true;
}

void raise_error(FunctionObject* fn, Name cls, const char* message) {
    Ref error_class = global(fn, cls);
    raise_instance(error_class, Value::own(text(message)));
}

void raise_instance(const Ref& error_class, const Value& message) {
    Ref error = call(error_class.get(), message.get());
    if (!PyExceptionInstance_Check(error.get())) {
        PyErr_SetString(PyExc_TypeError, "exceptions must derive from BaseException");
    } else {
        // As a `raise` statement does, this chains the exception being handled, if any.
        PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.get())), error.get());
    }
    raise_current();
}

void find_standard_names(PyObject* module) {
    Standard& standard = state_of(module).standard;
    PyObject* namespace_ = PyModule_GetDict(module);
    PyObject* builtins = item(namespace_, name(module, Name::__builtins__));
    if (builtins != nullptr && PyModule_Check(builtins)) {
        builtins = PyModule_GetDict(builtins);
    }
    if (builtins != nullptr && PyDict_Check(builtins)) {
        standard.builtins = Py_NewRef(builtins);
        for (size_t i = 0; i < std::size(builtin_names); ++i) {
            standard.builtin[i] = Py_XNewRef(item(builtins, name(module, builtin_names[i])));
        }
    }
    auto attribute = [](PyObject* object, const char* key) { return own(PyObject_GetAttrString(object, key)).release(); };
    Ref math = own(PyImport_ImportModule("math"));
    standard.math_isinf = attribute(math.get(), "isinf");
    standard.math_inf = attribute(math.get(), "inf");
    standard.math_module = math.release();
    Ref functools = own(PyImport_ImportModule("functools"));
    standard.partial_type = attribute(functools.get(), "partial");
    standard.functools_module = functools.release();
}

void watch_namespace(PyObject* module) {
    ModuleState& state = state_of(module);
    Watching* watched = watching(true);
    if (watched->watcher < 0) {
        watched->watcher = PyDict_AddWatcher(namespace_changed);
        if (watched->watcher < 0) {
            PyErr_Clear();  // all watchers taken: the namespace is read at each use instead
            return;
        }
    }
    const Standard& standard = state.standard;
    for (PyObject* dict : {PyModule_GetDict(module), standard.builtins, PyModule_GetDict(standard.math_module),
                           PyModule_GetDict(standard.functools_module)}) {
        if (dict != nullptr) {
            check(PyDict_Watch(watched->watcher, dict));
            watched->entries.emplace_back(dict, &state);
        }
    }
    state.facts.watched = true;
}

void unwatch_namespace(ModuleState& state) {
    if (Watching* watched = watching(false)) {
        std::erase_if(watched->entries, [&](const auto& entry) { return entry.second == &state; });
    }
    state.facts = Facts{};
}

}  // namespace decision_bounds
