"""A simulated decision client: paid calls to a fake metered endpoint, kept within their bounds.

Each simulated UTC day runs one batch pass from several threads, bounded by a `RunBudget`, and a few
tool calls with deadlines beside it; every paid call also counts against one `DailySpend` (the daily
cost cap) and is bounded by one `RequestRates`. The ledger is an SQLite database: each paid reply is
recorded with the UTC date it settled on, and a new day starts from what the ledger says that day
has cost so far. At the end it prints a table per day and checks the module's promise on each day.

Run it with `bash scripts/demo [options]`; `--help` lists the options.
"""

from __future__ import annotations

import argparse
import contextlib
import dataclasses
import logging
import math
import os
import queue
import random
import sqlite3
import sys
import tempfile
import threading
import time
from collections.abc import Callable, Iterator, Sequence
from datetime import UTC, date, datetime, timedelta
from pathlib import Path
from typing import NoReturn

from engines import decision_bounds as db

try:
    from rich.console import Console
    from rich.logging import RichHandler
    from rich.progress import BarColumn, MofNCompleteColumn, Progress, TextColumn, TimeElapsedColumn
    from rich.table import Table
except ImportError:  # pragma: no cover - the demo's dependency group is missing
    sys.exit("decision_client: error: the demo needs rich and matplotlib: pip install --group demo")

PROG = "decision_client"

# What the fake endpoint bills, USD per token.
INPUT_PRICE = 1.0e-6
OUTPUT_PRICE = 4.0e-6
BATCH_FEATURES = ("classify", "summarize", "extract")
# The tool calls ask one feature the batch passes never ask: its first call has no known cost,
# holds the whole of what is left and may only run alone.
TOOL_FEATURES = ("summarize", "lookup")
# A day whose calls have all been waiting this long, none ending, is over.
IDLE_DAY_S = 0.5


# Options ------------------------------------------------------------------------------------------


class _Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        # One line, not the usage block: a bad value is named and the run ends before any work.
        self.exit(2, f"{PROG}: error: {message}\n")


def _whole(least: int) -> Callable[[str], int]:
    def parse(text: str) -> int:
        try:
            value = int(text)
        except ValueError:
            raise argparse.ArgumentTypeError(f"{text!r} is not a whole number") from None
        if value < least:
            raise argparse.ArgumentTypeError(f"{value} is below {least}")
        return value

    return parse


def _amount(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"{text!r} is not a number") from None
    if not math.isfinite(value) or value <= 0:
        raise argparse.ArgumentTypeError(f"{text!r} is not a positive amount")
    return value


def parse_options(argv: Sequence[str] | None) -> argparse.Namespace:
    parser = _Parser(
        prog=PROG,
        description="A simulated decision client making paid calls against a run budget and a daily cost cap.",
    )
    parser.add_argument("--threads", type=_whole(1), default=8, help="threads of each batch pass (default 8)")
    parser.add_argument("--days", type=_whole(1), default=2, help="simulated UTC days to replay (default 2)")
    parser.add_argument("--cap", type=_amount, default=0.25, help="daily cost cap, USD (default 0.25)")
    parser.add_argument("--calls", type=_whole(1), default=160, help="calls a batch pass may make (default 160)")
    parser.add_argument(
        "--tokens", type=_whole(1), default=600_000, help="input tokens a batch pass may use (default 600000)"
    )
    parser.add_argument("--tools", type=_whole(0), default=5, help="tool calls each day (default 5)")
    parser.add_argument("--deadline", type=_amount, default=0.3, help="a tool call's deadline, seconds (default 0.3)")
    parser.add_argument("--ledger", metavar="PATH", help="keep the ledger in this SQLite file (default: a temporary one)")
    parser.add_argument("--plot", metavar="FILE.png", help="draw spend and held amount over time against the cap")
    parser.add_argument("--seed", type=int, default=None, help="seed of the simulated requests")
    options = parser.parse_args(argv)
    if options.plot is not None:
        folder = Path(options.plot).resolve().parent
        if not options.plot.lower().endswith(".png"):
            parser.error(f"--plot {options.plot}: the plot is a PNG file, name it FILE.png")
        if not folder.is_dir() or not os.access(folder, os.W_OK):
            parser.error(f"--plot {options.plot}: cannot write in {folder}")
    return options


# The ledger ---------------------------------------------------------------------------------------


class Ledger:
    """The client's record of its paid replies, one row a reply, dated by the UTC day it settled on.

    Called with a date, it says what the paid calls since that date cost: what `DailySpend` reads at
    each new day. Each row is written by one statement, so an interrupted run leaves no half of one.
    """

    def __init__(self, path: str) -> None:
        self.path = path
        self._lock = threading.Lock()
        self._db = sqlite3.connect(path, check_same_thread=False, isolation_level=None)
        try:
            # Write-ahead logging, synced at checkpoints: a row survives the end of the process at
            # once without waiting for the disk at every reply.
            self._db.execute("PRAGMA journal_mode=WAL")
            self._db.execute("PRAGMA synchronous=NORMAL")
            self._db.execute(
                "CREATE TABLE IF NOT EXISTS paid_replies"
                " (day TEXT NOT NULL, feature TEXT NOT NULL, input_tokens INTEGER NOT NULL, cost REAL NOT NULL)"
            )
            # An existing, read-only ledger passes the line above; a write lock finds it out.
            self._db.execute("BEGIN IMMEDIATE")
            self._db.execute("ROLLBACK")
        except BaseException:
            self._db.close()
            raise

    def record(self, day: str, feature: str, reply: Reply) -> None:
        with self._lock:
            self._db.execute(
                "INSERT INTO paid_replies VALUES (?, ?, ?, ?)", (day, feature, reply.input_tokens, reply.cost)
            )

    def __call__(self, day: str) -> float:
        with self._lock:
            row = self._db.execute("SELECT COALESCE(SUM(cost), 0.0) FROM paid_replies WHERE day >= ?", (day,)).fetchone()
        return float(row[0])

    def close(self) -> None:
        with self._lock:
            self._db.close()


# The fake endpoint --------------------------------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class Reply:
    """A reply of the endpoint: what the bounds read of it (`PaidReply`)."""

    cached: bool
    input_tokens: int
    cost: float


@dataclasses.dataclass(frozen=True)
class Request:
    size: int  # bytes
    feature: str
    cached: bool  # the client's cache has the answer
    latency: float  # seconds the endpoint takes
    input_tokens: int
    output_tokens: int


def make_requests(rng: random.Random, count: int, features: Sequence[str], cache_rate: float) -> list[Request]:
    requests = []
    for _ in range(count):
        size = rng.randint(800, 8000)
        output = rng.randint(40, 400)
        if rng.random() < 0.04:
            output *= 12  # a long answer: a few replies cost far more than the rest
        requests.append(
            Request(
                size=size,
                feature=rng.choice(features),
                cached=rng.random() < cache_rate,
                latency=rng.uniform(0.01, 0.06),
                input_tokens=int(size / 4 * rng.uniform(0.8, 1.1)),
                output_tokens=output,
            )
        )
    return requests


def call_endpoint(request: Request) -> Reply:
    """The paid call: takes its time, then bills its input and output tokens."""
    time.sleep(request.latency)
    cost = request.input_tokens * INPUT_PRICE + request.output_tokens * OUTPUT_PRICE
    return Reply(cached=False, input_tokens=request.input_tokens, cost=cost)


# The simulated calendar and the stop --------------------------------------------------------------


class Calendar:
    """Today's UTC date as the demo decides it: a day passes when the demo says so.

    `lock` keeps the date from changing between settling a reply and recording it, so the ledger
    dates each reply with the day the account counted it on.
    """

    def __init__(self, first: date) -> None:
        self._day = first
        self.lock = threading.Lock()

    def today(self) -> str:
        return self._day.isoformat()

    def next_day(self) -> None:
        self._day += timedelta(days=1)


class Stop:
    """The stop predicate of the passes and the tool calls: true at the end of the day's work, and
    for good after a Ctrl-C.

    The bounds ask it once before each wait for room, so how often a thread asks it tells whether
    that thread's call had to wait.
    """

    def __init__(self) -> None:
        self._interrupted = threading.Event()
        self._day_over = threading.Event()
        self._asked = threading.local()

    def __call__(self) -> bool:
        self._asked.count = self.asked() + 1
        return self.is_set()

    def asked(self) -> int:
        count: int = getattr(self._asked, "count", 0)
        return count

    def is_set(self) -> bool:
        return self._interrupted.is_set() or self._day_over.is_set()

    def interrupt(self) -> None:
        self._interrupted.set()

    def interrupted(self) -> bool:
        return self._interrupted.is_set()

    def end_day(self) -> None:
        self._day_over.set()

    def new_day(self) -> None:
        self._day_over.clear()


# What is seen -------------------------------------------------------------------------------------


@dataclasses.dataclass
class DayReport:
    day: str
    started_at: float  # the ledger's figure the account started the day from, USD
    calls: int = 0
    cache_hits: int = 0
    cap_refusals: int = 0
    pass_refusals: int = 0
    waits: int = 0
    timeouts: int = 0
    spend: float = 0.0  # the account's settled spend, as the demo adds it up
    ledger: float = math.nan  # what the ledger says the paid calls since the day began cost, at its end
    account: float = math.nan  # `DailySpend.spent()` at the day's end
    dearest: float = 0.0  # the dearest call settled on the day
    above_most: float = 0.0  # what calls cost above the most a call had cost before they were admitted
    ended: str = "the pass is done"


@dataclasses.dataclass
class Sample:
    at: float  # seconds since the start
    day: int  # index of the day
    spend: float
    held: float  # what the admitted calls hold, the finite shares
    unbounded: int  # how many hold a share of unknown size


class Observer:
    """Counts what happens, per day, for the table, the verdict and the plot."""

    def __init__(self, calendar: Calendar) -> None:
        self._calendar = calendar
        self.lock = threading.Lock()
        self.reports: dict[str, DayReport] = {}
        self.samples: list[Sample] = []
        self.most_paid = 0.0  # the most one paid reply has cost so far, all days
        self._held = 0.0
        self._unbounded = 0
        self._start = time.monotonic()

    def open_day(self, started_at: float) -> DayReport:
        with self.lock:
            report = DayReport(self._calendar.today(), started_at, spend=started_at)
            self.reports[report.day] = report
            self._sample_locked()
            return report

    def today(self) -> DayReport:
        day = self._calendar.today()
        if day not in self.reports:  # only when a Ctrl-C fell between a new date and its opening
            self.reports[day] = DayReport(day, math.nan)
        return self.reports[day]

    def count(self, what: str) -> None:
        with self.lock:
            report = self.today()
            setattr(report, what, getattr(report, what) + 1)

    def admitted(self, held: float) -> None:
        with self.lock:
            if math.isinf(held):
                self._unbounded += 1
            else:
                self._held += held
            self._sample_locked()

    def given_back(self, held: float, reply: Reply | None, most_before: float) -> None:
        """A daily share given back; with a reply, counted on the day it settles (the calendar's lock is held)."""
        with self.lock:
            if math.isinf(held):
                self._unbounded -= 1
            else:
                self._held = max(0.0, self._held - held)
            if reply is not None:
                report = self.today()
                report.calls += 1
                report.spend += reply.cost
                report.dearest = max(report.dearest, reply.cost)
                report.above_most += max(0.0, reply.cost - most_before)
            self._sample_locked()

    def learnt(self, cost: float) -> None:
        with self.lock:
            self.most_paid = max(self.most_paid, cost)

    def progress(self, report: DayReport) -> tuple[int, int, float]:
        """How many calls of the day have ended, how many of the pass's, and the day's spend."""
        with self.lock:
            passed = report.calls + report.cache_hits + report.cap_refusals + report.pass_refusals
            return passed + report.timeouts, passed, report.spend

    def _sample_locked(self) -> None:
        self.samples.append(
            Sample(time.monotonic() - self._start, len(self.reports) - 1, self.today().spend, self._held, self._unbounded)
        )


# The client ---------------------------------------------------------------------------------------


class Holding:
    """The bound a daily admission asks, remembering what it answered last: the amount the share holds.

    It reads the most a reply has cost before it asks the rates, so the most it keeps is never above
    what the rates knew: what a call cost above it is at least what it cost above its share.
    """

    def __init__(self, rates: db.RequestRates, observer: Observer, request: Request) -> None:
        self._rates = rates
        self._observer = observer
        self._request = request
        self.held = math.inf
        self.most_before = 0.0

    def __call__(self) -> float:
        self.most_before = self._observer.most_paid
        self.held = self._rates.cost(self._request.size, self._request.feature)
        return self.held


class Client:
    def __init__(self, options: argparse.Namespace, ledger: Ledger, calendar: Calendar) -> None:
        self.options = options
        self.ledger = ledger
        self.calendar = calendar
        self.stop = Stop()
        self.rates = db.RequestRates()
        self.daily = db.DailySpend(options.cap, calendar.today, ledger)
        self.observer = Observer(calendar)
        self.rng = random.Random(options.seed)
        self.threads: list[threading.Thread] = []

    def start_day(self) -> DayReport:
        # The first reading of the new date starts the account's day from the ledger.
        return self.observer.open_day(self.daily.spent())

    def batch_pass(self, requests: Sequence[Request]) -> list[threading.Thread]:
        budget = db.RunBudget(self.options.calls, self.options.tokens, should_stop=self.stop)
        # A call whose cost (or tokens) is not known yet runs alone, and is admitted only at a
        # moment when no other call holds anything. Threads that keep calls in flight back to back
        # leave no such moment, so the pass opens with one thread making the first call of each
        # feature not known yet, and the other threads join once those have replied.
        opening: dict[str, Request] = {}
        for request in requests:
            unknown = math.isinf(self.rates.cost(request.size, request.feature))
            if not request.cached and unknown and request.feature not in opening:
                opening[request.feature] = request
        work: queue.SimpleQueue[Request] = queue.SimpleQueue()
        first_calls = {id(request) for request in opening.values()}
        for request in requests:
            if id(request) not in first_calls:
                work.put(request)
        opened = threading.Event()

        def opener() -> None:
            try:
                with contextlib.suppress(db.DecisionStopped):
                    for request in opening.values():
                        if not self.batch_call(budget, request):
                            return
            finally:
                opened.set()
            worker()

        def worker() -> None:
            with contextlib.suppress(queue.Empty, db.DecisionStopped):
                while not opened.wait(0.05):
                    if self.stop.is_set():
                        return
                while self.batch_call(budget, work.get_nowait()):
                    pass

        return [self.start_thread(opener)] + [self.start_thread(worker) for _ in range(self.options.threads - 1)]

    def tool_calls(self, requests: Sequence[Request], spacing: float) -> threading.Thread:
        def caller() -> None:
            for request in requests:
                time.sleep(spacing)
                if self.stop.is_set():
                    return
                self.tool_call(request)

        return self.start_thread(caller)

    def batch_call(self, budget: db.RunBudget, request: Request) -> bool:
        """One call of the pass; False once the pass can make no more."""
        if request.cached:
            if budget.stopping():
                return False
            budget.charge(Reply(cached=True, input_tokens=0, cost=0.0))
            self.observer.count("cache_hits")
            return True
        asked = self.stop.asked()
        try:
            pass_share = budget.hold(self.rates.tokens(request.size))
        except db.DecisionBudgetExceeded:
            self.observer.count("pass_refusals")
            return False
        with pass_share:
            holding = Holding(self.rates, self.observer, request)
            try:
                # Reserving asks the stop once before it waits at all.
                day_share = self._admit(holding, asked + 1, deadline=None, stopping=budget.stopping)
            except db.DecisionBudgetExceeded:
                self.observer.count("cap_refusals")
                return False
            self._paid_call(request, holding, day_share, pass_share)
        return True

    def tool_call(self, request: Request, reply_after: threading.Event | None = None) -> None:
        """One call for a tool, with a deadline; its reply comes after ``reply_after`` is set, if given."""
        holding = Holding(self.rates, self.observer, request)
        try:
            day_share = self._admit(
                holding, self.stop.asked(), deadline=time.monotonic() + self.options.deadline, stopping=self.stop
            )
        except db.DecisionTimeout:
            self.observer.count("timeouts")
            return
        except db.DecisionBudgetExceeded:
            self.observer.count("cap_refusals")
            return
        except db.DecisionStopped:
            return
        self._paid_call(request, holding, day_share, None, reply_after)

    def _admit(
        self, holding: Holding, asked: int, *, deadline: float | None, stopping: Callable[[], bool]
    ) -> db.Share:
        try:
            share = self.daily.admit(holding, deadline=deadline, clock=time.monotonic, stopping=stopping)
        finally:
            if self.stop.asked() > asked:
                self.observer.count("waits")
        self.observer.admitted(holding.held)
        return share

    def _paid_call(
        self,
        request: Request,
        holding: Holding,
        day_share: db.Share,
        pass_share: db.Share | None,
        reply_after: threading.Event | None = None,
    ) -> None:
        settled = False
        try:
            with day_share:
                reply = call_endpoint(request)
                while reply_after is not None and not reply_after.wait(0.05) and not self.stop.interrupted():
                    pass
                # Learn first: a call admitted once this reply has settled holds what it cost.
                self.rates.learn(request.size, request.feature, reply)
                self.observer.learnt(reply.cost)
                with self.calendar.lock:
                    day_share.settle(reply)
                    self.ledger.record(self.calendar.today(), request.feature, reply)
                    self.observer.given_back(holding.held, reply, holding.most_before)
                    settled = True
                if pass_share is not None:
                    pass_share.settle(reply)
        finally:
            if not settled:
                self.observer.given_back(holding.held, None, holding.most_before)

    def start_thread(self, target: Callable[[], None]) -> threading.Thread:
        thread = threading.Thread(target=target, daemon=True)
        thread.start()
        self.threads.append(thread)
        return thread


# The run ------------------------------------------------------------------------------------------


def wait_for(threads: Sequence[threading.Thread], tick: Callable[[], None]) -> None:
    """Joins the threads, ticking the progress bar; a Ctrl-C comes through between the joins."""
    for thread in threads:
        while thread.is_alive():
            thread.join(0.05)
            tick()


def run_days(client: Client, progress: Progress) -> None:
    options = client.options
    report = client.start_day()
    for index in range(options.days):
        last = index + 1 == options.days
        requests = make_requests(client.rng, options.calls, BATCH_FEATURES, cache_rate=0.15)
        tools = make_requests(client.rng, options.tools, TOOL_FEATURES, cache_rate=0.0)
        task = progress.add_task(report.day, total=len(requests) + len(tools), spend="")
        # Before the last day, one tool call is still in flight at midnight: its share is held into
        # the new day, and its reply is counted on the day it settles. It is made once half the
        # cap is spent, while there is room for it.
        late = None if last else make_requests(client.rng, 1, TOOL_FEATURES[:1], cache_rate=0.0)[0]
        midnight = threading.Event()
        seen = (-1, time.monotonic())

        def tick(report: DayReport = report) -> None:
            nonlocal late, seen
            done, passed, spend = client.observer.progress(report)
            progress.update(task, completed=done, spend=f"${spend:.4f} of ${options.cap:.2f}")
            if late is not None and spend >= options.cap / 2:
                request, late = late, None
                client.start_thread(lambda: client.tool_call(request, reply_after=midnight))
            # No call of the pass ended for a while: the calls left wait for room that the call in
            # flight at midnight holds. The day is over: its pass is asked to stop.
            now = time.monotonic()
            if passed != seen[0]:
                seen = (passed, now)
            elif now - seen[1] > IDLE_DAY_S and not client.stop.is_set():
                client.stop.end_day()
                report.ended = "stopped at midnight: calls in flight held the rest of the cap"

        threads = client.batch_pass(requests) + [client.tool_calls(tools, spacing=0.15)]
        wait_for(threads, tick)
        tick()
        progress.stop_task(task)
        client.stop.end_day()
        if report.cap_refusals:
            report.ended = "the cap is reached"
        elif report.pass_refusals:
            report.ended = "the pass has used its budget"
        with client.calendar.lock:
            finish_day(client, report)
            if not last:
                client.calendar.next_day()
                report = client.start_day()
        client.stop.new_day()
        midnight.set()


def finish_day(client: Client, report: DayReport) -> None:
    report.account = client.daily.spent()
    # What the account reads at a new day: the paid calls recorded since the day began.
    report.ledger = client.ledger(report.day)


def verdict(report: DayReport, cap: float) -> tuple[bool, str]:
    """Whether the day kept the promise: its settled spend passed the cap by no more than one call,
    plus what each call that cost more than the most before its admission cost above that most."""
    spend = report.account
    if report.started_at >= cap:
        # Nothing is admitted on such a day: the ledger's figure is all it has.
        return spend == report.started_at, f"the ledger started it at ${report.started_at:.4f}, at or past the cap"
    past = max(0.0, spend - cap)
    allowed = report.dearest + report.above_most
    held = past <= allowed + 1e-9
    if past == 0.0:
        return held, f"settled ${spend:.4f}, within the cap"
    return held, (
        f"settled ${spend:.4f}, past the cap by ${past:.4f}; the promise allows ${allowed:.4f}"
        f" (its dearest call ${report.dearest:.4f} + ${report.above_most:.4f} that calls cost above the most"
        " before them)"
    )


def show(console: Console, client: Client, interrupted: bool) -> bool:
    cap = client.options.cap
    table = Table(title=f"Paid calls per simulated UTC day, against a daily cap of ${cap:.2f}")
    for heading in ("day (UTC)", "from ledger", "paid calls", "cache hits", "refused", "waited", "timed out",
                    "spend of cap", "ledger"):
        table.add_column(heading, justify="left" if heading == "day (UTC)" else "right", no_wrap=True)
    lines = []
    kept = True
    for report in client.observer.reports.values():
        # The ledger, the account and the demo's own sum of the replies agree, to the rounding.
        consistent = all(
            math.isclose(report.ledger, figure, rel_tol=0, abs_tol=1e-9) for figure in (report.account, report.spend)
        )
        refused = f"{report.cap_refusals} cap" + (f" {report.pass_refusals} pass" if report.pass_refusals else "")
        table.add_row(
            report.day,
            f"${report.started_at:.4f}",
            str(report.calls),
            str(report.cache_hits),
            refused,
            str(report.waits),
            str(report.timeouts),
            f"${report.account:.4f} {report.account / cap:.0%}",
            "agrees" if consistent else f"${report.ledger:.4f} DIFFERS",
        )
        held, how = verdict(report, cap)
        kept = kept and held and consistent
        lines.append(f"{report.day} ({report.ended}): {how}: {'held' if held else 'NOT held'}.")
    console.print(table)
    for line in lines:
        console.print(line, highlight=False)
    console.print(
        "The promise (a day's settled spend passes the cap by at most one call, plus what each call dearer than"
        f" every earlier one cost above that most) {'held on every day' if kept else 'did NOT hold, see above'}"
        f"{', until the run was interrupted' if interrupted else ''}; the ledger "
        f"{'agreed with the account' if kept else 'is checked above'}.",
        highlight=False,
    )
    return kept


def plot(path: str, client: Client) -> None:
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    samples = client.observer.samples
    cap = client.options.cap
    at = [s.at for s in samples]
    spend = [s.spend for s in samples]
    held = [s.spend + s.held for s in samples]
    figure, axes = plt.subplots(figsize=(10, 4.5))
    axes.fill_between(at, spend, held, step="post", alpha=0.3, label="held by calls in flight")
    axes.step(at, spend, where="post", label="settled spend")
    axes.axhline(cap, color="red", linestyle="--", label=f"daily cap ${cap:.2f}")
    alone = [s.at for s in samples if s.unbounded]
    if alone:
        axes.plot(alone, [cap * 1.02] * len(alone), "|", color="purple", label="a call of unknown cost runs alone")
    for index, report in enumerate(client.observer.reports.values()):
        starts = [s.at for s in samples if s.day == index]
        if starts:
            axes.axvline(starts[0], color="grey", linewidth=0.8)
            axes.annotate(report.day, (starts[0], cap * 1.08), fontsize=8)
    axes.set_xlabel("seconds since the start")
    axes.set_ylabel("USD")
    axes.set_ylim(0, max([cap * 1.25, *(h * 1.05 for h in held)]))
    axes.set_title("The daily account: settled spend and what the calls in flight hold")
    axes.legend(loc="lower right", fontsize=8)
    figure.tight_layout()
    figure.savefig(path)
    plt.close(figure)


@contextlib.contextmanager
def open_ledger(path: str | None) -> Iterator[Ledger]:
    with contextlib.ExitStack() as stack:
        if path is None:
            path = os.path.join(stack.enter_context(tempfile.TemporaryDirectory()), "ledger.sqlite3")
        ledger = Ledger(path)
        stack.callback(ledger.close)
        yield ledger


def main(argv: Sequence[str] | None = None) -> int:
    options = parse_options(argv)
    with contextlib.ExitStack() as stack:
        try:
            ledger = stack.enter_context(open_ledger(options.ledger))
        except (sqlite3.Error, OSError) as error:
            print(f"{PROG}: error: cannot write the ledger {options.ledger}: {error}", file=sys.stderr)
            return 2
        console = Console()
        if not console.is_terminal:
            console = Console(width=120)  # a log or a pipe: no wrapping of the table
        # The module's warnings (the cap reached, a ledger it could not read) go above the progress.
        logging.basicConfig(
            level=logging.WARNING,
            format="%(name)s: %(message)s",
            handlers=[RichHandler(console=console, show_time=False, show_path=False)],
        )
        calendar = Calendar(datetime.now(UTC).date())
        client = Client(options, ledger, calendar)
        where = options.ledger or "a temporary file (--ledger PATH keeps one)"
        console.print(
            f"{options.days} simulated day(s), {options.threads} threads, a batch pass of {options.calls} calls"
            f" and {options.tools} tool call(s) a day, cap ${options.cap:.2f}; ledger: {where}"
        )
        interrupted = False
        progress = Progress(
            TextColumn("{task.description}"),
            BarColumn(),
            MofNCompleteColumn(),
            TextColumn("{task.fields[spend]}"),
            TimeElapsedColumn(),
            console=console,
        )
        with progress:
            try:
                run_days(client, progress)
            except KeyboardInterrupt:
                interrupted = True
                client.stop.interrupt()
                progress.console.print("Interrupted: the passes stop; waiting for the calls in flight...")
        drain(client)
        if interrupted:
            report = client.observer.today()
            report.ended = "interrupted"
            with calendar.lock:
                finish_day(client, report)
        kept = show(console, client, interrupted)
        if options.plot is not None and client.observer.samples:
            plot(options.plot, client)
            console.print(f"Plot written to {options.plot}")
    if interrupted:
        return 130
    return 0 if kept else 1


def drain(client: Client) -> None:
    """Waits for every call in flight to end, whatever more Ctrl-Cs come."""
    while True:
        try:
            wait_for(client.threads, lambda: None)
            return
        except KeyboardInterrupt:
            print("Still waiting for the calls in flight to end...", file=sys.stderr)


if __name__ == "__main__":
    sys.exit(main())
