"""The awaitable hold and admit: tasks of two loops and threads on one bound, a cancel wherever it
lands, what ends a wait, the loop never blocked, one waker thread per waited-on bound."""

import asyncio
import collections
import concurrent.futures
import contextlib
import functools
import math
import os
import random
import statistics
import threading
import time

import pytest

from engines import decision_bounds as db
from engines import decision_bounds_asyncio as dba

from support import Reply, recording_held


# Under the sanitizers every call is some times slower: the time limits are wider there.
SLOWER = 4 if "libasan" in os.environ.get("LD_PRELOAD", "") else 1


class NoExecutor(concurrent.futures.ThreadPoolExecutor):
    def submit(self, *args, **kwargs):
        raise AssertionError("the loop's default executor was used")


def run(main, timeout=30.0):
    """`main()` on a new loop whose default executor fails if used: its result, and the longest gap
    between the ticks (every ms) of a heartbeat task on that loop."""
    gaps = [0.0]

    async def beat():
        last = time.perf_counter()
        while True:
            await asyncio.sleep(0.001)
            now = time.perf_counter()
            gaps.append(now - last)
            last = now

    async def body():
        asyncio.get_running_loop().set_default_executor(NoExecutor(1))
        heart = asyncio.create_task(beat())
        try:
            return await asyncio.wait_for(main(), timeout)
        finally:
            heart.cancel()

    return asyncio.run(body()), max(gaps)


def admit(daily, bound, deadline=None, stopping=db.never):
    bound = bound if callable(bound) else functools.partial(float, bound)
    return dba.admit(daily, bound, deadline=deadline, clock=time.monotonic, stopping=stopping)


def settled(budget, daily):
    return budget.in_flight == 0 and budget._held_tokens.holders == 0 and daily._held.holders == 0


@pytest.fixture
def bounds():
    budget, daily = db.RunBudget(10**6, 10**9), db.DailySpend(1.0, today=lambda: "2031-05-06", ledger=None)
    yield budget, daily
    assert settled(budget, daily)


@pytest.mark.parametrize("recorded", [True, False], ids=["each admission checked", "standard records"])
def test_tasks_of_two_loops_and_threads_share_one_budget_and_one_account(monkeypatch, recorded):
    monkeypatch.setattr(db, "_POLL_S", 0.005)
    done, tally, stop = collections.Counter(), threading.Lock(), threading.Event()
    wait = dba._wait

    def counted_wait(owner, attempt):  # a wait that reaches a waker
        done["waits"] += 1
        return wait(owner, attempt)

    monkeypatch.setattr(dba, "_wait", counted_wait)
    budget = db.RunBudget(max_calls=600, max_tokens=30_000, should_stop=stop.is_set)
    daily, broken, broken_daily = db.DailySpend(5.0, today=lambda: "2031-05-06", ledger=None), [], []
    if recorded:  # subclasses: the admissions take the step-by-step code
        # Each admission checked under its owner's lock; a slot beyond the pass's counts as a break.
        budget._held_tokens, broken = recording_held(
            lambda: budget.input_tokens if budget.calls + budget.in_flight <= budget.max_calls else math.inf, 30_000)
        daily._held, broken_daily = recording_held(lambda: daily._cost, 5.0)

    def step(rng):  # the shares of one call, the time it is in flight, and how it settles
        tokens = math.inf if rng.random() < 0.1 else rng.choice([10, 60])
        cost = math.inf if rng.random() < 0.1 else 0.004
        deadline = time.monotonic() + 0.001 if rng.random() < 0.5 else None
        reply = Reply(rng.choice([0.001, 0.004]), rng.randint(0, 40)) if rng.random() < 0.7 else None
        return tokens, cost, deadline, rng.choice([0, 0.001, 0.003]), reply

    @contextlib.contextmanager
    def call(reply):
        try:
            yield
            with tally:
                done.update(paid=reply is not None, tokens=reply.input_tokens if reply else 0)
        except db.DecisionError as error:
            with tally:
                done[type(error).__name__] += 1

    async def task(index, rng):
        for n in range(40):
            if (index, n) == (0, 38):
                stop.set()
            tokens, cost, deadline, busy, reply = step(rng)
            await asyncio.sleep(0)  # a refused call does not await: the gaps are the module's alone
            with call(reply), await dba.hold(budget, tokens) as pass_share, await admit(
                    daily, cost, deadline, budget.stopping) as day_share:
                await asyncio.sleep(busy)
                day_share.settle(reply), pass_share.settle(reply)

    def thread(rng):
        for _ in range(60):
            tokens, cost, deadline, busy, reply = step(rng)
            with call(reply), budget.hold(tokens) as pass_share, daily.admit(
                    lambda: cost, deadline=deadline, clock=time.monotonic, stopping=budget.stopping) as day_share:
                time.sleep(busy)
                day_share.settle(reply), pass_share.settle(reply)

    async def tasks(base):
        return await asyncio.gather(*(task(base + i, random.Random(base + i)) for i in range(24)))

    gaps = []
    workers = [threading.Thread(target=lambda b=b: gaps.append(run(lambda: tasks(b))[1]), daemon=True)
               for b in (0, 100)]
    workers += [threading.Thread(target=thread, args=(random.Random(i),), daemon=True) for i in range(4)]
    for worker in workers:
        worker.start()
    deadline = time.monotonic() + 40
    for worker in workers:
        worker.join(max(0.0, deadline - time.monotonic()))
    stop.set()  # whatever happened, the workers end
    assert not any(worker.is_alive() for worker in workers) and len(gaps) == 2
    assert not broken and not broken_daily and settled(budget, daily)
    assert (budget.calls, budget.input_tokens) == (done["paid"], done["tokens"]) and done["waits"] > 50
    assert all(done[error] for error in ("DecisionTimeout", "DecisionStopped", "DecisionBudgetExceeded"))
    # Eight threads share the interpreter lock here, and a holder of the bound's lock may wait for
    # it in turn: no wait stops the loop, but a try can take a few switch intervals (5 ms each), and
    # on a busy machine the threads wait for a core as well (the gaps are 10 to 40 ms when idle).
    assert max(gaps) < 0.2, f"the loop stood still for {max(gaps) * 1e3:.1f} ms"


@pytest.mark.parametrize("seed", range(3))
def test_a_cancelled_task_holds_nothing_wherever_the_cancel_lands(bounds, seed):
    budget, daily = bounds
    rng = random.Random(seed)

    async def cancel_one(take, where):
        blocker = await take(math.inf)
        waiter = asyncio.create_task(take(1.0))
        await asyncio.sleep(rng.uniform(0, 0.002))
        if where == "waiting":  # withdrawn: room that comes later is not taken for it
            waiter.cancel()
            await asyncio.wait([waiter])
        blocker.settle(None)
        if where == "anywhere":
            await asyncio.sleep(rng.choice([0, 0.0001, 0.0005]))
        if where in ("anywhere", "as it is admitted"):  # the latter: the task takes back what it is given
            waiter.cancel()
        time.sleep(0.02)  # the loop stands still while the waker admits the waiter
        assert settled(budget, daily) or where != "waiting"
        if where == "handed over":  # delivered, the task not resumed yet
            await asyncio.sleep(0)
        waiter.cancel()  # "on its way": the share is sent to the loop
        try:
            (await waiter).settle(None)  # admitted and resumed before the cancel: its caller's to give back
            assert where == "anywhere"
        except asyncio.CancelledError:
            assert settled(budget, daily)

    async def main():
        takes = [lambda tokens: dba.hold(budget, tokens), lambda cost: admit(daily, cost)]
        for where in rng.sample(["waiting", "as it is admitted", "on its way", "handed over", "anywhere"] * 6, 30):
            await cancel_one(rng.choice(takes), where)

    run(main)


def test_stops_deadlines_and_exhaustion_end_a_wait(bounds, monkeypatch):
    budget, daily = bounds
    stop = threading.Event()
    budget.should_stop = stop.is_set
    on_budget = lambda tokens: dba.hold(budget, tokens)
    on_daily = lambda cost: admit(daily, cost, None, stop.is_set)

    async def ends(take, end, error):
        blocker = await take(math.inf)
        waiter = asyncio.create_task(take(1.0))
        await asyncio.sleep(0.03)
        start = time.monotonic()
        end(blocker)
        with pytest.raises(error):
            await waiter
        blocker.settle(None)
        return time.monotonic() - start

    async def main():
        deadline = time.monotonic() + 0.25
        assert 0.1 < await ends(lambda cost: admit(daily, cost, deadline), lambda _: None, db.DecisionTimeout) < 0.28
        for take in (on_budget, on_daily):
            assert await ends(take, lambda _: stop.set(), db.DecisionStopped) < 0.15
            stop.clear()
        # A newcomer whose deadline comes before the end of the waker's sleep wakes it.
        monkeypatch.setattr(db, "_POLL_S", 1.0)
        blocker = await admit(daily, math.inf)
        first = asyncio.create_task(admit(daily, 1.0))
        await asyncio.sleep(0.03)
        start = time.monotonic()
        with pytest.raises(db.DecisionTimeout):
            await admit(daily, 1.0, time.monotonic() + 0.05)
        assert time.monotonic() - start < 0.2
        blocker.settle(None), (await first).settle(None)
        budget.max_tokens = 100  # a reply that uses up the pass, or the day: the waiter is refused
        for take in (on_budget, on_daily):
            await ends(take, lambda share: share.settle(Reply(1.0, 100)), db.DecisionBudgetExceeded)

    run(main)


def test_one_waker_thread_per_waited_on_bound_and_a_prompt_wake_up(bounds):
    budget, daily = bounds
    before = threading.active_count()

    async def main():
        blockers = [await dba.hold(budget, math.inf), await admit(daily, math.inf)]
        waiting = [asyncio.create_task(dba.hold(budget, 1.0) if i % 2 else admit(daily, 0.001)) for i in range(400)]
        await asyncio.sleep(0.2)
        assert threading.active_count() == before + 2 and not any(task.done() for task in waiting)
        for blocker in blockers:
            blocker.settle(None)
        for share in await asyncio.gather(*waiting):
            share.settle(None)
        delays = []
        for _ in range(100):  # a give-back on another thread, and the waiting task resumed
            blocker = await dba.hold(budget, math.inf)
            waiter = asyncio.create_task(dba.hold(budget, 1.0))
            await asyncio.sleep(0.002)
            giver = threading.Thread(target=lambda: delays.append(-time.perf_counter()) or blocker.settle(None))
            giver.start()
            (await waiter).settle(None)
            delays[-1] += time.perf_counter()
            giver.join(5)
        return statistics.median(delays)

    median, gap = run(main)
    print(f"wake-up median {median * 1e6:.0f} us, longest heartbeat gap {gap * 1e3:.1f} ms")
    assert median < 0.001 * SLOWER and gap < 0.02 * SLOWER
    deadline = time.monotonic() + 5
    while threading.active_count() > before and time.monotonic() < deadline:
        time.sleep(0.01)
    assert threading.active_count() == before
