import dataclasses
import inspect
import math
import threading
import time

import pytest

from engines import decision_bounds as db

from support import Reply, lock_is_free

DOC = """Bounds one batch pass: its calls, its tokens and its stop. A paid call holds a call slot and
    the tokens it may use from :meth:`hold` until its share settles (:meth:`charge` or
    :meth:`release`); cache hits are free. Once ``should_stop`` says so, no call and no retry
    starts."""
METHODS = ["stopping", "exhausted", "_exhausted_locked", "reserve", "hold", "release", "charge", "summary",
           "_summary_locked"]
FIELDS = {"max_calls": "int", "max_tokens": "int", "calls": "int", "input_tokens": "int", "cost": "float",
          "cache_hits": "int", "in_flight": "int", "should_stop": "Callable[[], bool]", "_held_tokens": "_Held",
          "_changed": "threading.Condition"}


def test_dataclass_surface():
    cls, budget = db.RunBudget, db.RunBudget(3, 1000)
    assert cls.__doc__ == DOC and cls.__annotations__ == FIELDS and list(cls.__annotations__) == list(FIELDS)
    assert [(f.name, f.repr, f.compare) for f in dataclasses.fields(cls)] == [(n, i < 7, i < 7) for i, n in
                                                                             enumerate(FIELDS)]
    assert {k: vars(cls)[k] for k in list(FIELDS)[2:8]} == dict(calls=0, input_tokens=0, cost=0.0, cache_hits=0,
                                                                 in_flight=0, should_stop=db.never)
    assert not {"max_calls", "max_tokens", "_held_tokens", "_changed"} & set(vars(cls))
    assert repr(budget) == ("RunBudget(max_calls=3, max_tokens=1000, calls=0, input_tokens=0, cost=0.0, "
                            "cache_hits=0, in_flight=0)")
    assert budget._held_tokens == db._Held() and budget._held_tokens is not db.RunBudget(3, 1000)._held_tokens
    assert type(budget._changed) is threading.Condition and budget.should_stop is db.never
    assert budget == db.RunBudget(3, 1000, should_stop=lambda: True) != db.RunBudget(3, 1000, in_flight=1)
    assert [n for n in vars(cls) if n in METHODS] == METHODS  # in the order they are defined


def test_each_hold_makes_a_new_give_back():
    budget = db.RunBudget(5, 1000)
    first, second = budget.hold(1.0), budget.hold(2.0)
    give_back = first._give_back
    assert give_back is not second._give_back and give_back.__doc__ is None
    assert (give_back.__name__, give_back.__qualname__) == ("give_back", "RunBudget.hold.<locals>.give_back")
    assert str(inspect.signature(give_back)) == "(reply: 'PaidReply | None') -> 'None'"


@pytest.mark.parametrize("fields, exhausted", [
    (dict(calls=2, in_flight=1), True), (dict(calls=1, in_flight=1), False), (dict(input_tokens=1000), True),
    (dict(input_tokens=999), False), (dict(calls=3, input_tokens=5000), True), (dict(max_calls=0), True),
])
def test_exhaustion_is_greater_or_equal_and_refuses_at_once(fields, exhausted, monkeypatch):
    monkeypatch.setattr(db, "_POLL_S", 30.0)
    budget = db.RunBudget(**{"max_calls": 3, "max_tokens": 1000, **fields})
    assert budget.exhausted() is exhausted
    if exhausted:
        with pytest.raises(db.DecisionBudgetExceeded, match=r"^decision budget exhausted: \{'calls': "):
            budget.reserve(math.inf)
    else:
        budget.reserve(math.inf)  # nothing held: any share is admitted, unbounded or not
        assert budget.in_flight == fields.get("in_flight", 0) + 1


def test_exhaustion_message_and_precedence_of_the_stop():
    budget = db.RunBudget(2, 500, calls=2, input_tokens=900, cost=0.25, cache_hits=1)
    with pytest.raises(db.DecisionBudgetExceeded) as raised:
        budget.reserve()
    assert raised.value.args == ("decision budget exhausted: {'calls': 2, 'cache_hits': 1, 'input_tokens': 900, "
                                 "'cost_usd': 0.25, 'max_calls': 2, 'max_tokens': 500}",)
    budget.should_stop = lambda: 1
    with pytest.raises(db.DecisionStopped, match="^the pass was asked to stop$"):
        budget.hold(1.0)
    assert budget.stopping() is True and budget.in_flight == 0
    assert db.RunBudget(1, 1, cost=0.1234567).summary()["cost_usd"] == 0.123457


class Stop:
    """A stop predicate that says when it is asked under the lock (second call on)."""

    def __init__(self):
        self.now, self.asked, self.waiting = False, 0, threading.Event()

    def __call__(self):
        self.asked += 1
        if self.asked >= 2:
            self.waiting.set()
        return self.now


def waiter(budget, stop, tokens=1.0):
    """Starts `budget.reserve(tokens)` on a thread and returns once it waits with the lock free."""
    outcome = []

    def run():
        try:
            outcome.append(budget.reserve(tokens))
        except Exception as error:
            outcome.append(error)
        outcome.append(time.monotonic())

    thread = threading.Thread(target=run)
    thread.start()
    assert stop.waiting.wait(5.0)
    assert lock_is_free(budget._changed)  # taken only once the waiter waits
    return thread, outcome


def settle(budget, how):
    if how == "release":
        budget.release(600.0)
    elif how == "stop_and_exhaust":  # both seen at one wake-up: exhaustion is tested first
        with budget._changed:
            budget.should_stop.now = True
            budget.charge(Reply(input_tokens=1000), 600.0)
    else:
        budget.charge(Reply(input_tokens=how), 600.0)


@pytest.mark.parametrize("how, admitted", [("release", True), (100, True), (1000, False), ("stop_and_exhaust",
                                                                                              False)])
def test_a_give_back_on_another_thread_wakes_the_waiter_at_once(monkeypatch, how, admitted):
    monkeypatch.setattr(db, "_POLL_S", 30.0)
    budget = db.RunBudget(5, 1000)
    budget.reserve(600.0)
    budget.reserve(400.0)
    budget.should_stop = stop = Stop()
    thread, outcome = waiter(budget, stop)
    budget.charge(Reply(cached=True))  # frees nothing, wakes nobody
    time.sleep(0.05)
    assert stop.asked == 2 and thread.is_alive() and budget.cache_hits == 1
    start = time.monotonic()
    settle(budget, how)
    thread.join(5.0)
    assert not thread.is_alive() and outcome[1] - start < 2.0
    assert outcome[0] is None if admitted else type(outcome[0]) is db.DecisionBudgetExceeded
    assert budget.in_flight == 1 + admitted
