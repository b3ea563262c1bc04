// The module object and its start-up: the namespace in its order, the error types, the reply
// protocol and the two default callables; and the module's life, from start-up to being freed.
// Everything else is made by the units it starts, in the order the namespace needs them.
#include <iterator>

#include "condition.hpp"
#include "daily_spend.hpp"
#include "request_rates.hpp"
#include "run_budget.hpp"
#include "shares.hpp"
#include "startup.hpp"

namespace decision_bounds {
namespace {

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
    Ref never = make_function(module, never_def);
    state_of(module).never = Py_NewRef(never.get());
    bind(module, "never", never);
    bind(module, "_nothing", make_function(module, nothing_def));
}

// Notes the module's own classes as they are at the end of start-up: their versions say later
// whether anything on them changed.
void remember_own_classes(PyObject* module) {
    static constexpr const char* names[] = {"Share", "_Held", "_Charges", "RequestRates", "RunBudget", "DailySpend"};
    static_assert(std::size(names) == static_cast<size_t>(Own::count));
    ModuleState& state = state_of(module);
    for (size_t i = 0; i < std::size(names); ++i) {
        Ref cls = lookup(module, names[i]);
        if (!PyType_Check(cls.get())) {
            PyErr_Format(PyExc_TypeError, "%s is not a class", names[i]);
            raise_current();
        }
        auto* type = reinterpret_cast<PyTypeObject*>(cls.get());
        state.own[i].version = cpython::assign_version(type) ? type->tp_version_tag : 0;
        state.own[i].type = reinterpret_cast<PyTypeObject*>(cls.release());
    }
}

// What the functions' code objects give as their file: the module's file as it is at start-up,
// whatever text it is (the import system sets it before the module runs).
void remember_file(PyObject* module) {
    ModuleState& state = state_of(module);
    PyObject* file = PyDict_GetItemWithError(PyModule_GetDict(module), name(state, Name::__file__));
    if (file == nullptr && PyErr_Occurred()) {
        raise_current();
    }
    state.filename = file != nullptr && PyUnicode_Check(file) ? Py_NewRef(file)
                                                              : own(PyModule_GetNameObject(module)).release();
}

void start_up(PyObject* module) {
    // Releases decide from one word of the runtime whether the thread may touch anything (pyref.hpp).
    if (!cpython::runtime_layout_is_known()) {
        PyErr_SetString(PyExc_ImportError, "engines.decision_bounds does not know this interpreter's runtime layout");
        raise_current();
    }
    ModuleState& state = state_of(module);
    intern_names(state);
    state.function_type = reinterpret_cast<PyTypeObject*>(
        own(PyType_FromModuleAndSpec(module, &function_type_spec(), nullptr)).release());
    Standard& standard = state.standard;
    standard.empty_tuple = own(PyTuple_New(0)).release();
    standard.zero = real(0.0).release();
    standard.empty_text = text("").release();
    remember_file(module);

    // The namespace of a module written in Python has its builtins first; `dataclass` would add
    // them in the middle otherwise, when it runs the methods it writes in this namespace.
    check(PyDict_SetItemString(PyModule_GetDict(module), "__builtins__", PyEval_GetBuiltins()));
    bind(module, "__doc__", text(module_doc));
    bind(module, "annotations", getattr(import("__future__").get(), text("annotations").get()));
    for (const char* standard_module : {"functools", "logging", "math", "threading"}) {
        bind(module, standard_module, import(standard_module));
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
    find_standard_locks(module);
    find_standard_names(module);

    add_errors_and_protocol(module);
    add_shares(module);
    add_request_rates(module);
    add_run_budget(module);
    add_daily_spend(module);
    remember_own_classes(module);
    standard.values_laid_out = values_are_laid_out(state, Own::_Held);
    watch_namespace(module);
}

int exec_module(PyObject* module) {
    return entry_status([&] { start_up(module); });
}

int traverse_module(PyObject* module, visitproc visit, void* arg) noexcept {
    auto* state = static_cast<ModuleState*>(PyModule_GetState(module));
    if (state == nullptr) {
        return 0;
    }
    if (int result = traverse_state(*state, visit, arg)) {
        return result;
    }
    return traverse_share_pool(*state, visit, arg);
}

int clear_module(PyObject* module) {
    auto* state = static_cast<ModuleState*>(PyModule_GetState(module));
    if (state != nullptr) {
        entry_status([&] {
            clear_share_pool(*state);
            unwatch_namespace(*state);
            clear_state(*state);
        });
    }
    return 0;
}

void free_module(void* module) {
    clear_module(static_cast<PyObject*>(module));
    if (auto* state = static_cast<ModuleState*>(PyModule_GetState(static_cast<PyObject*>(module)))) {
        free_names(*state);
    }
}

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

PyModuleDef& module_definition() { return module_def; }

}  // namespace decision_bounds

PyMODINIT_FUNC PyInit_decision_bounds() { return PyModuleDef_Init(&decision_bounds::module_def); }
