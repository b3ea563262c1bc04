"""What the tests share: a reply as the client gives one, a look at an owner's lock, a fresh
interpreter, a fresh copy of the module, the module's plain-Python twin to compare it with, and a
held amount that checks each admission."""

import contextlib
import dataclasses
import functools
import importlib
import importlib.util
import math
import pathlib
import subprocess
import sys
import textwrap
import threading

NAME = "engines.decision_bounds"


@dataclasses.dataclass(eq=False)
class Reply:
    """A reply as the decision client gives one: what a bound reads of it."""

    cost: float = 0.0
    input_tokens: int = 0
    cached: bool = False


class NoCost:
    """A paid reply whose cost cannot be read."""

    cached, input_tokens = False, 5

    @property
    def cost(self):
        raise ValueError("no cost")


def failing(*_):
    raise ValueError("failed")


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


def python(code, timeout=120):
    """`code` run in a fresh interpreter: its exit status, stdout and stderr."""
    return subprocess.run([sys.executable, "-c", textwrap.dedent(code)], capture_output=True, text=True,
                          timeout=timeout)


def run_python(code):
    """What `code` prints in a fresh interpreter, with its stderr if it fails."""
    out = python(code)
    return out.stdout.strip() + ("" if out.returncode == 0 else "\n" + out.stderr)


@functools.cache
def twin():
    """The module written in plain Python (bench/baseline.py), loaded once under a private name."""
    path = pathlib.Path(__file__).resolve().parent.parent / "bench" / "baseline.py"
    spec = importlib.util.spec_from_file_location("_decision_bounds_twin", path)
    module = importlib.util.module_from_spec(spec)
    sys.modules[spec.name] = module  # its functions pickle by reference, as the module's do
    spec.loader.exec_module(module)
    return module


@contextlib.contextmanager
def fresh_module():
    """A new import of the module, its classes as start-up left them whatever other tests did to the
    imported one; the imported one is put back afterwards."""
    import engines

    importlib.import_module(NAME)
    saved, attribute = sys.modules.pop(NAME), engines.decision_bounds
    try:
        yield importlib.import_module(NAME)
    finally:
        sys.modules[NAME], engines.decision_bounds = saved, attribute


def outcome(operation):
    """What an operation gave, comparable between the module and its twin."""
    try:
        result = operation()
    except Exception as error:  # noqa: BLE001 - compared, not handled
        return "raised", type(error).__name__, str(error)
    text = repr(result)
    return "returned", type(result).__name__ if " at 0x" in text else text  # a share, say: not its address


SKIPPED = {"_changed", "_lock", "should_stop", "_today", "_ledger"}


def fields(obj):
    """An object's own attributes by repr (which tells 0 from 0.0 and shows nan), in their order, the
    module's records inside it included; the callables and locks that both sides hold alike are
    left out."""
    return [(str(key), fields(value) if type(value).__name__ in ("_Held", "_Charges") else repr(value))
            for key, value in vars(obj).items() if key not in SKIPPED]


def recording_held(owner_used, limit):
    """A `_Held` that records, under its owner's lock, what was held at each admission, and checks
    that the admission rule allowed it."""
    from engines import decision_bounds as db

    broken = []

    class Recording(db._Held):
        def take(self, share):
            used = owner_used()
            if self.unbounded or (math.isinf(share) and self.holders) or not used + self.amount < limit:
                broken.append((share, used, self.holders, self.amount, self.unbounded))
            super().take(share)

    return Recording(), broken
