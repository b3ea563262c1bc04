import threading

import pytest

from engines import decision_bounds as db


class Callback:
    def __init__(self, raises=None):
        self.calls = []
        self.raises = raises

    def __call__(self, reply):
        self.calls.append(reply)
        if self.raises is not None:
            raise self.raises


class Stop(Exception):
    pass


def end_normally(share, reply):
    with share:
        pass


def end_settled(share, reply):
    with share as held:
        assert held is share
        share.settle(reply)


def end_by_error(share, reply):
    with pytest.raises(Stop):
        with share:
            raise Stop


def end_settled_then_error(share, reply):
    with pytest.raises(Stop):
        with share:
            share.settle(reply)
            raise Stop


def end_by_break(share, reply):
    for _ in range(3):
        with share:
            break


def end_by_return(share, reply):
    def inner():
        with share:
            return 1

    assert inner() == 1


def end_by_interrupt(share, reply):
    with pytest.raises(KeyboardInterrupt):
        with share:
            raise KeyboardInterrupt


def end_by_generator_close(share, reply):
    def calls():
        with share:
            yield 1

    running = calls()
    next(running)
    running.close()


@pytest.mark.parametrize(
    "end, settled",
    [(end_normally, False), (end_settled, True), (end_by_error, False), (end_settled_then_error, True),
     (end_by_break, False), (end_by_return, False), (end_by_interrupt, False), (end_by_generator_close, False)],
)
def test_gives_back_exactly_once_however_the_block_ends(end, settled, reply):
    callback = Callback()
    share = db.Share(callback)
    paid = reply(cost=0.25)
    end(share, paid)
    assert callback.calls == [paid if settled else None]
    assert share._give_back is None
    share.settle(paid)
    assert len(callback.calls) == 1


def test_a_raising_callback_still_counts_as_given_back(reply):
    callback = Callback(raises=ValueError("ledger down"))
    share = db.Share(callback)
    with pytest.raises(ValueError, match="ledger down"):
        with share:
            share.settle(reply())
    assert len(callback.calls) == 1 and share._give_back is None


def test_a_raising_release_is_chained_to_the_error_that_ended_the_block():
    share = db.Share(Callback(raises=ValueError("release failed")))
    with pytest.raises(ValueError) as error:
        with share:
            raise Stop
    assert isinstance(error.value.__context__, Stop)


@pytest.mark.parametrize("give_back", [None, "default"])
def test_shares_of_nothing(give_back, reply):
    share = db.Share() if give_back == "default" else db.Share(give_back)
    assert share._give_back is (db._nothing if give_back == "default" else None)
    assert share.settle(reply()) is None and share._give_back is None


def test_a_give_back_that_cannot_be_called_clears_the_share():
    share = db.Share(5)
    with pytest.raises(TypeError, match="'int' object is not callable"):
        share.settle(None)
    assert share._give_back is None


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


def test_settle_without_a_reply_leaves_the_share_held():
    callback = Callback()
    share = db.Share(callback)
    with pytest.raises(TypeError, match=r"missing 1 required positional argument: 'reply'"):
        share.settle()
    assert share._give_back is callback and callback.calls == []


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
