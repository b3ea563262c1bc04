"""A decision client on the official OpenAI Python SDK, kept within its bounds by `engines.decision_bounds`.

It runs a batch pass of asks against a chat-completions endpoint, from threads (`openai.OpenAI`) or
from asyncio tasks (`openai.AsyncOpenAI`), each paid call bounded by the pass's `RunBudget` and the
day's `DailySpend`. The SDK's own retries are off: an attempt that reaches the endpoint must hold its
shares, so the client retries by itself, each attempt with shares of its own. An attempt that timed
out was still billed, so its shares are settled with a reply standing for what they held, and it is
recorded in the SQLite ledger like any paid reply. An ask made again is answered from the client's
own cache of paid answers, before any share is held: it never reaches the endpoint and the pass
counts it as a cache hit alone.

`python examples/sdk_client.py` runs one pass against the fake endpoint of `fake_endpoint.py` on
127.0.0.1 and says whether the day kept within what the bounds promise; `--help` lists the options.
"""

from __future__ import annotations

import argparse
import asyncio
import contextlib
import dataclasses
import enum
import importlib
import math
import os
import random
import sqlite3
import sys
import tempfile
import threading
import time
from collections.abc import Callable, Sequence
from concurrent.futures import ThreadPoolExecutor
from datetime import UTC, datetime
from typing import NamedTuple

import openai
from openai.types.chat import ChatCompletion, ChatCompletionMessageParam

from engines import decision_bounds as db


class Price(NamedTuple):
    input: float  # USD per million input tokens
    output: float  # USD per million output tokens
    cached_input: float  # USD per million input tokens read from the endpoint's prompt cache


PRICES: dict[str, Price] = {"small": Price(0.15, 0.60, 0.075), "large": Price(2.50, 10.00, 1.25)}
# The model each feature asks.
MODELS: dict[str, str] = {"classify": "small", "extract": "small", "summarize": "large"}
MAX_OUTPUT = 1024  # max_completion_tokens of every request
# Tokens a message may cost beside its text: more than chat endpoints count.
MESSAGE_TOKENS = 8
SYSTEM = "You rank the options of a purchase decision. Answer with the option's number alone."


def utc_today() -> str:
    return datetime.now(UTC).date().isoformat()


# Replies and their price --------------------------------------------------------------------------


@dataclasses.dataclass(frozen=True)
class Reply:
    """What the bounds read of a reply (`PaidReply`)."""

    cached: bool
    input_tokens: int
    cost: float  # USD


# An answer from the client's own cache: no request was sent, so it holds nothing and costs nothing.
CACHED_REPLY = Reply(cached=True, input_tokens=0, cost=0.0)


def reply_of(model: str, completion: ChatCompletion) -> Reply:
    """Prices a completion by the client's own table. It came from the endpoint, so it is paid,
    even when the endpoint's prompt cache read part or all of its prompt: those tokens cost the
    cached-input price instead of the input price."""
    usage = completion.usage
    if usage is None:
        raise ValueError(f"completion {completion.id} has no usage: it cannot be priced")
    details = usage.prompt_tokens_details
    # No more cached tokens than the prompt has: the client never counts less than it may pay.
    cached = min(max((details.cached_tokens or 0) if details is not None else 0, 0), usage.prompt_tokens)
    price = PRICES[model]
    prompt = (usage.prompt_tokens - cached) * price.input + cached * price.cached_input
    cost = (prompt + usage.completion_tokens * price.output) / 1e6
    return Reply(cached=False, input_tokens=usage.prompt_tokens, cost=cost)


@dataclasses.dataclass(frozen=True)
class Ask:
    """One request of a batch pass."""

    key: str
    feature: str
    prompt: str

    def messages(self) -> list[ChatCompletionMessageParam]:
        return [{"role": "system", "content": SYSTEM}, {"role": "user", "content": self.prompt}]

    @property
    def request(self) -> tuple[str, str, str]:
        """What the endpoint is asked, its model and its messages: the key of the client's cache."""
        return MODELS[self.feature], SYSTEM, self.prompt

    @property
    def size(self) -> int:
        """Bytes of text it sends: what `RequestRates` scales its estimates by."""
        return len(SYSTEM.encode()) + len(self.prompt.encode())

    def most_tokens(self) -> int:
        """The most input tokens it can be billed for: a token is at least one byte of text."""
        return self.size + MESSAGE_TOKENS * 2

    def most_cost(self) -> float:
        """The most it can cost: all of its bytes as tokens and the longest answer it allows."""
        price = PRICES[MODELS[self.feature]]
        return (self.most_tokens() * price.input + MAX_OUTPUT * price.output) / 1e6


WORDS = "supplier price delivery contract risk region volume quality margin order terms".split()


def make_asks(count: int, seed: int, repeat_rate: float = 0.25) -> list[Ask]:
    """``count`` asks, about ``repeat_rate`` of them asking again what an earlier one asked."""
    rng = random.Random(seed)
    asks: list[Ask] = []
    for i in range(count):
        if asks and rng.random() < repeat_rate:
            earlier = rng.choice(asks)
            asks.append(Ask(f"ask{i:04d}", earlier.feature, earlier.prompt))
        else:
            prompt = " ".join(rng.choices(WORDS, k=rng.randint(60, 600)))
            asks.append(Ask(f"ask{i:04d}", rng.choice(tuple(MODELS)), prompt))
    return asks


# The ledger ---------------------------------------------------------------------------------------


class Ledger:
    """The client's record of what it paid: one row an attempt that settled, with the UTC date the
    day's account counted it on. Called with a date, it says what the paid calls since that date
    cost: what `DailySpend` reads when a new day starts."""

    def __init__(self, path: str) -> None:
        self._lock = threading.Lock()
        self._db = sqlite3.connect(path, check_same_thread=False, isolation_level=None)
        try:
            # Each row is on disk once its statement ends, without a sync at every reply.
            self._db.execute("PRAGMA journal_mode=WAL")
            self._db.execute("PRAGMA synchronous=NORMAL")
            self._db.execute(
                "CREATE TABLE IF NOT EXISTS paid_replies (day TEXT NOT NULL, attempt TEXT NOT NULL,"
                " feature TEXT NOT NULL, input_tokens INTEGER NOT NULL, cost REAL NOT NULL, answered INTEGER NOT NULL)"
            )
        except BaseException:
            self._db.close()
            raise

    def record(self, day: str, attempt: str, feature: str, reply: Reply, answered: bool) -> None:
        with self._lock:
            self._db.execute(
                "INSERT INTO paid_replies VALUES (?, ?, ?, ?, ?, ?)",
                (day, attempt, feature, reply.input_tokens, reply.cost, answered),
            )

    def __call__(self, day: str) -> float:
        with self._lock:
            query = "SELECT COALESCE(SUM(cost), 0.0) FROM paid_replies WHERE day >= ?"
            row = self._db.execute(query, (day,)).fetchone()
        return float(row[0])

    def close(self) -> None:
        with self._lock:
            self._db.close()


# The client ---------------------------------------------------------------------------------------


class Outcome(enum.Enum):
    CACHE_HIT = "from the cache"  # asked before and answered: nothing held, nothing sent
    ANSWERED = "answered"
    TIMED_OUT = "timed out"  # sent, not read, billed
    REFUSED = "refused"  # the endpoint answered with an error: nothing billed


@dataclasses.dataclass(frozen=True)
class Settled:
    """An attempt settled on the day's account, for the check of the bounds' promise."""

    attempt: str
    cost: float
    most_before: float  # the most a paid reply had cost when the attempt was admitted


class Holding:
    """The bound of one daily admission, remembering its last answer: the amount the share holds.

    It reads the most a reply has cost before it asks the rates, so that most is never above what
    the rates knew."""

    def __init__(self, client: DecisionClient, ask: Ask) -> None:
        self._client = client
        self._ask = ask
        self.held = math.inf
        self.most_before = 0.0

    def __call__(self) -> float:
        self.most_before = self._client.most_paid
        self.held = self._client.rates.cost(self._ask.size, self._ask.feature)
        return self.held


class DecisionClient:
    """One client: its `RequestRates`, its `DailySpend` on the ledger, and how it calls the endpoint.

    Make an SDK client with `sdk()` or `async_sdk()`, then run batch passes with `run_pass` or
    `run_pass_async`, each against a `RunBudget` of its own.
    """

    def __init__(
        self,
        ledger: Ledger,
        *,
        cap: float,
        today: Callable[[], str] = utc_today,
        timeout: float = 30.0,
        attempts: int = 3,
        backoff: float = 0.05,
    ) -> None:
        self.ledger = ledger
        self.timeout = timeout
        self.attempts = attempts
        self.backoff = backoff
        self.rates = db.RequestRates()
        self._clock_today = today
        self._counted_on = threading.local()
        self.daily = db.DailySpend(cap, self._today, ledger)
        self.most_paid = 0.0
        self._lock = threading.Lock()
        self.settled: list[Settled] = []
        self.outcomes: dict[Outcome, int] = dict.fromkeys(Outcome, 0)
        self.answers: dict[tuple[str, str, str], str] = {}  # the client's cache: paid answers by request
        self.gave_up = 0  # asks that no attempt got an answer for

    def _today(self) -> str:
        # The account asks for the date on the thread that settles, under its lock: the last date
        # this thread was given is the day a reply it has just settled was counted on.
        day = self._clock_today()
        self._counted_on.day = day
        return day

    def sdk(self, base_url: str) -> openai.OpenAI:
        return openai.OpenAI(base_url=base_url, api_key="test", max_retries=0, timeout=self.timeout)

    def async_sdk(self, base_url: str) -> openai.AsyncOpenAI:
        return openai.AsyncOpenAI(base_url=base_url, api_key="test", max_retries=0, timeout=self.timeout)

    # A batch pass, from threads.

    def run_pass(self, sdk: openai.OpenAI, asks: Sequence[Ask], budget: db.RunBudget, threads: int) -> None:
        """Makes the asks from ``threads`` threads until they are done or a bound ends the pass."""
        pending = list(asks)
        with contextlib.suppress(db.DecisionBudgetExceeded, db.DecisionStopped):
            while (first := self._next_unknown(pending)) is not None:
                pending.remove(first)
                with contextlib.suppress(db.DecisionUnavailable):
                    self.ask(sdk, budget, first)
        work = iter(pending)
        lock = threading.Lock()

        def worker() -> None:
            with contextlib.suppress(db.DecisionBudgetExceeded, db.DecisionStopped):
                while True:
                    with lock:
                        ask = next(work, None)
                    if ask is None:
                        return
                    with contextlib.suppress(db.DecisionUnavailable):
                        self.ask(sdk, budget, ask)

        with ThreadPoolExecutor(threads) as pool:
            for done in [pool.submit(worker) for _ in range(threads)]:
                done.result()  # a worker's unexpected error comes out here

    def ask(self, sdk: openai.OpenAI, budget: db.RunBudget, ask: Ask) -> Outcome:
        """One ask, answered from the cache or attempted until answered; `DecisionUnavailable` once
        every attempt failed."""
        if self._from_cache(budget, ask):
            return Outcome.CACHE_HIT
        for attempt in range(1, self.attempts + 1):
            if attempt > 1:
                time.sleep(self.backoff * 2 ** (attempt - 2))
            outcome = self._attempt(sdk, budget, ask, f"{ask.key}.{attempt}")
            if outcome is Outcome.ANSWERED:
                return outcome
        self._gave_up()
        raise db.DecisionUnavailable(f"{ask.key}: no answer in {self.attempts} attempts")

    def _attempt(self, sdk: openai.OpenAI, budget: db.RunBudget, ask: Ask, attempt: str) -> Outcome:
        tokens = self.rates.tokens(ask.size)
        with budget.hold(tokens) as pass_share:
            holding = Holding(self, ask)
            with self.daily.admit(holding, deadline=None, clock=time.monotonic, stopping=budget.stopping) as day_share:
                try:
                    completion: ChatCompletion | None = sdk.chat.completions.create(
                        model=MODELS[ask.feature],
                        messages=ask.messages(),
                        max_completion_tokens=MAX_OUTPUT,
                        extra_headers={"X-Client-Request-Id": attempt},
                    )
                except openai.APITimeoutError:
                    completion = None
                except (openai.APIStatusError, openai.APIConnectionError):
                    # An error reply is not billed, and a connection error other than a timeout is
                    # taken for a request that never left: leaving the blocks gives both shares back.
                    return self._count(Outcome.REFUSED)
                outcome = self._conclude(ask, attempt, holding, tokens, day_share, pass_share, completion)
        return self._count(outcome)

    # A batch pass, from asyncio tasks.

    async def run_pass_async(
        self, sdk: openai.AsyncOpenAI, asks: Sequence[Ask], budget: db.RunBudget, tasks: int
    ) -> None:
        """Makes the asks from ``tasks`` tasks until they are done or a bound ends the pass.

        It needs `engines.decision_bounds_asyncio`, the awaitable `hold` and `admit`."""
        pending = list(asks)
        with contextlib.suppress(db.DecisionBudgetExceeded, db.DecisionStopped):
            while (first := self._next_unknown(pending)) is not None:
                pending.remove(first)
                with contextlib.suppress(db.DecisionUnavailable):
                    await self.ask_async(sdk, budget, first)
        work = iter(pending)

        async def worker() -> None:
            with contextlib.suppress(db.DecisionBudgetExceeded, db.DecisionStopped):
                for ask in work:
                    with contextlib.suppress(db.DecisionUnavailable):
                        await self.ask_async(sdk, budget, ask)

        async with asyncio.TaskGroup() as group:
            for _ in range(tasks):
                group.create_task(worker())

    async def ask_async(self, sdk: openai.AsyncOpenAI, budget: db.RunBudget, ask: Ask) -> Outcome:
        """`ask`, awaited."""
        if self._from_cache(budget, ask):
            return Outcome.CACHE_HIT
        for attempt in range(1, self.attempts + 1):
            if attempt > 1:
                await asyncio.sleep(self.backoff * 2 ** (attempt - 2))
            outcome = await self._attempt_async(sdk, budget, ask, f"{ask.key}.{attempt}")
            if outcome is Outcome.ANSWERED:
                return outcome
        self._gave_up()
        raise db.DecisionUnavailable(f"{ask.key}: no answer in {self.attempts} attempts")

    async def _attempt_async(self, sdk: openai.AsyncOpenAI, budget: db.RunBudget, ask: Ask, attempt: str) -> Outcome:
        from engines import decision_bounds_asyncio as dba

        tokens = self.rates.tokens(ask.size)
        with await dba.hold(budget, tokens) as pass_share:
            holding = Holding(self, ask)
            admitted = dba.admit(self.daily, holding, deadline=None, clock=time.monotonic, stopping=budget.stopping)
            with await admitted as day_share:
                try:
                    completion: ChatCompletion | None = await sdk.chat.completions.create(
                        model=MODELS[ask.feature],
                        messages=ask.messages(),
                        max_completion_tokens=MAX_OUTPUT,
                        extra_headers={"X-Client-Request-Id": attempt},
                    )
                except openai.APITimeoutError:
                    completion = None
                except (openai.APIStatusError, openai.APIConnectionError):
                    return self._count(Outcome.REFUSED)
                except asyncio.CancelledError:
                    # The request may have reached the endpoint, which bills it all the same.
                    self._conclude(ask, attempt, holding, tokens, day_share, pass_share, None)
                    raise
                outcome = self._conclude(ask, attempt, holding, tokens, day_share, pass_share, completion)
        return self._count(outcome)

    # What both paths share.

    def _from_cache(self, budget: db.RunBudget, ask: Ask) -> bool:
        """Answers an ask from the client's cache if it was answered before. Looked up before any
        hold: the answer holds nothing, so the pass counts it by `charge` alone (a share settled
        with it would keep its call slot in flight for good)."""
        with self._lock:
            hit = ask.request in self.answers
        if hit:
            budget.charge(CACHED_REPLY)
            self._count(Outcome.CACHE_HIT)
        return hit

    def _next_unknown(self, pending: Sequence[Ask]) -> Ask | None:
        """The first ask whose feature's cost is not known yet.

        Such a call holds all that is left of the day and is admitted only when nothing else is
        held, a moment that workers keeping calls in flight back to back never leave: so a pass
        first makes these, one at a time, until each feature has had a paid reply.
        """
        return next((ask for ask in pending if math.isinf(self.rates.cost(ask.size, ask.feature))), None)

    def _conclude(
        self,
        ask: Ask,
        attempt: str,
        holding: Holding,
        tokens: float,
        day_share: db.Share,
        pass_share: db.Share,
        completion: ChatCompletion | None,
    ) -> Outcome:
        """Settles an attempt that reached the endpoint; ``completion`` is None when it was not read."""
        if completion is None:
            # Billed all the same, for an amount only the endpoint knows: the shares are settled
            # with what they held (what a call whose cost was not known may cost at most). The
            # rates learn nothing from it: it is not what the call cost.
            cost = holding.held if math.isfinite(holding.held) else ask.most_cost()
            used = math.ceil(tokens) if math.isfinite(tokens) else ask.most_tokens()
            self._settle(ask, attempt, holding, Reply(False, used, cost), day_share, pass_share, answered=False)
            return Outcome.TIMED_OUT
        try:
            reply = reply_of(MODELS[ask.feature], completion)
        except ValueError:
            self._conclude(ask, attempt, holding, tokens, day_share, pass_share, None)  # paid, whatever it cost
            raise
        self.rates.learn(ask.size, ask.feature, reply)  # first: calls admitted after it hold its cost
        with self._lock:
            self.most_paid = max(self.most_paid, reply.cost)
        self._settle(ask, attempt, holding, reply, day_share, pass_share, answered=True)
        # Only a paid answer that was read fills the cache: what a timed-out attempt got is unknown.
        answer = completion.choices[0].message.content if completion.choices else None
        if answer is not None:
            with self._lock:
                self.answers[ask.request] = answer
        return Outcome.ANSWERED

    def _settle(
        self,
        ask: Ask,
        attempt: str,
        holding: Holding,
        reply: Reply,
        day_share: db.Share,
        pass_share: db.Share,
        *,
        answered: bool,
    ) -> None:
        day_share.settle(reply)  # counted on today's spend: `_today` noted the day on this thread
        self.ledger.record(self._counted_on.day, attempt, ask.feature, reply, answered)
        pass_share.settle(reply)
        with self._lock:
            self.settled.append(Settled(attempt, reply.cost, holding.most_before))

    def _count(self, outcome: Outcome) -> Outcome:
        with self._lock:
            self.outcomes[outcome] += 1
        return outcome

    def _gave_up(self) -> None:
        with self._lock:
            self.gave_up += 1


# The promise, and a run ---------------------------------------------------------------------------


def overshoot(spent: float, cap: float, settled: Sequence[Settled]) -> tuple[float, float]:
    """How far a day's settled spend passed the cap, and how far the bounds let it pass: by its
    dearest call, plus what each call cost above the most a paid reply had cost when it was admitted."""
    dearest = max((s.cost for s in settled), default=0.0)
    return max(0.0, spent - cap), dearest + sum(max(0.0, s.cost - s.most_before) for s in settled)


async def _run_async(
    client: DecisionClient, base_url: str, asks: Sequence[Ask], budget: db.RunBudget, tasks: int
) -> None:
    async with client.async_sdk(base_url) as sdk:
        await client.run_pass_async(sdk, asks, budget, tasks)


def main(argv: Sequence[str] | None = None) -> int:
    parser = argparse.ArgumentParser(
        prog="sdk_client", description="One batch pass of the OpenAI SDK decision client against a fake local endpoint."
    )
    parser.add_argument("--threads", type=int, default=8, help="threads (tasks with --async) of the pass (default 8)")
    parser.add_argument("--asks", type=int, default=80, help="asks the pass has to make (default 80)")
    parser.add_argument("--calls", type=int, default=40, help="paid calls the pass may make (default 40)")
    parser.add_argument("--tokens", type=int, default=200_000, help="input tokens the pass may use (default 200000)")
    parser.add_argument("--cap", type=float, default=0.03, help="daily cost cap, USD (default 0.03)")
    parser.add_argument("--timeout", type=float, default=0.5, help="seconds the SDK waits for a reply (default 0.5)")
    parser.add_argument("--seed", type=int, default=1, help="seed of the asks and of the endpoint (default 1)")
    parser.add_argument("--async", dest="use_async", action="store_true", help="run the pass on asyncio tasks")
    parser.add_argument("--ledger", metavar="PATH", help="keep the ledger in this SQLite file (default: a temporary)")
    options = parser.parse_args(argv)
    if options.use_async:
        try:
            importlib.import_module("engines.decision_bounds_asyncio")
        except ImportError:
            parser.error("--async needs engines.decision_bounds_asyncio, which this build does not have")

    from fake_endpoint import FakeEndpoint  # beside this file: the example's own endpoint

    with contextlib.ExitStack() as stack:
        path = options.ledger or os.path.join(stack.enter_context(tempfile.TemporaryDirectory()), "ledger.sqlite3")
        ledger = Ledger(path)
        stack.callback(ledger.close)
        endpoint = stack.enter_context(FakeEndpoint(seed=options.seed, prices=PRICES))
        client = DecisionClient(ledger, cap=options.cap, timeout=options.timeout)
        budget = db.RunBudget(options.calls, options.tokens)
        asks = make_asks(options.asks, options.seed)
        if options.use_async:
            asyncio.run(_run_async(client, endpoint.base_url, asks, budget, options.threads))
        else:
            with client.sdk(endpoint.base_url) as sdk:
                client.run_pass(sdk, asks, budget, options.threads)
        stats = endpoint.stats()
        spent = client.daily.spent()
    print(
        f"endpoint: {stats.received} requests, {len(stats.bills)} billed, {stats.prompt_cached} of them"
        f" partly or wholly from its prompt cache, ${stats.billed:.4f} in all"
    )
    tally = ", ".join(f"{outcome.value} {count}" for outcome, count in client.outcomes.items())
    print(f"pass: {budget.summary()}; asks and attempts: {tally}; asks given up {client.gave_up}")
    past, allowed = overshoot(spent, options.cap, client.settled)
    held = past <= allowed + 1e-12
    print(
        f"today: ${spent:.4f} settled against a ${options.cap:.2f} cap, past it by ${past:.4f};"
        f" the bounds allow ${allowed:.4f}: {'held' if held else 'NOT held'}"
    )
    return 0 if held else 1


if __name__ == "__main__":
    sys.exit(main())
