"""The leaves of one stream, built partition by partition on the workers of a Dask cluster.

Every partition streams through its own ``ChunkLayer`` on a worker process, in sequential mode (a data
manager with ``n_jobs`` 1, in memory, made on the worker from picklable settings). Each full chunk
becomes a leaf there and is sent back as a ``Leaf`` record; the node itself, its dataset and the
worker's data manager stay on the worker. The rows a partition leaves over (fewer than ``chunk_size``)
go back to the client, which feeds them, in partition order and as soon as every earlier partition has
finished, through one final layer of its own; after the last partition that layer's buffer node is the
last leaf. So the leaves are the ones a single layer would cut from the same rows, up to where the
partition boundaries fall: as many full leaves, every leaf but the last of ``chunk_size`` rows.
"""

from __future__ import annotations

import copy
import gc
import queue
import sys
import time
import traceback
import uuid
import warnings
from dataclasses import dataclass, field
from typing import IO, Any, Dict, Iterable, List, Literal, Optional, Sequence, Tuple, Union, cast

import dask
import distributed
import numpy as np
import pandas as pd
from dask.delayed import Delayed, delayed
from quillmarsh.core.tree.chunk_layer import (
    BUFFER_NODE_ID,
    ChunkLayer,
    ChunkSensitivitiesParams,
)
from tqdm import tqdm

from quillmarsh.data.common import Dataset
from quillmarsh.data.manager import DataManager, DataParams, DataParamsInternal

__all__ = [
    "ON_ERROR_CHOICES",
    "Leaf",
    "LeafBuild",
    "ManagerSettings",
    "OnError",
    "PartitionError",
    "PartitionFailure",
    "PartitionStats",
    "build_leaves",
    "connect",
    "scatter_batches",
]

OnError = Literal["raise", "continue"]
"""What ``build_leaves`` does when a partition fails: stop at once, or go on and list the failure."""

ON_ERROR_CHOICES: Tuple[OnError, ...] = ("raise", "continue")
"""The values of ``on_error``."""

_POLL_SECONDS = 0.1

_SPAWN_ENVIRON = "distributed.nanny.pre-spawn-environ"
"""Dask's setting of the environment variables its nannies give the worker processes they start."""


@dataclass
class ManagerSettings:
    """The plain, picklable settings from which each process makes its own data manager.

    A worker (and the client, for the last layer) makes an in-memory ``DataManager`` with ``n_jobs`` 1
    from these, so the manager itself never crosses processes.
    """

    data_params: DataParams = field(default_factory=DataParams)
    data_params_internal: Optional[DataParamsInternal] = None
    cat_encoding_config: Optional[Dict[str, Any]] = None

    def make_manager(self) -> DataManager:
        """Return a new in-memory data manager with these settings, sequential (``n_jobs`` 1), silent.

        Returns
        -------
        DataManager
            A manager holding deep copies of the settings.
        """
        return DataManager(
            data_params=copy.deepcopy(self.data_params),
            data_params_internal=copy.deepcopy(self.data_params_internal),
            n_jobs=1,
            verbose=0,
            cat_encoding_config=copy.deepcopy(self.cat_encoding_config),
        )


@dataclass
class Leaf:
    """One leaf of the stream, as a picklable record.

    Attributes
    ----------
    node_id : str
        The node's id (``"buffer"`` for the buffer node, the last leaf).
    n_rows : int
        The number of rows of its chunk, as cut.
    indices : ndarray
        The sample indices of those rows, in the chunk's order.
    coresets : list of ChunkSensitivities
        The node's records, one per parameter record, in order; their coreset dictionaries hold the
        selected rows only, unless ``build_leaves`` was told otherwise.
    samples : list of Dataset or None
        Per coreset, the rows it selected as a ``Dataset`` (``ind``, ``X`` and ``y`` of the node's
        dataset after preprocessing, ``sample_weight`` the coreset's weights), or None when the
        coreset was computed on other rows than the node kept (a later preprocessing pass dropped
        more). Preprocessing drops rows and turns the target into numbers, but leaves ``X`` as it
        came: its feature columns, unencoded (text stays text, missing values stay missing), because
        each worker encodes in a feature space of its own; encode the rows in one space before fitting
        on them.
    partition : int or None
        The number of the partition it was cut from, or None for a leaf of the client's last layer
        (built from the rows the partitions left over).
    """

    node_id: str
    n_rows: int
    indices: np.ndarray[Any, Any]
    coresets: List[Any]
    samples: List[Optional[Dataset]]
    partition: Optional[int]

    @property
    def is_buffer(self) -> bool:
        """Tell whether this leaf is the buffer node."""
        return bool(self.node_id == BUFFER_NODE_ID)


@dataclass
class PartitionStats:
    """What one partition took on its worker: rows, leaves, rows left over, seconds, worker address."""

    partition: int
    n_rows: int
    n_leaves: int
    leftover_rows: int
    seconds: float
    worker: str


@dataclass
class PartitionFailure:
    """A partition that failed: its number, the worker's exception and that exception's traceback text."""

    partition: int
    error: BaseException
    traceback: str

    def __str__(self) -> str:
        """Return the partition's number and the error, on one line."""
        return f"partition {self.partition}: {type(self.error).__name__}: {self.error}"


class PartitionError(RuntimeError):
    """Raised by ``build_leaves`` (with ``on_error="raise"``) when a partition fails on its worker.

    ``partition`` is the partition's number, ``error`` the worker's exception (also the ``__cause__``)
    and ``traceback`` its traceback text.

    Parameters
    ----------
    failure : PartitionFailure
        The failed partition.
    """

    def __init__(self, failure: PartitionFailure) -> None:
        self.partition = failure.partition
        self.error = failure.error
        self.traceback = failure.traceback
        super().__init__(f"{failure} (on its worker)")

    def __reduce__(self) -> Tuple[Any, Tuple[PartitionFailure]]:
        """Pickle the error as its failure record, so it crosses processes whole."""
        return type(self), (PartitionFailure(self.partition, self.error, self.traceback),)


@dataclass
class LeafBuild:
    """The result of ``build_leaves``.

    Attributes
    ----------
    leaves : list of Leaf
        Every leaf, the partitions' leaves in partition order, then the client's last layer's leaves,
        the buffer node (if any rows were left) last.
    failed : list of PartitionFailure
        The partitions that failed (only with ``on_error="continue"``), by partition number.
    partitions : list of PartitionStats
        What each partition that succeeded took on its worker, by partition number.
    n_rows : int
        The rows in all leaves.
    tail_seconds : float
        The client's time in its last layer.
    wall_seconds : float
        The whole call's time.
    """

    leaves: List[Leaf]
    failed: List[PartitionFailure]
    partitions: List[PartitionStats]
    n_rows: int
    tail_seconds: float
    wall_seconds: float

    @property
    def full_leaves(self) -> List[Leaf]:
        """The leaves that are not the buffer node."""
        return [leaf for leaf in self.leaves if not leaf.is_buffer]

    def coreset_samples(self, position: int = 0) -> Dataset:
        """Return the union, over all leaves, of the rows selected by the coreset at ``position``.

        Parameters
        ----------
        position : int, default=0
            The coreset's position in each leaf's ``samples``.

        Returns
        -------
        Dataset
            ``ind``, ``X``, ``y`` (None when the stream had no target) and ``sample_weight``; ``X``
            holds the feature columns unencoded (see ``Leaf``), so numeric rows without missing values
            are ready for fitting a weighted model, others need encoding first.

        Raises
        ------
        ValueError
            If a leaf has no samples for it, or there are no leaves.
        """
        parts = []
        for leaf in self.leaves:
            sample = leaf.samples[position]
            if sample is None:
                raise ValueError(f"leaf {leaf.node_id!r} has no samples for coreset {position}")
            parts.append(sample)
        if not parts:
            raise ValueError("there are no leaves")
        fields: List[Any] = [None if parts[0][i] is None else np.concatenate([p[i] for p in parts])
                             for i in range(len(Dataset._fields))]
        return Dataset(*fields)


@dataclass
class _Job:
    """Everything a worker needs for one partition, apart from the partition itself."""

    settings: ManagerSettings
    params: List[Any]
    chunk_size: int
    target: Optional[str]
    index_column: Optional[str]
    topic: Optional[str]
    full_coresets: bool


@dataclass
class _PartitionResult:
    leaves: List[Leaf]
    leftover: Optional[Dataset]
    stats: PartitionStats


class _Parent:
    """The owner a layer tells of every addition to its buffer; nothing here listens."""

    def update_build_params(self) -> None:
        """Hear of an addition to the buffer."""


class _RecordingLayer(ChunkLayer):
    """A chunk layer that keeps the sample indices of the chunk of the node it built last."""

    last_indices: Optional[np.ndarray[Any, Any]] = None

    def _create_node(self, dset: Any, node_id: Any = None, leaf_node_index: Any = None) -> Any:
        self.last_indices = np.asarray(dset.ind)
        return super()._create_node(dset, node_id, leaf_node_index)


_PER_ROW_KEYS = ("weights", "sensitivities")
"""The entries of a coreset's dictionary form that may hold one value per row of the chunk."""


def _selected_only(record: Any) -> Any:
    """Return the coreset record with its per-row arrays cut down to the selected rows (``idxs``).

    That is the dictionary form a coreset gives with ``use_keep_selected_only=True``: ``weights[j]`` is
    the weight of row ``idxs[j]``. It keeps the records a small fraction of the chunk's size.
    """
    coreset = dict(record.coreset)
    rows = np.asarray(coreset["idxs"])
    for key in _PER_ROW_KEYS:
        value = coreset.get(key)
        if value is not None and len(value) == int(coreset["n_samples"]):
            coreset[key] = np.asarray(value)[rows]
    return type(record)(coreset=coreset, params=record.params, removed_rows=record.removed_rows,
                        no_features=record.no_features)


def _leaf(node: Any, indices: Optional[np.ndarray[Any, Any]], partition: Optional[int],
          full_coresets: bool = False) -> Leaf:
    """Return the record of a built node; its dataset and data manager stay behind."""
    assert indices is not None, "the layer built a node without cutting a chunk"
    dset = node.dset
    samples: List[Optional[Dataset]] = []
    for record in node.coresets:
        coreset = record.coreset
        if int(coreset["n_samples"]) != len(dset.ind):
            samples.append(None)
            continue
        rows = np.asarray(coreset["idxs"])
        weights = np.asarray(coreset["weights"])
        if len(weights) == len(dset.ind):  # one weight per row: keep the selected rows' weights
            weights = weights[rows]
        samples.append(Dataset(
            ind=np.asarray(dset.ind)[rows],
            X=np.asarray(dset.X)[rows],
            y=None if dset.y is None else np.asarray(dset.y)[rows],
            sample_weight=weights,
        ))
    return Leaf(
        node_id=str(node.node_id),
        n_rows=len(indices),
        indices=indices,
        coresets=list(node.coresets) if full_coresets else [_selected_only(r) for r in node.coresets],
        samples=samples,
        partition=partition,
    )


def _report(topic: Optional[str], message: Dict[str, int]) -> None:
    """Send a progress event to the client, when running on a worker of a cluster."""
    if topic is None:
        return
    try:
        worker = distributed.get_worker()
    except ValueError:  # not on a worker
        return
    worker.log_event(topic, message)


def _feature_names(columns: Sequence[Any], settings: ManagerSettings, target: Optional[str],
                   index_column: Optional[str]) -> List[Any]:
    """Return the feature columns: the data parameters', else all but the target and index columns."""
    named = [feature.name for feature in settings.data_params.features]
    if named:
        missing = [name for name in named if name not in columns]
        if missing:
            raise KeyError(f"feature column(s) {missing!r} not in the data's columns {list(columns)!r}")
        return named
    return [column for column in columns if column != target and column != index_column]


def _batches(frame: pd.DataFrame, job: _Job) -> Any:
    """Return the partition as datasets of at most ``chunk_size`` rows, copied one batch at a time."""
    names = _feature_names(list(frame.columns), job.settings, job.target, job.index_column)
    numeric = all(pd.api.types.is_numeric_dtype(frame[name]) for name in names)
    target_numeric = job.target is not None and pd.api.types.is_numeric_dtype(frame[job.target])
    for start in range(0, len(frame), job.chunk_size):
        part = frame.iloc[start:start + job.chunk_size]
        ind = (part.index if job.index_column is None else part[job.index_column]).to_numpy()
        if ind.dtype.kind not in "iu":
            source = "index" if job.index_column is None else f"column {job.index_column!r}"
            raise TypeError(f"sample indices must be integers, but the {source} holds {ind.dtype}")
        if numeric:
            X = part[names].to_numpy(dtype=np.float64, na_value=np.nan)
        else:
            X = part[names].to_numpy(dtype=object)
        y = None
        if job.target is not None:
            column = part[job.target]
            y = column.to_numpy(dtype=np.float64, na_value=np.nan) if target_numeric else column.to_numpy(
                dtype=object)
        yield Dataset(ind.astype(np.int64, copy=False), X, y)


def _build_partition(frame: Any, partition: int, job: _Job) -> _PartitionResult:
    """Stream one partition through a chunk layer of its own; runs on a worker."""
    started = time.perf_counter()
    if not isinstance(frame, pd.DataFrame):
        raise TypeError(f"a partition must be a pandas DataFrame, got {type(frame).__name__}")
    _report(job.topic, {"partition": partition, "start": len(frame)})
    manager = job.settings.make_manager()
    layer = _RecordingLayer(manager, list(job.params), job.chunk_size, _Parent())
    leaves: List[Leaf] = []
    for node in layer.process(_batches(frame, job), create_buffer=False):
        leaves.append(_leaf(node, layer.last_indices, partition, job.full_coresets))
        _report(job.topic, {"partition": partition, "leaf": leaves[-1].n_rows})
    leftover = layer.get_buffer()
    manager.close()
    leftover_rows = 0 if leftover is None else len(leftover.ind)
    try:
        worker = distributed.get_worker().address
    except ValueError:
        worker = ""
    seconds = time.perf_counter() - started
    stats = PartitionStats(partition, len(frame), len(leaves), leftover_rows, seconds, worker)
    return _PartitionResult(leaves, leftover, stats)


def _partitions(data: Any) -> List[Any]:
    """Return the partitions of a Dask dataframe, or the given list of delayed (or scattered) ones."""
    is_frame = hasattr(data, "to_delayed") and hasattr(data, "npartitions")
    parts = list(data.to_delayed()) if is_frame else list(data)
    for number, part in enumerate(parts):
        if not isinstance(part, (Delayed, distributed.Future)):
            raise TypeError(
                f"partition {number} is a {type(part).__name__}, not a dask Delayed object or a Future"
            )
    return parts


def _check_columns(
    data: Any, settings: ManagerSettings, target: Optional[str], index_column: Optional[str]
) -> None:
    """Check the column names against a Dask dataframe's columns, before anything runs."""
    columns = getattr(data, "columns", None)
    if columns is None or not hasattr(data, "npartitions"):
        return
    columns = list(columns)
    for name, what in ((target, "target"), (index_column, "index")):
        if name is not None and name not in columns:
            raise KeyError(f"{what} column {name!r} not in the data's columns {columns!r}")
    if not _feature_names(columns, settings, target, index_column):
        raise ValueError("the data has no feature column")


class _Progress:
    """The client's progress bar: rows done (with the ETA) and, after it, leaves and partitions done."""

    def __init__(self, n_partitions: int, n_rows: Optional[int], stream: Optional[IO[str]]) -> None:
        self.n_partitions = n_partitions
        self.n_rows = n_rows
        self.lengths: Dict[int, int] = {}
        self.rows: Dict[int, int] = {}
        self.leaves: Dict[int, int] = {}
        self.finished: set[int] = set()
        self.failed = 0
        self.tail_leaves = 0
        self.bar = tqdm(total=n_rows, unit="row", unit_scale=True, file=stream, disable=stream is None,
                        desc="building leaves", dynamic_ncols=True, mininterval=0.5)
        self.shown = 0.0

    def event(self, message: Dict[str, int]) -> None:
        partition = int(message["partition"])
        if partition in self.finished:
            return
        if "start" in message:
            self.lengths[partition] = int(message["start"])
        elif "leaf" in message:
            self.rows[partition] = self.rows.get(partition, 0) + int(message["leaf"])
            self.leaves[partition] = self.leaves.get(partition, 0) + 1

    def finished_partition(self, stats: PartitionStats) -> None:
        self.finished.add(stats.partition)
        self.lengths[stats.partition] = stats.n_rows
        self.rows[stats.partition] = stats.n_rows
        self.leaves[stats.partition] = stats.n_leaves

    def failed_partition(self, partition: int) -> None:
        self.finished.add(partition)
        self.failed += 1
        self.rows.pop(partition, None)
        self.leaves.pop(partition, None)
        self.lengths.pop(partition, None)

    def refresh(self, force: bool = False) -> None:
        if self.bar.disable or (not force and time.monotonic() - self.shown < self.bar.mininterval):
            return
        self.shown = time.monotonic()
        total = self.n_rows
        if total is None and self.lengths:  # known lengths, and their mean for the partitions not started
            known = sum(self.lengths.values())
            unknown = self.n_partitions - self.failed - len(self.lengths)
            total = known + round(unknown * known / len(self.lengths))
        if total is not None and total != self.bar.total:
            self.bar.total = total
        self.bar.n = sum(self.rows.values())
        postfix = {"leaves": sum(self.leaves.values()) + self.tail_leaves,
                   "partitions": f"{len(self.finished)}/{self.n_partitions}"}
        if self.failed:
            postfix["failed"] = self.failed
        self.bar.set_postfix(postfix, refresh=False)
        self.bar.refresh()

    def close(self) -> None:
        self.refresh(force=True)
        self.bar.close()


def build_leaves(
    data: Any,
    target: Optional[str],
    settings: Union[ManagerSettings, DataParams],
    params: Sequence[ChunkSensitivitiesParams],
    chunk_size: int,
    *,
    client: Optional[distributed.Client] = None,
    index_column: Optional[str] = None,
    on_error: OnError = "raise",
    progress: Union[bool, IO[str]] = True,
    n_rows: Optional[int] = None,
    full_coresets: bool = False,
) -> LeafBuild:
    """Build every leaf of one stream on a ``dask.distributed`` cluster.

    The sample indices are the frame's index, or the integer column ``index_column``; they should be
    unique over the whole stream (a warning says when they are not).

    Parameters
    ----------
    data : dask.dataframe.DataFrame or list
        A Dask dataframe, or a list of ``dask.delayed`` objects (or futures, for instance from
        ``scatter_batches``) that each compute to a pandas DataFrame (one partition).
    target : str or None
        The target column; None for no target.
    settings : ManagerSettings or DataParams
        The data manager's settings (``DataParams`` alone will do); when its data parameters list
        features, those columns are the features, else every column but the target and
        ``index_column``.
    params : sequence of ChunkSensitivitiesParams
        The coreset parameter records.
    chunk_size : int
        The rows per chunk, a positive int.
    client : distributed.Client, default=None
        The cluster's client; None uses the current Dask client.
    index_column : str, default=None
        The integer column holding the sample indices; None uses the frame's index.
    on_error : {"raise", "continue"}, default="raise"
        What to do when a partition fails on its worker (it is reported with its number and the
        worker's error): "raise" stops the run and raises ``PartitionError`` (the remaining
        partitions are cancelled); "continue" goes on without that partition's rows and lists it in
        the result's ``failed``.
    progress : bool or text stream, default=True
        True shows a progress bar on standard error (rows done with the ETA, leaves done, partitions
        done); a text stream shows it there; False shows none.
    n_rows : int, default=None
        The total number of rows when known, which makes the ETA exact from the start; otherwise it
        is estimated from the lengths of the partitions started so far.
    full_coresets : bool, default=False
        Each leaf's coreset records hold, in their dictionary form, the selected rows only (as a
        coreset's ``to_dict(use_keep_selected_only=True)`` gives them), so what comes back to the
        client is a small fraction of the data; True keeps one weight and sensitivity per row, as the
        node built them.

    Returns
    -------
    LeafBuild
        The leaves, the failed partitions and the timings.

    Raises
    ------
    TypeError
        If ``chunk_size`` is not an int, ``settings`` is of another type, or a partition is neither a
        Delayed object nor a Future.
    ValueError
        If ``chunk_size`` is not positive, ``on_error`` is not a choice, or the data has no feature
        column.
    KeyError
        If the target or index column is not among a Dask dataframe's columns.
    PartitionError
        With ``on_error="raise"``, when a partition fails on its worker.
    """
    if isinstance(chunk_size, bool) or not isinstance(chunk_size, (int, np.integer)):
        raise TypeError(f"chunk_size must be an int, got {type(chunk_size).__name__}")
    if chunk_size < 1:
        raise ValueError(f"chunk_size must be positive, got {chunk_size}")
    if on_error not in ON_ERROR_CHOICES:
        raise ValueError(f"on_error must be one of {ON_ERROR_CHOICES}, got {on_error!r}")
    if isinstance(settings, DataParams):
        settings = ManagerSettings(data_params=settings)
    if not isinstance(settings, ManagerSettings):
        raise TypeError(f"settings must be ManagerSettings or DataParams, got {type(settings).__name__}")
    params = list(params)
    _check_columns(data, settings, target, index_column)
    parts = _partitions(data)
    # The scheduler's client is used through Any: distributed's API is only partly annotated.
    cluster: Any = distributed.get_client() if client is None else client
    stream: Optional[IO[str]]
    if progress is True:
        stream = sys.stderr
    elif progress is False:
        stream = None
    else:
        stream = progress

    started = time.perf_counter()
    topic = f"quillmarsh-leaves-{uuid.uuid4().hex}"
    job = _Job(settings, params, int(chunk_size), target, index_column, topic, full_coresets)
    events: queue.Queue[Dict[str, int]] = queue.Queue()
    cluster.subscribe_topic(topic, lambda event: events.put(event[1]))
    bar = _Progress(len(parts), n_rows, stream)

    tail_manager = settings.make_manager()
    tail_layer = _RecordingLayer(tail_manager, params, int(chunk_size), _Parent())
    tail_leaves: List[Leaf] = []
    tail_seconds = 0.0

    def feed_tail(leftover: Optional[Dataset], create_buffer: bool) -> None:
        nonlocal tail_seconds
        begun = time.perf_counter()
        for node in tail_layer.process([] if leftover is None else [leftover], create_buffer=create_buffer):
            tail_leaves.append(_leaf(node, tail_layer.last_indices, None, full_coresets))
            bar.tail_leaves += 1
        tail_seconds += time.perf_counter() - begun

    tasks = [delayed(_build_partition, pure=False)(part, number, job, dask_key_name=f"{topic}-{number}")
             for number, part in enumerate(parts)]
    pending: Dict[int, distributed.Future[Any]] = dict(enumerate(cluster.compute(tasks)))
    del tasks
    partition_of = {future.key: number for number, future in pending.items()}
    as_completed: Any = distributed.as_completed
    completed = as_completed(list(pending.values()), with_results=False, raise_errors=False)
    results: Dict[int, Tuple[List[Leaf], PartitionStats]] = {}
    leftovers: Dict[int, Optional[Dataset]] = {}
    failures: Dict[int, PartitionFailure] = {}
    next_tail = 0
    try:
        while not completed.is_empty():
            ready = completed.next_batch(block=False) if completed.has_ready() else []
            if not ready:
                try:
                    bar.event(events.get(timeout=_POLL_SECONDS))
                except queue.Empty:
                    pass
            while not events.empty():
                bar.event(events.get_nowait())
            for future in ready:
                number = partition_of[future.key]
                del pending[number]
                if future.status == "finished":
                    result: _PartitionResult = future.result()
                    results[number] = (result.leaves, result.stats)
                    leftovers[number] = result.leftover
                    bar.finished_partition(result.stats)
                else:
                    try:
                        error = future.exception()
                        text = "".join(traceback.format_tb(future.traceback()))
                    except BaseException as exc:  # cancelled: no remote exception to fetch
                        error, text = exc, ""
                    failure = PartitionFailure(number, error, text)
                    if on_error == "raise":
                        raise PartitionError(failure) from error
                    failures[number] = failure
                    bar.failed_partition(number)
                future.release()
            del ready
            while next_tail < len(parts) and (next_tail in leftovers or next_tail in failures):
                feed_tail(leftovers.pop(next_tail, None), create_buffer=False)
                next_tail += 1
            bar.refresh()
        feed_tail(None, create_buffer=True)
    except BaseException:  # a failed partition, an error in the client's layer, or an interrupt
        cluster.cancel(list(pending.values()))
        raise
    finally:
        cluster.unsubscribe_topic(topic)
        bar.close()
        tail_manager.close()

    leaves = [leaf for number in sorted(results) for leaf in results[number][0]] + tail_leaves
    build = LeafBuild(
        leaves=leaves,
        failed=[failures[number] for number in sorted(failures)],
        partitions=[results[number][1] for number in sorted(results)],
        n_rows=sum(leaf.n_rows for leaf in leaves),
        tail_seconds=tail_seconds,
        wall_seconds=time.perf_counter() - started,
    )
    if leaves:
        indices = np.concatenate([leaf.indices for leaf in leaves])
        if np.unique(indices).size != indices.size:
            warnings.warn(
                "some sample indices occur in more than one row: give each row its own index "
                "(or name an index_column holding unique integers)", stacklevel=2,
            )
    return build


def scatter_batches(
    client: distributed.Client,
    batches: Iterable[Any],
    feature_names: Sequence[str],
    target: Optional[str] = "y",
    rows_per_partition: int = 100_000,
) -> List[distributed.Future[Any]]:
    """Gather datasets made on the client into partitions on the cluster, for ``build_leaves``.

    The batches are joined, in order, into pandas DataFrames of at least ``rows_per_partition`` rows
    (the last may be shorter): the columns ``feature_names`` from ``X``, the target column ``target``
    from ``y`` (unless ``target`` is None), and ``ind`` as the index. Each one is sent to a worker as
    soon as it is full, so the client holds one partition at a time. Meant for data that fits in the
    cluster's memory; larger data is better read by the workers themselves, as a Dask dataframe.

    Parameters
    ----------
    client : distributed.Client
        The cluster's client.
    batches : iterable of Dataset
        ``Dataset`` records (or tuples in its field order: ``ind``, ``X``, ``y``, ...), as a
        single-process stream is fed.
    feature_names : sequence of str
        The names of the columns of ``X``.
    target : str or None, default="y"
        The target column's name; None leaves ``y`` out.
    rows_per_partition : int, default=100_000
        The fewest rows of a partition but the last.

    Returns
    -------
    list of distributed.Future
        One future per partition, which keeps it on the cluster.

    Raises
    ------
    TypeError
        If ``rows_per_partition`` is not an int.
    ValueError
        If ``rows_per_partition`` is not positive, or a batch has no ``y`` while ``target`` is set.
    """
    if isinstance(rows_per_partition, bool) or not isinstance(rows_per_partition, int):
        raise TypeError(f"rows_per_partition must be an int, got {type(rows_per_partition).__name__}")
    if rows_per_partition < 1:
        raise ValueError(f"rows_per_partition must be positive, got {rows_per_partition}")
    names = list(feature_names)
    futures: List[distributed.Future[Any]] = []
    pending: List[pd.DataFrame] = []
    held = 0
    sender: Any = client

    def send() -> None:
        nonlocal held
        frame = pd.concat(pending) if len(pending) > 1 else pending[0]
        futures.append(sender.scatter(frame))
        pending.clear()
        held = 0

    for batch in batches:
        dset = batch if isinstance(batch, Dataset) else Dataset(*batch)
        frame = pd.DataFrame(np.asarray(dset.X), columns=names, index=pd.Index(np.asarray(dset.ind)))
        frame = frame.infer_objects()
        if target is not None:
            if dset.y is None:
                raise ValueError(f"a batch has no y for the target column {target!r}")
            frame[target] = np.asarray(dset.y)
        pending.append(frame)
        held += len(frame)
        if held >= rows_per_partition:
            send()
    if pending:
        send()
    return futures


def connect(
    address: str = "local", n_workers: Optional[int] = None, **cluster_options: Any
) -> distributed.Client:
    """Return a ``distributed.Client``, on a new local cluster or on a running scheduler.

    The local cluster runs worker processes of one thread each, so each worker streams one partition
    at a time. Closing the client closes a local cluster too. Use the client as a context manager, or
    call ``close()``. When the client cannot start, its error is raised without the frames of the failed
    start, and the half-made client is collected before: so a later client of this process starts
    safely.

    The local workers start without the ``MALLOC_TRIM_THRESHOLD_`` that Dask sets for its workers by
    default (unless it is set in this process's environment): setting it turns off the C library's
    adaptive threshold for serving large allocations from the heap, so every temporary array of a chunk
    build is mapped and unmapped afresh, which doubled the CPU time of the builds here (see
    ``benchmarks/README.md``). The peak memory stayed the same.

    Parameters
    ----------
    address : str, default="local"
        ``"local"`` for a new local cluster, else the scheduler's address (for instance
        ``"tcp://10.0.0.5:8786"``).
    n_workers : int, default=None
        The local cluster's worker processes; None takes Dask's default.
    **cluster_options
        Passed on to ``LocalCluster``.

    Returns
    -------
    distributed.Client
        The connected client.

    Raises
    ------
    TypeError
        If ``n_workers`` or cluster options are given with a scheduler's address.
    Exception
        Whatever error keeps the client from starting (an ``OSError`` or ``TimeoutError`` when the
        scheduler cannot be reached, for instance).
    """
    if address != "local" and (n_workers is not None or cluster_options):
        raise TypeError("n_workers and cluster options apply to a local cluster only")
    try:
        return _start_client(address, n_workers, cluster_options)
    except Exception as exc:
        error = exc
    # A client that failed to start closes itself when it is collected, unless it is closed already;
    # and closing takes a lock that a client being started holds: collected in the middle of a later
    # start, it would deadlock that start. So it is closed now, and what is left of it collected.
    _close_half_made(error)
    chained: Optional[BaseException] = error
    while chained is not None:
        chained.__traceback__ = None
        chained = chained.__cause__ or chained.__context__
    gc.collect()
    raise error


def _close_half_made(error: BaseException) -> None:
    """Close the client that the frames of ``error`` were starting, unless it is closed already."""
    for frame, _ in traceback.walk_tb(error.__traceback__):
        half_made: Any = frame.f_locals.get("self")
        if isinstance(half_made, distributed.Client) and half_made.status not in ("closed", "newly-created"):
            try:
                cast(Any, half_made).close()  # untyped in distributed
            except Exception:  # closing what never started may fail; it is closed as far as it goes
                pass


def _start_client(
    address: str, n_workers: Optional[int], cluster_options: Dict[str, Any]
) -> distributed.Client:
    make_client: Any = distributed.Client
    if address == "local":
        options: Dict[str, Any] = {"threads_per_worker": 1, "processes": True, "dashboard_address": None}
        options.update(cluster_options)
        with dask.config.set({f"{_SPAWN_ENVIRON}.MALLOC_TRIM_THRESHOLD_": None}):
            client: distributed.Client = make_client(n_workers=n_workers, **options)
        return client
    remote: distributed.Client = make_client(address)
    return remote
