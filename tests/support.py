"""What the tests share: a reply as the client gives one, a look at an owner's lock, a fresh
interpreter."""

import subprocess
import sys
import textwrap
import threading


class Reply:
    """A reply as the decision client gives one: what a bound reads of it."""

    def __init__(self, cost=0.0, input_tokens=0, cached=False):
        self.cost = cost
        self.input_tokens = input_tokens
        self.cached = cached

    def __repr__(self):
        return f"Reply(cost={self.cost!r}, input_tokens={self.input_tokens!r}, cached={self.cached!r})"


def lock_is_free(condition, timeout=2.0):
    """Whether another thread can take the condition's lock now."""
    got = []

    def take():
        if condition.acquire(timeout=timeout):
            got.append(True)
            condition.release()

    t = threading.Thread(target=take, daemon=True)
    t.start()
    t.join(timeout + 1.0)
    return got == [True]


def run_python(code):
    """What `code` prints in a fresh interpreter, with its stderr if it fails."""
    out = subprocess.run([sys.executable, "-c", textwrap.dedent(code)], capture_output=True, text=True, timeout=120)
    return out.stdout.strip() + ("" if out.returncode == 0 else "\n" + out.stderr)
