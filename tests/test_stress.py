"""Many threads on one bound."""

import collections
import math
import random
import threading

import pytest

from engines import decision_bounds as db

from support import Reply, recording_held

THREADS = 16


def assert_holds(record, held, amount):
    assert (record.holders, record.unbounded, record.amount) == (len(held), sum(map(math.isinf, held)), amount)


def run_threads(work, count=THREADS, timeout=30.0):
    errors = []
    start = threading.Barrier(count)

    def body(index):
        try:
            start.wait(timeout=5)
            work(index)
        except BaseException as error:  # noqa: BLE001 - reported below
            errors.append(error)

    threads = [threading.Thread(target=body, args=(i,)) for i in range(count)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(timeout)
    assert not any(t.is_alive() for t in threads), "a thread did not finish"
    assert not errors, errors


@pytest.fixture(autouse=True)
def quick_polls(monkeypatch):
    monkeypatch.setattr(db, "_POLL_S", 0.005)


@pytest.mark.parametrize("recorded", [True, False], ids=["each admission checked", "standard record"])
def test_run_budget_under_many_threads(recorded):
    budget = db.RunBudget(max_calls=10**6, max_tokens=20_000)
    broken = []
    if recorded:  # a subclass: the admissions take the step-by-step code
        budget._held_tokens, broken = recording_held(lambda: budget.input_tokens, budget.max_tokens)
    stop = threading.Event()
    budget.should_stop = stop.is_set
    done = collections.Counter()  # what the threads did, counted under `tally`
    tally = threading.Lock()

    def work(index):
        rng = random.Random(index)
        for step in range(150):
            if index == 0 and step == 120:
                stop.set()
            choice, used = rng.random(), rng.randint(0, 40)
            try:
                if choice < 0.1:
                    budget.charge(Reply(0.0, 0, cached=True))
                    counted = {"cached": 1}
                else:
                    with budget.hold(math.inf if choice < 0.15 else rng.choice([10, 25.5, 60])) as share:
                        share.settle(Reply(0.001, used) if choice < 0.7 else None)
                    counted = {"paid": 1, "tokens": used} if choice < 0.7 else {}
            except (db.DecisionStopped, db.DecisionBudgetExceeded) as error:
                counted = {type(error).__name__: 1}
            with tally:
                done.update(counted)

    run_threads(work)
    assert not broken and budget.in_flight == 0
    assert_holds(budget._held_tokens, [], 0.0)
    assert (budget.calls, budget.input_tokens, budget.cache_hits) == (done["paid"], done["tokens"], done["cached"])
    assert budget.cost == pytest.approx(0.001 * done["paid"]) and done["DecisionStopped"] > 0


def test_daily_spend_under_many_threads_with_a_day_change():
    days = ["2026-11-23"]
    daily = db.DailySpend(1.0, lambda: days[-1], lambda day: 0.0)
    daily._held, broken = recording_held(lambda: daily._cost, 1.0)
    rates = db.RequestRates()
    learnt = []  # the costs of the paid replies, in the order they were learnt
    tally = threading.Lock()

    def work(index):
        rng = random.Random(1000 + index)
        for step in range(60):
            if index == 0 and step == 30:
                days.append("2026-11-24")
            feature = rng.choice("ab")
            size = rng.randint(100, 2000)
            try:
                with daily.admit(lambda: rates.cost(size, feature), deadline=None, clock=lambda: 0.0,
                                 stopping=db.never) as share:
                    if rng.random() < 0.8:
                        cost = rng.choice([0.001, 0.004, 0.01]) * (5 if rng.random() < 0.03 else 1)
                        with tally:
                            share.settle(Reply(cost, size // 4))
                            rates.learn(size, feature, Reply(cost, size // 4))
                            learnt.append(cost)
            except db.DecisionBudgetExceeded:
                pass

    run_threads(work)
    assert not broken
    assert_holds(daily._held, [], 0.0)
    # The day's settled spend passes the cap by at most one call, plus what each call that cost
    # more than every earlier one cost above the most before it.
    allowance, most = max(learnt), 0.0
    for cost in learnt:
        if cost > most:
            allowance += cost - most
            most = cost
    assert daily.spent() <= 1.0 + allowance + 1e-9
