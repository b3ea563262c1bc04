import dataclasses
import inspect
import logging
import re
import typing

import pytest

from engines import decision_bounds as db

from support import run_python, twin

MODULE_DOC = (
    'The bounds a decision client keeps on what it pays: the errors that end a call, the budget of a\n'
    'batch pass and the daily cost cap.\n'
    '\n'
    'A paid call holds a :class:`Share` of each bound it counts against from the moment it is admitted\n'
    "until it ends, and gives it back exactly once, whatever ends it: what it may cost of the day's cap,\n"
    "and what it may use of its pass's tokens. A call is admitted only while what the settled calls used\n"
    'plus what the admitted calls hold stays below the bound, so calls in flight at once cannot all pass\n'
    'a check that each would pass alone. A call that the calls in flight leave no room for waits for one\n'
    "of them to end: a tool's call no longer than its deadline, a batch pass's call until its pass\n"
    'stops. It is refused only when what was settled fills the bound. A call is counted on the day it\n'
    'settles (the ledger dates a paid reply when it is recorded), so a call admitted before midnight\n'
    'holds its share of the new day.\n'
    '\n'
    'What a call may cost is not known before its reply: :class:`RequestRates` holds it at the most one\n'
    "paid call has cost so far. A feature's first call, before any reply of that feature has a cost,\n"
    'holds the whole of what is left and runs alone. The cost of a reply includes its output, which\n'
    'nothing bounds before it comes, so a call may cost more than the most any call cost before it:\n'
    '\n'
    '    The settled spend of a day passes the cap by at most the cost of one call, plus what each call\n'
    '    that costs more than the most an earlier call cost costs above that most. Such calls are the\n'
    '    ones in flight when the most is raised: the calls admitted once a dearer reply has settled\n'
    '    hold its cost. While no call costs more than the dearest earlier one, the day stops within one\n'
    '    call of the cap.\n'
)

NAMESPACE = [
    "annotations", "functools", "logging", "math", "threading", "Callable", "dataclass", "field", "Any",
    "Protocol", "logger", "_POLL_S", "DecisionError", "DecisionBudgetExceeded", "DecisionUnavailable",
    "DecisionTimeout", "DecisionStopped", "PaidReply", "never", "_nothing", "Share", "_Held", "_wait",
    "_Charges", "RequestRates", "RunBudget", "DailySpend",
]
IMPORT_SYSTEM = {"__name__", "__doc__", "__package__", "__loader__", "__spec__", "__file__", "__builtins__"}


def test_module_namespace_and_values():
    assert [n for n in vars(db) if n not in IMPORT_SYSTEM] == NAMESPACE and not hasattr(db, "__all__")
    assert db.__doc__ == MODULE_DOC
    assert type(db._POLL_S) is float and db._POLL_S == 0.1
    assert db.logger is logging.getLogger(db.__name__) and db.logger.name == "engines.decision_bounds"
    # The standard names it imports are the objects the twin imports, and typing's.
    imported = ["annotations", "functools", "logging", "math", "threading", "Callable", "dataclass", "field"]
    assert all(getattr(db, name) is getattr(twin(), name) for name in imported)
    assert db.Any is typing.Any and db.Protocol is typing.Protocol


CLASSES = {  # each class, what makes an instance, and its docstring
    "Share": ((), None),
    "_Held": ((), None),
    "_Charges": ((), "The most one measure of the paid replies came to: for one call, and per request byte."),
    "RequestRates": ((), (
        "What a request may cost, in USD and in input tokens, before its reply says.\n\n    Its cost is held at the "
        "most a paid call has cost, of any feature, once its feature has had a\n    paid reply, and is not known "
        "(infinite) before: a cheap feature's replies do not bound the\n    first call of a dear one, which runs "
        "alone. Its input tokens grow with its bytes whatever its\n    feature, and are not known before the first "
        "paid reply.\n    ")),
    "RunBudget": ((3, 1000), (
        "Bounds one batch pass: its calls, its tokens and its stop. A paid call holds a call slot and\n    the tokens "
        "it may use from :meth:`hold` until its share settles (:meth:`charge` or\n    :meth:`release`); cache hits "
        "are free. Once ``should_stop`` says so, no call and no retry\n    starts.")),
    "DailySpend": ((1.0, str, None), (
        "What the paid calls of each UTC day cost against ``kel.daily_cost_cap_usd``, and what the\n    calls in "
        "flight hold of it. A day starts from what the ledger says it has cost so far. The calls\n    in flight "
        "hold their shares across midnight: each is counted on the day it settles.")),
}


def shown(value):
    """A repr without addresses, the twin's module named as the module."""
    return re.sub(r" at 0x[0-9a-f]+", "", repr(value)).replace(twin().__name__, db.__name__)


@pytest.mark.parametrize("name", CLASSES)
def test_a_class_is_laid_out_as_its_twin(name):
    args, doc = CLASSES[name]
    if doc is not None:
        assert getattr(db, name).__doc__ == doc
    got = []
    for m in (db, twin()):
        cls, obj = getattr(m, name), getattr(m, name)(*args)
        fields = dataclasses.fields(cls) if dataclasses.is_dataclass(cls) else ()
        got.append(([base.__name__ for base in cls.__bases__], [k for k, v in vars(cls).items() if callable(v)],
                    shown(vars(cls).get("__annotations__")), shown(obj), [(k, shown(v)) for k, v in vars(obj).items()],
                    [(f.name, f.type, shown(f.default), shown(f.default_factory), f.repr, f.compare) for f in fields]))
    assert got[0] == got[1]


ERRORS = [
    ("DecisionError", RuntimeError, "Raised when a decision call fails (after retries)."),
    ("DecisionBudgetExceeded", "DecisionError",
     "Raised when a ``RunBudget`` or the daily cost cap would be exceeded by another call."),
    ("DecisionUnavailable", "DecisionError",
     "Raised while the endpoint refuses requests: it is not asked until the window ends."),
    ("DecisionTimeout", "DecisionError", "Raised when a call without a budget (a tool's) runs out of its deadline."),
    ("DecisionStopped", "DecisionError", "Raised when the pass that a call belongs to has been asked to stop."),
]


@pytest.mark.parametrize("name, base, doc", ERRORS)
def test_error_classes(name, base, doc):
    cls = getattr(db, name)
    base = getattr(db, base) if isinstance(base, str) else base
    assert cls.__bases__ == (base,) and type(cls) is type
    assert (cls.__name__, cls.__qualname__, cls.__module__, cls.__doc__) == (name, name, db.__name__, doc)
    assert [k for k in vars(cls) if not k.startswith("__weakref")] == ["__module__", "__doc__"]


def test_paid_reply_is_a_protocol_of_three_read_only_properties():
    proto = db.PaidReply
    assert proto.__bases__ == (typing.Protocol,) and proto._is_protocol
    assert proto.__doc__ == "What a bound reads of a reply (a ``DecisionResult``)."
    assert proto.__module__ == db.__name__ and proto.__qualname__ == "PaidReply"
    props = {k: v for k, v in vars(proto).items() if isinstance(v, property)}
    assert [(k, p.fset, p.fdel, p.fget.__qualname__, p.fget.__doc__, str(inspect.signature(p.fget))) for k, p in
            props.items()] == [(k, None, None, f"PaidReply.{k}", None, f"(self) -> '{t}'") for k, t in
                               [("cached", "bool"), ("input_tokens", "int"), ("cost", "float")]]
    with pytest.raises(TypeError, match="runtime_checkable"):
        isinstance(object(), proto)

    class Bare(proto):
        pass

    bare = Bare()
    assert (bare.cached, bare.input_tokens, bare.cost) == (None, None, None)


@pytest.mark.parametrize("blocked", [
    "functools", "logging", "math", "threading", "collections.abc", "dataclasses", "typing", "__future__", None])
def test_a_failure_at_start_up_fails_the_import_unchanged(blocked):
    # A standard import that fails, or (None) the dataclass decorator raising: it comes out as it was.
    out = run_python(f"""
        import sys, dataclasses
        import engines.decision_bounds  # built and found once, so only the failure differs
        del sys.modules["engines.decision_bounds"]
        marker = ValueError("no dataclasses today")
        def refuse(cls):
            raise marker
        if {blocked!r} is None:
            dataclasses.dataclass = refuse
        else:
            sys.modules[{blocked!r}] = None
        try:
            import engines.decision_bounds
        except Exception as error:
            print(type(error).__name__, error is marker or error, error.__cause__,
                  "engines.decision_bounds" in sys.modules)
        """)
    raised = f"ModuleNotFoundError import of {blocked} halted; None in sys.modules" if blocked else "ValueError True"
    assert out == raised + " None False"
