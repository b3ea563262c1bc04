"""Details in which the module must be what the same module written in Python is: the order in which
it reads and writes attributes, how its shares pickle and copy, and the frames that its exceptions
carry. Each is compared with the module's plain-Python twin."""

import copy
import gc
import logging
import math
import pickle
import sys
import threading
import traceback
from functools import partial

import pytest

from engines import decision_bounds as db

from support import NoCost, Reply, failing, outcome, run_python, twin


class Log(list):
    """What was read, written, called and formatted, while `on`."""

    on = False

    def note(self, entry):
        if self.on:
            self.append(entry)


LOG = Log()


def recording(cls, tag):
    """A subclass of `cls` whose instances log the names of the attributes read and written on them."""
    class Recording(cls):
        def __getattribute__(self, name):
            LOG.note(f"{tag}.{name}")
            return super().__getattribute__(name)

        def __setattr__(self, name, value):
            LOG.note(f"{tag}.{name} =")
            super().__setattr__(name, value)

    return Recording


def proxy(target, tag):
    """`target` seen through an object that logs the names read on it."""
    class Proxy:
        def __getattribute__(self, name):
            LOG.note(f"{tag}.{name}")
            return getattr(target, name)

    return Proxy()


def called(name, *results):
    """A callable that logs its calls and gives `results` in turn, the last one from then on."""
    answers = list(results)

    def call(*args):
        LOG.note(f"{name}()")
        return answers.pop(0) if len(answers) > 1 else answers[0] if answers else None

    return call


def amount(tag, value):
    """A float whose formatting is logged."""
    class Amount(float):
        def __format__(self, spec):
            LOG.note(f"{tag}:{spec}")
            return super().__format__(spec)

    return Amount(value)


def reply(cached=False):
    return recording(Reply, "reply")(0.25, 40, cached)


def held(m, *taken):
    h = recording(m._Held, "held")()
    for share in taken:
        h.take(share)
    return h


def charges(m, tag="charges"):
    c = recording(m._Charges, tag)()
    c.learn(100, 0.5)
    return c


def rates(m):
    r = recording(m.RequestRates, "rates")()
    r._cost, r._tokens = charges(m, "cost"), charges(m, "tokens")
    r.learn(100, "a", reply())
    return r


def budget(m, max_calls=5, stops=(False,), held_tokens=()):
    b = recording(m.RunBudget, "budget")(max_calls, 100, should_stop=called("should_stop", *stops))
    b._held_tokens = held(m, *held_tokens)
    return b


def daily(m, ledger=None, held_amounts=(), started=True):
    d = recording(m.DailySpend, "daily")(10.0, called("today", "2026-11-23"), ledger)
    # Its condition's `with` block reads `_lock`: the log shows what is done under the lock.
    d._held, d._changed = held(m, *held_amounts), recording(threading.Condition, "changed")()
    if started:
        d.spent()
    return d


def admit(d, deadline=None, clock=(0.0,)):
    return partial(d.admit, called("bound", 1.0), deadline=deadline, clock=called("clock", *clock),
                   stopping=called("stopping", False))


def refused(m):
    d = daily(m)
    d._cost, d._cap = amount("cost", 12.0), amount("cap", 10.0)
    return admit(d)


def learn_without_learn(m):
    # Python reads `self._cost.learn` before it reads the reply's cost.
    obj = recording(type("Plain", (), {}), "obj")()
    obj._lock, obj._features, obj._cost, obj._tokens = threading.Lock(), set(), object(), object()
    return partial(m.RequestRates.learn, obj, 10, "a", recording(NoCost, "reply")())


def hold(m):
    b = budget(m)
    return b, b.hold(10.0)


def wait(m, now, stop=False):
    return partial(m._wait, recording(threading.Condition, "changed")(), called("stopping", stop), deadline=1.0,
                   clock=called("clock", now))


# Each case makes its objects (nothing logged yet) and gives the operation to run (logged).
CASES = {
    "Share.__init__": lambda m: partial(recording(m.Share, "share"), called("give_back")),
    "Share.settle": lambda m: partial(recording(m.Share, "share")(called("give_back")).settle, reply()),
    "Share.__exit__": lambda m: partial(recording(m.Share, "share")(called("give_back")).__exit__, None, None, None),
    "_Held.admits": lambda m: partial(held(m, 3.0).admits, 4.0, 6.0, 10.0),
    "_Held.admits-unbounded": lambda m: partial(held(m, 3.0).admits, math.inf, 6.0, 10.0),
    "_Held.take": lambda m: partial(held(m, 3.0).take, 2.0),
    "_Held.take-unbounded": lambda m: partial(held(m).take, math.inf),
    "_Held.give_back": lambda m: partial(held(m, 3.0, 1.0).give_back, 3.0),
    "_Held.give_back-last": lambda m: partial(held(m, math.inf).give_back, math.inf),
    "_wait-late": lambda m: wait(m, 1.5),
    "_wait-now": lambda m: wait(m, 1.0),  # a deadline of exactly now has passed
    "_wait-stopped": lambda m: wait(m, 0.0, stop=True),  # the clock is not read
    "_wait": lambda m: wait(m, 0.999),  # without the lock: refused
    "_Charges.bound": lambda m: partial(charges(m).bound, 300),
    "_Charges.learn": lambda m: partial(charges(m).learn, 10, 0.25),
    "RequestRates.__init__": lambda m: recording(m.RequestRates, "rates"),
    "RequestRates.cost": lambda m: partial(rates(m).cost, 300, "a"),
    "RequestRates.cost-unknown": lambda m: partial(rates(m).cost, 300, "b"),
    "RequestRates.tokens": lambda m: partial(rates(m).tokens, 300),
    "RequestRates.learn": lambda m: partial(rates(m).learn, 50, "b", reply()),
    "RequestRates.learn-no-learn": learn_without_learn,
    "RunBudget.stopping": lambda m: budget(m).stopping,
    "RunBudget.exhausted": lambda m: budget(m).exhausted,
    "RunBudget._exhausted_locked": lambda m: budget(m)._exhausted_locked,
    "RunBudget.reserve": lambda m: partial(budget(m, held_tokens=(10.0,)).reserve, 5.0),
    "RunBudget.reserve-exhausted": lambda m: partial(budget(m, max_calls=0).reserve, 5.0),
    "RunBudget.reserve-exhausted-no-class": lambda m: partial(budget(m, max_calls=0).reserve, 5.0),
    "RunBudget.reserve-waits": lambda m: partial(budget(m, stops=(False, False, True), held_tokens=(math.inf,)).reserve),
    "RunBudget.hold": lambda m: partial(budget(m).hold, 10.0),
    "RunBudget.release": lambda m: partial(hold(m)[0].release, 10.0),
    "RunBudget.charge": lambda m: partial(hold(m)[0].charge, reply(), 10.0),
    "RunBudget.charge-cached": lambda m: partial(budget(m).charge, reply(cached=True)),
    "RunBudget.hold-settle": lambda m: partial(hold(m)[1].settle, reply()),
    "RunBudget.summary": lambda m: budget(m).summary,
    "RunBudget._summary_locked": lambda m: budget(m)._summary_locked,
    "DailySpend.__init__": lambda m: partial(recording(m.DailySpend, "daily"), 10.0, called("today", "x"), None),
    "DailySpend.spent": lambda m: daily(m, ledger=called("ledger", "1.5"), started=False).spent,
    "DailySpend._today_locked": lambda m: daily(m)._today_locked,
    "DailySpend._spent_since": lambda m: partial(daily(m, called("ledger", None), started=False)._spent_since, "x"),
    "DailySpend._spent_since-no-ledger": lambda m: partial(daily(m)._spent_since, "2026-11-23"),
    "DailySpend.admit": lambda m: admit(daily(m, held_amounts=(3.0,))),
    "DailySpend.admit-refused": refused,
    "DailySpend.admit-refused-no-class": refused,
    "DailySpend.admit-no-share": lambda m: admit(daily(m)),
    "DailySpend.admit-times-out": lambda m: admit(daily(m, held_amounts=(math.inf,)), 0.01, (0.0, 0.0, 1.0)),
    "DailySpend.charge": lambda m: partial(daily(m).charge, reply()),
    "DailySpend._give_back": lambda m: partial(daily(m, held_amounts=(1.0,))._give_back, 1.0, reply()),
    "DailySpend._give_back-none": lambda m: partial(daily(m)._give_back, 1.0, None),
}
DELETED = {"RunBudget.reserve-exhausted-no-class": "DecisionBudgetExceeded",
           "DailySpend.admit-refused-no-class": "DecisionBudgetExceeded", "DailySpend.admit-no-share": "Share"}


@pytest.fixture
def namespaces_kept():
    """Puts both namespaces back in their order after a test deletes and restores names."""
    saved = [(vars(m), dict(vars(m))) for m in (db, twin())]
    yield
    for namespace, names in saved:
        namespace.clear()
        namespace.update(names)


@pytest.mark.parametrize("case", CASES)
def test_reads_and_writes_in_the_order_of_python(namespaces_kept, monkeypatch, case):
    got = []
    for m in (db, twin()):
        for name in ("math", "threading", "functools", "logger"):
            monkeypatch.setattr(m, name, proxy(getattr(m, name), name))
        if case in DELETED:
            monkeypatch.delattr(m, DELETED[case])
        run, LOG[:] = CASES[case](m), []
        LOG.on = True
        try:
            got.append((outcome(run), list(LOG)))
        finally:
            LOG.on = False
    assert got[0] == got[1]


def copied_share(m, copier):
    share = copier(m.Share())
    return type(share) is m.Share and vars(share) == {"_give_back": m._nothing}


def test_shares_and_their_give_backs_copy_and_pickle_as_in_python():
    got = []
    for m in (db, twin()):
        give_back = m.RunBudget(5, 100).hold(1.0)._give_back
        got.append([outcome(lambda: copied_share(m, copy.copy)), outcome(lambda: copied_share(m, copy.deepcopy)),
                    outcome(lambda: copied_share(m, lambda share: pickle.loads(pickle.dumps(share)))),
                    outcome(lambda: copy.copy(give_back) is give_back), outcome(lambda: pickle.dumps(give_back))])
    assert got[0] == got[1]


def kept_as_python_keeps_them(m):
    """What the collector sees each object refer to after a paid call's road: its attributes (kept
    in place) or an attribute dict that something asked for."""
    rates, budget, daily = m.RequestRates(), m.RunBudget(5, 1000), m.DailySpend(10.0, lambda: "2026-11-23", None)
    with budget.hold(rates.tokens(100)) as share:
        daily.admit(partial(rates.cost, 100, "a"), deadline=None, clock=failing, stopping=failing).settle(Reply(0.5, 40))
        share.settle(Reply(0.5, 40))
    rates.learn(100, "a", Reply(0.5, 40))
    budget.reserve(1.0)
    budget.charge(Reply(0.25, 10), 1.0)
    return [sorted(type(referent).__name__ for referent in gc.get_referents(obj))
            for obj in (rates, rates._cost, budget, budget._held_tokens, budget._changed, daily, daily._held,
                        daily._changed, share)]


def test_objects_keep_their_attributes_where_python_keeps_them():
    assert kept_as_python_keeps_them(db) == kept_as_python_keeps_them(twin())


def frames(m, run):
    """The functions that the exception of `run` passed through, below this one."""
    try:
        run(m)
    except Exception as error:  # noqa: BLE001 - its frames are compared
        return [frame.name for frame in traceback.extract_tb(error.__traceback__)[2:]]
    raise AssertionError("nothing was raised")


@pytest.mark.parametrize("run", [
    pytest.param(lambda m: m.RunBudget(0, 10).hold(1.0), id="exhausted"),
    pytest.param(lambda m: m.RunBudget(5, 10, should_stop=failing).hold(1.0), id="failing-stop"),
    pytest.param(lambda m: m.RunBudget(5, 10, should_stop=lambda stop: stop).hold(1.0), id="stop-without-argument"),
    pytest.param(lambda m: m.RunBudget(5, 10, should_stop=iter([0, 0, 1]).__next__, _held_tokens=held(m, math.inf))
                 .hold(1.0), id="stopped-while-waiting"),
    pytest.param(lambda m: m.RunBudget(5, 10).hold(1.0).settle(NoCost()), id="reply-without-cost"),
    pytest.param(lambda m: m.DailySpend(1.0, failing, None).admit(lambda: 0.1, deadline=None, clock=failing,
                                                                  stopping=failing), id="failing-today"),
    pytest.param(lambda m: m.DailySpend(1.0, lambda: "2026-11-23", None).admit(
        lambda cost: cost, deadline=None, clock=failing, stopping=failing), id="bound-without-argument"),
])
def test_an_exception_shows_the_functions_it_passed_through(run):
    assert frames(db, run) == frames(twin(), run)


def test_the_unreadable_ledgers_warning_shows_where_it_failed():
    tracebacks = []
    for m in (db, twin()):
        records = []
        handler = logging.Handler()
        handler.emit = records.append
        m.logger.addHandler(handler)
        try:
            raise LookupError
        except LookupError as handled:
            m.DailySpend(1.0, lambda: "2026-11-23", lambda day: None).spent()  # float(None) fails
            assert sys.exc_info()[1] is handled  # the ledger's error was the one handled only while logged
        finally:
            m.logger.removeHandler(handler)
        tracebacks.append(records[0].exc_info[2])
    assert [f.name for f in traceback.extract_tb(tracebacks[0])] == [f.name for f in traceback.extract_tb(tracebacks[1])]
    assert tracebacks[0].tb_frame.f_code is db.DailySpend._spent_since.__code__


def test_importing_it_leaves_no_class_of_its_own_making_behind():
    assert run_python("""
        import __future__, collections.abc, dataclasses, functools, logging, math, threading, typing
        before = set(map(id, object.__subclasses__()))
        import engines.decision_bounds as db
        known = before | set(map(id, vars(db).values())) | {id(type(db.never))}
        print([c.__qualname__ for c in object.__subclasses__() if id(c) not in known])
        """) == "[]"
