"""Many threads on one bound, and single-threaded sequences against a model of the bookkeeping."""

import collections
import math
import random
import threading

import pytest
from hypothesis import settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, invariant, precondition, rule

from engines import decision_bounds as db

from support import Reply

THREADS = 16


def recording_held(owner_used, limit):
    """A `_Held` that records, under its owner's lock, what was held at each admission, and checks
    that the admission rule allowed it."""
    broken = []

    class Recording(db._Held):
        def take(self, share):
            used = owner_used()
            if self.unbounded or (math.isinf(share) and self.holders) or not used + self.amount < limit:
                broken.append((share, used, self.holders, self.amount, self.unbounded))
            super().take(share)

    return Recording(), broken


def admits(held, share, used, limit):
    """The admission rule, over the list of the shares held."""
    if any(math.isinf(h) for h in held) or (math.isinf(share) and held):
        return False
    return used + sum(h for h in held if not math.isinf(h)) < limit


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


class BudgetModel(RuleBasedStateMachine):
    """`RunBudget` against a small model, one operation at a time; a call that would wait is ended
    by a stop that comes once it waits."""

    def __init__(self):
        super().__init__()
        self.stop_after, self.stop_calls = math.inf, 0
        self.budget = db.RunBudget(5, 300, should_stop=self.should_stop)
        self.shares, self.held = [], []  # (share, tokens); the tokens held
        self.calls = self.tokens_used = self.cache_hits = 0

    def should_stop(self):
        self.stop_calls += 1
        return self.stop_calls > self.stop_after

    @rule(tokens=st.one_of(st.sampled_from([0.0, 40.0, 120.5, 300.0]), st.just(math.inf)))
    def hold(self, tokens):
        if self.calls + len(self.held) >= 5 or self.tokens_used >= 300:
            with pytest.raises(db.DecisionBudgetExceeded, match="^decision budget exhausted: "):
                self.budget.hold(tokens)
        elif admits(self.held, tokens, self.tokens_used, 300):
            self.shares.append((self.budget.hold(tokens), tokens))
            self.held.append(tokens)
        else:
            self.stop_calls, self.stop_after = 0, 2  # the lockless test, then the first wait's
            with pytest.raises(db.DecisionStopped):
                self.budget.hold(tokens)
            self.stop_after = math.inf

    @precondition(lambda self: self.shares)
    @rule(data=st.data(), used=st.integers(0, 200), paid=st.booleans())
    def end(self, data, used, paid):
        share, tokens = self.shares.pop(data.draw(st.integers(0, len(self.shares) - 1)))
        self.held.remove(tokens)
        share.settle(Reply(0.5, used) if paid else None)
        self.calls += paid
        self.tokens_used += used * paid

    @rule()
    def cache_hit(self):
        self.budget.charge(Reply(cached=True))
        self.cache_hits += 1

    @invariant()
    def agrees(self):
        b = self.budget
        assert (b.calls, b.in_flight, b.input_tokens, b.cache_hits) == (
            self.calls, len(self.held), self.tokens_used, self.cache_hits)
        assert_holds(b._held_tokens, self.held, pytest.approx(sum(t for t in self.held if not math.isinf(t))))
        assert b.cost == pytest.approx(0.5 * self.calls)


class DailyModel(RuleBasedStateMachine):
    """`DailySpend` against a small model; a call that would wait is ended by a passed deadline."""

    def __init__(self):
        super().__init__()
        self.day, self.ledger = "d1", {"d1": 0.0}
        self.daily = db.DailySpend(1.0, lambda: self.day, lambda day: self.ledger[day])
        self.spent, self.held, self.shares = 0.0, [], []
        self.amount = 0.0  # the finite shares held, summed in the order the account sums them

    @rule(bound=st.one_of(st.sampled_from([0.0, 0.2, 0.45, 2.0]), st.just(math.inf)))
    def admit(self, bound):
        args = dict(deadline=0.0, clock=lambda: 0.0, stopping=db.never)
        if self.spent >= 1.0:
            with pytest.raises(db.DecisionBudgetExceeded):
                self.daily.admit(lambda: bound, **args)
        elif admits(self.held, bound, self.spent, 1.0):
            self.shares.append((self.daily.admit(lambda: bound, **args), bound))
            self.held.append(bound)
            self.amount += 0.0 if math.isinf(bound) else bound
        else:
            with pytest.raises(db.DecisionTimeout):
                self.daily.admit(lambda: bound, **args)

    @precondition(lambda self: self.shares)
    @rule(data=st.data(), cost=st.sampled_from([0.0, 0.1, 0.3, 0.9]), paid=st.booleans())
    def end(self, data, cost, paid):
        share, bound = self.shares.pop(data.draw(st.integers(0, len(self.shares) - 1)))
        self.held.remove(bound)
        if not math.isinf(bound):
            self.amount = max(0.0, self.amount - bound)
        if not self.held:
            self.amount = 0.0
        share.settle(Reply(cost) if paid else None)
        self.spent += cost * paid

    @rule(cost=st.sampled_from([0.05, 0.5]))
    def charge(self, cost):
        self.daily.charge(Reply(cost))
        self.spent += cost

    @rule(figure=st.sampled_from([0.0, 0.3, 1.5]))
    def next_day(self, figure):
        self.day = f"d{int(self.day[1:]) + 1}"
        self.ledger[self.day] = figure
        self.spent = figure

    @invariant()
    def agrees(self):
        assert self.daily.spent() == pytest.approx(self.spent)
        assert_holds(self.daily._held, self.held, self.amount)


test_run_budget_follows_its_model = settings(max_examples=60, deadline=None)(BudgetModel).TestCase
test_daily_spend_follows_its_model = settings(max_examples=60, deadline=None)(DailyModel).TestCase
