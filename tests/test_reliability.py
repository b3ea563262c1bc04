"""The module under stress: leaks, cycles, a re-import and an interpreter with its own GIL."""

import contextlib
import gc
import importlib
import math
import sys
import threading
import time
import tracemalloc
import weakref

import pytest

from engines import decision_bounds as db

from support import Reply, run_python


KEPT = [
    db.Share, db._Held, db._nothing, db.never, db.DecisionStopped, type(db.never), db.logger, db.RunBudget,
    db.DailySpend, db.RequestRates, db._Charges, db.DecisionBudgetExceeded, db.RunBudget.hold, db._wait,
]


def growth(operation, rounds=4, per_round=2000):
    """Traced memory, live objects and references to the module's objects that the last rounds of
    `operation` added, after a warm-up."""
    for _ in range(per_round):
        operation()
    gc.collect()
    references = [sys.getrefcount(k) for k in KEPT]
    tracemalloc.start()
    try:
        readings = []
        for _ in range(rounds):
            for _ in range(per_round):
                operation()
            gc.collect()
            readings.append((tracemalloc.get_traced_memory()[0], len(gc.get_objects())))
    finally:
        tracemalloc.stop()
    added = [a - b for a, b in zip([sys.getrefcount(k) for k in KEPT], references)]
    return readings[-1][0] - readings[0][0], readings[-1][1] - readings[0][1], added


# Each operation uses new objects, so that a reference kept by mistake keeps memory alive.


def shares_and_held():
    db.Share([].append).settle(object())
    with db.Share([].append):
        pass
    held, share = db._Held(), float(len(gc.garbage) + 1.5)
    held.admits(share, float(2), 10.0)
    held.take(share)
    held.take(math.inf)
    held.give_back(math.inf)
    held.give_back(share)


def waits_refused():
    changed = threading.Condition()
    with changed:
        for args, kwargs in [((changed, lambda: True), {}),  # stopped, timed out, a binding error
                             ((changed, db.never), dict(deadline=1.0, clock=lambda: 2.0)), ((1, 2, 3), dict(clock=4))]:
            with contextlib.suppress(db.DecisionStopped, db.DecisionTimeout, TypeError):
                db._wait(*args, **kwargs)


def budget_round():
    budget = db.RunBudget(2, 1000)
    with budget.hold(float(len(gc.garbage) + 10)) as share:
        share.settle(Reply(0.25, 80))
    with budget.hold(5.0):
        pass
    budget.reserve(1.0)
    budget.charge(Reply(0.5, 1), 1.0)
    budget.charge(Reply(cached=True))
    budget.exhausted()
    budget.summary()
    for refused in (budget, db.RunBudget(3, 1000, should_stop=lambda: True)):
        with contextlib.suppress(db.DecisionBudgetExceeded, db.DecisionStopped):
            refused.reserve(1.0)


def daily_round():
    day = ["2026-11-23"]
    daily = db.DailySpend(1.0, lambda: day[0], lambda d: "0.5")
    bound = float(len(gc.garbage) + 0.25)
    with daily.admit(lambda: bound, deadline=None, clock=time.monotonic, stopping=db.never) as share:
        day[0] = "2026-11-24"
        share.settle(Reply(0.25))
    with daily.admit(lambda: bound, deadline=1.0, clock=lambda: 0.0, stopping=db.never):
        pass
    daily.charge(Reply(0.5))
    with contextlib.suppress(db.DecisionBudgetExceeded):
        daily.admit(lambda: bound, deadline=None, clock=time.monotonic, stopping=db.never)
    db.DailySpend(1.0, lambda: "2026-11-23", lambda day: None).spent()  # an unreadable ledger


def rates_round():
    rates = db.RequestRates()
    rates.cost(100, "a")
    rates.tokens(100)
    rates.learn(100, "a", Reply(0.002, 300))
    rates.learn(10, ("b", len(gc.garbage)), Reply(1.0, 7))
    rates.cost(1000, "a")
    rates.tokens(2000)


OPERATIONS = [shares_and_held, waits_refused, budget_round, daily_round, rates_round]


@pytest.mark.parametrize("operation", OPERATIONS, ids=lambda op: op.__name__)
def test_repeated_operations_leave_memory_flat(operation, monkeypatch):
    monkeypatch.setattr(db.logger, "disabled", True)
    memory, objects, references = growth(operation)
    assert references == [0] * len(KEPT)
    # A reference leaked per call would add at least 2000 objects of 16 bytes or more per round.
    assert memory < 8 * 2000 and objects < 100, (memory, objects)


def test_an_owner_dropped_while_its_shares_live_is_freed_with_them():
    budget = db.RunBudget(5, 1000)
    daily = db.DailySpend(1.0, lambda: "2026-11-23", None)
    shares = [budget.hold(10.0), daily.admit(lambda: 0.1, deadline=None, clock=time.monotonic, stopping=db.never)]
    owners = [weakref.ref(budget), weakref.ref(daily)]
    del budget, daily
    gc.collect()
    assert all(owner() is not None for owner in owners)  # the shares keep their owners alive
    shares[0].settle(Reply(0.1, 5))  # a share given back lets go of its owner
    gc.collect()
    assert owners[0]() is None and owners[1]() is not None
    del shares
    gc.collect()
    assert owners[1]() is None


def test_a_function_in_a_cycle_is_collected():
    give_back = db.RunBudget(5, 1000).hold(10.0)._give_back
    give_back.me = give_back  # its __dict__ refers back to it
    give_back.budget_and_share = [give_back, give_back.__code__, give_back.__annotations__]
    ref = weakref.ref(give_back)
    del give_back
    gc.collect()
    assert ref() is None


def test_a_reimport_gives_an_independent_module_and_the_old_one_keeps_working(monkeypatch):
    old, got = db, []
    old_share = old.Share(got.append)
    monkeypatch.delitem(sys.modules, "engines.decision_bounds")
    new = importlib.import_module("engines.decision_bounds")
    assert new.Share is not old.Share and type(new.never) is not type(old.never)  # a function type each
    new._POLL_S = 7.0  # rebinding one module's names leaves the other's alone
    new.Share(got.append).settle("new")
    old_share.settle("old")
    del new
    gc.collect()
    assert old._POLL_S == 0.1 and got == ["new", "old"] and old.never() is False


def test_imports_and_works_in_an_interpreter_with_its_own_gil():
    assert run_python("""
        import _xxsubinterpreters as interpreters
        import engines.decision_bounds
        interpreter = interpreters.create(isolated=True)
        interpreters.run_string(interpreter, '''
        import engines.decision_bounds as db
        got = []
        with db.Share(got.append) as share:
            share.settle("paid")
        class Reply:
            cached, input_tokens, cost = False, 80, 0.25
        budget = db.RunBudget(2, 1000)
        with budget.hold(100.0) as share:
            share.settle(Reply())
        daily = db.DailySpend(1.0, lambda: "2026-11-23", None)
        with daily.admit(lambda: 0.5, deadline=None, clock=lambda: 0.0, stopping=db.never) as share:
            share.settle(Reply())
        assert got == ["paid"] and (budget.calls, budget.in_flight, daily.spent()) == (1, 0, 0.25)
        ''')
        interpreters.destroy(interpreter)
        print("ok")
        """) == "ok"
