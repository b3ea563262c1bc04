"""The module written in plain Python: what the native module must be indistinguishable from.

The tests run the same operations on the native module and on this one and compare what they
return, raise, read, write and log, so it follows the described behaviour step by step: the same
lock, the same condition, the same admission rule, the same order of reads and writes. The
benchmarks time it beside the native module, so it stays plain: nothing on the hot paths that the
described code would not do. Docstrings and most annotations are left out; they cost nothing at run
time.
"""

from __future__ import annotations

import functools
import logging
import math
import threading
from collections.abc import Callable
from dataclasses import dataclass, field

logger = logging.getLogger(__name__)

_POLL_S = 0.1


class DecisionError(RuntimeError):
    pass


class DecisionBudgetExceeded(DecisionError):
    pass


class DecisionUnavailable(DecisionError):
    pass


class DecisionTimeout(DecisionError):
    pass


class DecisionStopped(DecisionError):
    pass


def never():
    return False


def _nothing(_reply):
    return None


class Share:
    def __init__(self, give_back=_nothing):
        self._give_back = give_back

    def settle(self, reply):
        give_back, self._give_back = self._give_back, None
        if give_back is not None:
            give_back(reply)

    def __enter__(self):
        return self

    def __exit__(self, *_exc):
        self.settle(None)


@dataclass
class _Held:
    holders: int = 0
    amount: float = 0.0
    unbounded: int = 0

    def admits(self, share, used, limit):
        if self.unbounded:
            return False
        if math.isinf(share) and self.holders:
            return False
        return used + self.amount < limit

    def take(self, share):
        self.holders += 1
        if math.isinf(share):
            self.unbounded += 1
        else:
            self.amount += share

    def give_back(self, share):
        self.holders = max(0, self.holders - 1)
        if math.isinf(share):
            self.unbounded = max(0, self.unbounded - 1)
        else:
            self.amount = max(0.0, self.amount - share)
        if self.holders == 0:
            self.amount = 0.0


def _wait(changed, stopping, *, deadline=None, clock=None):
    if stopping():
        raise DecisionStopped("the pass was asked to stop")
    timeout = _POLL_S
    if deadline is not None and clock is not None:
        left = deadline - clock()
        if left <= 0:
            raise DecisionTimeout(
                "the decision call ran out of its deadline while the calls in flight held the rest of "
                "the daily cost cap"
            )
        timeout = min(_POLL_S, left)
    changed.wait(timeout)


@dataclass
class _Charges:
    per_byte: float = 0.0
    per_call: float = 0.0

    def bound(self, size):
        return max(self.per_byte * size, self.per_call)

    def learn(self, size, charge):
        self.per_byte = max(self.per_byte, charge / max(size, 1))
        self.per_call = max(self.per_call, charge)


class RequestRates:
    def __init__(self):
        self._lock = threading.Lock()
        self._cost = _Charges()
        self._tokens = _Charges()
        self._features = set()

    def cost(self, size, feature):
        with self._lock:
            if feature in self._features:
                return self._cost.bound(size)
            return math.inf

    def tokens(self, size):
        with self._lock:
            if self._features:
                return self._tokens.bound(size)
            return math.inf

    def learn(self, size, feature, reply):
        with self._lock:
            self._features.add(feature)
            self._cost.learn(size, reply.cost)
            self._tokens.learn(size, reply.input_tokens)


@dataclass
class RunBudget:
    max_calls: int
    max_tokens: int
    calls: int = 0
    input_tokens: int = 0
    cost: float = 0.0
    cache_hits: int = 0
    in_flight: int = 0
    should_stop: Callable[[], bool] = field(default=never, repr=False, compare=False)
    _held_tokens: _Held = field(default_factory=_Held, repr=False, compare=False)
    _changed: threading.Condition = field(default_factory=threading.Condition, repr=False, compare=False)

    def stopping(self):
        return bool(self.should_stop())

    def exhausted(self):
        with self._changed:
            return self._exhausted_locked()

    def _exhausted_locked(self):
        return self.calls + self.in_flight >= self.max_calls or self.input_tokens >= self.max_tokens

    def reserve(self, tokens=0.0):
        if self.stopping():
            raise DecisionStopped("the pass was asked to stop")
        with self._changed:
            while True:
                if self._exhausted_locked():
                    raise DecisionBudgetExceeded(f"decision budget exhausted: {self._summary_locked()}")
                if self._held_tokens.admits(tokens, self.input_tokens, self.max_tokens):
                    self.in_flight += 1
                    self._held_tokens.take(tokens)
                    return
                _wait(self._changed, self.stopping)

    def hold(self, tokens):
        self.reserve(tokens)

        def give_back(reply):
            if reply is None:
                self.release(tokens)
            else:
                self.charge(reply, tokens)

        return Share(give_back)

    def release(self, tokens=0.0):
        with self._changed:
            self.in_flight = max(0, self.in_flight - 1)
            self._held_tokens.give_back(tokens)
            self._changed.notify_all()

    def charge(self, result, tokens=0.0):
        with self._changed:
            if result.cached:
                self.cache_hits += 1
                return
            self.in_flight = max(0, self.in_flight - 1)
            self._held_tokens.give_back(tokens)
            self.calls += 1
            self.input_tokens += result.input_tokens
            self.cost += result.cost
            self._changed.notify_all()

    def summary(self):
        with self._changed:
            return self._summary_locked()

    def _summary_locked(self):
        return {
            "calls": self.calls,
            "cache_hits": self.cache_hits,
            "input_tokens": self.input_tokens,
            "cost_usd": round(self.cost, 6),
            "max_calls": self.max_calls,
            "max_tokens": self.max_tokens,
        }


class DailySpend:
    def __init__(self, cap, today, ledger):
        self._cap = cap
        self._today = today
        self._ledger = ledger
        self._changed = threading.Condition()
        self._held = _Held()
        self._day = ""
        self._cost = 0.0
        self._capped = False

    def spent(self):
        with self._changed:
            return self._today_locked()

    def admit(self, bound, *, deadline, clock, stopping):
        with self._changed:
            while True:
                cost = self._today_locked()
                if not cost < self._cap:
                    break
                held = bound()
                if self._held.admits(held, cost, self._cap):
                    self._held.take(held)
                    return Share(functools.partial(self._give_back, held))
                _wait(self._changed, stopping, deadline=deadline, clock=clock)
            first = not self._capped
            self._capped = True
        if first:
            logger.warning(
                "The daily decision cost cap is reached: $%.4f of $%.2f spent today (UTC); paid calls "
                "resume tomorrow, cached answers are still used",
                cost,
                self._cap,
            )
        raise DecisionBudgetExceeded(
            "the daily decision cost cap is reached: $"
            + format(cost, ".4f")
            + " of $"
            + format(self._cap, ".2f")
            + " spent today (UTC)"
        )

    def charge(self, reply):
        with self._changed:
            self._today_locked()
            self._cost += reply.cost
            self._changed.notify_all()

    def _give_back(self, held, reply):
        with self._changed:
            # Given back even when counting the reply fails: no call holds the amount any more, and
            # left held it would keep later admissions waiting for good.
            try:
                if reply is not None:
                    self._today_locked()
                    self._cost += reply.cost
            finally:
                self._held.give_back(held)
                self._changed.notify_all()

    def _today_locked(self):
        today = self._today()
        if today != self._day:
            spent = self._spent_since(today)
            self._day = today
            self._cost = spent
            self._capped = False
        return self._cost

    def _spent_since(self, day):
        if self._ledger is None:
            return 0.0
        try:
            return float(self._ledger(day))
        except Exception:
            logger.warning(
                "Could not read what the decision calls of %s cost; the daily cap counts from 0", day, exc_info=True
            )
            return 0.0
