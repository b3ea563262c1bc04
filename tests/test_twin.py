"""The hot methods against the module's plain-Python twin: random sequences of operations on a native
object and on a twin object give the same results and errors and leave the same fields."""

import math

from hypothesis import given, settings
from hypothesis import strategies as st

from engines import decision_bounds as db

from support import Reply, fields, outcome, twin


def run_alike(make, operations, apply):
    pair = [make(m) for m in (db, twin())]
    for operation in operations:
        outcomes = [outcome(lambda obj=obj, m=m: apply(m, obj, operation)) for m, obj in zip((db, twin()), pair)]
        assert outcomes[0] == outcomes[1], operation
        assert fields(pair[0]) == fields(pair[1]), operation


amounts = st.one_of(
    st.floats(allow_nan=True, allow_infinity=True),
    st.integers(-(10**6), 10**6),
    st.integers(2**53, 2**70),  # ints no float holds exactly
    st.sampled_from([0.0, -0.0, math.inf, -math.inf, math.nan, 0.1, 0.2, 0.3]),
)
replies = st.builds(
    Reply,
    cost=st.one_of(st.floats(0, 10), st.integers(0, 5), st.sampled_from([math.nan, math.inf])),
    input_tokens=st.one_of(st.integers(0, 300), st.floats(0, 300), st.integers(2**53, 2**60)),
    cached=st.booleans(),
)
quick = settings(max_examples=300, deadline=None)


@quick
@given(st.lists(st.tuples(st.sampled_from(["admits", "take", "give_back"]), amounts, amounts, amounts), max_size=25))
def test_held(operations):
    def apply(m, held, operation):
        method, share, used, limit = operation
        if method == "admits":
            return held.admits(share, used, limit)
        return getattr(held, method)(share)

    run_alike(lambda m: m._Held(), operations, apply)


def settle(shares, which, reply):
    return shares[which % len(shares)].settle(reply) if shares else None


budget_operations = st.one_of(
    st.tuples(st.sampled_from(["reserve", "hold", "release"]), amounts),
    st.tuples(st.just("charge"), replies, amounts),
    st.tuples(st.just("settle"), st.integers(0, 5), st.one_of(st.none(), replies)),
    st.tuples(st.sampled_from(["exhausted", "summary"])),
)


@quick
@given(st.lists(budget_operations, max_size=25), st.integers(0, 6), st.one_of(st.integers(0, 500), st.floats(0, 500)))
def test_run_budget(operations, max_calls, max_tokens):
    shares = {}

    def apply(m, budget, operation):
        name, *args = operation
        if name == "settle":
            return settle(shares.setdefault(m, []), *args)
        if name in ("reserve", "hold"):
            # Past its first test, a reservation is stopped: one that would wait for room is refused.
            budget.should_stop = iter([False] + [True] * 3).__next__
        result = getattr(budget, name)(*args)
        if name == "hold":
            shares.setdefault(m, []).append(result)
        return result

    run_alike(lambda m: m.RunBudget(max_calls, max_tokens), operations, apply)


DAYS = ["2026-11-23", "2026-11-24", "2026-11-25", "2026-11-26"]


def ledger(day):
    # Figures as numbers, as text, unreadable (logged, the day counts from 0) and failing.
    figure = {"2026-11-23": 1.5, "2026-11-24": "2.25", "2026-11-25": "bad"}.get(day)
    if figure is None:
        raise OSError("the ledger is down")
    return figure


daily_operations = st.one_of(
    st.tuples(st.just("admit"), amounts),
    st.tuples(st.just("settle"), st.integers(0, 5), st.one_of(st.none(), replies)),
    st.tuples(st.just("charge"), replies),
    st.tuples(st.just("day"), st.sampled_from(DAYS)),
    st.tuples(st.just("spent")),
)


@quick
@given(st.lists(daily_operations, max_size=25), st.one_of(st.floats(0, 20), st.integers(0, 20)),
       st.sampled_from([ledger, None]))
def test_daily_spend(operations, cap, ledger):
    day, shares = [DAYS[0]], {}

    def apply(m, daily, operation):
        name, *args = operation
        if name == "admit":
            # A call that would wait is stopped at once: `stopping` is only asked before a wait.
            share = daily.admit(lambda: args[0], deadline=None, clock=lambda: 0.0, stopping=lambda: True)
            shares.setdefault(m, []).append(share)
            return share
        if name == "settle":
            return settle(shares.setdefault(m, []), *args)
        if name == "day":
            day[0] = args[0]
            return None
        return getattr(daily, name)(*args)

    for m in (db, twin()):
        m.logger.disabled = True
    try:
        run_alike(lambda m: m.DailySpend(cap, lambda: day[0], ledger), operations, apply)
    finally:
        for m in (db, twin()):
            m.logger.disabled = False


rates_operations = st.one_of(
    st.tuples(st.just("cost"), st.integers(-5, 5000), st.sampled_from("ab")),
    st.tuples(st.just("tokens"), st.integers(-5, 5000)),
    st.tuples(st.just("learn"), st.integers(-5, 5000), st.sampled_from("ab"), replies),
)


@quick
@given(st.lists(rates_operations, max_size=25))
def test_request_rates(operations):
    run_alike(lambda m: m.RequestRates(), operations, lambda m, rates, op: getattr(rates, op[0])(*op[1:]))
