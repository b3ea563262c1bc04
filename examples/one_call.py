"""The road of one paid call through a share: held while the call runs, given back exactly once."""

from engines import decision_bounds as db


class Reply:
    cached = False
    input_tokens = 812
    cost = 0.0042


def main() -> None:
    given_back = []
    share = db.Share(given_back.append)
    with share:
        reply = Reply()  # the paid call would run here
        share.settle(reply)
    # Leaving the block settles with None, which does nothing to a share already given back.
    print(f"given back {len(given_back)} time(s), with {given_back[0].cost} USD counted")


if __name__ == "__main__":
    main()
