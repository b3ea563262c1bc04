import math
import threading
import time

import pytest

from engines import decision_bounds as db

STOPPED = "the pass was asked to stop"
TIMED_OUT = "the decision call ran out of its deadline while the calls in flight held the rest of the daily cost cap"


@pytest.mark.parametrize("held, share, used, limit, admitted", [
    ((), 5.0, 9.0, 10.0, True), ((), 5.0, 10.0, 10.0, False),  # strictly below
    ((3.0,), 4.0, 6.0, 10.0, True), ((3.0,), 4.0, 7.0, 10.0, False),  # the new share is not added
    ((), math.inf, 9.0, 10.0, True), ((0.0,), math.inf, 0.0, 10.0, False), ((math.inf,), 0.0, 0.0, 10.0, False),
    ((math.inf,), math.inf, 0.0, 10.0, False), ((2,), 1, 7, 10, True), ((2,), 1, 8, 10, False),
])
def test_admission_rule(held, share, used, limit, admitted):
    record = db._Held()
    for taken in held:
        record.take(taken)
    assert record.admits(share, used, limit) is admitted


@pytest.mark.parametrize("taken, given, expected", [
    ((0.1, 0.2, 0.3), (0.3, 0.1, 0.2), (0, 0.0, 0)),  # float residue: exactly 0.0 once nothing is held
    ((math.inf,), (math.inf,), (0, 0.0, 0)), ((), (5.0, math.inf), (0, 0.0, 0)),
    ((1.0, 2.0, 0.5), (5.0,), (2, 0.0, 0)), ((math.inf, 1.0), (math.inf, math.inf), (0, 0.0, 0)),
])
def test_take_and_give_back_clamp_at_zero(taken, given, expected):
    record = db._Held()
    for share in taken:
        record.take(share)
    for share in given:
        record.give_back(share)
    assert (record.holders, record.amount, record.unbounded) == expected
    assert type(record.amount) is float


@pytest.fixture
def changed():
    condition = threading.Condition()
    with condition:
        yield condition


def never_called():
    raise AssertionError("called")


@pytest.mark.parametrize("deadline, clock, error, message", [
    (0.0, never_called, db.DecisionStopped, STOPPED),  # the stop wins and the clock is not read
    (5.0, lambda: 5.0, db.DecisionTimeout, TIMED_OUT),  # a deadline of exactly now has passed
    (5, lambda: 7.5, db.DecisionTimeout, TIMED_OUT),
])
def test_refusals_happen_before_any_wait(changed, monkeypatch, deadline, clock, error, message):
    monkeypatch.setattr(db, "_POLL_S", 30.0)
    start = time.monotonic()
    with pytest.raises(error) as raised:
        db._wait(changed, lambda: error is db.DecisionStopped, deadline=deadline, clock=clock)
    assert raised.value.args == (message,) and type(raised.value) is error
    assert time.monotonic() - start < 1.0


@pytest.mark.parametrize("poll, deadline, clock, shortest, longest", [
    (5.0, 100.05, lambda: 100.0, 0.04, 2.0),  # the deadline caps the wait
    (0.05, 1000.0, lambda: 0.0, 0.04, 2.0),  # the poll interval caps it
    (0.05, None, lambda: 0.0, 0.04, 2.0), (0.05, 0.0, None, 0.04, 2.0),  # no deadline test without both
])
def test_timeout_is_the_poll_interval_capped_by_the_deadline(changed, monkeypatch, poll, deadline, clock, shortest,
                                                             longest):
    monkeypatch.setattr(db, "_POLL_S", poll)
    start = time.monotonic()
    assert db._wait(changed, db.never, deadline=deadline, clock=clock) is None
    assert shortest <= time.monotonic() - start < longest


def test_waiting_without_holding_the_condition_raises_its_runtime_error():
    with pytest.raises(RuntimeError, match="un-acquired lock"):
        db._wait(threading.Condition(), db.never)
