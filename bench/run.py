"""Times the native module against the plain-Python baseline of the same algorithms.

Both run in this one process, in alternation (native, baseline, baseline, native, ...), so that
whatever else the machine does falls on both alike. For each case it prints the time of one
operation on each side (the best of the rounds), the ratio baseline / native (how many times faster
the native module is) and, at the end, the geometric mean of the single-threaded ratios. Two
figures are not ratios of one operation: the latency from a give-back on one thread to a waiting
``reserve`` returning on another, and the CPU time that eight threads waiting for room use.

A case whose native side does not exist yet is skipped with a note.

    python bench/run.py                  # every case
    python bench/run.py --quick          # fewer and shorter rounds
    python bench/run.py --cases share_settle,held --repeat 9
    python bench/run.py --list
    python bench/run.py --markdown       # also a Markdown table of the figures
"""

from __future__ import annotations

import argparse
import functools
import gc
import math
import os
import statistics
import sys
import threading
import time
import timeit

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import baseline  # noqa: E402

from engines import decision_bounds as native  # noqa: E402

SIDES = (("native", native), ("baseline", baseline))

DAY = "2026-11-23"


class Reply:
    """A reply as the client gives one: what the bounds read of it."""

    def __init__(self, cost=0.0, input_tokens=0, cached=False):
        self.cost = cost
        self.input_tokens = input_tokens
        self.cached = cached


PAID = Reply(cost=0.0025, input_tokens=80)
CACHED = Reply(cached=True)
HUGE = 10**15


def today():
    return DAY


def clock():
    return time.monotonic()


# Each case: setup(m) -> (statement, namespace): the statement is one operation, timed in timeit's
# own loop with the names of the namespace as its globals, so that what is timed is the operation
# itself and not a call of a function around it (which would add the same time to both sides).


def share_settle(m):
    return "share(nothing).settle(PAID)", dict(share=m.Share, nothing=m._nothing, PAID=PAID)


def share_with(m):
    return "with share(nothing):\n    pass", dict(share=m.Share, nothing=m._nothing)


def held(m):
    return (
        "if h.admits(10.0, 5.0, 1000.0):\n    h.take(10.0)\nh.give_back(10.0)",
        dict(h=m._Held()),
    )


def hold_settle(m):
    return "b.hold(100.0).settle(PAID)", dict(b=m.RunBudget(HUGE, HUGE), PAID=PAID)


def hold_release(m):
    return "with b.hold(100.0):\n    pass", dict(b=m.RunBudget(HUGE, HUGE))


def reserve_charge(m):
    return "b.reserve(100.0)\nb.charge(PAID, 100.0)", dict(b=m.RunBudget(HUGE, HUGE), PAID=PAID)


def cache_hit(m):
    return "b.charge(CACHED)", dict(b=m.RunBudget(HUGE, HUGE), CACHED=CACHED)


def daily_admit_settle(m):
    def bound():
        return 0.01

    return (
        "d.admit(bound, deadline=None, clock=clock, stopping=never).settle(PAID)",
        dict(d=m.DailySpend(1e12, today, None), bound=bound, clock=clock, never=m.never, PAID=PAID),
    )


def rates_cost(m):
    r = m.RequestRates()
    r.learn(1000, "a", PAID)
    return 'r.cost(1500, "a")', dict(r=r)


def rates_learn(m):
    return 'r.learn(1000, "a", PAID)', dict(r=m.RequestRates(), PAID=PAID)


def road(m):
    """One paid call of a batch pass that also counts against the daily cap."""
    rates = m.RequestRates()
    rates.learn(1000, "summary", PAID)
    budget = m.RunBudget(HUGE, HUGE)
    statement = """\
size, feature = 1200, "summary"
tokens = rates.tokens(size)
with budget.hold(tokens) as pass_share:
    with daily.admit(partial(rates.cost, size, feature), deadline=None, clock=clock,
                     stopping=stopping) as day_share:
        pass_share.settle(PAID)
        day_share.settle(PAID)
rates.learn(size, feature, PAID)"""
    return statement, dict(rates=rates, budget=budget, daily=m.DailySpend(1e12, today, None),
                           stopping=budget.stopping, partial=functools.partial, clock=clock, PAID=PAID)


CASES = {
    "share_settle": ("a Share made and settled", ("Share",), share_settle),
    "share_with": ("a Share left unsettled in a with block", ("Share",), share_with),
    "held": ("_Held admits, take and give_back", ("_Held",), held),
    "hold_settle": ("RunBudget.hold + settle with a paid reply", ("RunBudget",), hold_settle),
    "hold_release": ("RunBudget.hold released unsettled", ("RunBudget",), hold_release),
    "reserve_charge": ("RunBudget.reserve + charge", ("RunBudget",), reserve_charge),
    "cache_hit": ("RunBudget.charge of a cache hit", ("RunBudget",), cache_hit),
    "daily": ("DailySpend.admit + settle", ("DailySpend",), daily_admit_settle),
    "rates_cost": ("RequestRates.cost", ("RequestRates",), rates_cost),
    "rates_learn": ("RequestRates.learn", ("RequestRates",), rates_learn),
    "road": ("the whole road of one paid call", ("RequestRates", "RunBudget", "DailySpend"), road),
}
THREADED = ("contended", "wakeup", "idle_cpu")


def missing(names):
    return [n for n in names if not hasattr(native, n)]


def calibrate(timer, target):
    """How many operations take about `target` seconds."""
    number = 1
    while True:
        took = timer.timeit(number)
        if took >= target / 10 or number >= 10**7:
            return max(1, int(number * target / max(took, 1e-9)))
        number *= 10


def time_case(setup, rounds, target):
    timers = {}
    for label, module in SIDES:
        statement, namespace = setup(module)
        timers[label] = timeit.Timer(statement, globals=namespace)
    numbers = {label: calibrate(timer, target) for label, timer in timers.items()}
    best = {label: math.inf for label in timers}
    for r in range(rounds):
        order = SIDES if r % 2 == 0 else SIDES[::-1]
        for label, _ in order:
            took = timers[label].timeit(numbers[label])
            best[label] = min(best[label], took / numbers[label])
    return best["native"] * 1e9, best["baseline"] * 1e9


# Threads.


def contended(m, threads=4, per_thread=2000):
    """Wall time per operation of `threads` threads doing hold + settle on one budget."""
    b = m.RunBudget(HUGE, HUGE)
    start = threading.Barrier(threads + 1)

    def work():
        start.wait()
        for _ in range(per_thread):
            b.hold(100.0).settle(PAID)

    workers = [threading.Thread(target=work) for _ in range(threads)]
    for w in workers:
        w.start()
    start.wait()
    began = time.perf_counter()
    for w in workers:
        w.join(60)
    took = time.perf_counter() - began
    assert b.calls == threads * per_thread, (b.calls, threads * per_thread)
    return took / (threads * per_thread)


def wakeup(m, trials):
    """Latency from a give-back on this thread to a waiting reserve returning on another."""
    b = m.RunBudget(HUGE, 100)
    waiting = b._changed._waiters  # the condition's own record of who waits
    returned = threading.Event()
    ready = threading.Event()
    stop = []
    latencies = []
    given_back_at = [0]

    def waiter():
        while True:
            ready.wait(10)
            ready.clear()
            if stop:
                return
            b.reserve(1.0)  # waits: the share this thread's peer holds fills the tokens
            latencies.append(time.perf_counter_ns() - given_back_at[0])
            b.release(1.0)
            returned.set()

    t = threading.Thread(target=waiter)
    t.start()
    try:
        for _ in range(trials):
            share = b.hold(1000.0)  # admitted alone, and then nothing else fits
            returned.clear()
            ready.set()
            deadline = time.monotonic() + 5
            while not waiting and time.monotonic() < deadline:
                time.sleep(0.0005)
            time.sleep(0.001)  # let it settle into the wait
            given_back_at[0] = time.perf_counter_ns()
            share.settle(None)
            returned.wait(5)
    finally:
        stop.append(True)
        ready.set()
        t.join(10)
    return latencies


def idle_cpu(m, threads=8, seconds=1.0):
    """CPU seconds that `threads` threads waiting for room use per second of waiting."""
    b = m.RunBudget(HUGE, 100)
    blocker = b.hold(math.inf)  # an unbounded share: nothing else is admitted beside it
    stopped = []
    b.should_stop = lambda: bool(stopped)
    errors = []

    def waiter():
        try:
            b.reserve(1.0)
        except m.DecisionStopped:
            pass
        except BaseException as error:  # pragma: no cover - reported below
            errors.append(error)

    workers = [threading.Thread(target=waiter) for _ in range(threads)]
    for w in workers:
        w.start()
    deadline = time.monotonic() + 5
    while len(b._changed._waiters) < threads and time.monotonic() < deadline:
        time.sleep(0.001)
    cpu0, wall0 = time.process_time(), time.perf_counter()
    time.sleep(seconds)
    cpu1, wall1 = time.process_time(), time.perf_counter()
    stopped.append(True)
    for w in workers:
        w.join(5)
    blocker.settle(None)
    if errors:
        raise errors[0]
    return (cpu1 - cpu0) / (wall1 - wall0)


def percentile(values, q):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(round(q / 100 * (len(ordered) - 1))))]


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--cases", help="comma-separated cases to run (default: all); see --list")
    parser.add_argument("--repeat", type=int, help="rounds per side (default 7, quick 3)")
    parser.add_argument("--trials", type=int, help="wake-up trials (default 400, quick 100)")
    parser.add_argument("--quick", action="store_true", help="fewer and shorter rounds")
    parser.add_argument("--list", action="store_true", help="list the cases and exit")
    parser.add_argument("--markdown", action="store_true", help="also print the figures as a Markdown table")
    args = parser.parse_args(argv)

    if args.list:
        for key, (what, *_rest) in CASES.items():
            print(f"{key:16} {what}")
        print(f"{'contended':16} 4 threads doing hold + settle on one budget")
        print(f"{'wakeup':16} give-back on one thread to a waiting reserve returning on another")
        print(f"{'idle_cpu':16} CPU that 8 threads waiting for room use")
        return 0

    chosen = args.cases.split(",") if args.cases else [*CASES, *THREADED]
    unknown = [c for c in chosen if c not in CASES and c not in THREADED]
    if unknown:
        parser.error(f"unknown case(s): {', '.join(unknown)}")
    rounds = args.repeat or (3 if args.quick else 7)
    target = 0.02 if args.quick else 0.1
    trials = args.trials or (100 if args.quick else 400)

    print(f"Python {sys.version.split()[0]}, {rounds} rounds per side, times are the best round")
    rows = []  # (case, native, baseline, ratio, what) for --markdown
    print(f"{'case':16} {'native ns/op':>13} {'baseline ns/op':>15} {'ratio':>7}  what")
    ratios = []
    for key in chosen:
        if key not in CASES:
            continue
        what, needs, setup = CASES[key]
        gone = missing(needs)
        if gone:
            print(f"{key:16} skipped: the native module has no {', '.join(gone)} yet")
            continue
        gc.collect()
        native_ns, baseline_ns = time_case(setup, rounds, target)
        ratio = baseline_ns / native_ns
        ratios.append(ratio)
        rows.append((key, f"{native_ns:.0f}", f"{baseline_ns:.0f}", f"{ratio:.2f}", what))
        print(f"{key:16} {native_ns:13.0f} {baseline_ns:15.0f} {ratio:7.2f}  {what}", flush=True)
    if ratios:
        geomean = math.exp(sum(math.log(r) for r in ratios) / len(ratios))
        print(f"{'geometric mean':16} {'':13} {'':15} {geomean:7.2f}  of {len(ratios)} single-threaded ratios")
        rows.append(("geometric mean", "", "", f"{geomean:.2f}", f"of the {len(ratios)} single-threaded ratios"))

    needs_budget = missing(("RunBudget",))
    if "contended" in chosen:
        if needs_budget:
            print(f"{'contended':16} skipped: the native module has no RunBudget yet")
        else:
            per_thread = 500 if args.quick else 2000
            best = {label: math.inf for label, _ in SIDES}
            for r in range(rounds):
                for label, module in SIDES if r % 2 == 0 else SIDES[::-1]:
                    best[label] = min(best[label], contended(module, per_thread=per_thread))
            n, p = best["native"] * 1e9, best["baseline"] * 1e9
            print(f"{'contended':16} {n:13.0f} {p:15.0f} {p / n:7.2f}  4 threads: hold + settle on one budget"
                  " (wall time per op)")
            rows.append(("contended", f"{n:.0f}", f"{p:.0f}", f"{p / n:.2f}",
                         "4 threads: hold + settle on one budget (wall time per op)"))
    if "wakeup" in chosen:
        if needs_budget:
            print(f"{'wakeup':16} skipped: the native module has no RunBudget yet")
        else:
            print(f"wake-up latency, give-back to a waiting reserve returning ({trials} trials each):")
            results = {label: [] for label, _ in SIDES}
            for r in range(2):
                for label, module in SIDES if r % 2 == 0 else SIDES[::-1]:
                    results[label] += wakeup(module, trials // 2)
            figures = {}
            for label, _ in SIDES:
                values = results[label]
                figures[label] = (statistics.median(values) / 1000, percentile(values, 99) / 1000)
                print(f"  {label:9} median {figures[label][0]:8.1f} us   "
                      f"p99 {figures[label][1]:8.1f} us   ({len(values)} trials)")
            for i, what in enumerate(("median", "p99")):
                rows.append((f"wakeup {what}", f"{figures['native'][i]:.1f} us", f"{figures['baseline'][i]:.1f} us", "",
                             f"give-back to a waiting reserve returning, {what} of {trials} trials"))
    if "idle_cpu" in chosen:
        if needs_budget:
            print(f"{'idle_cpu':16} skipped: the native module has no RunBudget yet")
        else:
            runs = 1 if args.quick else 3
            print(f"CPU used by 8 threads waiting for room (share of one core, median of {runs} seconds):")
            seconds = {label: [] for label, _ in SIDES}
            for _ in range(runs):
                for label, module in SIDES:
                    seconds[label].append(idle_cpu(module))
            shares = {label: statistics.median(values) for label, values in seconds.items()}
            for label, _ in SIDES:
                every = ", ".join(f"{value * 100:.2f}" for value in seconds[label])
                print(f"  {label:9} {shares[label] * 100:6.2f} %   ({every})")
            rows.append(("idle_cpu", f"{shares['native'] * 100:.2f} %", f"{shares['baseline'] * 100:.2f} %", "",
                         f"CPU of 8 threads waiting for room, share of one core (median of {runs} s)"))
    if args.markdown:
        print()
        print("| case | native ns/op | baseline ns/op | ratio | what |")
        print("|---|---:|---:|---:|---|")
        for row in rows:
            print("| " + " | ".join(row) + " |")
    return 0


if __name__ == "__main__":
    sys.exit(main())
