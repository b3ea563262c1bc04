"""The shortcuts through the standard condition, lock, math.isinf and instance fields: they are
taken only for the standard objects as start-up left them, and anything else, or anything changed
since, gets the plain calls as before."""

import threading
import time
import types

import pytest

from engines import decision_bounds as db

from support import run_python, twin


def settle_one(daily):
    share = daily.admit(lambda: 1.0, deadline=None, clock=time.monotonic, stopping=db.never)
    share.settle(types.SimpleNamespace(cost=0.5))


@pytest.mark.parametrize("lock", ["Lock", "RLock"])
def test_a_standard_condition_over_either_lock_is_left_as_it_was(lock):
    # Taken and given back as a lock of another kind, the lock would lose its weak references.
    assert run_python(f"""
        import gc, threading, weakref
        import engines.decision_bounds as db
        daily = db.DailySpend(1.0, lambda: "2026-03-01", None)
        daily._changed, gone = threading.Condition(threading.{lock}()), []
        ref = weakref.ref(daily._changed._lock, gone.append)
        daily.admit(lambda: 1.0, deadline=None, clock=lambda: 0.0, stopping=db.never).settle(None)
        del daily
        gc.collect()
        print(len(gone))
        """) == "1"


def test_making_a_share_runs_what_the_class_has(monkeypatch):
    made = []

    class Counted(db.Share):
        def __new__(cls, *args):
            made.append(args)
            return super().__new__(cls)

    assert type(Counted(print)) is Counted and made == [(print,)]
    monkeypatch.setattr(db.Share, "__init__", lambda self, give_back: made.append(give_back) or 1)
    with pytest.raises(TypeError, match="should return None, not 'int'"):
        db.Share("replaced")
    assert made[-1] == "replaced"


@pytest.mark.parametrize("change", ["a property of its record's class", "a method of its record's class",
                                    "a method of its record", "its condition's class", "its condition"])
def test_an_account_changed_after_use_is_used_as_changed(monkeypatch, change):
    got, notify_all = [], threading.Condition.notify_all
    for m in (db, twin()):
        seen, daily = [], m.DailySpend(10.0, lambda: "2026-03-01", None)
        held = daily._held = type("Later", (m._Held,), {})() if "record's class" in change else daily._held
        settle_one(daily)  # its fields and methods are plain so far
        with monkeypatch.context() as patch:
            if change == "a property of its record's class":
                type(held).amount = property(lambda self: 5.0, lambda self, value: seen.append(value))
            elif change == "a method of its record's class":
                type(held).admits = lambda self, *args: seen.append(args) or m._Held.admits(self, *args)
            elif change == "a method of its record":
                held.admits = lambda *args: seen.append(args) or m._Held.admits(held, *args)
            elif change == "its condition's class":
                patch.setattr(threading.Condition, "notify_all", lambda self: seen.append(self) or notify_all(self))
            else:
                daily._changed.notify_all = lambda: seen.append(daily._changed)
            settle_one(daily)
        got.append([value if type(value) is not threading.Condition else value is daily._changed for value in seen])
    assert got[0] == got[1] and got[0]


def test_keyword_names_made_at_run_time_bind_by_value():
    held = db._Held()
    names = ["".join(parts) for parts in (("sh", "are"), ("us", "ed"), ("lim", "it"))]
    assert held.admits(**dict(zip(names, (1.0, 2.0, 3.0)))) is True
    with pytest.raises(TypeError, match="unexpected keyword argument 'sharex'"):
        held.admits(**{"".join(("share", "x")): 1.0, "used": 2.0, "limit": 3.0})
