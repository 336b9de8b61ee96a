"""Which of the pending changes came to the disk before the power went."""

from functools import partial

from powercut.disk import Grow, Write


def choices(pending, random, most):
    """Lists of changes that may have come to the disk.

    Always none and all; then at most so many, or a sample, of these: all but one, one alone, one
    torn between two sectors with all the others or with those before it, one that only made the
    file longer; and so many random selections of sectors and names, half of them in random order.
    """
    yield []
    if not pending:
        return
    yield pending
    systematic = [
        partial(way, pending, place, random)
        for place, change in enumerate(pending)
        for way in (_WAYS_OF_A_WRITE if isinstance(change, Write) else _WAYS)
    ]
    if len(systematic) > most:
        systematic = random.sample(systematic, most)
    for choice in systematic:
        yield choice()
    for _ in range(most):
        yield _at_random(pending, random)


def _all_but(pending, place, random):
    return pending[:place] + pending[place + 1 :]


def _alone(pending, place, random):
    return [pending[place]]


def _torn(pending, place, random):
    return [*pending[:place], *_some_sectors(pending[place], random), *pending[place + 1 :]]


def _torn_last(pending, place, random):
    return [*pending[:place], *_some_sectors(pending[place], random)]


def _longer(pending, place, random):
    write = pending[place]
    size = Grow(write.node, write.place + len(write.data))
    return [*pending[:place], size, *pending[place + 1 :]]


_WAYS = (_all_but, _alone)
_WAYS_OF_A_WRITE = (*_WAYS, _torn, _torn_last, _longer)


def _some_sectors(write, random):
    """The sectors before, or those after, a random one."""
    sectors = write.sectors()
    cut = random.randrange(len(sectors))
    return sectors[:cut] if random.random() < 0.5 else sectors[cut + 1 :]


def _at_random(pending, random):
    pieces = []
    for change in pending:
        pieces += change.sectors() if isinstance(change, Write) else [change]
    share = random.choice([0.1, 0.5, 0.9])
    chosen = [piece for piece in pieces if random.random() < share]
    if random.random() < 0.5:
        random.shuffle(chosen)
    return chosen
