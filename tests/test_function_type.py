import copy
import inspect
import pickle
import threading
import types
import typing

import pytest

from engines import decision_bounds as db


# What each function looks like to its callers: its parameters and annotations, written as in a
# `def` statement, and its docstring.
FUNCTIONS = {
    "never": ("() -> 'bool'", "A stop that never comes."),
    "_nothing": ("(_reply: 'PaidReply | None') -> 'None'", "Give back a share of nothing."),
    "Share.__init__": (
        "(self, give_back: 'Callable[[PaidReply | None], None]' = _nothing) -> 'None'",
        "Create a share.\n\n        Args:\n            give_back: Gives the share back to its bound, counting the "
        "reply (None: not paid).\n        "),
    "Share.settle": (
        "(self, reply: 'PaidReply | None') -> 'None'",
        "Give the share back, counting ``reply`` (None: the call was not paid); a share given\n        back already "
        "is not given back again."),
    "Share.__enter__": ("(self) -> 'Share'", None),
    "Share.__exit__": ("(self, *_exc: 'object') -> 'None'", None),
    "_Held.admits": (
        "(self, share: 'float', used: 'float', limit: 'float') -> 'bool'",
        "Whether a call that would hold ``share`` may start: nothing unbounded is held, an\n        unbounded share is "
        "held by no other call, and ``used`` plus what is held is below\n        ``limit``."),
    "_Held.take": ("(self, share: 'float') -> 'None'", None),
    "_Held.give_back": ("(self, share: 'float') -> 'None'", None),
    "_wait": (
        "(changed: 'threading.Condition', stopping: 'Callable[[], bool]', *, deadline: 'float | None' = None, "
        "clock: 'Callable[[], float] | None' = None) -> 'None'",
        "Wait, holding ``changed``, until a held share is given back or a poll interval passes.\n\n    Raises:\n"
        "        DecisionStopped: The pass is stopping.\n        DecisionTimeout: ``deadline`` (on ``clock``) passed.\n"
        "    "),
    "RunBudget.stopping": ("(self) -> 'bool'", "Whether the pass has been asked to stop."),
    "RunBudget.exhausted": ("(self) -> 'bool'", None),
    "RunBudget._exhausted_locked": ("(self) -> 'bool'", None),
    "RunBudget.reserve": (
        "(self, tokens: 'float' = 0.0) -> 'None'",
        "Take a call slot and ``tokens`` before a network call, waiting while the calls in flight\n        hold the "
        "rest of the tokens.\n\n        Args:\n            tokens: The most input tokens the call may use; "
        "``math.inf`` when that is not known.\n\n        Raises:\n            DecisionBudgetExceeded: No call or no "
        "token is left.\n            DecisionStopped: The pass is stopping, before or while the call waits.\n        "),
    "RunBudget.hold": ("(self, tokens: 'float') -> 'Share'", ":meth:`reserve` a call slot and ``tokens``, as a "
                       "share that settles by :meth:`charge`\n        with the paid reply, or by :meth:`release` "
                       "without one."),
    "RunBudget.release": ("(self, tokens: 'float' = 0.0) -> 'None'",
                          "Give a reserved slot and its ``tokens`` back after a failed call."),
    "RunBudget.charge": ("(self, result: 'PaidReply', tokens: 'float' = 0.0) -> 'None'",
                         "Record a completed call (settling its reserved slot and ``tokens``) or a cache hit."),
    "RunBudget.summary": ("(self) -> 'dict[str, Any]'", None),
    "RunBudget._summary_locked": ("(self) -> 'dict[str, Any]'", None),
    "DailySpend.__init__": (
        "(self, cap: 'float', today: 'Callable[[], str]', ledger: 'Callable[[str], float] | None') -> 'None'",
        "Create the day's account.\n\n        Args:\n            cap: USD the paid calls of one UTC day may cost.\n"
        "            today: Today's UTC date, ``YYYY-MM-DD``.\n            ledger: What the paid calls since a date "
        "cost, USD; None: nothing is kept.\n        "),
    "DailySpend.spent": ("(self) -> 'float'", "What the paid calls of today cost so far, USD."),
    "DailySpend.admit": (
        "(self, bound: 'Callable[[], float]', *, deadline: 'float | None', clock: 'Callable[[], float]', "
        "stopping: 'Callable[[], bool]') -> 'Share'",
        "Hold what a paid call may cost before it is made.\n\n        Args:\n            bound: The most the call may "
        "cost, USD (``math.inf`` when not known), asked again\n                after each wait: a reply that settles "
        "meanwhile may bound it.\n            deadline: When the call ends, on ``clock``; None: it waits until a call "
        "in flight\n                ends or ``stopping`` says so.\n            clock: The client's monotonic clock.\n"
        "            stopping: Whether the pass the call belongs to is stopping.\n\n        Returns:\n            The "
        "share held: settled with the paid reply, it counts the reply's cost today.\n\n        Raises:\n            "
        "DecisionBudgetExceeded: Today's settled calls cost the cap (warned once a day).\n            DecisionTimeout:"
        " The deadline passed while the calls in flight held the rest.\n            DecisionStopped: The pass is "
        "stopping.\n        "),
    "DailySpend.charge": ("(self, reply: 'PaidReply') -> 'None'", "Count what ``reply`` cost today without a share: "
                          "an attempt of a call that settled\n        with another reply, sent and never read (the "
                          "endpoint may bill it)."),
    "DailySpend._give_back": ("(self, held: 'float', reply: 'PaidReply | None') -> 'None'",
                              "Give back what a call held, and count what its paid ``reply`` cost today."),
    "DailySpend._today_locked": (
        "(self) -> 'float'", "Today's spend; a new day starts from what the ledger says it has cost so far, and "
        "keeps\n        the shares of the calls in flight, which it is charged when they settle."),
    "DailySpend._spent_since": ("(self, day: 'str') -> 'float'", None),
    "_Charges.bound": ("(self, size: 'int') -> 'float'", "The most a request of ``size`` bytes may come to: never less "
                       "than the most one call\n        came to, and for a request larger than those seen, the most "
                       "per byte times its size (the\n        part of a charge that grows with the request's bytes)."),
    "_Charges.learn": ("(self, size: 'int', charge: 'float') -> 'None'", None),
    "RequestRates.__init__": ("(self) -> 'None'", None),
    "RequestRates.cost": ("(self, size: 'int', feature: 'str') -> 'float'", "The most a request of ``size`` bytes "
                          "of ``feature`` may cost, USD; ``math.inf`` while\n        no reply of ``feature`` has "
                          "been paid for."),
    "RequestRates.tokens": ("(self, size: 'int') -> 'float'", "The most input tokens a request of ``size`` bytes may "
                            "use; ``math.inf`` while not\n        known."),
    "RequestRates.learn": ("(self, size: 'int', feature: 'str', reply: 'PaidReply') -> 'None'",
                           "Take in what a paid reply of ``feature`` to a request of ``size`` bytes cost."),
}


def reference(path, params):
    """A Python function with the same parameters, annotations and qualified name."""
    namespace = {"_nothing": db._nothing}
    exec(f"def {path.rsplit('.', 1)[-1]}{params}: return None", namespace)
    function = namespace[path.rsplit(".", 1)[-1]]
    function.__qualname__ = path
    return function


# The module's functions by qualified name, each of which the table must have.
FOUND = {v.__qualname__: v for c in (db, db.Share, db._Held, db.RunBudget, db.DailySpend, db.RequestRates, db._Charges)
         for v in vars(c).values() if type(v) is type(db.never)}


@pytest.mark.parametrize("path", FOUND)
def test_looks_like_a_python_function(path):
    assert set(FOUND) == set(FUNCTIONS)  # the table has every function, and only those
    params, doc = FUNCTIONS[path]
    function, python = FOUND[path], reference(path, params)
    assert inspect.signature(function) == inspect.signature(python)
    assert (function.__name__, function.__qualname__, function.__module__) == (
        path.rsplit(".", 1)[-1], path, db.__name__)
    assert function.__doc__ == doc
    assert list(function.__annotations__.items()) == list(python.__annotations__.items())  # 'return' last
    assert function.__globals__ is vars(db) and isinstance(function.__code__, types.CodeType)
    # The texts resolve in the module's namespace, as for a function written in Python.
    assert set(typing.get_type_hints(function)) == set(python.__annotations__)
    inspect.signature(function, eval_str=True)
    assert repr(function).startswith(f"<function {path} at 0x") and function.__type_params__ == ()
    assert pickle.loads(pickle.dumps(function)) is function  # by reference, as a Python function
    assert copy.copy(function) is function and copy.deepcopy(function) is function


# Calls whose binding fails must fail exactly as they would for a Python function.
CALLS = [
    ((), {}), ((1,), {}), ((1, 2), {}), ((1, 2, 3), {}), ((1, 2, 3, 4, 5), {}), ((1, 2, 3, 4, 5, 6), {"z": 1}),
    ((), {"bogus": 1}), ((1,), {"self": 2}), ((1, 2), {"deadline": 1}), ((1, 2, 3), {"deadline": 1, "clock": 2}),
    ((), {"changed": 1}), ((), {"give_back": 1}), ((1,), {"reply": 2, "give_back": 3}), ((), {"_reply": 1}),
    ((1,), {"_reply": 1}), ((1, 2), {"share": 3}), ((), {"share": 1, "used": 2}), ((1,), {"deadline": 1}),
]


@pytest.mark.parametrize("path", FOUND)
def test_argument_errors_match_python(path):
    function = FOUND[path]
    python = reference(path, FUNCTIONS[path][0])
    checked = 0
    for args, kwargs in CALLS:
        try:
            python(*args, **kwargs)
        except TypeError as error:
            with pytest.raises(TypeError) as native:
                function(*args, **kwargs)
            assert str(native.value) == str(error), (args, kwargs)
            checked += 1
    assert checked >= 5


def test_each_hold_makes_a_give_back_of_its_own():
    budget = db.RunBudget(5, 1000)
    give_back = budget.hold(1.0)._give_back
    assert give_back is not budget.hold(2.0)._give_back and give_back.__doc__ is None
    assert (give_back.__name__, give_back.__qualname__, str(inspect.signature(give_back))) == (
        "give_back", "RunBudget.hold.<locals>.give_back", "(reply: 'PaidReply | None') -> 'None'")


def test_binds_as_a_method():
    share = db.Share()
    method = share.settle
    assert type(method) is types.MethodType and method.__self__ is share and method.__func__ is db.Share.settle
    assert vars(db.Share)["settle"].__get__(None, db.Share) is db.Share.settle
    with pytest.raises(TypeError, match=r"^Share.settle\(\) takes 2 positional arguments but 3 were given$"):
        method(1, 2)


def test_defaults_are_read_at_each_call(monkeypatch):
    assert db.Share.__init__.__defaults__ == (db._nothing,) and db.Share.__init__.__defaults__[0] is db._nothing
    marker = object()
    monkeypatch.setattr(db.Share.__init__, "__defaults__", (marker,))
    assert db.Share()._give_back is marker
    monkeypatch.setattr(db._wait, "__kwdefaults__", {"clock": None})
    with pytest.raises(TypeError, match=r"^_wait\(\) missing 1 required keyword-only argument: 'deadline'$"):
        db._wait(threading.Condition(), db.never)
    monkeypatch.setattr(db.Share.__init__, "__defaults__", None)
    with pytest.raises(TypeError, match="missing 1 required positional argument: 'give_back'"):
        db.Share()


@pytest.mark.parametrize("attribute, value, error", [
    ("__name__", 3, TypeError), ("__qualname__", None, TypeError), ("__defaults__", [1], TypeError),
    ("__kwdefaults__", (), TypeError), ("__annotations__", 1, TypeError), ("__globals__", {}, AttributeError),
    ("__doc__", "new", None), ("__name__", "renamed", None), ("__module__", "elsewhere", None), ("extra", 1, None)])
def test_attributes_are_checked_like_a_functions(monkeypatch, attribute, value, error):
    if error:
        with pytest.raises(error):
            setattr(db._Held.take, attribute, value)
    else:
        monkeypatch.setattr(db._Held.take, attribute, value, raising=False)
        assert getattr(db._Held.take, attribute) == value


@pytest.fixture
def namespace_kept():
    """Puts the module's namespace back as it was, in its order, after a test rebinds names."""
    namespace = vars(db)
    saved = dict(namespace)
    yield
    namespace.clear()
    namespace.update(saved)


def test_module_level_names_are_read_at_each_call(monkeypatch, namespace_kept):
    class Always:
        @staticmethod
        def isinf(value):
            return True

    with pytest.raises(OverflowError):  # what the real math.isinf raises for it
        db._Held().take(10**400)
    monkeypatch.setattr(db, "math", Always)
    held = db._Held()
    held.take(1.0)
    assert (held.holders, held.unbounded, held.amount) == (1, 1, 0.0)
    monkeypatch.delattr(db, "math")
    with pytest.raises(NameError, match=r"^name 'math' is not defined$") as error:
        held.take(1.0)
    assert error.value.name == "math"

