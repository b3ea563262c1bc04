"""The direct paths of the hot methods against the step-by-step code: the same operations on an
instance of a class and on an instance of a subclass that adds nothing (which the direct paths
leave to the step-by-step code) give the same results and errors and leave the same fields."""

import math

from hypothesis import given, settings
from hypothesis import strategies as st

from engines import decision_bounds as db

from support import Reply


class StepwiseHeld(db._Held):
    pass


class StepwiseBudget(db.RunBudget):
    pass


class StepwiseDaily(db.DailySpend):
    pass


class StepwiseRates(db.RequestRates):
    pass


def outcome(operation):
    """What an operation gave, comparable across the two objects."""
    try:
        result = operation()
    except Exception as error:  # noqa: BLE001 - compared, not handled
        return "raised", type(error).__name__, str(error)
    return "returned", "Share" if isinstance(result, db.Share) else repr(result)


def state(obj):
    """The object's own fields by repr (which tells 0 from 0.0 and shows nan), the module's records
    inside it included; the callables and locks that the two objects hold alike are left out."""
    skip = {"_changed", "_lock", "should_stop", "_today", "_ledger"}
    return {
        key: state(value) if isinstance(value, (db._Held, db._Charges)) else repr(value)
        for key, value in vars(obj).items()
        if key not in skip
    }


def run_alike(pair, operations, apply):
    for operation in operations:
        outcomes = [outcome(lambda obj=obj: apply(obj, operation)) for obj in pair]
        assert outcomes[0] == outcomes[1], operation
        assert state(pair[0]) == state(pair[1]), operation


amounts = st.one_of(
    st.floats(allow_nan=True, allow_infinity=True),
    st.integers(-(10**6), 10**6),
    st.integers(2**53, 2**70),  # ints no float holds exactly
    st.sampled_from([0.0, -0.0, math.inf, 0.1, 0.2, 0.3]),
)
replies = st.builds(
    Reply,
    cost=st.one_of(st.floats(0, 10), st.integers(0, 5)),
    input_tokens=st.one_of(st.integers(0, 300), st.floats(0, 300)),
    cached=st.booleans(),
)


@settings(max_examples=300, deadline=None)
@given(st.lists(st.tuples(st.sampled_from(["admits", "take", "give_back"]), amounts, amounts, amounts), max_size=25))
def test_held(operations):
    def apply(held, operation):
        method, share, used, limit = operation
        if method == "admits":
            return held.admits(share, used, limit)
        return getattr(held, method)(share)

    run_alike([db._Held(), StepwiseHeld()], operations, apply)


class Stop:
    """A stop that lets each reservation past its first test and stops it at the next, so that one
    that would wait for room raises `DecisionStopped` instead."""

    def __init__(self):
        self.asked = 0

    def __call__(self):
        self.asked += 1
        return self.asked > 1


budget_operations = st.one_of(
    st.tuples(st.sampled_from(["reserve", "hold", "release"]), amounts),
    st.tuples(st.just("charge"), replies, amounts),
    st.tuples(st.just("settle"), st.integers(0, 5), st.one_of(st.none(), replies)),
    st.tuples(st.sampled_from(["exhausted", "summary"])),
)


@settings(max_examples=300, deadline=None)
@given(st.lists(budget_operations, max_size=25), st.integers(0, 6), st.one_of(st.integers(0, 500), st.floats(0, 500)))
def test_run_budget(operations, max_calls, max_tokens):
    pair = [cls(max_calls, max_tokens) for cls in (db.RunBudget, StepwiseBudget)]
    shares = {id(budget): [] for budget in pair}

    def apply(budget, operation):
        name, *args = operation
        if name in ("reserve", "hold"):
            budget.should_stop = Stop()
            result = getattr(budget, name)(*args)
            if name == "hold":
                shares[id(budget)].append(result)
            return result
        if name == "settle":
            held = shares[id(budget)]
            return held[args[0] % len(held)].settle(args[1]) if held else None
        return getattr(budget, name)(*args)

    run_alike(pair, operations, apply)


daily_operations = st.one_of(
    st.tuples(st.just("admit"), amounts),
    st.tuples(st.just("settle"), st.integers(0, 5), st.one_of(st.none(), replies)),
    st.tuples(st.just("charge"), replies),
    st.tuples(st.just("day"), st.sampled_from(["2026-11-23", "2026-11-24"])),
    st.tuples(st.just("spent")),
)


@settings(max_examples=300, deadline=None)
@given(st.lists(daily_operations, max_size=25), st.one_of(st.floats(0, 20), st.integers(0, 20)))
def test_daily_spend(operations, cap):
    day = ["2026-11-23"]
    ledger = {"2026-11-23": 1.5, "2026-11-24": "bad"}.get  # the second day's figure cannot be read
    pair = [cls(cap, lambda: day[0], ledger) for cls in (db.DailySpend, StepwiseDaily)]
    shares = {id(daily): [] for daily in pair}

    def apply(daily, operation):
        name, *args = operation
        if name == "admit":
            # A call that would wait is stopped at once: `stopping` is only asked before a wait.
            share = daily.admit(lambda: args[0], deadline=None, clock=lambda: 0.0, stopping=lambda: True)
            shares[id(daily)].append(share)
            return share
        if name == "settle":
            held = shares[id(daily)]
            return held[args[0] % len(held)].settle(args[1]) if held else None
        if name == "day":
            day[0] = args[0]
            return None
        return getattr(daily, name)(*args)

    db.logger.disabled = True
    try:
        run_alike(pair, operations, apply)
    finally:
        db.logger.disabled = False


rates_operations = st.one_of(
    st.tuples(st.just("cost"), st.integers(-5, 5000), st.sampled_from("ab")),
    st.tuples(st.just("tokens"), st.integers(-5, 5000)),
    st.tuples(st.just("learn"), st.integers(-5, 5000), st.sampled_from("ab"), replies),
)


@settings(max_examples=300, deadline=None)
@given(st.lists(rates_operations, max_size=25))
def test_request_rates(operations):
    run_alike([db.RequestRates(), StepwiseRates()], operations, lambda rates, op: getattr(rates, op[0])(*op[1:]))
