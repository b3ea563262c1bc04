import threading

import pytest

from engines import decision_bounds


@pytest.fixture
def db():
    return decision_bounds


class Reply:
    """A reply as the decision client gives one: what a bound reads of it."""

    def __init__(self, cost=0.0, input_tokens=0, cached=False):
        self.cost = cost
        self.input_tokens = input_tokens
        self.cached = cached

    def __repr__(self):
        return f"Reply(cost={self.cost!r}, input_tokens={self.input_tokens!r}, cached={self.cached!r})"


@pytest.fixture
def reply():
    return Reply


def lock_is_free(condition, timeout=2.0):
    """Whether another thread can take the condition's lock now."""
    got = []

    def take():
        if condition.acquire(timeout=timeout):
            got.append(True)
            condition.release()

    t = threading.Thread(target=take)
    t.start()
    t.join(timeout + 1.0)
    return got == [True]
