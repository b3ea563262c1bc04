"""Awaitable admissions of ``engines.decision_bounds``, for decision clients written with asyncio.

``await hold(budget, tokens)`` is ``budget.hold(tokens)`` and ``await admit(daily, bound, ...)`` is
``daily.admit(bound, ...)``: the same shares, the same errors, the same rules. A call with no room
awaits instead of blocking its event loop: the loop goes on running its other tasks meanwhile.

A call is tried at once on the loop's own thread; only a call that finds no room waits. Its bound
object then gets one waker thread, shared by all the tasks (of any loop) that wait on it and gone
once none waits: it tries them again whenever a call in flight ends, and at least every
``_POLL_S``, so a stop or a deadline is seen as soon as a blocking call would see it. The loop's
default executor is never used.

A task cancelled while it waits holds nothing afterwards: a share that it was being handed as the
cancel landed is given back.
"""

# The glue is Python because asyncio's futures, loops and cancellation are Python objects. Every
# admission decision is the native module's: the waker only runs its non-blocking tries (one round
# of the blocking call's own loop, under the bound's own lock) and passes on what they return.

from __future__ import annotations

import asyncio
import contextlib
import functools
import importlib.machinery
import importlib.util
import math
import threading
import time
from collections.abc import Callable
from typing import Any, Protocol, cast

from engines import decision_bounds
from engines.decision_bounds import DailySpend, RunBudget, Share


def _load_attempts() -> Any:
    # The tries live in the same library as the module, as a second module of its own.
    origin = decision_bounds.__spec__.origin
    assert origin is not None
    loader = importlib.machinery.ExtensionFileLoader("engines._decision_bounds_attempts", origin)
    spec = importlib.util.spec_from_loader(loader.name, loader, origin=origin)
    assert spec is not None
    module = importlib.util.module_from_spec(spec)
    loader.exec_module(module)
    return module


_attempts = _load_attempts()

# A try: (share, None) once admitted, (None, seconds) when it should be tried again within seconds.
_Try = Callable[[], tuple[Share | None, float | None]]


class _Waiter:
    """One waiting task: its loop, the future it awaits, and how to try it again."""

    __slots__ = ("loop", "future", "attempt", "share")

    def __init__(self, loop: asyncio.AbstractEventLoop, attempt: _Try) -> None:
        self.loop = loop
        self.future: asyncio.Future[Share] = loop.create_future()
        self.attempt = attempt
        # The share the waker admitted it with, until the task or the loop takes it: written under
        # the bound's lock, taken on the loop's thread.
        self.share: Share | None = None


def _deliver(waiter: _Waiter) -> None:
    """On the waiter's loop: hands it the share the waker admitted it with."""
    share, waiter.share = waiter.share, None
    if share is None:  # the task was cancelled and gave it back already
        return
    if waiter.future.done():  # cancelled since: nobody will take it
        share.settle(None)
    else:
        waiter.future.set_result(share)


def _fail(waiter: _Waiter, error: BaseException) -> None:
    """On the waiter's loop: hands it what its try raised."""
    if waiter.future.done():
        return
    if isinstance(error, StopIteration):  # a future refuses it, as a coroutine does
        wrapped = RuntimeError("a callback of the bound raised StopIteration")
        wrapped.__cause__ = error
        error = wrapped
    waiter.future.set_exception(error)


# The wakers by id() of their bound object (a RunBudget is unhashable); a waker holds its object, so
# the id stays its own while the waker is listed. Lock order: an object's condition, then this lock.
_wakers: dict[int, _Waker] = {}
_wakers_lock = threading.Lock()


class _Owner(Protocol):
    """A bound object: a RunBudget or a DailySpend, each with the condition of its own lock."""

    @property
    def _changed(self) -> threading.Condition: ...


class _Waker:
    """The thread that waits for room on behalf of every task waiting on one bound object."""

    def __init__(self, owner: _Owner) -> None:
        self.owner = owner
        self.changed = owner._changed
        # Under `changed`: the waiting tasks in the order they came, and when the waker's sleep ends.
        self.waiters: dict[_Waiter, None] = {}
        self.until = -math.inf
        self.thread = threading.Thread(
            target=self._run, name=f"decision_bounds waker of {type(owner).__name__}", daemon=True
        )

    def withdraw(self, waiter: _Waiter) -> Share | None:
        """Takes a cancelled task out; the share it was admitted with, if its delivery is under way."""
        with self.changed:
            self.waiters.pop(waiter, None)
            share, waiter.share = waiter.share, None
            return share

    def _run(self) -> None:
        changed = self.changed
        with changed:
            try:
                while True:
                    wait = self._round()
                    if not self.waiters:
                        with _wakers_lock:
                            del _wakers[id(self.owner)]
                        return
                    if wait is not None:
                        # No release between the tries and the wait: a give-back after the last try
                        # notifies this wait.
                        self.until = time.monotonic() + wait
                        changed.wait(wait)
            except BaseException as error:  # a fault of the waker itself: no task may wait for it
                with _wakers_lock:
                    _wakers.pop(id(self.owner), None)
                for waiter in self.waiters:
                    with contextlib.suppress(RuntimeError):
                        waiter.loop.call_soon_threadsafe(_fail, waiter, error)
                raise

    def _round(self) -> float | None:
        """Tries every waiter once, under the owner's lock; how long to sleep before the next
        round, None when the round gave something back and must be followed at once."""
        wait: float | None = None
        again = False
        for waiter in list(self.waiters):
            if waiter.loop.is_closed():  # its task can never run again
                del self.waiters[waiter]
                continue
            try:
                share, seconds = waiter.attempt()
            except BaseException as error:  # passed on to the task, as the blocking call raises it
                del self.waiters[waiter]
                with contextlib.suppress(RuntimeError):  # a loop closed meanwhile
                    waiter.loop.call_soon_threadsafe(_fail, waiter, error)
                continue
            if share is None:
                assert seconds is not None
                wait = seconds if wait is None else min(wait, seconds)
                continue
            del self.waiters[waiter]
            waiter.share = share
            try:
                waiter.loop.call_soon_threadsafe(_deliver, waiter)
            except RuntimeError:  # the loop closed meanwhile: nobody will take it
                waiter.share = None
                share.settle(None)
                again = True  # the others may fit now; its notify_all reached no sleeper
        return None if again else wait


def _enlist(owner: _Owner, waiter: _Waiter, seconds: float) -> _Waker:
    """Puts a task whose try just found no room among the owner's waiters, under the owner's lock
    still held since that try: no give-back can come between them unseen."""
    with _wakers_lock:
        waker = _wakers.get(id(owner))
        new = waker is None
        if waker is None:
            waker = _wakers[id(owner)] = _Waker(owner)
    waker.waiters[waiter] = None
    if new:  # its first round tries the newcomer
        try:
            waker.thread.start()
        except BaseException:
            with _wakers_lock:
                del _wakers[id(owner)]
            raise
    elif time.monotonic() + seconds < waker.until:
        # It must be tried again before the sleeping waker's next round: its deadline comes first.
        # Otherwise nothing it waits for can change without a give-back, which wakes the waker.
        waker.changed.notify_all()
    return waker


async def _wait(owner: _Owner, attempt: _Try) -> Share:
    """Tries again under the owner's lock and, still without room, awaits the share that the
    owner's waker admits ``attempt`` with."""
    loop = asyncio.get_running_loop()
    with owner._changed:
        share, seconds = attempt()
        if share is not None:
            return share
        assert seconds is not None
        waiter = _Waiter(loop, attempt)
        waker = _enlist(owner, waiter, seconds)
    try:
        return await waiter.future
    except BaseException:
        # Cancelled (or its loop is going away): nothing may stay held for this task.
        share = waker.withdraw(waiter)
        if share is not None:  # admitted, its delivery still on the way
            share.settle(None)
        future = waiter.future
        if future.done() and not future.cancelled():
            if future.exception() is None:  # delivered, but the task did not resume in time
                future.result().settle(None)
        raise


async def hold(budget: RunBudget, tokens: float) -> Share:
    """Hold a call slot and ``tokens`` of ``budget``, as :meth:`RunBudget.hold` does, awaiting
    room instead of blocking the event loop while the calls in flight hold the rest of the tokens.

    Args:
        budget: The batch pass's budget.
        tokens: The most input tokens the call may use; ``math.inf`` when that is not known.

    Returns:
        The share that ``budget.hold(tokens)`` makes: settled with the paid reply, or given back
        unsettled when its ``with`` block ends.

    Raises:
        DecisionBudgetExceeded: The pass's call slots or settled tokens are used up.
        DecisionStopped: The pass is stopping.

    A task cancelled while it awaits holds nothing afterwards.
    """
    share, _ = _attempts.hold(budget, tokens, True)
    if share is not None:
        return cast(Share, share)
    return await _wait(budget, functools.partial(_attempts.hold, budget, tokens, False))


async def admit(
    daily: DailySpend,
    bound: Callable[[], float],
    *,
    deadline: float | None,
    clock: Callable[[], float],
    stopping: Callable[[], bool],
) -> Share:
    """Hold what a paid call may cost of ``daily``, as :meth:`DailySpend.admit` does, awaiting
    room instead of blocking the event loop while the calls in flight hold the rest of the cap.

    Args:
        daily: The day's account.
        bound: The most the call may cost, USD (``math.inf`` when not known), asked again
            after each wait.
        deadline: When the call ends, on ``clock``; None: it waits until a call in flight
            ends or ``stopping`` says so.
        clock: The client's monotonic clock.
        stopping: Whether the pass the call belongs to is stopping.

    Returns:
        The share that ``daily.admit`` makes: settled with the paid reply, it counts the reply's
        cost today.

    Raises:
        DecisionBudgetExceeded: Today's settled calls cost the cap (warned once a day).
        DecisionTimeout: The deadline passed while the calls in flight held the rest.
        DecisionStopped: The pass is stopping.

    ``bound``, ``clock`` and ``stopping`` are called with the account's lock held: on the loop's
    thread for the first try, then on the account's waker thread. A task cancelled while it awaits
    holds nothing afterwards.
    """
    attempt = functools.partial(_attempts.admit, daily, bound, deadline, clock, stopping)
    share, _ = attempt()
    if share is not None:
        return cast(Share, share)
    return await _wait(cast(_Owner, daily), attempt)
