"""Any executor of `concurrent.futures`: its workers map the data from a file."""

from __future__ import annotations

from collections.abc import Iterator, Sequence
from concurrent.futures import BrokenExecutor, Executor, Future, as_completed

from quorvane.sweeping.bench import compute_from_files, forget_files
from quorvane.sweeping.outcome import Outcome, error_text
from quorvane.sweeping.processes import Numbered
from quorvane.sweeping.shared import Shared, as_files


def in_executor(
    shared: Shared, jobs: Sequence[Numbered], executor: Executor
) -> Iterator[tuple[int, Outcome]]:
    """The outcomes of jobs as they come; the executor stays as it is, for whoever made it."""
    with as_files(shared) as folder:
        numbers: dict[Future[Outcome], int] = {}
        try:
            broken: list[tuple[int, Outcome]] = []
            for number, job in jobs:
                try:
                    future = executor.submit(compute_from_files, str(folder), job)
                except BrokenExecutor as error:
                    broken.append((number, Outcome({}, 0.0, error_text(error))))
                else:
                    numbers[future] = number
            yield from broken
            for future in as_completed(numbers):
                yield numbers[future], _outcome_of(future)
        finally:
            for future in numbers:
                future.cancel()
            forget_files(str(folder))


def _outcome_of(future: Future[Outcome]) -> Outcome:
    # Of the executor itself, such as that a process of it has ended.
    error = future.exception()
    return future.result() if error is None else Outcome({}, 0.0, error_text(error))
