"""A fake metered chat-completions endpoint on 127.0.0.1, for the OpenAI SDK decision client.

It speaks enough of `POST /v1/chat/completions` for the `openai` SDK: a JSON reply with `id`,
`object`, `created`, `model`, `choices` and a `usage` block, `prompt_tokens_details.cached_tokens`
telling how many of the prompt's tokens its prompt cache read. It bills each request the moment it
reads it, whether or not the client waits for the answer: a client that timed out has still paid.
Some prompts are read partly or wholly from its prompt cache, whose tokens it bills at the lower
cached-input price (a request it read is never free), and some replies are so slow that any sensible
client gives up on them first.

What happens to a request is drawn from a random generator seeded with the endpoint's seed and the
request's `X-Client-Request-Id` header (or its rank when it has none), so a run with the same
requests sees the same latencies, slow replies, cached prompt tokens and answer lengths in whatever
order the threads send them. Standard library only; start it in a thread with `FakeEndpoint(...).start()` or
as a `with` block, and read what it counted with `stats()`.
"""

from __future__ import annotations

import dataclasses
import http.server
import itertools
import json
import math
import random
import socketserver
import sys
import threading
import time
from collections.abc import Mapping
from typing import Any

# USD per million input, output and cached input tokens, by model: what the endpoint bills by default.
PRICES: Mapping[str, tuple[float, float, float]] = {"small": (0.15, 0.60, 0.075), "large": (2.50, 10.00, 1.25)}
# Tokens a message costs beside its text, as chat endpoints count them.
MESSAGE_TOKENS = 4


def prompt_tokens(messages: list[dict[str, Any]]) -> int:
    """The endpoint's count of a prompt's tokens: one per four bytes of text, rounded up, plus a
    few per message."""
    return sum(math.ceil(len(str(m.get("content", "")).encode()) / 4) + MESSAGE_TOKENS for m in messages)


@dataclasses.dataclass(frozen=True)
class Bill:
    """What the endpoint charged for one request, answered or not."""

    request_id: str
    model: str
    prompt_tokens: int
    completion_tokens: int
    cached_tokens: int  # of the prompt's, read from the prompt cache
    slow: bool
    cost: float  # USD, the cached tokens at the cached-input price


@dataclasses.dataclass(frozen=True)
class Stats:
    received: int  # every chat request that reached the endpoint, refused ones included
    refused: int  # answered with an error, billed nothing
    bills: tuple[Bill, ...]  # one for each request it accepted, in the order it read them

    @property
    def prompt_cached(self) -> int:
        """Billed requests whose prompt the prompt cache read, in part or whole."""
        return sum(bill.cached_tokens > 0 for bill in self.bills)

    @property
    def billed(self) -> float:
        return sum(bill.cost for bill in self.bills)


class FakeEndpoint:
    """The endpoint, served from a thread on 127.0.0.1 (an ephemeral port unless one is given).

    `refusing` makes it answer every request 503 (overloaded), billing nothing.
    """

    def __init__(
        self,
        *,
        seed: int = 0,
        prices: Mapping[str, tuple[float, float, float]] = PRICES,
        latency: tuple[float, float] = (0.002, 0.02),
        slow_rate: float = 0.1,
        slow_s: float = 5.0,
        cache_rate: float = 0.2,
        refusing: bool = False,
        port: int = 0,
    ) -> None:
        self.seed = seed
        self.prices = dict(prices)
        self.latency = latency
        self.slow_rate = slow_rate
        self.slow_s = slow_s
        self.cache_rate = cache_rate
        self.refusing = refusing
        self._lock = threading.Lock()
        self._received = 0
        self._refused = 0
        self._bills: list[Bill] = []
        self._ids = itertools.count(1)
        # Set when the endpoint closes: slow replies stop waiting and their threads end.
        self.closing = threading.Event()
        self._server = _Server(("127.0.0.1", port), _Handler, self)
        # Polled often, so that closing it does not wait half a second.
        self._thread = threading.Thread(
            target=self._server.serve_forever, args=(0.05,), name="fake-endpoint", daemon=True
        )

    @property
    def base_url(self) -> str:
        host, port = self._server.server_address[:2]
        return f"http://{host!s}:{port}/v1"

    def start(self) -> FakeEndpoint:
        self._thread.start()
        return self

    def close(self) -> None:
        self.closing.set()
        if self._thread.is_alive():
            self._server.shutdown()
            self._thread.join(10)
        self._server.server_close()

    def __enter__(self) -> FakeEndpoint:
        return self.start()

    def __exit__(self, *_exc: object) -> None:
        self.close()

    def stats(self) -> Stats:
        with self._lock:
            return Stats(self._received, self._refused, tuple(self._bills))

    # Called by the handler threads.

    def received(self) -> int:
        with self._lock:
            self._received += 1
            return self._received

    def refused(self) -> None:
        with self._lock:
            self._refused += 1

    def bill(self, request_id: str, model: str, messages: list[dict[str, Any]], max_tokens: int) -> tuple[Bill, float]:
        """Decides what happens to a request and bills it; gives the bill and the reply's delay."""
        rng = random.Random(f"{self.seed}/{request_id}")
        slow = rng.random() < self.slow_rate
        prompt_cached = rng.random() < self.cache_rate
        completion = rng.randint(20, 200)
        if rng.random() < 0.05:
            completion = rng.randint(600, 1000)  # a long answer: a few replies cost far more
        completion = min(completion, max_tokens)
        prompt = prompt_tokens(messages)
        cached = 0
        if prompt_cached:  # the cache holds a leading part of the prompt, at times all of it
            cached = prompt if prompt < 2 or rng.random() < 0.5 else rng.randint(1, prompt - 1)
        price_in, price_out, price_cached = self.prices[model]
        cost = ((prompt - cached) * price_in + cached * price_cached + completion * price_out) / 1e6
        bill = Bill(request_id, model, prompt, completion, cached, slow, cost)
        with self._lock:
            self._bills.append(bill)
        return bill, self.slow_s if slow else rng.uniform(*self.latency)

    def completion_id(self) -> str:
        with self._lock:
            return f"chatcmpl-fake{next(self._ids):06d}"


class _Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def __init__(self, address: tuple[str, int], handler: type[_Handler], endpoint: FakeEndpoint) -> None:
        self.endpoint = endpoint
        super().__init__(address, handler)

    def handle_error(self, request: Any, client_address: Any) -> None:
        # A client that gave up on a slow reply has closed its end; that is expected, not news.
        if not isinstance(sys.exc_info()[1], (ConnectionError, TimeoutError)):
            socketserver.BaseServer.handle_error(self, request, client_address)


class _Handler(http.server.BaseHTTPRequestHandler):
    server: _Server
    protocol_version = "HTTP/1.1"  # keeps the SDK's connections alive between requests
    timeout = 10  # an idle kept-alive connection is closed after this, seconds

    def log_message(self, format: str, *args: Any) -> None:
        pass

    def do_POST(self) -> None:
        endpoint = self.server.endpoint
        body = self.rfile.read(int(self.headers.get("Content-Length") or 0))
        if self.path.rstrip("/") != "/v1/chat/completions":
            return self._error(404, f"no route {self.path}", "not_found")
        rank = endpoint.received()
        if endpoint.refusing:
            endpoint.refused()
            return self._error(503, "the endpoint is overloaded, try again later", "overloaded")
        try:
            request = json.loads(body)
            model, messages = str(request["model"]), list(request["messages"])
        except (ValueError, KeyError, TypeError):
            endpoint.refused()
            return self._error(400, "the body is not a chat completion request", "invalid_request")
        if model not in endpoint.prices:
            endpoint.refused()
            return self._error(404, f"the model {model!r} does not exist", "model_not_found")
        max_tokens = int(request.get("max_completion_tokens") or request.get("max_tokens") or 4096)
        request_id = self.headers.get("X-Client-Request-Id") or f"#{rank}"
        bill, delay = endpoint.bill(request_id, model, messages, max_tokens)
        if endpoint.closing.wait(delay):
            self.close_connection = True
            return
        self._json(200, {
            "id": endpoint.completion_id(),
            "object": "chat.completion",
            "created": int(time.time()),
            "model": model,
            "choices": [{
                "index": 0,
                "message": {"role": "assistant", "content": "ok " * bill.completion_tokens, "refusal": None},
                "finish_reason": "length" if bill.completion_tokens >= max_tokens else "stop",
                "logprobs": None,
            }],
            "usage": {
                "prompt_tokens": bill.prompt_tokens,
                "completion_tokens": bill.completion_tokens,
                "total_tokens": bill.prompt_tokens + bill.completion_tokens,
                "prompt_tokens_details": {"cached_tokens": bill.cached_tokens},
                "completion_tokens_details": {"reasoning_tokens": 0},
            },
        })

    def do_GET(self) -> None:
        self._error(404, f"no route {self.path}", "not_found")

    def _error(self, status: int, message: str, code: str) -> None:
        self._json(status, {"error": {"message": message, "type": code, "param": None, "code": code}})

    def _json(self, status: int, payload: object) -> None:
        data = json.dumps(payload).encode()
        self.send_response(status)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)
