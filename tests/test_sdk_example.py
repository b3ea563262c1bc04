"""The OpenAI SDK decision client (examples/sdk_client.py) against its fake endpoint, from threads and
from asyncio tasks, with slow replies that time out, retries, asks answered from the client's cache
and prompts read from the endpoint's prompt cache: no more requests reach the endpoint than the pass
allows, every billed attempt is in the ledger at what it was billed, and the day passes its cap by no
more than the bounds promise."""

import asyncio
import sqlite3
import sys
import threading
from pathlib import Path

import pytest

pytest.importorskip("openai", reason="the SDK example's group is not installed: pip install --group sdk")

from engines import decision_bounds as db

# The examples import each other by name, as they do when run from their folder.
sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "examples"))
import fake_endpoint
import sdk_client

TODAY, YESTERDAY = "2031-05-06", "2031-05-05"
EARLIER = 0.004  # what an earlier run recorded today; yesterday's spend must not count
TIMEOUT = 0.3  # the SDK's: slow replies take 5 s, the others at most 20 ms
WORKERS = 6


def run_threads(client, endpoint, asks, budget):
    with client.sdk(endpoint.base_url) as sdk:
        client.run_pass(sdk, asks, budget, WORKERS)


def run_tasks(client, endpoint, asks, budget):
    async def run():
        async with client.async_sdk(endpoint.base_url) as sdk:
            await client.run_pass_async(sdk, asks, budget, WORKERS)

    asyncio.run(run())


@pytest.fixture(params=["threads", "asyncio"])
def runner(request):
    if request.param == "asyncio":
        pytest.importorskip(
            "engines.decision_bounds_asyncio",
            reason="engines.decision_bounds_asyncio (the awaitable hold and admit) is not in this build",
        )
        return run_tasks
    return run_threads


@pytest.fixture
def ledger(tmp_path):
    ledger = sdk_client.Ledger(str(tmp_path / "ledger.sqlite3"))
    ledger.record(YESTERDAY, "yesterday", "classify", sdk_client.Reply(False, 100, 1.0), True)
    ledger.record(TODAY, "earlier", "classify", sdk_client.Reply(False, 100, EARLIER), True)
    yield ledger
    ledger.close()


def run_pass(runner, ledger, endpoint, *, asks, cap, max_calls):
    """Runs one pass in a thread of its own; a pass still running after 30 s is stopped and fails."""
    client = sdk_client.DecisionClient(ledger, cap=cap, today=lambda: TODAY, timeout=TIMEOUT)
    stop = threading.Event()
    budget = db.RunBudget(max_calls, 10**9, should_stop=stop.is_set)
    errors = []

    def target():
        try:
            runner(client, endpoint, sdk_client.make_asks(asks, seed=11), budget)
        except BaseException as error:
            errors.append(error)

    thread = threading.Thread(target=target, daemon=True)
    thread.start()
    thread.join(30)
    if thread.is_alive():
        stop.set()
        thread.join(5)
        pytest.fail("the pass did not end within 30 s")
    if errors:
        raise errors[0]
    return client, budget


def today_rows(path):
    with sqlite3.connect(path) as con:
        return con.execute(
            "SELECT attempt, cost, answered FROM paid_replies WHERE day = ? AND attempt != 'earlier'", (TODAY,)
        ).fetchall()


@pytest.mark.parametrize("bound", ["calls", "cap"])
def test_paid_requests_stay_within_the_pass_and_the_day(runner, ledger, tmp_path, bound):
    cap, max_calls = (100.0, 24) if bound == "calls" else (0.03, 500)
    # With these seeds the pass's very first call (of no known cost or tokens) times out and is
    # retried, and repeated asks and prompt-cached replies come among the first asks, whichever
    # thread sends them.
    with fake_endpoint.FakeEndpoint(seed=25, prices=sdk_client.PRICES) as endpoint:
        client, budget = run_pass(runner, ledger, endpoint, asks=120, cap=cap, max_calls=max_calls)
        stats = endpoint.stats()

    # Each request that reached the endpoint held a call slot and was settled, a timed-out one too.
    assert stats.received <= max_calls and stats.received == budget.calls and budget.in_flight == 0
    # Timeouts, retries and the client's cache were in play.
    bills = {bill.request_id: bill for bill in stats.bills}
    assert any(bill.slow for bill in bills.values()) and any(attempt.endswith(".2") for attempt in bills)
    assert budget.cache_hits == client.outcomes[sdk_client.Outcome.CACHE_HIT] > 0

    # Every settled attempt is in the ledger once, and every attempt the endpoint billed is there:
    # an answered one at what the endpoint billed, a timed-out one as not answered.
    rows = today_rows(tmp_path / "ledger.sqlite3")
    assert len(rows) == len({attempt for attempt, _, _ in rows}) == budget.calls
    for attempt, cost, answered in rows:
        assert attempt in bills and not (answered and bills[attempt].slow)
        if answered:
            assert cost == pytest.approx(bills[attempt].cost, rel=1e-12)
        else:
            assert cost > 0
    # The first call held what is not known (math.inf): settled with the most it could cost.
    first = bills["ask0000.1"]
    assert first.slow and dict((a, cost) for a, cost, _ in rows)["ask0000.1"] >= first.cost
    recorded = {attempt for attempt, _, _ in rows}
    assert set(bills) == recorded
    # The client's cache holds the answers it was paid for and read, and nothing a timed-out attempt sent.
    requests = {ask.key: ask.request for ask in sdk_client.make_asks(120, seed=11)}
    assert set(client.answers) == {requests[a.split(".")[0]] for a, _, answered in rows if answered}
    # A prompt read from the endpoint's prompt cache was paid, at less than the full input price.
    discounted = [bills[a] for a, _, answered in rows if answered and bills[a].cached_tokens]
    prices = [sdk_client.PRICES[bill.model] for bill in discounted]
    assert discounted and all(
        b.cost < (b.prompt_tokens * p.input + b.completion_tokens * p.output) / 1e6 for b, p in zip(discounted, prices)
    )
    assert {bill.request_id for bill in bills.values() if bill.slow} <= {a for a, _, answered in rows if not answered}

    # The account, the ledger and the client's own records agree; the day started from the ledger.
    spent = client.daily.spent()
    assert spent == pytest.approx(EARLIER + sum(cost for _, cost, _ in rows), abs=1e-12)
    assert ledger(TODAY) == pytest.approx(spent, abs=1e-12)
    assert sorted(s.attempt for s in client.settled) == sorted(recorded)

    # The day passed the cap by at most its dearest call, plus what each call cost above the most a
    # paid reply had cost when it was admitted.
    costs = [s.cost for s in client.settled]
    allowed = max(costs) + sum(max(0.0, s.cost - s.most_before) for s in client.settled)
    assert max(0.0, spent - cap) <= allowed + 1e-12

    if bound == "calls":  # the pass ran out of calls before the day ran out of money
        assert budget.calls == max_calls and spent < cap
    else:  # the day ran out of money before the pass ran out of calls
        assert spent >= cap and budget.calls < max_calls


def test_a_refusing_endpoint_is_retried_and_costs_nothing(runner, ledger, tmp_path):
    with fake_endpoint.FakeEndpoint(refusing=True, prices=sdk_client.PRICES) as endpoint:
        client, budget = run_pass(runner, ledger, endpoint, asks=3, cap=1.0, max_calls=10)
        stats = endpoint.stats()
    attempts = 3 * client.attempts
    assert stats.received == stats.refused == attempts and not stats.bills
    assert client.gave_up == 3 and client.outcomes[sdk_client.Outcome.REFUSED] == attempts
    # Every refused attempt gave its shares back: nothing counted, nothing held, nothing recorded.
    assert (budget.calls, budget.in_flight, budget.cache_hits) == (0, 0, 0)
    assert client.daily.spent() == pytest.approx(EARLIER) and today_rows(tmp_path / "ledger.sqlite3") == []


def test_the_example_runs_and_reports_the_promise_kept(capsys):
    args = ["--asks", "30", "--calls", "20", "--cap", "0.02", "--threads", "4", "--timeout", "0.3"]
    assert sdk_client.main(args) == 0
    out = capsys.readouterr().out
    assert "endpoint: " in out and ": held" in out
