import threading

import pytest

from engines import decision_bounds as db


class Callback:
    def __init__(self, raises=None):
        self.calls, self.raises = [], raises

    def __call__(self, reply):
        self.calls.append(reply)
        if self.raises is not None:
            raise self.raises


class Stop(Exception):
    pass


@pytest.mark.parametrize("settles, raises", [
    (False, None), (True, None), (False, Stop), (True, Stop), (False, KeyboardInterrupt)])
def test_gives_back_exactly_once_however_the_block_ends(settles, raises):
    callback = Callback()
    share, paid = db.Share(callback), object()
    try:
        with share as held:
            assert held is share
            if settles:
                share.settle(paid)
            if raises:
                raise raises
    except BaseException as error:  # noqa: BLE001 - compared below
        assert type(error) is raises
    else:
        assert raises is None
    assert callback.calls == [paid if settles else None] and share._give_back is None
    share.settle(paid)
    assert len(callback.calls) == 1


@pytest.mark.parametrize("give_back, error", [(Callback(raises=ValueError("ledger down")), "ledger down"),
                                              (5, "'int' object is not callable")])
def test_a_failing_give_back_still_counts_as_given_back(give_back, error):
    share = db.Share(give_back)
    with pytest.raises((ValueError, TypeError), match=error):
        with share:
            share.settle(None)
    assert share._give_back is None
    share.settle(None)  # not given back again


def test_a_raising_release_is_chained_to_the_error_that_ended_the_block():
    share = db.Share(Callback(raises=ValueError("release failed")))
    with pytest.raises(ValueError) as error:
        with share:
            raise Stop
    assert isinstance(error.value.__context__, Stop)


def test_shares_of_nothing():
    assert db.Share()._give_back is db._nothing
    for share in (db.Share(), db.Share(None)):
        assert share.settle(object()) is None and share._give_back is None


def test_exit_settles_with_none_through_the_instances_settle():
    seen = []

    class Counted(db.Share):
        def settle(self, reply):
            seen.append(reply)
            super().settle(reply)

    callback = Callback()
    share = Counted(callback)
    assert share.__exit__() is None and share.__exit__(None, None, None) is None
    assert seen == [None, None] and callback.calls == [None]


def test_a_callback_that_settles_again_finds_the_share_given_back():
    calls = []
    share = db.Share(lambda reply: calls.append(share.settle("again")))
    share.settle("first")
    assert calls == [None]


def test_settled_by_many_threads_the_callback_runs_once():
    for _ in range(50):
        callback = Callback()
        share = db.Share(callback)
        start = threading.Barrier(8)

        def settle():
            start.wait(timeout=5)
            share.settle("reply")

        threads = [threading.Thread(target=settle) for _ in range(8)]
        for t in threads:
            t.start()
        for t in threads:
            t.join(timeout=5)
        assert callback.calls == ["reply"]


def test_the_class_combines_and_copies_as_a_class_statement_would():
    import copy
    import pickle

    class Counted(db.Share, int):  # another base with a layout of its own, as for a Python class
        pass

    both = Counted(7)
    assert both == 7 and vars(both) == {"_give_back": 7}
    share = db.Share(print)
    twin = copy.copy(share)
    assert type(twin) is db.Share and vars(twin) == vars(share) and vars(twin) is not vars(share)
    assert vars(pickle.loads(pickle.dumps(db.Share(None)))) == {"_give_back": None}
