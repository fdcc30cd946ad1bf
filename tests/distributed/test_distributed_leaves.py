"""One stream's leaves built on a local cluster of two worker processes, against one layer in one process."""

from __future__ import annotations

import io
import os
import pickle

import numpy as np
import pandas as pd
import pytest

pytest.importorskip("distributed")
dask = pytest.importorskip("dask")
dd = pytest.importorskip("dask.dataframe")

from quillmarsh.core.tree.chunk_layer import ChunkSensitivities, ChunkSensitivitiesParams  # noqa: E402
from single_reference import data_params, single_layer, union  # noqa: E402
from stream_tables import (  # noqa: E402
    FEATURES,
    TARGET,
    failing_table,
    kmeans_cost,
    r_squared,
    table,
    weighted_kmeans,
    weighted_least_squares,
    whole,
)

from quillmarsh.core.coreset import CoresetKMeans, CoresetLinearRegression  # noqa: E402
from quillmarsh.data.common import Dataset  # noqa: E402
from quillmarsh.data.manager import DataParams, DataParamsInternal, FeatureField  # noqa: E402
from quillmarsh.distributed import (  # noqa: E402
    LeafBuild,
    ManagerSettings,
    PartitionError,
    build_leaves,
    connect,
    scatter_batches,
)

# 1,000,000 rows in four partitions of uneven length: 260,001, 240,000, 300,017 and 199,982 rows. With
# chunks of 30,000 rows they leave 20,001, 0, 17 and 19,982 rows over: one more full chunk and a buffer
# node of 10,000 rows, as a single layer over the same rows (33 full chunks and 10,000 rows) has.
BOUNDS = [0, 260_001, 500_001, 800_018, 1_000_000]
N_ROWS = BOUNDS[-1]
CHUNK_SIZE = 30_000
SEED = 0


def coreset_params():
    return [
        ChunkSensitivitiesParams(coreset_cls=CoresetKMeans, coreset_params={"k": 4, "random_state": SEED}),
        ChunkSensitivitiesParams(
            coreset_cls=CoresetLinearRegression, coreset_params={"dtype": "float64", "random_state": SEED}
        ),
    ]


def delayed_partitions(bounds, make=table, failing=()):
    return [
        dask.delayed(failing_table if number in failing else make, pure=True)(start, stop)
        for number, (start, stop) in enumerate(zip(bounds[:-1], bounds[1:]))
    ]


@pytest.fixture(scope="module")
def stream(client):
    """The distributed run over the million rows, and the text its progress bar wrote."""
    shown = io.StringIO()
    result = build_leaves(
        delayed_partitions(BOUNDS), TARGET, data_params(), coreset_params(), CHUNK_SIZE,
        client=client, progress=shown,
    )
    return result, shown.getvalue()


@pytest.fixture(scope="module")
def single():
    """The same rows through one layer in this process."""
    return single_layer(whole(BOUNDS), coreset_params(), CHUNK_SIZE)


@pytest.fixture(scope="module")
def full_table():
    frame = pd.concat(whole(BOUNDS))
    return frame[FEATURES].to_numpy(), frame[TARGET].to_numpy()


def test_every_row_is_in_exactly_one_leaf(stream):
    result, _ = stream
    indices = np.concatenate([leaf.indices for leaf in result.leaves])
    assert len(indices) == N_ROWS
    assert np.array_equal(np.sort(indices), np.arange(N_ROWS))
    assert result.n_rows == N_ROWS
    assert [leaf.n_rows for leaf in result.leaves] == [len(leaf.indices) for leaf in result.leaves]


def test_leaves_are_cut_as_one_layer_cuts_them(stream, single):
    result, _ = stream
    assert len(result.full_leaves) == len([leaf for leaf in single if leaf["node_id"] != "buffer"]) == 33
    assert all(leaf.n_rows == CHUNK_SIZE for leaf in result.leaves[:-1])
    last = result.leaves[-1]
    assert last.is_buffer and last.node_id == "buffer" and last.partition is None
    assert last.n_rows == single[-1]["n_rows"] == N_ROWS % CHUNK_SIZE
    assert len({leaf.node_id for leaf in result.leaves}) == len(result.leaves)


def test_full_chunks_are_built_on_the_workers_and_the_rest_on_the_client(stream, client):
    result, _ = stream
    per_partition = [(stats.n_rows // CHUNK_SIZE, stats.n_rows % CHUNK_SIZE) for stats in result.partitions]
    lengths = np.diff(BOUNDS)
    assert [stats.partition for stats in result.partitions] == [0, 1, 2, 3]
    assert [stats.n_rows for stats in result.partitions] == list(lengths)
    assert [(stats.n_leaves, stats.leftover_rows) for stats in result.partitions] == per_partition
    assert {stats.worker for stats in result.partitions} <= set(client.scheduler_info()["workers"])
    for number, (start, stop) in enumerate(zip(BOUNDS[:-1], BOUNDS[1:])):
        leaves = [leaf for leaf in result.leaves if leaf.partition == number]
        assert len(leaves) == (stop - start) // CHUNK_SIZE
        # A partition's chunks are its rows, front first.
        covered = np.concatenate([leaf.indices for leaf in leaves]) if leaves else np.empty(0, dtype=int)
        assert np.array_equal(covered, np.arange(start, start + len(leaves) * CHUNK_SIZE))
    tail = [leaf for leaf in result.leaves if leaf.partition is None]
    assert [leaf.n_rows for leaf in tail] == [CHUNK_SIZE, N_ROWS % CHUNK_SIZE]
    leftover = np.concatenate([np.arange(start + (stop - start) // CHUNK_SIZE * CHUNK_SIZE, stop)
                               for start, stop in zip(BOUNDS[:-1], BOUNDS[1:])])
    assert np.array_equal(np.concatenate([leaf.indices for leaf in tail]), leftover)


def test_each_leaf_carries_its_coresets_and_their_samples(stream):
    result, _ = stream
    for leaf in result.leaves:
        assert [type(record) for record in leaf.coresets] == [ChunkSensitivities, ChunkSensitivities]
        classes = [record.params.coreset_cls for record in leaf.coresets]
        assert classes == [CoresetKMeans, CoresetLinearRegression]
        for record, sample in zip(leaf.coresets, leaf.samples):
            assert record.coreset["n_samples"] == leaf.n_rows
            assert record.no_features == len(FEATURES)
            assert np.array_equal(sample.ind, leaf.indices[record.coreset["idxs"]])
            assert sample.X.shape == (len(sample.ind), len(FEATURES))
            # The records come back with the selected rows only: weight j is that of row idxs[j].
            assert len(record.coreset["weights"]) == len(record.coreset["idxs"]) < leaf.n_rows
            assert len(record.coreset["sensitivities"]) == len(record.coreset["idxs"])
            assert np.array_equal(sample.sample_weight, record.coreset["weights"])
            assert np.all(sample.sample_weight > 0)
    # The buffer node's coresets handle small input; its weights still estimate its row count.
    last = result.leaves[-1]
    assert abs(last.samples[1].sample_weight.sum() - last.n_rows) < 0.2 * last.n_rows


def test_the_result_is_plain_picklable_records(stream):
    result, _ = stream
    again = pickle.loads(pickle.dumps(result))
    assert isinstance(again, LeafBuild)
    assert [leaf.node_id for leaf in again.leaves] == [leaf.node_id for leaf in result.leaves]
    assert again.leaves[0].coresets[0].params == result.leaves[0].coresets[0].params
    assert np.array_equal(again.leaves[5].indices, result.leaves[5].indices)
    # No node and no data manager came back: a leaf holds only arrays, records and numbers.
    assert not any(hasattr(leaf, "data_manager") or hasattr(leaf, "dset") for leaf in result.leaves)


def test_linear_regression_on_the_coresets_is_as_good_as_in_one_process(stream, single, full_table):
    # Over 10 runs with random_state 0 to 9, R² on all rows of the fit on the union of the coresets was
    # 0.7645724 ± 5.0e-6 (one process) and 0.7645743 ± 5.3e-6 (two workers), against 0.7645807 for the
    # fit on all rows; the two runs' difference has a spread of about 7e-6. 5e-5 is seven times that.
    X, y = full_table
    distributed_fit = stream[0].coreset_samples(1)
    one_process = union(single, 1)
    r2_distributed = r_squared(
        X, y, weighted_least_squares(distributed_fit.X, distributed_fit.y, distributed_fit.sample_weight)
    )
    r2_single = r_squared(
        X, y, weighted_least_squares(one_process.X, one_process.y, one_process.sample_weight)
    )
    r2_all_rows = r_squared(X, y, weighted_least_squares(X, y, np.ones(len(y))))
    assert abs(r2_distributed - r2_single) < 5e-5
    assert r2_all_rows - r2_distributed < 5e-5
    # The coresets are far smaller than the table.
    assert len(distributed_fit.ind) < N_ROWS // 5


def test_kmeans_on_the_coresets_is_as_good_as_in_one_process(stream, single, full_table):
    # Over 10 runs, the k-means cost on all rows of the centres fitted on the union of the coresets was
    # 3.000734 ± 3.4e-5 (one process) and 3.000742 ± 4.0e-5 (two workers): a spread of the difference of
    # about 5e-5, 1.8e-5 of the cost. The bound, 1e-4 of the cost, is five and a half times that.
    X, _ = full_table
    distributed_fit = stream[0].coreset_samples(0)
    one_process = union(single, 0)
    distributed_centres = weighted_kmeans(distributed_fit.X, distributed_fit.sample_weight, 4, SEED)
    cost_distributed = kmeans_cost(X, distributed_centres)
    cost_single = kmeans_cost(X, weighted_kmeans(one_process.X, one_process.sample_weight, 4, SEED))
    assert abs(cost_distributed - cost_single) < 1e-4 * cost_single


def test_progress_shows_rows_and_leaves_done(stream):
    _, shown = stream
    final = shown.replace("\r", "\n").strip().splitlines()[-1]
    assert "1.00M/1.00M" in final
    assert "leaves=34" in final
    assert "partitions=4/4" in final


SMALL_BOUNDS = [0, 50_000, 100_000, 150_000, 200_000]


def test_full_coresets_keep_one_weight_per_row(client):
    parts = delayed_partitions(SMALL_BOUNDS[:3])
    result = build_leaves(parts, TARGET, data_params(), coreset_params(), 20_000, client=client,
                          progress=False, full_coresets=True)
    assert [leaf.n_rows for leaf in result.leaves] == [20_000] * 5
    for leaf in result.leaves:
        for record, sample in zip(leaf.coresets, leaf.samples):
            weights = record.coreset["weights"]
            assert len(weights) == len(record.coreset["sensitivities"]) == leaf.n_rows
            assert np.count_nonzero(weights) == len(record.coreset["idxs"])
            assert np.array_equal(sample.sample_weight, weights[record.coreset["idxs"]])


def test_a_failing_partition_stops_the_run_with_its_number_and_the_workers_error(client):
    parts = delayed_partitions(SMALL_BOUNDS, failing={2})
    with pytest.raises(PartitionError) as caught:
        build_leaves(parts, TARGET, data_params(), coreset_params(), 20_000, client=client, progress=False)
    assert caught.value.partition == 2
    assert isinstance(caught.value.error, ValueError)
    assert str(caught.value).startswith("partition 2: ValueError:")
    assert caught.value.__cause__ is caught.value.error
    assert caught.value.traceback
    again = pickle.loads(pickle.dumps(caught.value))
    assert (again.partition, str(again), type(again.error)) == (2, str(caught.value), ValueError)


def test_a_run_told_to_go_on_reports_the_failed_partitions(client):
    parts = delayed_partitions(SMALL_BOUNDS, failing={1, 2})
    shown = io.StringIO()
    result = build_leaves(parts, TARGET, data_params(), coreset_params(), 20_000, client=client,
                          on_error="continue", progress=shown)
    assert [failure.partition for failure in result.failed] == [1, 2]
    assert all(isinstance(failure.error, ValueError) for failure in result.failed)
    assert [stats.partition for stats in result.partitions] == [0, 3]
    kept = np.r_[0:50_000, 150_000:200_000]
    assert np.array_equal(np.sort(np.concatenate([leaf.indices for leaf in result.leaves])), kept)
    # Each good partition leaves 10,000 rows over: one more full chunk, no buffer node.
    assert [leaf.n_rows for leaf in result.leaves] == [20_000] * 5
    assert "failed=2" in shown.getvalue()


def test_a_dask_dataframe_with_an_index_column_and_a_categorical_feature(client):
    frame = table(0, 90_000).reset_index(drop=True)
    frame["row"] = np.arange(1_000_000, 1_090_000)
    frame["colour"] = np.array(["red", "green", "blue"])[np.arange(90_000) % 3]
    frame.index = frame.index.astype(str)  # not sample indices: the column "row" is
    data = dd.from_pandas(frame, npartitions=3, sort=False)
    settings = ManagerSettings(
        data_params=DataParams(features=[FeatureField(name) for name in [*FEATURES, "colour"]]),
        data_params_internal=DataParamsInternal(categorical_features_=[3]),
    )
    result = build_leaves(data, TARGET, settings, coreset_params(), 25_000, client=client,
                          index_column="row", progress=False)
    assert data.npartitions == 3
    assert np.array_equal(np.sort(np.concatenate([leaf.indices for leaf in result.leaves])),
                          np.arange(1_000_000, 1_090_000))
    assert [leaf.n_rows for leaf in result.leaves] == [25_000] * 3 + [15_000]
    # Three numeric features and one one-hot column per colour.
    assert {record.no_features for leaf in result.leaves for record in leaf.coresets} == {6}
    assert result.leaves[0].samples[0].X.dtype == object


def test_an_index_that_is_not_integers_fails_the_partition(client):
    frame = table(0, 30_000)
    frame.index = frame.index.astype(str)
    with pytest.raises(PartitionError) as caught:
        build_leaves(dd.from_pandas(frame, npartitions=1), TARGET, data_params(), coreset_params(), 10_000,
                     client=client, progress=False)
    assert caught.value.partition == 0
    assert isinstance(caught.value.error, TypeError)
    assert "sample indices must be integers" in str(caught.value.error)


def test_sample_indices_that_repeat_are_warned_about(client):
    parts = [dask.delayed(table)(0, 15_000), dask.delayed(table)(0, 15_000)]
    with pytest.warns(UserWarning, match="more than one row"):
        result = build_leaves(parts, TARGET, data_params(), coreset_params(), 10_000, client=client,
                              progress=False)
    assert result.n_rows == 30_000


@pytest.mark.parametrize(
    "change, error",
    [
        ({"chunk_size": True}, TypeError),
        ({"chunk_size": 0}, ValueError),
        ({"chunk_size": 1.5}, TypeError),
        ({"on_error": "ignore"}, ValueError),
        ({"settings": {"features": FEATURES}}, TypeError),
        ({"target": "price"}, KeyError),
        ({"index_column": "row"}, KeyError),
    ],
)
def test_bad_arguments_are_refused_before_anything_runs(client, change, error):
    arguments = {"data": dd.from_pandas(table(0, 1_000), npartitions=2), "target": TARGET,
                 "settings": data_params(), "params": coreset_params(), "chunk_size": 100}
    arguments.update(change)
    with pytest.raises(error):
        build_leaves(**arguments, client=client, progress=False)


def test_partitions_must_be_delayed_objects(client):
    with pytest.raises(TypeError, match="partition 1 is a DataFrame"):
        build_leaves([dask.delayed(table)(0, 100), table(100, 200)], TARGET, data_params(), coreset_params(),
                     50, client=client, progress=False)


def example_batches(rows, batch_rows, seed=0):
    """Batches as the example makes them: a linear target, 1 % missing values, ``ind`` the row number."""
    rng = np.random.default_rng(seed)
    for start in range(0, rows, batch_rows):
        count = min(batch_rows, rows - start)
        X = rng.normal(size=(count, 3))
        y = X @ np.array([1.0, -1.0, 2.0]) + rng.normal(scale=0.1, size=count)
        X[rng.random(X.shape) < 0.01] = np.nan
        yield Dataset(np.arange(start, start + count), X, y)


def test_batches_made_on_the_client_are_scattered_into_partitions(client):
    rows, chunk_size = 203_500, 10_000
    parts = scatter_batches(client, example_batches(rows, 25_000), FEATURES, TARGET,
                            rows_per_partition=60_000)
    # Partitions of whole batches, at least 60,000 rows each but the last: 75,000, 75,000 and 53,500.
    assert client.gather([client.submit(len, part) for part in parts]) == [75_000, 75_000, 53_500]
    result = build_leaves(parts, TARGET, data_params(), coreset_params(), chunk_size, client=client,
                          progress=False, n_rows=rows)
    single = single_layer([pd.DataFrame(b.X, columns=FEATURES, index=b.ind).assign(y=b.y)
                           for b in example_batches(rows, 25_000)], coreset_params(), chunk_size)
    assert len(result.full_leaves) == len(single) - 1 == rows // chunk_size
    expected = [chunk_size] * (rows // chunk_size) + [rows % chunk_size]
    assert [leaf.n_rows for leaf in result.leaves] == expected
    assert np.array_equal(np.sort(np.concatenate([leaf.indices for leaf in result.leaves])), np.arange(rows))


def test_scatter_batches_refuses_a_bad_partition_length(client):
    with pytest.raises(ValueError):
        scatter_batches(client, example_batches(100, 10), FEATURES, rows_per_partition=0)
    with pytest.raises(TypeError):
        scatter_batches(client, example_batches(100, 10), FEATURES, rows_per_partition=2.5)


def test_the_local_workers_start_without_the_malloc_trim_threshold(client):
    # Dask sets it for its workers; it turns off glibc's adaptive mmap threshold, which doubled the CPU
    # time of the chunk builds. connect("local") leaves it out (unless this process's environment has it).
    if "MALLOC_TRIM_THRESHOLD_" in os.environ:
        pytest.skip("MALLOC_TRIM_THRESHOLD_ is set in this environment, so the workers inherit it")
    assert list(client.run(os.getenv, "MALLOC_TRIM_THRESHOLD_").values()) == [None, None]


@pytest.mark.parametrize(
    "lengths, chunk_size",
    [
        ([7_000, 0, 13_001, 2_999], 5_000),  # an empty partition, and one shorter than a chunk
        ([4_999, 4_999, 4_999, 4_999, 5], 5_000),  # no partition fills a chunk: all leaves on the client
        ([10_000, 5_000, 15_000], 5_000),  # every partition a multiple of the chunk: no buffer node
        ([3, 2, 9, 1], 4),  # chunks of the fewest rows a linear-regression coreset takes
    ],
)
def test_any_partition_lengths_give_the_leaves_of_one_layer(client, lengths, chunk_size):
    bounds = np.concatenate([[0], np.cumsum(lengths)]).tolist()
    result = build_leaves(delayed_partitions(bounds), TARGET, data_params(),
                          [ChunkSensitivitiesParams(coreset_cls=CoresetLinearRegression)], chunk_size,
                          client=client, progress=False)
    total = bounds[-1]
    single = single_layer(whole(bounds), [ChunkSensitivitiesParams(coreset_cls=CoresetLinearRegression)],
                          chunk_size)
    assert [leaf.n_rows for leaf in result.leaves] == [leaf["n_rows"] for leaf in single]
    assert [leaf.is_buffer for leaf in result.leaves] == [leaf["node_id"] == "buffer" for leaf in single]
    assert len(result.full_leaves) == total // chunk_size
    assert np.array_equal(np.sort(np.concatenate([leaf.indices for leaf in result.leaves])), np.arange(total))


def test_connect_reaches_a_running_scheduler_by_its_address(client):
    address = client.scheduler.address
    with connect(address) as other:
        assert other.scheduler.address == address
        parts = delayed_partitions([0, 25_000, 40_000])
        result = build_leaves(parts, TARGET, data_params(), coreset_params(), 10_000, client=other,
                              progress=False)
        assert [leaf.n_rows for leaf in result.leaves] == [10_000] * 4
    with pytest.raises(TypeError):
        connect(address, n_workers=2)


def test_a_client_that_fails_to_start_is_closed_before_connect_raises(monkeypatch):
    import distributed

    closed = []

    class FailingClient(distributed.Client):
        """Fails half-way through its start, as a client whose scheduler does not answer may."""

        def __init__(self, address):
            self.status = "connecting"
            raise OSError(f"no answer from {address}")

        def close(self, timeout=None):
            closed.append(self.status)
            self.status = "closed"

        def __del__(self):
            pass

    monkeypatch.setattr(distributed, "Client", FailingClient)
    with pytest.raises(OSError, match="no answer from tcp://127.0.0.1:9") as info:
        connect("tcp://127.0.0.1:9")
    assert closed == ["connecting"]
    assert info.value.__traceback__ is not None  # the error itself stays readable


def test_an_empty_stream_has_no_leaves(client):
    result = build_leaves([], TARGET, data_params(), coreset_params(), 100, client=client, progress=False)
    assert result.leaves == [] and result.n_rows == 0 and result.failed == []


def test_leaf_samples_form_a_dataset(stream):
    samples = stream[0].coreset_samples(1)
    assert isinstance(samples, Dataset)
    assert len(samples.ind) == len(samples.X) == len(samples.y) == len(samples.sample_weight)
