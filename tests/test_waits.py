"""What ends a wait: a give-back on another thread wakes the waiter at once, a stop or a deadline ends
it, and the poll interval or the deadline caps it."""

import math
import threading
import time

import pytest

from engines import decision_bounds as db

from support import Reply, lock_is_free


class Asked:
    """A callback that a waiting call asks: counts its calls, notes whether `lock` was held at each,
    and says when it has been asked `nth` times."""

    def __init__(self, answer, nth, lock=None):
        self.answer, self.nth, self.lock, self.owned, self.reached = answer, nth, lock, [], threading.Event()

    def __call__(self):
        self.owned.append(self.lock is not None and self.lock._is_owned())
        if len(self.owned) >= self.nth:
            self.reached.set()
        return self.answer


def waiting(call, asked, lock):
    """Runs `call()` on a thread; returns once `asked` was asked its times and `lock` is free."""
    ended = []

    def run():
        try:
            ended.append(call())
        except db.DecisionError as error:
            ended.append(error)
        ended.append(time.monotonic())

    thread = threading.Thread(target=run, daemon=True)
    thread.start()
    assert asked.reached.wait(5.0)
    time.sleep(0.05)
    assert lock_is_free(lock) and thread.is_alive()  # the lock is taken only once the waiter waits
    return thread, ended


@pytest.mark.parametrize("end, admitted", [("release", True), (100, True), (1000, False), ("stop", False)])
def test_a_give_back_on_another_thread_wakes_a_waiting_reservation_at_once(monkeypatch, end, admitted):
    monkeypatch.setattr(db, "_POLL_S", 30.0)
    budget = db.RunBudget(5, 1000)
    budget.reserve(600.0)
    budget.reserve(400.0)
    budget.should_stop = stop = Asked(False, 2)  # asked before the lock, then before the wait
    thread, ended = waiting(lambda: budget.reserve(1.0), stop, budget._changed)
    budget.charge(Reply(cached=True))  # frees nothing, wakes nobody
    time.sleep(0.05)
    assert len(stop.owned) == 2 and thread.is_alive() and budget.cache_hits == 1
    start = time.monotonic()
    if end == "release":
        budget.release(600.0)
    else:
        with budget._changed:  # a stop and exhaustion seen at one wake-up: exhaustion is tested first
            stop.answer = end == "stop"
            budget.charge(Reply(input_tokens=1000 if end == "stop" else end), 600.0)
    thread.join(5.0)
    assert not thread.is_alive() and ended[1] - start < 2.0
    assert ended[0] is None if admitted else type(ended[0]) is db.DecisionBudgetExceeded
    assert budget.in_flight == 1 + admitted


@pytest.mark.parametrize("end, outcome", [
    ("give back", db.Share), ("deadline", db.DecisionTimeout), ("stop", db.DecisionStopped)])
def test_what_ends_a_waiting_admission(monkeypatch, end, outcome):
    if end == "give back":  # only the give-back's notification can end this wait in time
        monkeypatch.setattr(db, "_POLL_S", 20.0)
    daily = db.DailySpend(1.0, lambda: "2026-03-01", None)
    blocker = daily.admit(lambda: math.inf, deadline=None, clock=time.monotonic, stopping=db.never)
    bound, stop = Asked(0.1, 1, daily._changed), threading.Event()
    deadline = time.monotonic() + (0.2 if end == "deadline" else 30.0)
    thread, ended = waiting(lambda: daily.admit(bound, deadline=deadline, clock=time.monotonic, stopping=stop.is_set),
                            bound, daily._changed)
    {"give back": lambda: blocker.settle(None), "stop": stop.set, "deadline": lambda: None}[end]()
    thread.join(10)
    assert not thread.is_alive() and isinstance(ended[0], outcome) and lock_is_free(daily._changed)
    assert len(bound.owned) >= 2 and all(bound.owned)  # the bound is asked again after the wait, under the lock


@pytest.mark.parametrize("poll, deadline, clock", [
    (5.0, 100.05, lambda: 100.0),  # the deadline caps the wait
    (0.05, 1000.0, lambda: 0.0),  # the poll interval caps it
    (0.05, None, lambda: 0.0), (0.05, 0.0, None),  # no deadline test without both
])
def test_a_wait_lasts_the_poll_interval_capped_by_the_deadline(monkeypatch, poll, deadline, clock):
    monkeypatch.setattr(db, "_POLL_S", poll)
    changed, start = threading.Condition(), time.monotonic()
    with changed:
        assert db._wait(changed, db.never, deadline=deadline, clock=clock) is None
    assert 0.04 <= time.monotonic() - start < 1.0
