// The module object and its start-up: the namespace in its order, the error types, the reply
// protocol and the two default callables.
#include "module.hpp"

#include <new>

#include "daily_spend.hpp"
#include "fast.hpp"
#include "request_rates.hpp"
#include "run_budget.hpp"
#include "shares.hpp"

namespace decision_bounds {
namespace {

constexpr const char* name_texts[] = {
#define DECISION_BOUNDS_TEXT(n) #n,
    DECISION_BOUNDS_NAMES(DECISION_BOUNDS_TEXT)
#undef DECISION_BOUNDS_TEXT
};

constexpr const char* module_doc = R"doc(The bounds a decision client keeps on what it pays: the errors that end a call, the budget of a
batch pass and the daily cost cap.

A paid call holds a :class:`Share` of each bound it counts against from the moment it is admitted
until it ends, and gives it back exactly once, whatever ends it: what it may cost of the day's cap,
and what it may use of its pass's tokens. A call is admitted only while what the settled calls used
plus what the admitted calls hold stays below the bound, so calls in flight at once cannot all pass
a check that each would pass alone. A call that the calls in flight leave no room for waits for one
of them to end: a tool's call no longer than its deadline, a batch pass's call until its pass
stops. It is refused only when what was settled fills the bound. A call is counted on the day it
settles (the ledger dates a paid reply when it is recorded), so a call admitted before midnight
holds its share of the new day.

What a call may cost is not known before its reply: :class:`RequestRates` holds it at the most one
paid call has cost so far. A feature's first call, before any reply of that feature has a cost,
holds the whole of what is left and runs alone. The cost of a reply includes its output, which
nothing bounds before it comes, so a call may cost more than the most any call cost before it:

    The settled spend of a day passes the cap by at most the cost of one call, plus what each call
    that costs more than the most an earlier call cost costs above that most. Such calls are the
    ones in flight when the most is raised: the calls admitted once a dearer reply has settled
    hold its cost. While no call costs more than the dearest earlier one, the day stops within one
    call of the cap.
)doc";

// The errors that end a call.

constexpr const char* error_docs[][3] = {
    {"DecisionError", "RuntimeError", "Raised when a decision call fails (after retries)."},
    {"DecisionBudgetExceeded", "DecisionError",
     "Raised when a ``RunBudget`` or the daily cost cap would be exceeded by another call."},
    {"DecisionUnavailable", "DecisionError",
     "Raised while the endpoint refuses requests: it is not asked until the window ends."},
    {"DecisionTimeout", "DecisionError", "Raised when a call without a budget (a tool's) runs out of its deadline."},
    {"DecisionStopped", "DecisionError", "Raised when the pass that a call belongs to has been asked to stop."},
};

// The reply protocol: three read-only properties whose getters have empty bodies.

Ref empty_body(FunctionObject*, PyObject* const*) { return none(); }

constexpr Param self_only[] = {{"self", nullptr}};
constexpr FunctionDef reply_cached = {"cached", "PaidReply.cached", nullptr, self_only, "bool", empty_body};
constexpr FunctionDef reply_input_tokens = {"input_tokens", "PaidReply.input_tokens", nullptr, self_only, "int",
                                             empty_body};
constexpr FunctionDef reply_cost = {"cost", "PaidReply.cost", nullptr, self_only, "float", empty_body};

// The default callables.

Ref never_body(FunctionObject*, PyObject* const*) { return boolean(false); }
constexpr FunctionDef never_def = {"never", "never", "A stop that never comes.", {}, "bool", never_body};

constexpr Param nothing_params[] = {{"_reply", "PaidReply | None"}};
constexpr FunctionDef nothing_def = {"_nothing", "_nothing", "Give back a share of nothing.", nothing_params,
                                       "None", empty_body};

Ref import(const char* module_name) { return own(PyImport_ImportModule(module_name)); }


void add_errors_and_protocol(PyObject* module) {
    for (const auto& [error, base, doc] : error_docs) {
        ClassBuilder cls(module, error, doc);
        // Each base is looked up as the class statement would: `RuntimeError` among the builtins.
        Ref bases = own(PyTuple_Pack(1, lookup(module, base).get()));
        bind(module, error, cls.build(bases.get()));
    }
    Ref protocol = lookup(module, "Protocol");
    ClassBuilder paid_reply(module, "PaidReply", "What a bound reads of a reply (a ``DecisionResult``).");
    for (const FunctionDef* getter : {&reply_cached, &reply_input_tokens, &reply_cost}) {
        Ref fget = make_function(module, *getter);
        paid_reply.add(getter->name, call(reinterpret_cast<PyObject*>(&PyProperty_Type), fget.get()));
    }
    Ref bases = own(PyTuple_Pack(1, protocol.get()));
    bind(module, "PaidReply", paid_reply.build(bases.get(), reinterpret_cast<PyObject*>(Py_TYPE(protocol.get()))));
    bind(module, "never", make_function(module, never_def));
    bind(module, "_nothing", make_function(module, nothing_def));
}

void start_up(PyObject* module) {
    ModuleState& state = state_of(module);
    for (int i = 0; i < static_cast<int>(Name::count); ++i) {
        state.names[i] = own(PyUnicode_InternFromString(name_texts[i])).release();
    }
    state.function_type = reinterpret_cast<PyTypeObject*>(
        own(PyType_FromModuleAndSpec(module, &function_type_spec(), nullptr)).release());

    // The namespace of a module written in Python has its builtins first; `dataclass` would add
    // them in the middle otherwise, when it runs the methods it writes in this namespace.
    check(PyDict_SetItemString(PyModule_GetDict(module), "__builtins__", PyEval_GetBuiltins()));
    bind(module, "__doc__", text(module_doc));
    bind(module, "annotations", getattr(import("__future__").get(), text("annotations").get()));
    for (const char* standard : {"functools", "logging", "math", "threading"}) {
        bind(module, standard, import(standard));
    }
    auto import_from = [&](const char* from, std::initializer_list<const char*> names) {
        Ref source = import(from);
        for (const char* item : names) {
            bind(module, item, getattr(source.get(), text(item).get()));
        }
    };
    import_from("collections.abc", {"Callable"});
    import_from("dataclasses", {"dataclass", "field"});
    import_from("typing", {"Any", "Protocol"});
    Ref get_logger = getattr(lookup(module, "logging").get(), text("getLogger").get());
    bind(module, "logger", call(get_logger.get(), lookup(module, "__name__").get()));
    bind(module, "_POLL_S", real(0.1));
    init_fast_paths(module);

    add_errors_and_protocol(module);
    add_shares(module);
    add_request_rates(module);
    add_run_budget(module);
    add_daily_spend(module);
    remember_own_classes(module);
}

int exec_module(PyObject* module) noexcept {
    try {
        start_up(module);
        return 0;
    } catch (const PythonError&) {
        return -1;
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
        return -1;
    }
}

int traverse_module(PyObject* module, visitproc visit, void* arg) noexcept {
    ModuleState* state = static_cast<ModuleState*>(PyModule_GetState(module));
    if (state != nullptr) {
        Py_VISIT(state->function_type);
        return traverse_fast_paths(*state, visit, arg);
    }
    return 0;
}

int clear_module(PyObject* module) noexcept {
    ModuleState* state = static_cast<ModuleState*>(PyModule_GetState(module));
    if (state != nullptr) {
        clear_share_pool(*state);
        clear_fast_paths(*state);
        Py_CLEAR(state->function_type);
        for (PyObject*& interned : state->names) {
            Py_CLEAR(interned);
        }
    }
    return 0;
}

void free_module(void* module) noexcept { clear_module(static_cast<PyObject*>(module)); }

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(exec_module)},
    // Every object the module makes belongs to one module object and reaches its state through it;
    // nothing is kept process-wide, so each interpreter can have its own GIL.
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
    {0, nullptr},
};

PyModuleDef module_def = {
    .m_base = PyModuleDef_HEAD_INIT,
    .m_name = "decision_bounds",
    .m_doc = nullptr,
    .m_size = sizeof(ModuleState),
    .m_methods = nullptr,
    .m_slots = module_slots,
    .m_traverse = traverse_module,
    .m_clear = clear_module,
    .m_free = free_module,
};

}  // namespace

ModuleState& state_of(PyObject* module) { return *static_cast<ModuleState*>(PyModule_GetState(module)); }

bool is_never(FunctionObject* fn, PyObject* callable) {
    return Py_IS_TYPE(callable, state_of(fn).function_type) &&
           reinterpret_cast<FunctionObject*>(callable)->def == &never_def;
}

Ref global(PyObject* globals, PyObject* key) {
    PyObject* value = PyDict_GetItemWithError(globals, key);
    if (value == nullptr && !PyErr_Occurred()) {
        value = PyDict_GetItemWithError(PyEval_GetBuiltins(), key);
    }
    if (value != nullptr) {
        return Ref::borrow(value);
    }
    if (!PyErr_Occurred()) {
        // Worded and carrying `name` as the interpreter's own NameError.
        Ref message = own(PyUnicode_FromFormat("name '%U' is not defined", key));
        Ref error = call(PyExc_NameError, message.get());
        setattr(error.get(), text("name").get(), key);
        PyErr_SetObject(PyExc_NameError, error.get());
    }
    raise_current();
}

void bind(PyObject* module, const char* key, const Ref& value) {
    check(PyDict_SetItemString(PyModule_GetDict(module), key, value.get()));
}

Ref lookup(PyObject* module, const char* key) {
    Ref k = text(key);
    return global(PyModule_GetDict(module), k.get());
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

PyMODINIT_FUNC PyInit_decision_bounds() { return PyModuleDef_Init(&decision_bounds::module_def); }
