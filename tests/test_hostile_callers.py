"""What a hostile or unlucky caller can do to a native module that it cannot do to the same module
written in Python. Crashes are looked for in a fresh interpreter, which must exit cleanly; the rest
runs on the module and on its plain-Python twin, which must come out the same."""

import gc
import math
import re
import weakref

import pytest

from support import NoCost, Reply, failing, fields, fresh_module, outcome, python, twin


@pytest.fixture(scope="module")
def db():
    # The module's shortcuts apply only to its classes as start-up left them: a class that another
    # test changed (and put back) would hide what they do.
    with fresh_module() as module:
        yield module


def compared(db, make, run):
    """What `run(obj)` gives and leaves in `obj`, for an object made by `make`, module against twin."""
    got = []
    for m in (db, twin()):
        obj = make(m)
        got.append((outcome(lambda: run(obj)), fields(obj)))
    return got


@pytest.mark.parametrize("setup", [
    'db.__file__ = "/tmp/\\udcff.so"',  # what os.fsdecode makes of an undecodable byte
    "del db.__file__; del db._Held.admits.__module__",
    "db.__file__ = 3; del db._Held.admits.__module__",
])
def test_the_code_object_is_made_whatever_the_module_file_is(setup):
    # The code object is made at the first read of `__code__`, so all of this runs before that.
    run = python(f"""
        import inspect
        import engines.decision_bounds as db
        {setup}
        print(inspect.signature(db._Held.admits))
        """)
    assert (run.returncode, run.stdout, run.stderr) == (
        0, "(self, share: 'float', used: 'float', limit: 'float') -> 'bool'\n", "")


# The caller's code can rebind a field that the method has read already, which lets go of the
# value read: Python goes on with the value it read, then reads the field afresh.

JUNK = []  # values made after a rebinding, so that the memory of a value let go of is reused


class Trap(str):
    """A key equal to a field's name and hashed like it, so that it stands for the field in an
    instance's dict; the first lookup that compares it with the name runs `action`."""

    def __new__(cls, name, action):
        key = super().__new__(cls, name)
        key.action = action
        return key

    __hash__ = str.__hash__

    def __eq__(self, other):
        action, self.action = self.action, None
        if action is not None:
            action()
        return str.__eq__(self, other)


def part(obj, reply, path):
    """`(object, name)` for a path such as "held.amount" in a case's objects."""
    where, name = path.split(".")
    inner = {"self": obj, "reply": reply, "charges": vars(obj).get("_cost")}
    inner["held"] = obj if "holders" in vars(obj) else vars(obj).get("_held_tokens") or vars(obj).get("_held")
    return inner[where], name


def trap(obj, reply, trapped, rebound):
    """Puts the trapped key under a trap that rebinds the rebound field to another number."""
    (host, key), (target, field) = part(obj, reply, trapped), part(obj, reply, rebound)

    def rebind():
        setattr(target, field, vars(target)[field] + 1000)
        JUNK.extend(type(vars(target)[field])(str(7777 + i)) for i in range(20))

    entries = list(vars(host).items())
    vars(host).clear()
    vars(host).update((Trap(name, rebind) if name == key else name, value) for name, value in entries)


# Numbers made at run time, so that nothing but the object holds them.
def held(m):
    h = m._Held()
    h.holders, h.amount = int("1000"), float("7.5")
    return h


def budget(m):
    b = m.RunBudget(int("100000"), float("5000.5"))
    b.calls, b.in_flight, b.input_tokens, b.cost = int("1000"), int("1500"), float("300.5"), float("2.5")
    b._held_tokens.holders, b._held_tokens.amount = int("1200"), float("10.5")
    return b


def daily(m):
    d = m.DailySpend(float("50.5"), lambda: "2026-11-23", None)
    d.spent()
    d._cost, d._held.holders, d._held.amount = float("20.25"), int("1200"), float("3.5")
    return d


def rates(m):
    r = m.RequestRates()
    r.learn(2, "a", Reply(float("0.5"), int("300")))
    return r


REBOUND = {  # the object, what runs, the key trapped and the field that it rebinds
    "_Held.take": (held, lambda h, reply: h.take(2.5), "self.amount", "self.holders"),
    "_Held.give_back": (held, lambda h, reply: h.give_back(2.5), "self.amount", "self.holders"),
    "_Held.admits": (held, lambda h, reply: h.admits(math.inf, 1.5, 10.0), "self.amount", "self.holders"),
    "RunBudget.reserve": (budget, lambda b, reply: b.reserve(1.5), "self.max_tokens", "self.in_flight"),
    "RunBudget.release": (budget, lambda b, reply: b.release(10.5), "self._held_tokens", "self.in_flight"),
    "RunBudget.charge-tokens": (budget, lambda b, r: b.charge(r, 10.5), "reply.input_tokens", "self.input_tokens"),
    "RunBudget.charge-cost": (budget, lambda b, r: b.charge(r, 10.5), "reply.cost", "self.cost"),
    "RunBudget.charge-held": (budget, lambda b, r: b.charge(r, 10.5), "held.amount", "held.holders"),
    "DailySpend.admit": (daily, lambda d, reply: d.admit(lambda: 1.5, deadline=None, clock=failing, stopping=failing),
                         "held.amount", "held.holders"),
    "DailySpend._give_back": (daily, lambda d, reply: d._give_back(3.5, reply), "held.amount", "held.holders"),
    "DailySpend.charge": (daily, lambda d, reply: d.charge(reply), "reply.cost", "self._cost"),
    "_Charges.learn": (rates, lambda r, reply: r._cost.learn(2, 1.0), "charges.per_call", "charges.per_byte"),
}


@pytest.mark.parametrize("case", REBOUND)
def test_a_field_rebound_while_another_is_looked_up(db, case):
    make, run, trapped, rebound = REBOUND[case]
    got = []
    for m in (db, twin()):
        obj, reply = make(m), Reply(float("0.75"), float("40.5"))
        trap(obj, reply, trapped, rebound)
        got.append((outcome(lambda: run(obj, reply)), fields(obj), fields(reply)))
    assert got[0] == got[1]


def test_daemon_threads_inside_the_module_at_exit():
    # Threads waiting in `reserve` (woken every millisecond) and threads settling paid calls in a
    # loop are inside the module when the interpreter finalizes and ends them.
    program = """
        import threading, time
        import engines.decision_bounds as db
        db._POLL_S = 0.001

        class Reply:
            cached, input_tokens, cost = False, 0, 0.0

        full = db.RunBudget(10**9, 100)
        full.hold(100.0)  # holds every token: reservations wait
        daily = db.DailySpend(1e12, lambda: "2026-11-23", None)

        def paid_calls(budget=db.RunBudget(10**12, 10**12)):
            while True:
                with budget.hold(1.0) as share:
                    share.settle(Reply())
                with daily.admit(lambda: 0.0, deadline=None, clock=time.monotonic, stopping=db.never) as share:
                    share.settle(Reply())

        for target in [lambda: full.reserve(1.0)] * 4 + [paid_calls] * 2:
            threading.Thread(target=target, daemon=True).start()
        time.sleep(0.2)
        """
    for _ in range(3):
        run = python(program, timeout=60)
        assert (run.returncode, run.stderr) == (0, "")


def test_a_module_that_pooled_a_share_is_freed_once_dropped():
    run = python("""
        import gc, importlib, sys, weakref
        import engines

        old = []
        for _ in range(21):
            importlib.import_module("engines.decision_bounds").Share([].append)  # dropped: kept for reuse
            old.append(weakref.ref(sys.modules.pop("engines.decision_bounds")))
            del engines.decision_bounds
        gc.collect()
        print([ref() is None for ref in old].count(False))
        """)
    assert (run.returncode, run.stdout, run.stderr) == (0, "0\n", "")


class Callback(list):
    """A give-back that keeps the replies it is given."""

    __call__ = list.append


def test_a_share_made_later_calls_its_own_callback_once(db):
    outsiders = []

    class Snooping(Callback):
        """A callback that, when let go of, keeps every share's dict that it finds."""

        def __del__(self):
            outsiders.extend(o for o in gc.get_objects() if type(o) is dict and list(o) == ["_give_back"])

    db.Share(Snooping())  # dropped unsettled: the callback is let go of
    later = [(db.Share(callback), callback) for callback in [Callback() for _ in range(5)]]
    for outsider in outsiders:
        outsider["_give_back"] = None
    for share, callback in later:
        share.settle("paid")
        share.settle("again")
    assert [callback for _, callback in later] == [["paid"]] * 5


@pytest.mark.parametrize("settled", [True, False])
def test_no_callback_is_kept_alive_once_its_share_is_done(db, settled):
    callback = Callback()
    share, ref = db.Share(callback), weakref.ref(callback)
    del callback
    if settled:
        share.settle("paid")
    del share
    gc.collect()
    assert ref() is None


@pytest.mark.parametrize("code", ["RunBudget(1, 10).summary()", "RunBudget(0, 10).reserve()"])
def test_builtins_are_the_modules_not_the_callers(db, code):
    # Python code run with no builtins at all calls into the module.
    got = [outcome(lambda: eval(code, {"__builtins__": {}}, dict(vars(m)))) for m in (db, twin())]
    assert got[0] == got[1]


class Swallowing:
    """A lock whose `with` block swallows what is raised in it. Its instance has an `__enter__` and
    an `__exit__` of its own, which a `with` statement does not use."""

    def __init__(self):
        self.seen = []
        self.__enter__ = self.__exit__ = lambda *args: self.seen.append("the instance's")

    def __enter__(self):
        self.seen.append("enter")

    def __exit__(self, kind, *_):
        self.seen.append(("exit", kind and kind.__name__))
        return True

    def notify_all(self):
        self.seen.append("notify_all")


def swallowing(obj, name):
    setattr(obj, name, Swallowing())
    return obj


def daily_spend(m, today=lambda: "2026-11-23"):
    return swallowing(m.DailySpend(5.0, today, None), "_changed")


WITH = {
    "RequestRates.learn": (lambda m: swallowing(m.RequestRates(), "_lock"), lambda r: r.learn(10, "a", NoCost())),
    "RequestRates.cost": (lambda m: swallowing(m.RequestRates(), "_lock"), lambda r: r.cost(10, "a")),
    "RequestRates.tokens": (lambda m: swallowing(m.RequestRates(), "_lock"), lambda r: r.tokens(10)),
    "RunBudget.charge": (lambda m: swallowing(m.RunBudget(5, 100), "_changed"), lambda b: b.charge(NoCost(), 1.0)),
    "RunBudget.reserve": (lambda m: swallowing(m.RunBudget(5, 100), "_changed"), lambda b: b.reserve(1.0)),
    "DailySpend.spent": (daily_spend, lambda d: d.spent()),
    "DailySpend.charge": (lambda m: daily_spend(m, failing), lambda d: d.charge(Reply(1.0))),
    "DailySpend.admit": (daily_spend, lambda d: d.admit(failing, deadline=None, clock=failing, stopping=failing)),
    "DailySpend._give_back": (daily_spend, lambda d: d._give_back(1.0, Reply(0.5))),
}


@pytest.mark.parametrize("case", WITH)
def test_a_with_block_on_a_lock_of_the_callers(db, case):
    make, run = WITH[case]
    lock = "_lock" if case.startswith("Request") else "_changed"
    got = compared(db, make, lambda obj: (outcome(lambda: run(obj)), getattr(obj, lock).seen))
    assert got[0] == got[1]


def replacing(kind, method, obj):
    """A number of `kind` whose `method` gives `obj` a new dict (a copy of its own) before doing
    what `kind` does."""
    def replace(self, *args):
        obj.__dict__ = dict(vars(obj), replaced=True)
        return getattr(kind, method)(kind(self), *args)

    return type("Replacing", (kind,), {method: replace})


def two_held(m):
    h = m._Held()
    h.take(2.0)
    h.take(3.0)
    return h


def day_started(m):
    d = m.DailySpend(5.0, lambda: "2026-11-23", None)
    d.spent()
    return d


DETACHED = {  # the object, and what runs with the number type that replaces its dict midway
    "_Charges.learn-per-byte": (lambda m: m._Charges(), lambda c: c.learn(2, replacing(float, "__truediv__", c)(4.0))),
    "_Charges.learn-per-call": (lambda m: m._Charges(), lambda c: c.learn(2, replacing(float, "__gt__", c)(4.0))),
    "_Held.give_back": (two_held, lambda h: h.give_back(replacing(float, "__rsub__", h)(2.0))),
    "RunBudget.charge": (lambda m: m.RunBudget(5, 100), lambda b: b.charge(Reply(0.5, replacing(int, "__radd__", b)(7)))),
    "DailySpend._give_back": (day_started, lambda d: d._give_back(1.0, Reply(replacing(float, "__radd__", d)(0.5)))),
}


@pytest.mark.parametrize("case", DETACHED)
def test_writes_go_to_the_dict_the_object_has_then(db, case):
    got = compared(db, *DETACHED[case])
    assert got[0] == got[1]


# Objects that keep their attributes in their inline values (nobody asked for their dict), changed
# midway by plain attribute stores and deletions, which leave them there.
def storing(kind, method, action):
    """A number of `kind` whose `method` runs `action()` before doing what `kind` does."""
    def run(self, *args):
        action()
        return getattr(kind, method)(kind(self), *args)

    return type("Storing", (kind,), {method: run})


def settle_shadowed(m):
    s = m.Share(m._nothing)
    s.settle = lambda reply: CALLED.append(("own settle", reply))
    return s


def settle_shadowed_elsewhere(m):
    other = m.Share(m._nothing)
    other.settle = lambda reply: CALLED.append(("other's settle", reply))
    CALLED.append(other)  # keeps it, and its key among the class's instances'
    return m.Share(lambda reply: CALLED.append(("give-back", reply)))


CALLED = []

IN_PLACE = {  # the object, and what runs, changing it midway
    "_Held.give_back-store": (two_held, lambda h: h.give_back(storing(float, "__rsub__", lambda: setattr(h, "holders", 7))(2.0))),
    "_Held.take-delete": (two_held, lambda h: h.take(storing(float, "__radd__", lambda: delattr(h, "holders"))(1.0))),
    "_Charges.learn-store": (lambda m: m._Charges(),
                             lambda c: c.learn(2, storing(float, "__truediv__", lambda: setattr(c, "per_call", 99.0))(4.0))),
    "RunBudget.charge-delete": (lambda m: m.RunBudget(5, 100),
                                lambda b: b.charge(Reply(0.5, storing(int, "__radd__", lambda: delattr(b, "cost"))(7)))),
    "Share.__exit__-shadowed": (settle_shadowed, lambda s: s.__exit__(None, None, None)),
    "Share.__exit__-shadowed-elsewhere": (settle_shadowed_elsewhere, lambda s: s.__exit__(None, None, None)),
}


@pytest.mark.parametrize("case", IN_PLACE)
def test_changes_to_an_objects_own_attributes_midway(db, case):
    make, run = IN_PLACE[case]
    got = []
    for m in (db, twin()):
        CALLED.clear()
        obj = make(m)
        result = outcome(lambda: run(obj))
        left = re.sub(r" at 0x[0-9a-f]+", "", str(fields(obj)))  # the functions, not their addresses
        got.append((result, [c for c in CALLED if isinstance(c, tuple)], left))
    CALLED.clear()
    assert got[0] == got[1]


def test_a_class_whose_first_instance_set_its_fields_in_another_order():
    with fresh_module() as module:
        got = []
        for m in (module, twin()):
            first = m._Charges.__new__(m._Charges)
            first.per_call, first.per_byte = 0.0, 0.0
            c = m._Charges()
            steps = (lambda: c.learn(10, 5.0), lambda: c.learn(1000, 7.0), lambda: c.bound(10), lambda: c.bound(1))
            got.append([outcome(step) for step in steps] + [fields(c)])
        assert got[0] == got[1]
