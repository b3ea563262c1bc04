"""A share gives back exactly once, however its block ends and whatever its give-back does: the
module's Share against its twin's."""

import pytest

from engines import decision_bounds as db

from support import failing, outcome, twin


class Stop(Exception):
    pass


GIVE_BACKS = {
    "records": lambda calls, share: calls.append,
    "raises": lambda calls, share: lambda reply: calls.append(reply) or failing(),
    "not callable": lambda calls, share: 5,
    "settles again": lambda calls, share: lambda reply: calls.append(share[0].settle("again")),
    "nothing": lambda calls, share: None,
}


@pytest.mark.parametrize("give_back", GIVE_BACKS)
@pytest.mark.parametrize("settles, raises", [
    (False, None), (True, None), (False, Stop), (True, Stop), (False, KeyboardInterrupt)])
def test_gives_back_exactly_once_however_the_block_ends(give_back, settles, raises):
    got = []
    for m in (db, twin()):
        class Counted(m.Share):  # __exit__ settles through the instance's settle
            def settle(self, reply):
                calls.append(("settle", reply))
                return super().settle(reply)

        calls, ended, share = [], None, []
        share.append(Counted(GIVE_BACKS[give_back](calls, share)))
        try:
            with share[0] as held:
                calls.append(held is share[0])
                if settles:
                    share[0].settle("paid")
                if raises:
                    raise raises("ended")
        except BaseException as error:  # noqa: BLE001 - compared below
            ended = type(error).__name__, str(error), type(error.__context__).__name__
        calls.append(outcome(lambda: (share[0].settle("late"), share[0].__exit__(), share[0]._give_back)))
        # A share of nothing by default; with another base of a layout of its own, as for a Python class.
        got.append((ended, calls, vars(m.Share()) == {"_give_back": m._nothing},
                    outcome(lambda: vars(type("Both", (m.Share, int), {})(7)))))
    assert got[0] == got[1]
