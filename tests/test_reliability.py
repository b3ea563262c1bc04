"""The module under stress: leaks, re-import, interpreters, and a model of its bookkeeping."""

import gc
import importlib
import math
import subprocess
import sys
import textwrap
import threading
import tracemalloc

import pytest
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, invariant, precondition, rule

from engines import decision_bounds as db


KEPT = [db.Share, db._Held, db._nothing, db.never, db.DecisionStopped, type(db.never), db.logger]


def growth(operation, rounds=4, per_round=2000):
    """Traced memory, live objects and references to the module's objects that the last rounds of
    `operation` added, after a warm-up."""
    for _ in range(per_round):
        operation()
    gc.collect()
    references = [sys.getrefcount(k) for k in KEPT]
    tracemalloc.start()
    try:
        readings = []
        for _ in range(rounds):
            for _ in range(per_round):
                operation()
            gc.collect()
            readings.append((tracemalloc.get_traced_memory()[0], len(gc.get_objects())))
    finally:
        tracemalloc.stop()
    after = [sys.getrefcount(k) for k in KEPT]
    added = [a - b for a, b in zip(after, references)]
    return readings[-1][0] - readings[0][0], readings[-1][1] - readings[0][1], added


# Each operation uses new objects, so that a reference kept by mistake keeps memory alive.


def share_settled():
    db.Share([].append).settle(object())


def share_left_in_a_block():
    with db.Share([].append):
        pass


def held_round():
    held = db._Held()
    share = float(len(gc.garbage) + 1.5)
    held.admits(share, float(2), 10.0)
    held.take(share)
    held.take(math.inf)
    held.give_back(math.inf)
    held.give_back(share)


def binding_error():
    try:
        db._wait(1, 2, 3, clock=4)
    except TypeError:
        pass


def stopped_wait():
    changed = threading.Condition()
    with changed:
        try:
            db._wait(changed, lambda: True)
        except db.DecisionStopped:
            pass


def timed_out_wait():
    changed = threading.Condition()
    with changed:
        try:
            db._wait(changed, db.never, deadline=1.0, clock=lambda: 2.0)
        except db.DecisionTimeout:
            pass


OPERATIONS = [share_settled, share_left_in_a_block, held_round, binding_error, stopped_wait, timed_out_wait]


@pytest.mark.parametrize("operation", OPERATIONS, ids=lambda op: op.__name__)
def test_repeated_operations_leave_memory_flat(operation):
    memory, objects, references = growth(operation)
    assert references == [0] * len(KEPT)
    # A reference leaked per call would add at least 2000 objects of 16 bytes or more per round.
    assert memory < 8 * 2000 and objects < 100, (memory, objects)


def test_a_reimport_gives_an_independent_module_and_the_old_one_keeps_working(monkeypatch):
    old = db
    old_share = old.Share(list().append)
    monkeypatch.delitem(sys.modules, "engines.decision_bounds")
    new = importlib.import_module("engines.decision_bounds")
    assert new is not old and new.Share is not old.Share and new.never is not old.never
    assert type(new.never) is not type(old.never)  # each module has its own function type
    new._POLL_S = 7.0  # rebinding one module's names leaves the other's alone
    assert old._POLL_S == 0.1
    got = []
    new.Share(got.append).settle("new")
    old.Share(got.append).settle("old")
    old_share.settle(None)
    held = old._Held()
    held.take(1.0)
    assert got == ["new", "old"] and held.holders == 1
    del new
    gc.collect()
    assert old.never() is False


def test_imports_and_works_in_an_interpreter_with_its_own_gil():
    code = textwrap.dedent(
        """
        import _xxsubinterpreters as interpreters
        import engines.decision_bounds
        interpreter = interpreters.create(isolated=True)
        interpreters.run_string(interpreter, '''
        import engines.decision_bounds as db
        got = []
        with db.Share(got.append) as share:
            share.settle("paid")
        held = db._Held()
        held.take(2.0)
        held.give_back(2.0)
        assert got == ["paid"] and held == db._Held(), (got, held)
        ''')
        interpreters.destroy(interpreter)
        print("ok")
        """
    )
    out = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=120)
    assert out.stdout.strip() == "ok", out.stderr


shares = st.one_of(st.floats(min_value=0.0, max_value=1e6), st.integers(0, 10**6), st.just(math.inf))


class HeldModel(RuleBasedStateMachine):
    """`_Held` against a small model of its bookkeeping, one operation at a time."""

    def __init__(self):
        super().__init__()
        self.held = db._Held()
        self.taken = []
        self.holders, self.amount, self.unbounded = 0, 0.0, 0
        self.matched = True  # every give-back so far gave back a taken share

    @rule(share=shares, used=st.floats(0.0, 2e6), limit=st.floats(0.0, 2e6))
    def admits(self, share, used, limit):
        if self.unbounded:
            expected = False
        elif math.isinf(share) and self.holders:
            expected = False
        else:
            expected = used + self.amount < limit
        assert self.held.admits(share, used, limit) is expected

    @rule(share=shares)
    def take(self, share):
        self.held.take(share)
        self.taken.append(share)
        self.holders += 1
        if math.isinf(share):
            self.unbounded += 1
        else:
            self.amount += share

    def _give_back(self, share):
        self.held.give_back(share)
        self.holders = max(0, self.holders - 1)
        if math.isinf(share):
            self.unbounded = max(0, self.unbounded - 1)
        else:
            self.amount = max(0.0, self.amount - share)
        if self.holders == 0:
            self.amount = 0.0

    @precondition(lambda self: self.taken)
    @rule(data=st.data())
    def give_back_a_taken_share(self, data):
        share = self.taken.pop(data.draw(st.integers(0, len(self.taken) - 1)))
        self._give_back(share)

    @rule(share=shares)
    def give_back_more_than_taken(self, share):
        self.matched = False
        self._give_back(share)

    @invariant()
    def agrees(self):
        assert (self.held.holders, self.held.amount, self.held.unbounded) == (self.holders, self.amount, self.unbounded)
        assert self.held.amount >= 0.0 and self.held.unbounded >= 0
        if self.matched:
            assert self.held.holders >= self.held.unbounded
        if self.held.holders == 0:
            assert self.held.amount == 0.0 and type(self.held.amount) is float


test_held_follows_its_model = HeldModel.TestCase
