import functools
import logging
import math
import sys
import threading
import time

import pytest

from engines import decision_bounds as db

from support import Reply, lock_is_free

LEDGER_WARNING = "Could not read what the decision calls of %s cost; the daily cap counts from 0"
CAP_WARNING = ("The daily decision cost cap is reached: $%.4f of $%.2f spent today (UTC); paid calls resume "
               "tomorrow, cached answers are still used")
NO_WAIT = dict(deadline=None, clock=time.monotonic, stopping=lambda: False)
DAY, NEXT = "2026-03-01", "2026-03-02"


class Calendar:
    """Today's date, which a test moves on, and a ledger answering from a table (or raising) that counts calls."""

    def __init__(self, figures=()):
        self.day, self.figures, self.asked = DAY, dict(figures), []
        self.today = lambda: self.day

    def ledger(self, day):
        self.asked.append(day)
        figure = self.figures.get(day, 0.0)
        if isinstance(figure, BaseException):
            raise figure
        return figure


def logged(caplog, message):
    return [r for r in caplog.records if r.name == db.__name__ and r.msg == message]


@pytest.mark.parametrize("figure, spent, error", [
    (1.5, 1.5, None), ("2.25", 2.25, None), (None, 0.0, TypeError), ("lots", 0.0, ValueError),
    (OSError("disk"), 0.0, OSError)])
def test_ledger_reading(caplog, figure, spent, error):
    calendar = Calendar({DAY: figure})
    account = db.DailySpend(10.0, calendar.today, calendar.ledger)
    try:
        raise LookupError
    except LookupError as outer:
        assert [account.spent(), account.spent()] == [spent] * 2 and type(account.spent()) is float
        assert sys.exc_info()[1] is outer  # the ledger's error was the handled one only while logged
    assert calendar.asked == [DAY] and account._day == DAY
    records = logged(caplog, LEDGER_WARNING)
    assert [(r.levelno, r.args, r.exc_info and r.exc_info[0]) for r in records] == (
        [(logging.WARNING, (DAY,), error)] if error else [])
    if isinstance(figure, OSError):
        assert records[0].exc_info[1] is figure and records[0].exc_info[2] is not None


@pytest.mark.parametrize("spend, cap, message", [
    (5.01234, 5, "$5.0123 of $5.00"), (10.0, 10.0, "$10.0000 of $10.00"), (12, 10.5, "$12.0000 of $10.50")])
def test_refusal_when_settled_spend_reaches_cap(caplog, spend, cap, message):
    calendar = Calendar({DAY: spend, NEXT: spend})
    account = db.DailySpend(cap, calendar.today, calendar.ledger)
    asked, free, probe = [], [], logging.Handler()
    probe.emit = lambda record: free.append(lock_is_free(account._changed))
    db.logger.addHandler(probe)
    for calendar.day in (DAY, DAY, NEXT):
        with pytest.raises(db.DecisionBudgetExceeded) as raised:
            account.admit(lambda: asked.append(1), deadline=0.0, clock=asked.append, stopping=asked.append)
        assert raised.value.args == (f"the daily decision cost cap is reached: {message} spent today (UTC)",)
        assert raised.value.__cause__ is None and lock_is_free(account._changed)
    db.logger.removeHandler(probe)
    assert asked == [] and account._held == db._Held() and free == [True, True]
    assert [(r.args, r.exc_info) for r in logged(caplog, CAP_WARNING)] == [((spend, cap), None)] * 2


@pytest.mark.parametrize("ending, outcome", [
    ("give_back", db.Share), ("deadline", db.DecisionTimeout), ("stop", db.DecisionStopped)])
def test_wait_ends(monkeypatch, ending, outcome):
    if ending == "give_back":  # only the give-back's notification can end this wait in time
        monkeypatch.setattr(db, "_POLL_S", 20.0)
    account = db.DailySpend(1.0, lambda: DAY, None)
    blocker = account.admit(lambda: math.inf, **NO_WAIT)
    asked, ended, stop, waiting = [], [], threading.Event(), threading.Event()
    deadline = time.monotonic() + (0.2 if ending == "deadline" else 30.0)

    def bound():
        asked.append(account._changed._is_owned())
        waiting.set()
        return 0.1

    def waiter():
        try:
            ended.append(account.admit(bound, deadline=deadline, clock=time.monotonic, stopping=stop.is_set))
        except db.DecisionError as error:
            ended.append(error)

    t = threading.Thread(target=waiter, daemon=True)
    t.start()
    assert waiting.wait(5)
    time.sleep(0.05)
    {"give_back": lambda: blocker.settle(None), "stop": stop.set, "deadline": lambda: None}[ending]()
    t.join(10)
    assert not t.is_alive() and len(asked) >= 2 and all(asked)  # bound() asked again, under the lock
    assert isinstance(ended[0], outcome) and lock_is_free(account._changed)


def test_share_held_across_midnight_counts_on_new_day():
    calendar = Calendar({DAY: 9.0, NEXT: 3.0})
    account = db.DailySpend(10.0, calendar.today, calendar.ledger)
    share = account.admit(lambda: 0.5, **NO_WAIT)
    released = account.admit(lambda: 0.25, **NO_WAIT)
    assert isinstance(share._give_back, functools.partial) and share._give_back.args == (0.5,)
    assert share._give_back.func == account._give_back and not share._give_back.keywords
    account._capped, calendar.day = True, NEXT
    released.settle(None)  # a release counts nothing and does not look at the date
    assert account._day == DAY and account._held.amount == 0.5
    share.settle(Reply(cost=0.75, cached=True))
    assert (account._day, account._cost, account._capped, account._held) == (NEXT, 3.75, False, db._Held())
    calendar.day = "2026-03-03"
    account.charge(Reply(cost=0.5))
    assert account.spent() == 0.5 and calendar.asked == [DAY, NEXT, "2026-03-03"]


def test_surface():
    D = db.DailySpend
    assert D.__bases__ == (object,) and [k for k in vars(D) if callable(vars(D)[k])] == [
        "__init__", "spent", "admit", "charge", "_give_back", "_today_locked", "_spent_since"]
    assert list(vars(D(1.0, str, None))) == ["_cap", "_today", "_ledger", "_changed", "_held", "_day", "_cost",
                                             "_capped"]
    assert D.__doc__ == (
        "What the paid calls of each UTC day cost against ``kel.daily_cost_cap_usd``, and what the\n    calls in "
        "flight hold of it. A day starts from what the ledger says it has cost so far. The calls\n    in flight "
        "hold their shares across midnight: each is counted on the day it settles.")
