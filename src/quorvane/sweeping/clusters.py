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

# So often all workers may be lost at once, and with them the data that only they had.
MOST_LOSSES = 5


def is_client(executor: Any) -> bool:
    """Whether it is a client of a cluster; the library is not imported for it."""
    distributed = sys.modules.get("distributed")
    return distributed is not None and isinstance(executor, distributed.Client)


def in_cluster(
    shared: Shared, jobs: Sequence[Numbered], client: Any
) -> Iterator[tuple[int, Outcome]]:
    """The outcomes of jobs as they come.

    The data goes to all workers before the first job, so that any may end: the scheduler gives its
    jobs to others, and workers that come later have the data from those. Where none is left that
    had them they are sent again.

    Raises
    ------
    TypeError
        The client is asynchronous.
    RuntimeError
        The data were lost time and again.
    """
    if client.asynchronous:
        raise TypeError("executor: an asynchronous client cannot be waited for, make a plain one")
    left = dict(jobs)
    for _ in range(MOST_LOSSES):
        for number, outcome in _with_data(client, shared, left):
            del left[number]
            yield number, outcome
        if not left:
            return
    raise RuntimeError(f"executor: all workers of the cluster were lost {MOST_LOSSES} times")


def _with_data(client: Any, shared: Shared, jobs: dict[int, Any]) -> Iterator[tuple[int, Outcome]]:
    """The outcomes of jobs, of all unless the data are lost meanwhile."""
    distributed = importlib.import_module("distributed")
    numbers = list(jobs)
    data = client.scatter(shared, broadcast=True, hash=False)
    futures = client.map(
        compute_shared, [jobs[number] for number in numbers], shared=data, pure=False
    )
    by_key = {future.key: number for future, number in zip(futures, numbers, strict=True)}
    try:
        for future in distributed.as_completed(futures):
            status = future.status
            if status == "finished":
                yield by_key[future.key], future.result()
            elif status == "error":
                # Of the cluster, such as that too many workers ended with this job.
                outcome = Outcome({}, 0.0, error_text(future.exception()))
                yield by_key[future.key], outcome
            future.release()
    finally:
        client.cancel(futures)
