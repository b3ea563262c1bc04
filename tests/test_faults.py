"""Faults at every callback the caller gives: each exception comes out unchanged, the owner's lock
is free afterwards, nothing is held that no call holds, and the object keeps working."""

import _thread
import collections
import contextlib
import math
import threading

import pytest

from engines import decision_bounds as db

from support import Reply, lock_is_free


class Boom(BaseException):
    """An injected fault. Not an `Exception`, so that nothing on its way may swallow it."""


class Faults:
    """Counts the calls of the caller's callables and raises at the k-th call of one of them."""

    def __init__(self, target=None, at=0):
        self.target, self.at, self.counts, self.raised = target, at, collections.Counter(), None

    def tick(self, name):
        self.counts[name] += 1
        if name == self.target and self.counts[name] == self.at:
            self.raised = Boom(f"{name} #{self.at}")
            raise self.raised

    def wrap(self, name, function):
        def faulty(*args):
            self.tick(name)
            return function(*args)

        return faulty


def faulty_field(name):
    return property(lambda self: self._faults.tick(name) or getattr(self, "_" + name))


class FaultyReply:
    """A reply each of whose fields the faults may refuse to give."""

    cached, input_tokens, cost = faulty_field("cached"), faulty_field("input_tokens"), faulty_field("cost")

    def __init__(self, faults, cost, input_tokens, cached=False):
        self._faults, self._cost, self._input_tokens, self._cached = faults, cost, input_tokens, cached


@pytest.fixture(autouse=True)
def quick_polls(monkeypatch):
    monkeypatch.setattr(db, "_POLL_S", 0.002)


@contextlib.contextmanager
def rescued(share):
    """Gives `share` back after 10 s, should the wait in the block not end: the test fails, not hangs."""
    rescue = threading.Timer(10.0, share.settle, (None,))
    rescue.start()
    try:
        yield
    finally:
        rescue.cancel()
        rescue.join(5)


def run_budget_case(target, at):
    faults, budget, stop_from = Faults(target, at), db.RunBudget(6, 1000), [math.inf]
    budget.should_stop = faults.wrap("should_stop", lambda: faults.counts["should_stop"] >= stop_from[0])
    try:
        with budget.hold(100.0) as share:
            share.settle(FaultyReply(faults, 0.25, 80))
        budget.charge(FaultyReply(faults, 0.0, 0, cached=True))
        with budget.hold(1000.0) as rest:  # holds the rest of the tokens: the next call waits until the stop
            stop_from[0] = faults.counts["should_stop"] + 3
            with pytest.raises(db.DecisionStopped), rescued(rest):
                budget.reserve(1.0)
        stop_from[0] = math.inf
        assert budget.summary()["calls"] >= 1 and not budget.exhausted()
    except Boom as error:
        assert error is faults.raised
    return faults, budget


def cases(run):
    """Each call of each callable that the fault-free run makes (run by the tests, not at collection:
    a module that hangs or fails there would stop the whole suite)."""
    faults, _ = run(None, 0)
    return [(name, k) for name, count in faults.counts.items() for k in range(1, count + 1)]


def test_run_budget_survives_a_fault_at_each_call_of_each_callback():
    for target, at in cases(run_budget_case):
        faults, budget = run_budget_case(target, at)
        assert faults.raised is not None and lock_is_free(budget._changed), (target, at)
        # A paid reply whose `cached` cannot be read fails its charge before anything is counted:
        # its slot and tokens stay in flight. Every other fault leaves nothing held.
        stuck = target == "cached" and at == 1
        assert budget.in_flight == (1 if stuck else 0), (target, at)
        assert budget._held_tokens == (db._Held(1, 100.0, 0) if stuck else db._Held()), (target, at)
        if stuck:
            budget.release(100.0)
        budget.should_stop = db.never  # the scenario's stop may have been left armed by the fault
        with budget.hold(10.0) as share:
            share.settle(Reply(0.5, 7))
        assert budget.in_flight == 0 and budget._held_tokens == db._Held(), (target, at)


def run_daily_case(target, at):
    faults, days, now = Faults(target, at), ["2026-11-23"], [0.0]
    today = faults.wrap("today", lambda: days[-1])
    daily = db.DailySpend(2.0, today, faults.wrap("ledger", lambda day: 1.0 if day == "2026-11-24" else 0.0))
    bound = faults.wrap("bound", lambda: 0.5)
    stopping = faults.wrap("stopping", lambda: False)
    clock = faults.wrap("clock", lambda: now.__setitem__(0, now[0] + 0.01) or now[0])
    try:
        daily.spent()
        with daily.admit(bound, deadline=None, clock=clock, stopping=stopping) as share:
            share.settle(FaultyReply(faults, 0.5, 10))
        daily.charge(FaultyReply(faults, 0.25, 0))
        with daily.admit(lambda: math.inf, deadline=None, clock=clock, stopping=stopping) as alone:
            with pytest.raises(db.DecisionTimeout), rescued(alone):  # the unbounded share runs alone
                daily.admit(bound, deadline=now[0] + 0.03, clock=clock, stopping=stopping)
        with daily.admit(bound, deadline=None, clock=clock, stopping=stopping) as share:
            days.append("2026-11-24")  # settled after midnight: counted on the new day
            share.settle(FaultyReply(faults, 0.125, 10))
        assert daily.spent() == 1.125
    except Boom as error:
        assert error is faults.raised
    return faults, daily


def test_daily_spend_survives_a_fault_at_each_call_of_each_callback():
    for target, at in cases(run_daily_case):
        faults, daily = run_daily_case(target, at)
        assert faults.raised is not None and lock_is_free(daily._changed) and daily._held == db._Held(), (target, at)
        spent = daily.spent()
        with daily.admit(lambda: 0.1, deadline=None, clock=lambda: 0.0, stopping=db.never) as share:
            share.settle(Reply(0.1))
        assert daily.spent() == pytest.approx(spent + 0.1) and daily._held == db._Held(), (target, at)


def test_every_callback_is_reached_by_the_scenarios():
    budget_faults, _ = run_budget_case(None, 0)
    daily_faults, _ = run_daily_case(None, 0)
    assert set(budget_faults.counts) == {"should_stop", "cached", "input_tokens", "cost"}
    assert set(daily_faults.counts) == {"today", "ledger", "bound", "stopping", "clock", "cost"}


@pytest.mark.parametrize("field", ["cost", "input_tokens"])
def test_request_rates_survive_a_fault(field):
    rates, faults = db.RequestRates(), Faults(field, 1)
    with pytest.raises(Boom):
        rates.learn(10, "a", FaultyReply(faults, 0.5, 7))
    # What was done before the fault stays done: the feature, and the cost when the tokens failed.
    assert rates._features == {"a"} and rates._cost.per_call == (0.5 if field == "input_tokens" else 0.0)
    assert not rates._lock.locked()
    with pytest.raises(TypeError):
        rates.cost(10, ["unhashable"])
    assert not rates._lock.locked()


@pytest.mark.parametrize("owner", ["budget", "daily"])
def test_keyboard_interrupt_while_waiting(monkeypatch, owner):
    monkeypatch.setattr(db, "_POLL_S", 0.1)
    if owner == "budget":
        bound = db.RunBudget(5, 100)
        share, held, wait = bound.hold(100.0), lambda: bound._held_tokens, lambda: bound.reserve(1.0)
    else:
        bound = db.DailySpend(1.0, lambda: "2026-11-23", None)
        share = bound.admit(lambda: math.inf, deadline=None, clock=lambda: 0.0, stopping=db.never)
        held = lambda: bound._held  # noqa: E731
        wait = lambda: bound.admit(lambda: 0.1, deadline=None, clock=lambda: 0.0, stopping=db.never)  # noqa: E731
    interrupt = threading.Timer(0.2, _thread.interrupt_main)
    interrupt.start()
    try:
        with pytest.raises(KeyboardInterrupt), rescued(share):
            wait()
    finally:
        interrupt.cancel()
        interrupt.join(5)
    assert lock_is_free(bound._changed) and held().holders == 1
    share.settle(None)
    assert held() == db._Held()
