import dataclasses
import math
import threading

import pytest

from engines import decision_bounds as db

from support import Reply


@pytest.mark.parametrize("learnt, size, expected", [
    ([], 123, 0.0), ([(1000, 0.002), (4000, 0.004)], 500, 0.004), ([(1000, 0.002), (4000, 0.004)], 3000, 0.006),
    ([(0, 0.5)], 1, 0.5),  # an empty request counts as one byte
    ([(100, 1.0), (100, 0.5)], 50, 1.0), ([(100, 1.0)], 300, 3.0), ([(-5, 2.0)], -1, 2.0),
    ([(10, 30)], 5, 30), ([(10, 30), (10, float("nan"))], 5, 30),  # an integer charge stays an integer
])
def test_charges_bound(learnt, size, expected):
    charges = db._Charges()
    for learn_size, charge in learnt:
        charges.learn(learn_size, charge)
    got = charges.bound(size)
    assert got == pytest.approx(expected) and type(got) is type(expected)
    assert type(charges.per_byte) is float


def test_rates_share_maxima_across_features_and_keep_types():
    rates = db.RequestRates()
    assert rates.cost(100, "x") == math.inf and rates.tokens(100) == math.inf
    rates.learn(1000, "a", Reply(cost=0.002, input_tokens=300, cached=True))
    assert rates.cost(1000, "a") == 0.002 and rates.cost(1000, "b") == math.inf
    assert [(rates.tokens(n), type(rates.tokens(n))) for n in (1000, 2000, 500)] == [
        (300.0, float), (600.0, float), (300, int)]
    rates.learn(10, "b", Reply(cost=1.0, input_tokens=1))
    assert rates.cost(1000, "a") == pytest.approx(100.0)
    assert rates._features == {"a", "b"} and isinstance(rates._cost, db._Charges)


def test_learn_failure_keeps_steps_done_and_frees_lock():
    class NoTokens:
        cost = 0.5
        input_tokens = property(lambda self: 1 / 0)

    rates = db.RequestRates()
    with pytest.raises(ZeroDivisionError):
        rates.learn(10, "a", NoTokens())
    assert rates._features == {"a"} and rates._cost.per_call == 0.5 and rates._tokens.per_call == 0.0
    assert not rates._lock.locked()
    with pytest.raises(TypeError):
        rates.cost(10, ["unhashable"])
    assert not rates._lock.locked()


@pytest.mark.parametrize("op", [lambda r: r.cost(1, "a"), lambda r: r.tokens(1), lambda r: r.learn(1, "a", Reply())])
def test_each_operation_holds_the_lock(op):
    rates = db.RequestRates()
    done = threading.Event()
    with rates._lock:
        t = threading.Thread(target=lambda: (op(rates), done.set()), daemon=True)
        t.start()
        assert not done.wait(0.1)
    t.join(5)
    assert done.is_set()


def test_surface():
    R, C = db.RequestRates, db._Charges
    assert [(f.name, f.type, f.default) for f in dataclasses.fields(C)] == [
        ("per_byte", "float", 0.0), ("per_call", "float", 0.0)]
    assert R.__bases__ == (object,) and not dataclasses.is_dataclass(R)
    assert C.__doc__ == "The most one measure of the paid replies came to: for one call, and per request byte."
    assert R.__doc__ == (
        "What a request may cost, in USD and in input tokens, before its reply says.\n\n    Its cost is held at the "
        "most a paid call has cost, of any feature, once its feature has had a\n    paid reply, and is not known "
        "(infinite) before: a cheap feature's replies do not bound the\n    first call of a dear one, which runs "
        "alone. Its input tokens grow with its bytes whatever its\n    feature, and are not known before the first "
        "paid reply.\n    ")
