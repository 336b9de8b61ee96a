"""On a real cluster of several processes: the same rows, also when one of them is killed."""

import asyncio
import logging
import os
import pickle
import signal
import sys
import time
from concurrent.futures import ThreadPoolExecutor

import pytest

import quorvane as qv
from quorvane.sweeping import clusters
from quorvane.sweeping.bench import compute_shared
from quorvane.sweeping.plan import plan_of
from support import sweeping
from support.sweeping import NAMES, PAIRS, grid, returns

pytest.importorskip("pandas")
distributed = pytest.importorskip(
    "distributed", reason="dask.distributed is not installed, nothing is known of clusters"
)

MANY = {"weights": {"pairs": PAIRS}, "expression": ["rank"], "hold": list(range(40))}


@pytest.fixture(scope="module")
def client():
    """A client of a cluster of three worker processes of one thread each."""
    # Its loggers tell each worker that ends, and go on after the streams of a test are closed.
    logging.getLogger("distributed").setLevel(logging.CRITICAL)
    with (
        distributed.LocalCluster(
            n_workers=3, threads_per_worker=1, processes=True, dashboard_address=":0"
        ) as cluster,
        distributed.Client(cluster) as client,
    ):
        yield client


@pytest.fixture
def workers(client):
    """The processes of the workers, all of them there."""
    client.wait_for_workers(3, timeout=60)
    return sorted(client.run(os.getpid).values())


@pytest.fixture(scope="module")
def expected():
    """What the sweep of `MANY` finds where nothing happens."""
    with ThreadPoolExecutor(8) as executor:
        return qv.sweep(returns(), MANY, score=sweeping.sleeps_a_little, executor=executor)


def test_the_rows_are_those_of_processes_to_the_bit(client, same):
    same(qv.sweep(returns(), grid(), executor=client), qv.sweep(returns(), grid()))


def test_a_worker_that_is_killed_in_the_middle_changes_no_row(
    client, workers, expected, same, monkeypatch
):
    # Killed when a part of the rows is there, and of the others some are being computed.
    found = _sweep_and_after(client, 15, lambda: os.kill(workers[0], signal.SIGKILL), monkeypatch)
    same(found, expected)
    assert found["error"].eq("").all()
    client.wait_for_workers(3, timeout=60)
    assert workers[0] not in client.run(os.getpid).values()


def test_all_workers_killed_at_once_have_the_data_sent_again(
    client, workers, expected, same, monkeypatch
):
    sent, real = [], client.scatter

    def scatter(*arguments, **keywords):
        sent.append(arguments)
        return real(*arguments, **keywords)

    monkeypatch.setattr(client, "scatter", scatter)
    found = _sweep_and_after(
        client, 15, lambda: [os.kill(each, signal.SIGKILL) for each in workers], monkeypatch
    )
    same(found, expected)
    assert len(sent) >= 2


def test_functions_travel_by_path_and_one_that_cannot_is_a_row(client, workers, register):
    assert workers
    register("halved_in_a_test", sweeping.halved)
    register("inside_in_a_test", sweeping.made())
    grid = {"weights": [None], "expression": ["halved_in_a_test", "inside_in_a_test", "rank"]}
    found = qv.sweep(returns(), grid, score=sweeping.mean_of_signal, executor=client)
    assert found["error"].eq("").tolist() == [True, False, True]
    assert found["error"].tolist()[1].startswith("ImportError: ")


def test_workers_get_the_data_once_and_nothing_stays_behind(client, workers):
    assert workers
    client.run(_count_benches)
    qv.sweep(returns(), MANY, executor=client)
    qv.sweep(returns(), MANY, executor=client)
    assert set(client.run(_benches).values()) == {2}
    end = time.monotonic() + 10.0
    while any(client.has_what().values()) and time.monotonic() < end:
        time.sleep(0.05)
    assert not any(client.has_what().values())


def test_a_task_carries_less_than_20_kb_however_large_the_grid(client):
    weights = {
        f"set {number}": {f"basket {i}": dict.fromkeys(NAMES, 1.0 + number + i) for i in range(200)}
        for number in range(5)
    }
    chosen = {"weights": weights, "expression": ["ewma(5);rank", "zscore"], "hold": [0, 5, None]}
    plan = plan_of(returns(2000), chosen, None, None)
    assert len(pickle.dumps(plan.shared)) > 300_000
    jobs = list(enumerate(plan.jobs))
    sizes = []
    real = client.map

    def measured(function, items, **keywords):
        assert function is compute_shared
        assert isinstance(keywords["shared"], distributed.Future)
        futures = real(function, items, **keywords)
        end = time.monotonic() + 10.0
        while len(sizes) < len(jobs) and time.monotonic() < end:
            sizes[:] = client.run_on_scheduler(_sizes_of_tasks).values()
        return futures

    client.map = measured
    try:
        found = dict(clusters.in_cluster(plan.shared, jobs, client))
    finally:
        del client.map
    assert len(found) == len(jobs) == 30
    assert len(sizes) == len(jobs)
    assert max(sizes) < 20_000
    assert max(len(pickle.dumps((compute_shared, job))) for _, job in jobs) < 1_000


def test_a_client_that_is_asynchronous_is_refused(client):
    async def main():
        address = client.scheduler.address
        async with distributed.Client(address, asynchronous=True) as other:
            with pytest.raises(TypeError, match="executor: an asynchronous client"):
                qv.sweep(returns(), MANY, executor=other)

    asyncio.run(main())


def test_a_configuration_that_the_scheduler_gives_up_fails_alone(client, workers, register):
    assert workers
    register("ending_in_a_test", sweeping.ending)
    grid = {"weights": [None], "expression": ["rank", "ending_in_a_test", "zscore"]}
    before = client.run_on_scheduler(_allow_failures, number=0)
    try:
        found = qv.sweep(returns(), grid, score=sweeping.mean_of_signal, executor=client)
    finally:
        client.run_on_scheduler(_allow_failures, number=before)
    assert found["error"].tolist()[::2] == ["", ""]
    assert found["error"].tolist()[1].startswith("KilledWorker: ")


def test_a_configuration_that_ends_all_its_workers_fails_alone(client, register):
    # The last one: a worker that ends while it begins may be gone for good.
    register("ending_in_a_test", sweeping.ending)
    grid = {"weights": [None], "expression": ["rank", "ending_in_a_test", "zscore", "ewma(3)"]}
    found = qv.sweep(returns(), grid, score=sweeping.mean_of_signal, executor=client)
    assert found["error"].eq("").tolist() == [True, False, True, True]
    # As soon as one comes back before the last has ended, it is the scheduler that gives up.
    assert found["error"].tolist()[1].startswith((clusters.ALL_LOST, "KilledWorker: "))


def _sweep_and_after(client, rows, action, monkeypatch):
    """A sweep of `MANY`, in which something happens when so many rows are there."""
    module = sys.modules["quorvane.sweeping.front"]
    real, happened = module.in_cluster, []

    def counting(*arguments):
        for number, each in enumerate(real(*arguments), start=1):
            if number == rows:
                happened.append(action())
            yield each

    with monkeypatch.context() as patch:
        patch.setattr(module, "in_cluster", counting)
        found = qv.sweep(returns(), MANY, score=sweeping.sleeps_a_little, executor=client)
    assert len(happened) == 1
    return found


def _allow_failures(dask_scheduler, number):
    before = dask_scheduler.allowed_failures
    dask_scheduler.allowed_failures = number
    return before


def _sizes_of_tasks(dask_scheduler):
    """What the scheduler holds of each task, in bytes."""
    return {
        str(key): len(pickle.dumps(task.run_spec))
        for key, task in dask_scheduler.tasks.items()
        if task.run_spec is not None
    }


def _count_benches():
    from quorvane.sweeping import bench

    real = bench.Bench.__init__
    bench.MADE = 0

    def made(self, shared):
        bench.MADE += 1
        real(self, shared)

    bench.Bench.__init__ = made


def _benches():
    from quorvane.sweeping import bench

    return bench.MADE
