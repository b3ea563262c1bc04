#include "state.hpp"

namespace decision_bounds {

namespace {

constexpr const char* name_texts[] = {
#define DECISION_BOUNDS_TEXT(n) #n,
#define DECISION_BOUNDS_KEYWORD_TEXT(n, spelt) spelt,
    DECISION_BOUNDS_NAMES(DECISION_BOUNDS_TEXT) DECISION_BOUNDS_KEYWORD_NAMES(DECISION_BOUNDS_KEYWORD_TEXT)
#undef DECISION_BOUNDS_KEYWORD_TEXT
#undef DECISION_BOUNDS_TEXT
};
static_assert(std::size(name_texts) == static_cast<size_t>(Name::count));

// Every reference the state holds besides its names, for one walk over them.
template <typename Visit>
void each_reference(ModuleState& state, Visit&& visit) {
    visit(state.function_type);
    visit(state.never);
    visit(state.filename);
    for (OwnClass& own : state.own) {
        visit(own.type);
    }
    Standard& standard = state.standard;
    visit(standard.condition_type);
    for (PyObject*& method : standard.condition_methods) {
        visit(method);
    }
    visit(standard.deque_type);
    visit(standard.rlock_type);
    visit(standard.lock_type);
    visit(standard.math_module);
    visit(standard.math_isinf);
    visit(standard.math_inf);
    visit(standard.functools_module);
    visit(standard.partial_type);
    visit(standard.builtins);
    for (PyObject*& builtin : standard.builtin) {
        visit(builtin);
    }
    visit(standard.empty_tuple);
    visit(standard.zero);
    visit(standard.empty_text);
}

}  // namespace

ModuleState& state_of(PyObject* module) { return *static_cast<ModuleState*>(PyModule_GetState(module)); }

void intern_names(ModuleState& state) {
    for (size_t i = 0; i < std::size(name_texts); ++i) {
        state.names[i] = own(PyUnicode_InternFromString(name_texts[i])).release();
    }
}

int traverse_state(ModuleState& state, visitproc visit, void* arg) {
    int result = 0;
    each_reference(state, [&](auto*& object) {
        if (result == 0 && object != nullptr) {
            result = visit(reinterpret_cast<PyObject*>(object), arg);
        }
    });
    return result;
}

void clear_state(ModuleState& state) {
    // The names stay until the module is freed: code that still runs while the module is being
    // cleared (a finalizer) reads them. Everything it finds cleared it treats as not standard.
    each_reference(state, [](auto*& object) { Py_CLEAR(object); });
    state.standard.condition_version = 0;
    state.standard.rlock_acquire = nullptr;
    state.standard.rlock_release = nullptr;
    state.standard.rlock_is_owned = nullptr;
    state.standard.rlock_laid_out = false;
    state.standard.lock_acquire = nullptr;
    state.standard.lock_release = nullptr;
    state.standard.lock_laid_out = false;
    state.standard.values_laid_out = false;
    for (OwnClass& own : state.own) {
        own.version = 0;
    }
}

void free_names(ModuleState& state) {
    for (PyObject*& interned : state.names) {
        Py_CLEAR(interned);
    }
}

}  // namespace decision_bounds
