"""A cluster of dask.distributed: each worker gets the data once, and none may be lost with it."""

from __future__ import annotations

import importlib
import sys
from collections.abc import Iterator, Sequence
from typing import Any

from quorvane.sweeping.bench import compute_shared
from quorvane.sweeping.outcome import Outcome, error_text
from quorvane.sweeping.processes import Numbered
from quorvane.sweeping.shared import Shared

ALL_LOST = "WorkerEnded: all workers of the cluster ended in this configuration"


def is_client(executor: Any) -> bool:
    """Whether it is a client of a cluster; the library is not imported for it."""
    distributed = sys.modules.get("distributed")
    return distributed is not None and isinstance(executor, distributed.Client)


def in_cluster(
    shared: Shared, jobs: Sequence[Numbered], client: Any
) -> Iterator[tuple[int, Outcome]]:
    """The outcomes of jobs as they come.

    The data goes to all workers before the first job, so that any may end: the scheduler gives its
    jobs to others, and workers that come later have the data from those. Where all end at once the
    data are sent again, for the jobs that are left, in two halves: one job that ends all workers is
    alone in the end, and is the only one that fails.

    Raises
    ------
    TypeError
        The client is asynchronous.
    """
    if client.asynchronous:
        raise TypeError("executor: an asynchronous client cannot be waited for, make a plain one")
    parts = [list(jobs)]
    while parts:
        part = parts.pop()
        left = dict(part)
        for number, outcome in _with_data(client, shared, part):
            del left[number]
            yield number, outcome
        if len(part) == len(left) == 1:
            yield part[0][0], Outcome({}, 0.0, ALL_LOST)
        elif left:
            again, half = list(left.items()), (len(left) + 1) // 2
            parts += [each for each in (again[half:], again[:half]) if each]


def _with_data(
    client: Any, shared: Shared, jobs: Sequence[Numbered]
) -> Iterator[tuple[int, Outcome]]:
    """The outcomes of jobs, of all unless the data are lost meanwhile."""
    distributed = importlib.import_module("distributed")
    # Where all have ended, others may take their time.
    client.wait_for_workers(1)
    data = client.scatter(shared, broadcast=True, hash=False)
    futures = client.map(compute_shared, [job for _, job in jobs], shared=data, pure=False)
    by_key = {future.key: number for future, (number, _) in zip(futures, jobs, strict=True)}
    try:
        # What is there is fetched in one go: each on its own would cost more than a small job.
        for batch in distributed.as_completed(futures, loop=client.loop).batches():
            done = [future for future in batch if future.status == "finished"]
            for future in batch:
                if future.status == "error":
                    # Of the cluster, such as that too many workers ended with this job.
                    outcome = Outcome({}, 0.0, error_text(future.exception()))
                    yield by_key[future.key], outcome
            yield from _fetched(client, done, by_key)
            for future in batch:
                future.release()
    finally:
        client.cancel(futures)


def _fetched(client: Any, done: list[Any], by_key: dict[Any, int]) -> Iterator[tuple[int, Outcome]]:
    """The outcomes of finished jobs, without those whose workers have ended since."""
    found = client.gather({future.key: future for future in done}, errors="skip")
    for key, outcome in found.items():
        if outcome is not None:
            yield by_key[key], outcome
