"""Many threads on one budget and one day's account, through a stop and a day change."""

import collections
import math
import random
import threading

import pytest

from engines import decision_bounds as db

from support import Reply, recording_held


@pytest.mark.parametrize("recorded", [True, False], ids=["each admission checked", "standard records"])
def test_many_threads_on_one_budget_and_one_account(monkeypatch, recorded):
    monkeypatch.setattr(db, "_POLL_S", 0.005)
    budget, days, rates = db.RunBudget(max_calls=10**6, max_tokens=20_000), ["2026-11-23"], db.RequestRates()
    daily = db.DailySpend(1.0, lambda: days[-1], lambda day: 0.0)
    broken = {}
    if recorded:  # subclasses: the admissions take the step-by-step code
        budget._held_tokens, broken["budget"] = recording_held(lambda: budget.input_tokens, budget.max_tokens)
        daily._held, broken["daily"] = recording_held(lambda: daily._cost, 1.0)
    stop = threading.Event()
    budget.should_stop = stop.is_set
    done, learnt, tally = collections.Counter(), [], threading.Lock()  # what the threads did, under `tally`

    def on_budget(rng):
        choice, used = rng.random(), rng.randint(0, 40)
        if choice < 0.1:
            budget.charge(Reply(0.0, 0, cached=True))
            return {"cached": 1}
        with budget.hold(math.inf if choice < 0.15 else rng.choice([10, 25.5, 60])) as share:
            share.settle(Reply(0.001, used) if choice < 0.7 else None)
        return {"paid": 1, "tokens": used} if choice < 0.7 else {}

    def on_daily(rng):
        feature, size = rng.choice("ab"), rng.randint(100, 2000)
        with daily.admit(lambda: rates.cost(size, feature), deadline=None, clock=lambda: 0.0,
                         stopping=db.never) as share:
            if rng.random() < 0.8:
                cost = rng.choice([0.001, 0.004, 0.01]) * (5 if rng.random() < 0.03 else 1)
                with tally:
                    share.settle(Reply(cost, size // 4))
                    rates.learn(size, feature, Reply(cost, size // 4))
                    learnt.append(cost)
        return {}

    def work(index):
        rng = random.Random(index)
        for step in range(150):
            if index == 0 and step == 60:
                days.append("2026-11-24")
            if index == 0 and step == 120:
                stop.set()
            try:
                counted = (on_daily if step % 2 else on_budget)(rng)
            except (db.DecisionStopped, db.DecisionBudgetExceeded) as error:
                counted = {type(error).__name__: 1}
            with tally:
                done.update(counted)

    errors, start = [], threading.Barrier(16)

    def body(index):
        try:
            start.wait(timeout=5)
            work(index)
        except BaseException as error:  # noqa: BLE001 - reported below
            errors.append(error)

    threads = [threading.Thread(target=body, args=(i,), daemon=True) for i in range(16)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(30)
    assert not any(t.is_alive() for t in threads) and not errors, errors
    assert not any(broken.values()) and budget.in_flight == 0
    for held in (budget._held_tokens, daily._held):
        assert (held.holders, held.unbounded, held.amount) == (0, 0, 0.0)
    assert (budget.calls, budget.input_tokens, budget.cache_hits) == (done["paid"], done["tokens"], done["cached"])
    assert budget.cost == pytest.approx(0.001 * done["paid"]) and done["DecisionStopped"] > 0
    # The day's settled spend passes the cap by at most one call, plus what each call that cost
    # more than every earlier one cost above the most before it.
    allowance, most = max(learnt), 0.0
    for cost in learnt:
        if cost > most:
            allowance += cost - most
            most = cost
    assert daily.spent() <= 1.0 + allowance + 1e-9
