"""The hot methods against the module's plain-Python twin: random sequences of operations on a native
object and on a twin object give the same results, errors and log records and leave the same fields.
The examples are the edges: a bound reached exactly, float residue, a new day, an unreadable ledger."""

import logging
import math

from hypothesis import example, given, settings
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
inf = math.inf


@quick
@given(st.lists(st.tuples(st.sampled_from(["admits", "take", "give_back"]), amounts, amounts, amounts), max_size=25))
# Below the limit strictly; the new share not added; an unbounded share alone; float residue; the floor at 0.
@example([("admits", inf, 9.0, 10.0), ("admits", 5.0, 9.0, 10.0), ("admits", 5.0, 10.0, 10.0), ("take", 3.0, 0, 0),
          ("admits", 4.0, 6.0, 10.0), ("admits", 4.0, 7.0, 10.0), ("admits", inf, 0.0, 10.0), ("take", inf, 0, 0),
          ("admits", 0.0, 0.0, 10.0), ("give_back", 3.0, 0, 0), ("admits", inf, 0.0, 10.0), ("give_back", inf, 0, 0),
          ("give_back", inf, 0, 0)])
@example([(method, share, 0, 0) for method, shares in [("take", (0.1, 0.2, 0.3)), ("give_back", (0.3, 0.1, 0.2)),
                                                       ("take", (1.0, 2.0, 0.5)), ("give_back", (5.0,))]
          for share in shares])
@example([("take", 2, 0, 0), ("admits", 1, 7, 10), ("admits", 1, 8, 10), ("take", 0.0, 0, 0), ("admits", inf, 0, 10)])
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
    st.tuples(st.sampled_from(["reserve", "hold"]), amounts, st.booleans()),
    st.tuples(st.just("release"), amounts),
    st.tuples(st.just("charge"), replies, amounts),
    st.tuples(st.just("settle"), st.integers(0, 5), st.one_of(st.none(), replies)),
    st.tuples(st.sampled_from(["exhausted", "summary"])),
)


@quick
@given(st.lists(budget_operations, max_size=25), st.integers(0, 6), st.one_of(st.integers(0, 500), st.floats(0, 500)))
@example([("charge", Reply(0.1234567, 999), 0.0), ("exhausted",), ("reserve", inf, False), ("summary",),
          ("charge", Reply(0.0, 1), 0.0), ("exhausted",), ("reserve", 1.0, False), ("reserve", 1.0, True)], 5, 1000)
@example([("hold", 1.0, False), ("exhausted",), ("settle", 0, Reply(cached=True)), ("hold", 1.0, False),
          ("exhausted",), ("reserve", 1.0, False), ("settle", 0, None), ("settle", 1, Reply(0.5, 7))], 2, 1000)
def test_run_budget(operations, max_calls, max_tokens):
    shares = {}

    def apply(m, budget, operation):
        name, *args = operation
        if name == "settle":
            return settle(shares.setdefault(m, []), *args)
        if name in ("reserve", "hold"):
            # The first stop test is drawn; past it, a reservation that would wait for room is stopped.
            budget.should_stop = iter([args.pop()] + [True] * 3).__next__
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
@example([("admit", 0.5), ("admit", 0.5), ("day", DAYS[1]), ("admit", 0.5), ("day", DAYS[2]), ("admit", 0.5),
          ("day", DAYS[3]), ("spent",)], 1.0, ledger)
@example([("admit", 0.5), ("admit", 0.25), ("day", DAYS[1]), ("settle", 0, Reply(1.0)), ("settle", 1, None),
          ("charge", Reply(0.5)), ("admit", 0.1)], 1.5, None)
def test_daily_spend(operations, cap, ledger):
    day, shares, records = [DAYS[0]], {}, []

    def apply(m, daily, operation):
        name, *args = operation
        if name == "admit":
            # A call that would wait is stopped at once: `stopping` is only asked before a wait, and
            # before the deadline, which has passed too (so that a missed stop test cannot hang).
            share = daily.admit(lambda: args[0], deadline=0.0, clock=lambda: 1.0, stopping=lambda: True)
            shares.setdefault(m, []).append(share)
            return share
        if name == "settle":
            return settle(shares.setdefault(m, []), *args)
        if name == "day":
            day[0] = args[0]
            return None
        return getattr(daily, name)(*args)

    def logged(m, daily, operation):
        records.clear()
        return outcome(lambda: apply(m, daily, operation)), list(records)

    handler = logging.Handler()
    handler.emit = lambda r: records.append((r.levelname, r.msg, r.args, r.exc_info and r.exc_info[0]))
    for m in (db, twin()):
        m.logger.addHandler(handler)
        m.logger.propagate = False
    try:
        run_alike(lambda m: m.DailySpend(cap, lambda: day[0], ledger), operations, logged)
    finally:
        for m in (db, twin()):
            m.logger.removeHandler(handler)
            m.logger.propagate = True


rates_operations = st.one_of(
    st.tuples(st.just("cost"), st.integers(-5, 5000), st.sampled_from("ab")),
    st.tuples(st.just("tokens"), st.integers(-5, 5000)),
    st.tuples(st.just("learn"), st.integers(-5, 5000), st.sampled_from("ab"), replies),
)


@quick
@given(st.lists(rates_operations, max_size=25))
@example([("cost", 100, "a"), ("tokens", 100), ("learn", 10, "a", Reply(30, 5)), ("cost", 5, "a"), ("cost", 5, "b"),
          ("learn", 10, "a", Reply(math.nan, 300)), ("cost", 5, "a"), ("learn", 0, "b", Reply(0.5, 1)),
          ("cost", 1, "b"), ("cost", 3000, "a"), ("tokens", -1), ("tokens", 500)])
def test_request_rates(operations):
    run_alike(lambda m: m.RequestRates(), operations, lambda m, rates, op: getattr(rates, op[0])(*op[1:]))
