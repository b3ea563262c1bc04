// Admissions that never wait, for callers that wait their own way: an asyncio program awaits room
// instead of blocking its event loop (engines/decision_bounds_asyncio.py). Each try runs the
// blocking call's own admission loop, under the same lock, up to the point where it would wait,
// and then says how long the caller should wait before it tries again.
//
// A second module in the same library, beside the first rather than in it, so that the module's
// namespace stays as its callers know it. It keeps no state: it reaches the module that an object
// belongs to through the object's class.
#include <cstring>

#include "daily_spend.hpp"
#include "run_budget.hpp"

namespace decision_bounds {
namespace {

// The module's function `type(object).<method>`, named `qualname`: what the object's class has when
// it keeps the module's own method. A `TypeError` otherwise: a method written in Python cannot be
// tried without waiting.
FunctionObject* own_method(PyObject* object, const char* method, const char* qualname) {
    Ref key = text(method);
    PyObject* found = cpython::type_lookup(Py_TYPE(object), key.get());
    if (found != nullptr) {
        Ref keep = Ref::borrow(found);
        PyObject* module = PyType_GetModuleByDef(Py_TYPE(found), &module_definition());
        if (module == nullptr) {
            PyErr_Clear();
        } else if (is_function(found, state_of(module).function_type) &&
                   std::strcmp(reinterpret_cast<FunctionObject*>(found)->def->qualname, qualname) == 0) {
            return reinterpret_cast<FunctionObject*>(found);
        }
    }
    PyErr_Format(PyExc_TypeError, "%s() of the engines.decision_bounds module is needed, not what %.200s has",
                 qualname, Py_TYPE(object)->tp_name);
    raise_current();
}

// `(share, None)` once admitted, `(None, wait)` when the calls in flight leave no room.
Ref outcome(const Value& share, const Attempt& attempt) {
    if (attempt.wait) {
        return own(PyTuple_Pack(2, Py_None, attempt.wait.get()));
    }
    return own(PyTuple_Pack(2, share.get(), Py_None));
}

// hold(budget, tokens, first, /): one try of `budget.hold(tokens)`.
PyObject* try_hold(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    return entry([&] {
        if (nargs != 3) {
            PyErr_SetString(PyExc_TypeError, "hold() takes a budget, the tokens and whether it is the first try");
            raise_current();
        }
        FunctionObject* hold = own_method(args[0], "hold", "RunBudget.hold");
        FunctionObject* reserve = own_method(args[0], "reserve", "RunBudget.reserve");
        Attempt attempt{.first = PyObject_IsTrue(args[2]) != 0, .wait = Value()};
        Value tokens = Value::borrow(args[1]);
        Value share = traced(hold, [&] {
            Record budget(hold, args[0], Own::RunBudget);
            traced(reserve, [&] { return reserve_loop(budget, tokens, &attempt); });
            return attempt.wait ? Value() : share_of_reservation(budget, tokens);
        });
        return outcome(share, attempt);
    });
}

// admit(daily, bound, deadline, clock, stopping, /): one try of `daily.admit(bound, deadline=...,
// clock=..., stopping=...)`.
PyObject* try_admit(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    return entry([&] {
        if (nargs != 5) {
            PyErr_SetString(PyExc_TypeError, "admit() takes an account, bound, deadline, clock and stopping");
            raise_current();
        }
        FunctionObject* admit = own_method(args[0], "admit", "DailySpend.admit");
        Attempt attempt{.first = true, .wait = Value()};
        Value share = traced(admit, [&] {
            Record daily(admit, args[0], Own::DailySpend);
            return admit_loop(daily, Value::borrow(args[1]), Value::borrow(args[2]), Value::borrow(args[3]),
                              Value::borrow(args[4]), &attempt);
        });
        return outcome(share, attempt);
    });
}

PyMethodDef attempt_methods[] = {
    {"hold", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(try_hold)), METH_FASTCALL,
     "hold(budget, tokens, first, /)\n--\n\nOne try of budget.hold(tokens) that never waits: (share, None) once "
     "admitted, (None, seconds) when the calls in flight leave no room, after the tests made before a wait."},
    {"admit", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(try_admit)), METH_FASTCALL,
     "admit(daily, bound, deadline, clock, stopping, /)\n--\n\nOne try of daily.admit(...) that never waits: "
     "(share, None) once admitted, (None, seconds) when the calls in flight leave no room, after the tests made "
     "before a wait."},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef_Slot attempt_slots[] = {
    // No state: the module's objects lead to the module they belong to.
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
    {0, nullptr},
};

PyModuleDef attempts_def = {
    .m_base = PyModuleDef_HEAD_INIT,
    .m_name = "_decision_bounds_attempts",
    .m_doc = "Admissions of engines.decision_bounds that never wait, for the asyncio companion.",
    .m_size = 0,
    .m_methods = attempt_methods,
    .m_slots = attempt_slots,
    .m_traverse = nullptr,
    .m_clear = nullptr,
    .m_free = nullptr,
};

}  // namespace
}  // namespace decision_bounds

PyMODINIT_FUNC PyInit__decision_bounds_attempts() { return PyModuleDef_Init(&decision_bounds::attempts_def); }
