"""Streams a table through a chunk layer, builds coresets chunk by chunk, and tells how good they are.

The table (a CSV file, read in pieces of --batch-rows rows, or synthetic data) is fed to the layer as
it is read, so memory holds a few batches and chunks, never the whole table. The layer cuts the stream
into chunks of --chunk-size rows; every chunk becomes a node that preprocesses its rows (rows without
a usable target are dropped, text columns one-hot encoded in one feature space for the whole stream,
timestamps turned into seconds) and builds two coresets, one for k-means and one for linear
regression. Rows that do not fill a last chunk become the buffer node.

At the end the example fits both model families on the union of the coresets and on the full data
(read a second time, in pieces), and compares them: linear regression by its coefficients and R² on
held-out rows (every tenth row is kept out of the layer for that), k-means by its cost on the full
data. With --out the coresets are saved, and ``quillmarsh.io.load_coresets`` loads them back.

    python examples/stream_chunks.py                           # synthetic data, sequential
    python examples/stream_chunks.py --csv data.csv --target price --out coresets/
    OPENBLAS_NUM_THREADS=1 python examples/stream_chunks.py --csv data.csv --target price --jobs 4
    python examples/stream_chunks.py --csv data.csv --target price --dask local --jobs 2
    python examples/stream_chunks.py --csv data.csv --target price --dask tcp://scheduler:8786

--jobs N builds chunks on N worker threads. On 2 cores it does not pay, whatever the chunk size:
measured with 200,000 rows of 8 features and chunks of 5,000 to 100,000 rows, --jobs 2 took 1.05
to 1.4 times as long as the sequential run, since numpy's BLAS already spreads each chunk's products
and SVD over both cores; with OPENBLAS_NUM_THREADS=1 neither mode won consistently, as reading and
the Python parts of preprocessing hold the interpreter lock. It can pay only with more cores than
that, large chunks (50,000 rows and more) and OPENBLAS_NUM_THREADS=1.

--dask builds the chunks on a Dask cluster instead (``quillmarsh.distributed``): a local one of --jobs
worker processes, or a running scheduler. The rows are still read here, then sent to the cluster in
partitions of at least four chunks; each worker cuts its partition into chunks with a data manager of its
own, and the rows the partitions leave over come back and are drained here, so the run has as many
chunks as in one process. No worker sees the whole stream, so this process learns the stream's feature
space itself (it preprocesses the rows it sends, chunk by chunk, building no coreset): the workers get
its column decisions (which columns are categorical, which are left out), and the coresets they send
back are saved and judged encoded in it. Numbers and timestamps in text columns are still recognised by
each partition, and categories and fill values are each partition's own when its coresets are built;
the summary says so, with the time spent here, on the workers and in the last layer here.
"""

from __future__ import annotations

import argparse
import gc
import logging
import os
import sys
import threading
import time
import warnings
from dataclasses import dataclass, field
from typing import IO, Any, Dict, Iterator, List, NoReturn, Optional, Sequence, Tuple

import numpy as np
import pandas as pd
from quillmarsh.core.tree.chunk_layer import BUFFER_NODE_ID, ChunkLayer, ChunkSensitivitiesParams

try:
    from tqdm import tqdm
except ImportError:  # said in one line, like every other problem the user can fix
    sys.exit("stream_chunks.py: error: the progress bar needs tqdm (pip install tqdm)")

from quillmarsh.common import TaskError, ThreadPoolManager
from quillmarsh.core.coreset import CoresetKMeans, CoresetLinearRegression
from quillmarsh.data.common import Dataset
from quillmarsh.data.data_auto_processor import DataAutoProcessor
from quillmarsh.data.feature_space import CATEGORICAL, EXCLUDED, FeatureSpace, as_numbers
from quillmarsh.data.manager import DataManager, DataParams, DataParamsInternal, FeatureField
from quillmarsh.io import StoredCoreset, save_coresets

HOLD_OUT_EVERY = 10
"""Every tenth row (sample index ending in 9) is kept out of the layer, to judge the models on."""
MAX_HELD_OUT = 20_000
"""At most this many held-out rows are kept in memory for the judgement."""
KMEANS_K = 8
KMEANS_PASSES = 3
"""Passes over the full data for the k-means reference: Lloyd steps started from the coreset's centres."""
MODELS = {CoresetKMeans: "kmeans", CoresetLinearRegression: "linear_regression"}
PROGRESS_DELAY = 1.0
"""Seconds before the progress bar shows: short runs and early input errors print no bar."""
DEFAULTS = {"rows": 203_500, "features": 8, "batch_rows": 25_000, "chunk_size": 10_000}
DASK_LOCAL_WORKERS = 2
"""Worker processes of ``--dask local`` when --jobs does not say."""
PARTITION_CHUNKS = 4
"""With --dask, every partition sent to the cluster holds at least this many chunks' rows."""
CONNECT_TIMEOUT = 10.0
"""Seconds that --dask ADDRESS waits for the scheduler to answer and to have a worker."""


class UserError(Exception):
    """A problem with the command line or the input, told as one line."""


class ArgumentParser(argparse.ArgumentParser):
    """argparse, with every error as one line (no usage block)."""

    def error(self, message: str) -> NoReturn:
        fail(message, status=2)


def fail(message: str, status: int = 1) -> NoReturn:
    print(f"stream_chunks.py: error: {message}", file=sys.stderr)
    raise SystemExit(status)


# Sources: pieces of (X, y, ind), read again for the judgement.


class SyntheticSource:
    """Linear-regression data with a few missing values; every batch can be made again from the seed."""

    def __init__(self, rows: int, features: int, batch_rows: int, seed: int) -> None:
        self.rows, self.features, self.batch_rows, self.seed = rows, features, batch_rows, seed
        self.names = [f"x{i}" for i in range(features)]
        self.total_rows: Optional[int] = rows
        self.malformed_lines = 0
        self.coefficients = np.random.default_rng(seed).normal(size=features)

    def pieces(self) -> Iterator[Tuple[np.ndarray, np.ndarray, np.ndarray]]:
        for number, start in enumerate(range(0, self.rows, self.batch_rows)):
            rng = np.random.default_rng([self.seed, number])
            count = min(self.batch_rows, self.rows - start)
            X = rng.normal(size=(count, self.features))
            y = X @ self.coefficients + rng.normal(scale=0.1, size=count)
            X[rng.random(X.shape) < 0.01] = np.nan
            yield X, y, np.arange(start, start + count)

    def fraction_read(self) -> Optional[float]:
        return None


class CsvSource:
    """A CSV file read in pieces of ``batch_rows`` rows; ``target`` is the y column, the rest are X."""

    def __init__(self, path: str, target: str, batch_rows: int) -> None:
        if not os.path.exists(path):
            raise UserError(f"{path}: no such file")
        if os.path.isdir(path):
            raise UserError(f"{path} is a folder, not a CSV file")
        self.size = os.path.getsize(path)
        if self.size == 0:
            raise UserError(f"{path} is empty")
        try:
            header = pd.read_csv(path, nrows=0)
        except pd.errors.EmptyDataError:
            raise UserError(f"{path} holds no CSV header") from None
        except (pd.errors.ParserError, UnicodeDecodeError) as exc:
            raise UserError(f"{path} cannot be read as CSV: {one_line(exc)}") from None
        columns = [str(c) for c in header.columns]
        if target not in columns:
            raise UserError(f"--target {target!r} is not a column of {path} (columns: {', '.join(columns)})")
        if len(columns) < 2:
            raise UserError(f"{path} has no column besides the target {target!r}")
        self.path, self.target, self.batch_rows = path, target, batch_rows
        self.names = [c for c in columns if c != target]
        self.total_rows: Optional[int] = None
        self.malformed_lines = 0
        self._handle: Optional[IO[bytes]] = None

    def pieces(self) -> Iterator[Tuple[np.ndarray, np.ndarray, np.ndarray]]:
        start = 0
        self.malformed_lines = 0
        with open(self.path, "rb") as handle, warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always", pd.errors.ParserWarning)
            self._handle = handle
            try:
                reader = pd.read_csv(handle, chunksize=self.batch_rows, on_bad_lines="warn")
                for piece in reader:
                    self.malformed_lines += sum(str(w.message).count("Skipping line") for w in caught)
                    caught.clear()
                    piece.columns = [str(c) for c in piece.columns]
                    y = piece.pop(self.target).to_numpy(dtype=object)
                    numeric = all(pd.api.types.is_numeric_dtype(piece[c]) for c in piece.columns)
                    X = piece.to_numpy(dtype=float if numeric else object)
                    yield X, y, np.arange(start, start + len(piece))
                    start += len(piece)
            except (pd.errors.ParserError, UnicodeDecodeError) as exc:
                raise UserError(f"{self.path} cannot be read as CSV: {one_line(exc)}") from None
            finally:
                self._handle = None
        if start == 0:
            raise UserError(f"{self.path} has a header but no rows")

    def fraction_read(self) -> Optional[float]:
        handle = self._handle
        try:
            return None if handle is None else min(1.0, handle.tell() / self.size)
        except (ValueError, OSError):
            return None


def one_line(exc: BaseException) -> str:
    return " ".join(str(exc).split())


def usable_target(y: np.ndarray) -> np.ndarray:
    """The rows whose target is a finite number (the rows the preprocessor keeps)."""
    return np.isfinite(as_numbers(np.asarray(y)))


# The layer, with a first-failure stop that reads alike in both modes.


class ChunkBuildError(Exception):
    """A chunk could not be built; the message names the chunk and the cause."""


class StreamLayer(ChunkLayer):
    """A chunk layer that names the failing chunk, and in parallel mode skips chunks after a failure."""

    target = "target"
    failure: Optional[ChunkBuildError] = None

    def _create_node(self, dset: Any, node_id: Any = None, leaf_node_index: Any = None) -> Any:
        if self.failure is not None:  # a chunk failed already: the run stops, skip the rest quickly
            raise self.failure
        where = (f"chunk #{leaf_node_index + 1}" if leaf_node_index is not None else "the buffer node") + (
            f" (sample indices {int(dset.ind[0])} to {int(dset.ind[-1])})" if len(dset.ind) else ""
        )
        try:
            if dset.y is not None and not usable_target(dset.y).any():
                raise ValueError(f"no row has a usable (finite, numeric) value in the target {self.target!r}")
            return super()._create_node(dset, node_id, leaf_node_index)
        except Exception as exc:
            failure = ChunkBuildError(f"{where} could not be built: {type(exc).__name__}: {one_line(exc)}")
            if self.failure is None:
                self.failure = failure
            raise failure from exc


@dataclass
class Collected:
    """What the run keeps of one coreset: its rows still unencoded."""

    node_id: str
    rows: int
    model: str
    parameters: Dict[str, Any]
    X_raw: np.ndarray
    y: np.ndarray
    weights: np.ndarray
    ind: np.ndarray
    extra: Dict[str, Any] = field(default_factory=dict)


@dataclass
class Collector:
    """The layer's callback: keeps each node's coreset rows and counts, never the chunk's rows."""

    lock: threading.Lock = field(default_factory=threading.Lock)
    coresets: List[Collected] = field(default_factory=list)
    nodes: int = 0
    buffer_rows: int = 0
    rows_kept: int = 0
    rows_dropped: int = 0
    chunks_done_rows: int = 0

    def __call__(self, node: Any, leaf_index: Optional[int]) -> None:
        dset = node.dset
        kept = len(dset.ind)
        dropped = sum(len(record.removed_rows) for record in node.coresets)
        found = []
        for record in node.coresets:
            coreset = record.coreset
            if coreset["n_samples"] != kept:
                raise RuntimeError(f"node {node.node_id}: coreset of {coreset['n_samples']} rows for {kept}")
            idxs = coreset["idxs"]
            found.append(Collected(
                node_id=str(node.node_id),
                rows=kept,
                model=MODELS.get(record.params.coreset_cls, record.params.coreset_cls.__name__),
                parameters=dict(record.params.coreset_params or {}),
                X_raw=np.asarray(dset.X)[idxs],
                y=as_numbers(np.asarray(dset.y)[idxs]),
                weights=np.asarray(coreset["weights"], dtype=np.float64)[idxs],
                ind=np.asarray(dset.ind)[idxs],
            ))
        with self.lock:
            self.coresets.extend(found)
            self.nodes += 1
            self.rows_kept += kept
            self.rows_dropped += dropped
            if node.node_id == BUFFER_NODE_ID:
                self.buffer_rows = kept + dropped


class Tree:
    """The smallest owner a chunk layer needs: it hears of every addition to the buffer."""

    def update_build_params(self) -> None:
        pass


# Building on a Dask cluster (--dask).


class StreamSpace:
    """The client's share of the preprocessing in cluster mode: the stream's feature space.

    On a cluster every partition is preprocessed on its worker by a data manager of its own, so no
    process sees the whole stream. The client therefore cuts the rows it feeds into chunks of
    ``chunk_size``, as a single layer does, and preprocesses each one into its own data manager's
    feature space, building no coreset: it learns the space a single layer would learn (the same kinds,
    left-out columns, categories and means). The workers get its column decisions; the coresets they
    send back are encoded in it for saving and for the comparison.
    """

    def __init__(self, manager: DataManager, names: List[str], chunk_size: int) -> None:
        self.manager, self.names, self.chunk_size = manager, names, chunk_size
        self.pending: List[Dataset] = []
        self.held = 0
        self.seconds = 0.0

    def add(self, dset: Dataset) -> None:
        self.pending.append(dset)
        self.held += len(dset.ind)
        while self.held >= self.chunk_size:
            self._learn(self.chunk_size)

    def finish(self) -> None:
        if self.held:
            self._learn(self.held)

    def _learn(self, rows: int) -> None:
        started = time.perf_counter()
        X, y, ind = (np.concatenate([np.asarray(getattr(d, name)) for d in self.pending])
                     for name in ("X", "y", "ind"))
        rest = len(ind) - rows
        self.pending = [Dataset(ind[rows:], X[rows:], y[rows:])] if rest else []
        self.held = rest
        manager = self.manager
        internal = manager.data_params_internal
        DataAutoProcessor(
            X=X[:rows], y=y[:rows], ind=ind[:rows], props=None,
            categorical_features=internal.categorical_features_, feature_names=self.names,
            cat_encoding_config=manager.cat_encoding_config_clear(),
            missing_replacement=internal.aggregated_missing_replacements,
            drop_rows_below=manager.data_params.drop_rows_below,
            drop_cols_above=manager.data_params.drop_cols_above,
        ).handle_missing_and_categorical_encoding()
        self.seconds += time.perf_counter() - started


@dataclass
class Partitions:
    """The sample-index range of every partition that ``scatter_batches`` makes of the fed batches.

    It mirrors that function's rule (batches are joined, in order, until a partition holds at least
    ``rows`` rows), so that a failed partition can be named by its rows.
    """

    rows: int
    ranges: List[Tuple[int, int]] = field(default_factory=list)
    first: Optional[int] = None
    last: int = 0
    held: int = 0

    def add(self, ind: np.ndarray) -> None:
        if not len(ind):
            return
        if self.first is None:
            self.first = int(ind[0])
        self.last = int(ind[-1])
        self.held += len(ind)
        if self.held >= self.rows:
            self.close()

    def close(self) -> None:
        if self.first is not None:
            self.ranges.append((self.first, self.last))
        self.first, self.held = None, 0


def worker_settings(space: FeatureSpace, names: List[str], config: Dict[str, Any]) -> Tuple[Any, List[str]]:
    """The data manager settings every worker makes its own manager from, and the feature columns.

    The stream's decisions, taken on the client from the first chunk that held each column, are fixed
    for all partitions: a left-out column is not a feature, a categorical one is declared so. What a
    worker still decides by itself: whether a text column holds numbers or timestamps (by the same rule,
    on its partition's first chunk), the categories (and so its one-hot columns), and the fill values.
    """
    from quillmarsh.distributed import ManagerSettings

    kinds = space.kinds
    features = [name for name in names if kinds.get(name) != EXCLUDED]
    if not features:
        raise UserError("every input column was left out (see --max-text-values): nothing to build on")
    categorical = [i for i, name in enumerate(features) if kinds.get(name) == CATEGORICAL]
    settings = ManagerSettings(
        data_params=DataParams(features=[FeatureField(name, categorical=kinds.get(name) == CATEGORICAL)
                                         for name in features]),
        data_params_internal=DataParamsInternal(categorical_features_=categorical),
        cat_encoding_config=dict(config),
    )
    return settings, features


def connect_cluster(args: argparse.Namespace) -> Any:
    """A client of the cluster --dask names, or one clear line of why there is none."""
    try:
        import dask

        from quillmarsh.distributed import connect
    except ImportError:
        raise UserError("--dask needs Dask and its distributed scheduler "
                        "(pip install 'quillmarsh[dask]')") from None
    failure = None
    client: Any = None  # distributed's Client is only partly annotated
    try:
        if args.dask == "local":
            with warnings.catch_warnings():  # its HTTP server moves to a free port when 8787 is taken
                warnings.filterwarnings("ignore", message="Port .* is already in use")
                return connect("local", n_workers=args.jobs or DASK_LOCAL_WORKERS,
                               silence_logs=logging.CRITICAL)  # a failed partition is told once, here
        with dask.config.set({"distributed.comm.timeouts.connect": f"{CONNECT_TIMEOUT}s"}):
            client = connect(args.dask)
    except Exception as exc:
        if args.dask == "local":
            failure = f"--dask local: the local cluster did not start: {type(exc).__name__}: {one_line(exc)}"
        elif isinstance(exc, ValueError):  # Dask's word for an address it cannot parse
            failure = f"--dask {args.dask}: not a scheduler address ({one_line(exc)})"
        elif isinstance(exc, OSError):  # refused, unknown host, or timed out
            failure = (f"--dask {args.dask}: no scheduler answered within {CONNECT_TIMEOUT:g} s "
                       f"({type(exc).__name__}: {one_line(exc)})")
        else:
            failure = f"--dask {args.dask}: could not connect: {type(exc).__name__}: {one_line(exc)}"
    if failure is not None:
        # A client that failed to start closes itself when it is collected, and closing takes a lock
        # that a client being started holds: collected in the middle of a later client's start (in
        # this process), it would deadlock that start. So it is collected now, its exception gone.
        gc.collect()
        raise UserError(failure)
    try:
        client.wait_for_workers(1, timeout=CONNECT_TIMEOUT)
    except Exception:
        failure = f"--dask {args.dask}: the scheduler has no worker (waited {CONNECT_TIMEOUT:g} s)"
    if failure is not None:
        client.close()
        raise UserError(failure)
    return client


def collect_leaves(leaves: List[Any]) -> Collector:
    """The run's counts and coreset rows, from the leaves the cluster sent back."""
    collector = Collector()
    for leaf in leaves:
        dropped = sum(len(record.removed_rows) for record in leaf.coresets)
        kept = leaf.n_rows - dropped
        for record, sample in zip(leaf.coresets, leaf.samples):
            if sample is None or int(record.coreset["n_samples"]) != kept:
                raise RuntimeError(f"leaf {leaf.node_id}: a coreset was built on other rows than it kept")
            collector.coresets.append(Collected(
                node_id=leaf.node_id,
                rows=kept,
                model=MODELS.get(record.params.coreset_cls, record.params.coreset_cls.__name__),
                parameters=dict(record.params.coreset_params or {}),
                X_raw=np.asarray(sample.X),
                y=as_numbers(np.asarray(sample.y)),
                weights=np.asarray(sample.sample_weight, dtype=np.float64),
                ind=np.asarray(sample.ind),
                extra={"partition": "client" if leaf.partition is None else leaf.partition + 1,
                       "chunk_rows": leaf.n_rows, "features_when_built": record.no_features},
            ))
        collector.nodes += 1
        collector.rows_kept += kept
        collector.rows_dropped += dropped
        if leaf.is_buffer:
            collector.buffer_rows = leaf.n_rows
    return collector


def widened(X: np.ndarray, features: List[str], names: List[str]) -> np.ndarray:
    """Rows of the feature columns put back among all input columns (left-out ones empty)."""
    if features == names:
        return X
    full = np.full((len(X), len(names)), None, dtype=object)
    full[:, [names.index(name) for name in features]] = X
    return full


# Fitting the two model families, on weighted rows (the coresets) and on the full data.


def with_intercept(X: np.ndarray) -> np.ndarray:
    return np.hstack([X, np.ones((len(X), 1))])


def solve_normal_equations(gram: np.ndarray, moment: np.ndarray) -> np.ndarray:
    """Least-squares coefficients from A'A and A'y: the smallest solution after scaling A'A to a unit
    diagonal (timestamps in seconds dwarf one-hot columns; one-hot blocks and the intercept overlap)."""
    diagonal = np.diag(gram)
    scale = np.sqrt(np.where(diagonal > 0, diagonal, 1.0))
    scaled = np.linalg.lstsq(gram / np.outer(scale, scale), moment / scale, rcond=None)[0]
    return np.asarray(scaled / scale)


def centred(gram: np.ndarray, moment: np.ndarray, mean: np.ndarray) -> Tuple[np.ndarray, np.ndarray]:
    """A'A and A'y of [X, 1] turned into those of [X - mean, 1]: the intercept is then the prediction at
    the mean, and no longer trades off against large column means (timestamps)."""
    T = np.eye(len(moment))
    T[-1, :-1] = -mean
    return T.T @ gram @ T, T.T @ moment


def fit_least_squares(X: np.ndarray, y: np.ndarray, weights: np.ndarray, mean: np.ndarray) -> np.ndarray:
    A = with_intercept(X)
    return solve_normal_equations(*centred(A.T @ (A * weights[:, None]), A.T @ (weights * y), mean))


def r_squared(coefficients: np.ndarray, X: np.ndarray, y: np.ndarray, mean: np.ndarray) -> float:
    residual = y - with_intercept(X - mean) @ coefficients
    spread = ((y - y.mean()) ** 2).sum()
    return float(1.0 - (residual**2).sum() / spread) if spread > 0 else float("nan")


def sq_distances(X: np.ndarray, centres: np.ndarray) -> np.ndarray:
    d2 = (X * X).sum(axis=1)[:, None] - 2.0 * X @ centres.T + (centres * centres).sum(axis=1)[None, :]
    clipped: np.ndarray = np.maximum(d2, 0.0)
    return clipped


def fit_kmeans(X: np.ndarray, weights: np.ndarray, k: int, seed: int, iterations: int = 25) -> np.ndarray:
    """Weighted k-means: k-means++ seeding by weight, then Lloyd steps."""
    rng = np.random.default_rng(seed)
    k = min(k, len(X))
    centres = X[[rng.choice(len(X), p=weights / weights.sum())]]
    d2 = sq_distances(X, centres)[:, 0]
    while len(centres) < k:
        p = weights * d2
        if p.sum() <= 0:
            break
        centres = np.vstack([centres, X[rng.choice(len(X), p=p / p.sum())]])
        d2 = np.minimum(d2, sq_distances(X, centres[-1:])[:, 0])
    for _ in range(iterations):
        labels = sq_distances(X, centres).argmin(axis=1)
        for c in range(len(centres)):
            mine = labels == c
            if weights[mine].sum() > 0:
                centres[c] = np.average(X[mine], axis=0, weights=weights[mine])
    return centres


@dataclass
class Judgement:
    """Both model families fitted on the coresets and on the full data."""

    rows_full: int = 0
    held_out_rows: int = 0
    lr_coreset_rows: int = 0
    km_coreset_rows: int = 0
    lr_coefficients_coreset: np.ndarray = field(default_factory=lambda: np.empty(0))
    lr_coefficients_full: np.ndarray = field(default_factory=lambda: np.empty(0))
    r2_coreset: float = float("nan")
    r2_full: float = float("nan")
    km_cost_coreset: float = float("nan")
    km_cost_full: float = float("nan")
    seconds: float = 0.0


def judge(source: Any, space: FeatureSpace, coresets: List[StoredCoreset], held_X: np.ndarray,
          held_y: np.ndarray, seed: int) -> Judgement:
    started = time.perf_counter()
    result = Judgement()
    lr = [c for c in coresets if c.model == "linear_regression"]
    km = [c for c in coresets if c.model == "kmeans"]
    width = len(space.feature_names)

    def union(parts: List[StoredCoreset]) -> Tuple[np.ndarray, np.ndarray, np.ndarray]:
        return (np.vstack([p.X for p in parts]) if parts else np.empty((0, width)),
                np.concatenate([p.y for p in parts if p.y is not None]) if parts else np.empty(0),
                np.concatenate([p.weights for p in parts]) if parts else np.empty(0))

    X_lr, y_lr, w_lr = union(lr)
    X_km, _, w_km = union(km)
    result.lr_coreset_rows, result.km_coreset_rows = len(w_lr), len(w_km)
    centres = fit_kmeans(X_km, w_km.astype(np.float64), KMEANS_K, seed)

    # The full data, read again piece by piece: normal equations for least squares, and Lloyd steps
    # from the coreset's centres (each pass tells the cost of the centres it starts from).
    gram = np.zeros((width + 1, width + 1))
    moment = np.zeros(width + 1)
    costs = []
    for number in range(KMEANS_PASSES):
        sums = np.zeros_like(centres)
        counts = np.zeros(len(centres))
        cost = 0.0
        rows = 0
        for X, y, ind in source.pieces():
            keep = (ind % HOLD_OUT_EVERY != HOLD_OUT_EVERY - 1) & usable_target(y)
            encoded = space.transform(X[keep])
            rows += len(encoded)
            if number == 0:
                A = with_intercept(encoded)
                gram += A.T @ A
                moment += A.T @ as_numbers(y[keep])
            d2 = sq_distances(encoded, centres)
            labels = d2.argmin(axis=1)
            cost += float(d2[np.arange(len(encoded)), labels].sum())
            np.add.at(sums, labels, encoded)
            counts += np.bincount(labels, minlength=len(centres))
        costs.append(cost)
        if number == 0:
            result.rows_full = rows
            result.km_cost_coreset = cost
        moved = counts > 0
        centres = centres.copy()
        centres[moved] = sums[moved] / counts[moved][:, None]
    result.km_cost_full = min(costs)
    mean = gram[-1, :-1] / max(gram[-1, -1], 1.0)  # the last row of A'A sums the columns
    result.lr_coefficients_full = solve_normal_equations(*centred(gram, moment, mean))
    result.lr_coefficients_coreset = fit_least_squares(X_lr, y_lr, w_lr, mean)
    if len(held_y):
        held = space.transform(held_X)
        result.held_out_rows = len(held_y)
        result.r2_coreset = r_squared(result.lr_coefficients_coreset, held, held_y, mean)
        result.r2_full = r_squared(result.lr_coefficients_full, held, held_y, mean)
    result.seconds = time.perf_counter() - started
    return result


def plot(path: str, judgement: Judgement, compression: Dict[str, float]) -> None:
    try:
        import matplotlib
    except ImportError:
        raise UserError("--plot needs matplotlib (pip install matplotlib)") from None

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    figure, (left, right) = plt.subplots(1, 2, figsize=(9, 3.8))
    bars = left.bar(["full data", "coresets"], [judgement.r2_full, judgement.r2_coreset],
                    color=["#888888", "#2a7ab9"])
    left.bar_label(bars, fmt="%.4f")
    left.set_title(f"Linear regression: R² on {judgement.held_out_rows:,} held-out rows\n"
                   f"coresets {compression['linear_regression']:.1f}× smaller")
    left.set_ylim(min(0.0, judgement.r2_coreset, judgement.r2_full), 1.05)
    bars = right.bar(["full data", "coresets"], [judgement.km_cost_full, judgement.km_cost_coreset],
                     color=["#888888", "#2a7ab9"])
    right.bar_label(bars, fmt="%.4g")
    right.set_title(f"k-means (k={KMEANS_K}): cost on the full data\n"
                    f"coresets {compression['kmeans']:.1f}× smaller")
    figure.tight_layout()
    figure.savefig(path, dpi=110)
    plt.close(figure)


# The command line.


def parse(argv: Optional[Sequence[str]]) -> argparse.Namespace:
    parser = ArgumentParser(
        description=__doc__.split("\n\n")[0],
        epilog="Parallel building (--jobs): measured on 2 cores it never paid (1.05-1.4x slower with "
        "chunks of 5,000 to 100,000 rows; no consistent gain with OPENBLAS_NUM_THREADS=1), because "
        "numpy already uses both cores for each chunk. Try it only with more cores, chunks of 50,000 "
        "rows or more, and OPENBLAS_NUM_THREADS=1. "
        f"Cluster mode (--dask): the rows are read here and sent as partitions of {PARTITION_CHUNKS} "
        "chunks or more; each partition is cut into chunks on a worker by a data manager of its own, and "
        "the rows the partitions leave over are drained here, so the chunks are as many as in one "
        "process. Which columns are categorical and which are left out is decided here for all, from the "
        "stream's first chunks, but every partition recognises numbers and timestamps in text by itself "
        "and learns its own categories and fill values: the coresets are saved and judged encoded in "
        "this process's feature space of the whole stream.",
    )
    parser.add_argument("--csv", help="stream this CSV file (with --target) instead of synthetic data")
    parser.add_argument("--target", help="the CSV column to predict; rows where it is missing or not a "
                        "number are dropped")
    parser.add_argument("--rows", type=int, help=f"synthetic rows (default {DEFAULTS['rows']})")
    parser.add_argument("--features", type=int, help=f"synthetic features (default {DEFAULTS['features']})")
    parser.add_argument("--batch-rows", type=int, default=DEFAULTS["batch_rows"],
                        help="rows read and fed to the layer at a time (default %(default)s)")
    parser.add_argument("--chunk-size", type=int, default=DEFAULTS["chunk_size"],
                        help="rows per chunk (default %(default)s)")
    parser.add_argument("--jobs", type=int, help="build chunks on N worker threads (N >= 2; see below "
                        f"for when it pays); with --dask local, the number of worker processes (default "
                        f"{DASK_LOCAL_WORKERS})")
    parser.add_argument("--dask", metavar="local|ADDRESS",
                        help="build the chunks on a Dask cluster: 'local' starts one on this machine, "
                        "anything else is the address of a running scheduler (tcp://host:8786; "
                        f"{CONNECT_TIMEOUT:g} s to answer); see below for what differs")
    parser.add_argument("--max-text-values", type=int, default=1000,
                        help="leave out a text column with more distinct values than this in its first "
                        "chunk (default %(default)s)")
    parser.add_argument("--out", help="save every node's coresets in this folder (numpy arrays and a "
                        "manifest.json; load with quillmarsh.io.load_coresets)")
    parser.add_argument("--overwrite", action="store_true", help="with --out: replace an earlier save")
    parser.add_argument("--plot", help="write a picture of the coresets-against-full-data comparison")
    parser.add_argument("--no-eval", action="store_true", help="skip fitting the models (no second read)")
    parser.add_argument("--seed", type=int, default=0, help="seed of the coresets and synthetic data")
    parser.add_argument("--verbose", action="store_true", help="also print the layer's line per chunk")
    parser.add_argument("--quiet", action="store_true", help="no progress bar")
    args = parser.parse_args(argv)

    def positive(name: str) -> None:
        value = getattr(args, name.lstrip("-").replace("-", "_"))
        if value is not None and value < 1:
            parser.error(f"{name} must be a positive number of rows or jobs, got {value}")

    for name in ("--rows", "--features", "--batch-rows", "--chunk-size", "--jobs", "--max-text-values"):
        positive(name)
    if args.csv is not None:
        if not args.target:
            parser.error("--csv needs --target COLUMN")
        for name in ("rows", "features"):
            if getattr(args, name) is not None:
                parser.error(f"--{name} applies to synthetic data only, not to --csv")
    else:
        if args.target is not None:
            parser.error("--target applies to --csv input only")
        args.rows = DEFAULTS["rows"] if args.rows is None else args.rows
        args.features = DEFAULTS["features"] if args.features is None else args.features
    if args.overwrite and args.out is None:
        parser.error("--overwrite applies only with --out")
    if args.plot is not None and args.no_eval:
        parser.error("--plot needs the comparison that --no-eval skips")
    if args.verbose and args.quiet:
        parser.error("--verbose and --quiet exclude each other")
    if args.dask is not None:
        if not args.dask.strip():
            parser.error("--dask needs 'local' or the address of a scheduler")
        if args.dask != "local" and args.jobs is not None:
            parser.error("--jobs applies to --dask local only (a running scheduler has its own workers)")
        if args.verbose:
            parser.error("--verbose applies without --dask only (with it, chunks are built on the workers)")
    if args.out is not None and os.path.exists(args.out):
        if not os.path.isdir(args.out):
            parser.error(f"--out {args.out} is a file, not a folder")
        if os.listdir(args.out) and not args.overwrite:
            parser.error(f"--out {args.out} is not empty (add --overwrite to replace an earlier save)")
    if args.plot is not None:
        folder = os.path.dirname(os.path.abspath(args.plot))
        if not os.path.isdir(folder):
            parser.error(f"--plot {args.plot}: no folder {folder}")
    return args


def main(argv: Optional[Sequence[str]] = None) -> Dict[str, object]:
    args = parse(argv)
    try:
        return run(args)
    except UserError as exc:
        fail(str(exc))
    except ChunkBuildError as exc:
        fail(str(exc))


def run(args: argparse.Namespace) -> Dict[str, object]:
    source: Any
    if args.csv is not None:
        source = CsvSource(args.csv, args.target, args.batch_rows)
    else:
        source = SyntheticSource(args.rows, args.features, args.batch_rows, args.seed)
    if args.dask is None:
        return stream(args, source, None)
    started = time.perf_counter()
    client = connect_cluster(args)
    try:
        return stream(args, source, (client, time.perf_counter() - started))
    finally:
        client.close()


def stream(args: argparse.Namespace, source: Any, cluster: Optional[Tuple[Any, float]]) -> Dict[str, object]:
    """Stream the source into coresets, here or on the cluster, then save, judge and tell."""
    started = time.perf_counter()
    jobs = args.jobs or 1
    parallel = cluster is None and jobs > 1
    fed_total = None if source.total_rows is None else source.total_rows - source.total_rows // HOLD_OUT_EVERY
    encoding = {"max_categories": 100, "max_text_values": args.max_text_values}
    data_manager = DataManager(
        data_params=DataParams(features=[FeatureField(name) for name in source.names]),
        n_jobs=jobs if parallel else None,
        verbose=1 if args.verbose else 0,
        n_instances=fed_total,
        cat_encoding_config=encoding,
    )
    params = [
        ChunkSensitivitiesParams(
            coreset_params={"k": KMEANS_K, "dtype": "float32", "random_state": args.seed},
            coreset_cls=CoresetKMeans,
        ),
        ChunkSensitivitiesParams(coreset_params={"dtype": "float64", "random_state": args.seed},
                                 coreset_cls=CoresetLinearRegression),
    ]
    held_X: List[np.ndarray] = []
    held_y: List[np.ndarray] = []
    counts = {"read": 0, "held": 0, "held out": 0}

    bar = tqdm(total=source.total_rows, unit=" rows", unit_scale=True, file=sys.stderr,
               disable=args.quiet, mininterval=0.5, dynamic_ncols=True,
               desc="streaming" if cluster is None else "reading and scattering",
               delay=PROGRESS_DELAY, leave=False)

    def batches() -> Iterator[Dataset]:
        checked = False
        for X, y, ind in source.pieces():
            if not checked and args.csv is not None:
                present = [v for v in y if not pd.isna(v)]
                if present and not usable_target(np.asarray(present, dtype=object)).any():
                    raise UserError(f"--target {args.target!r} holds text, not numbers "
                                    f"(first values: {', '.join(repr(v) for v in present[:3])})")
                checked = True
            held = ind % HOLD_OUT_EVERY == HOLD_OUT_EVERY - 1
            room = MAX_HELD_OUT - counts["held"]
            if room > 0:
                rows = np.flatnonzero(held & usable_target(y))[:room]
                held_X.append(X[rows])
                held_y.append(as_numbers(y[rows]))
                counts["held"] += len(rows)
            counts["read"] += len(ind)
            counts["held out"] += int(held.sum())
            bar.update(len(ind))
            fraction = source.fraction_read()
            if fraction:
                bar.total = max(counts["read"], int(counts["read"] / fraction))
            yield Dataset(ind[~held], X[~held], y[~held])

    space = data_manager.feature_space
    names = list(source.names)
    features = names
    details: Dict[str, object] = {}
    if cluster is None:
        collector = build_here(args, data_manager, params, batches(), bar, jobs, parallel)
    else:
        client, connect_seconds = cluster
        collector, features, details = build_on_cluster(args, client, data_manager, params, encoding,
                                                        batches(), bar, started)
        started_up = "cluster start-up (s)" if args.dask == "local" else "connecting (s)"
        details[started_up] = round(connect_seconds, 3)
    elapsed = time.perf_counter() - started
    if collector.rows_kept == 0:
        raise UserError("no row was kept: every row lacks a usable target or the input has too few rows")

    encoded_names = space.feature_names
    stored = [
        StoredCoreset(node_id=c.node_id, rows=c.rows, model=c.model, parameters=c.parameters,
                      feature_names=encoded_names, X=space.transform(widened(c.X_raw, features, names)),
                      y=c.y, weights=c.weights, ind=c.ind, extra=c.extra)
        for c in collector.coresets
    ]
    if args.out is not None:
        save_coresets(args.out, stored, overwrite=args.overwrite)

    coreset_rows = {
        model: sum(len(c.weights) for c in stored if c.model == model) for model in MODELS.values()
    }
    compression = {model: collector.rows_kept / rows if rows else float("nan")
                   for model, rows in coreset_rows.items()}
    if cluster is None:
        mode = f"parallel, {jobs} jobs" if parallel else "sequential"
        in_flight = 2 * jobs * args.chunk_size if parallel else 0
        in_memory = args.batch_rows + args.chunk_size + args.batch_rows + in_flight
    else:
        mode = str(details.pop("mode"))
        # a batch being read, a partition being gathered, the client's chunk of the feature space and
        # its last layer's buffer
        in_memory = (args.batch_rows + PARTITION_CHUNKS * args.chunk_size + args.batch_rows
                     + 2 * (args.chunk_size + args.batch_rows))
    summary: Dict[str, object] = {
        "input": args.csv if args.csv is not None else f"synthetic, {args.rows} x {args.features}",
        "mode": mode,
        "rows read": counts["read"],
        "rows held out for evaluation": counts["held out"],
        "rows dropped (unusable target)": collector.rows_dropped,
        "rows kept": collector.rows_kept,
        "malformed lines skipped": source.malformed_lines,
        "chunks": collector.nodes - (1 if collector.buffer_rows else 0),
        "rows in the buffer node": collector.buffer_rows,
        "features (processed)": len(encoded_names),
        "coreset rows, k-means": coreset_rows["kmeans"],
        "coreset rows, linear regression": coreset_rows["linear_regression"],
        "compression, k-means": round(compression["kmeans"], 1),
        "compression, linear regression": round(compression["linear_regression"], 1),
        "time incl. reading (s)": round(elapsed, 3),
        "rows per second": int(counts["read"] / elapsed) if elapsed > 0 else 0,
        **details,
        "memory bound (rows held at once)" if cluster is None else "memory bound, client (rows at once)":
            in_memory,
        "peak memory (MB)" if cluster is None else "peak memory, client (MB)": peak_memory_mb(),
    }
    if args.out is not None:
        summary["coresets saved to"] = args.out
    notes = space.notes
    if cluster is not None:
        built = sorted({int(c.extra["features_when_built"]) for c in collector.coresets})
        widths = f"{built[0]} to {built[-1]}" if len(built) > 1 else f"{built[0]}"
        notes.append(
            "on the cluster every partition, and the client's last layer, preprocessed its rows in a "
            "feature space of its own: the categorical and left-out columns were fixed for all from the "
            "stream's first chunks, but each recognised numbers and timestamps in text by itself and "
            "learnt its own categories and fill values "
            f"({widths} processed features when built). The coresets are saved and "
            "judged encoded in the client's feature space of the whole stream (the figures above)."
        )

    judgement = None
    if not args.no_eval:
        judgement = judge(source, space, stored,
                          np.vstack(held_X) if held_X else np.empty((0, len(source.names))),
                          np.concatenate(held_y) if held_y else np.empty(0), args.seed)
        gap = judgement.lr_coefficients_coreset - judgement.lr_coefficients_full
        scale = np.linalg.norm(judgement.lr_coefficients_full)
        summary.update({
            "held-out rows judged": judgement.held_out_rows,
            "linear regression R², full data": round(judgement.r2_full, 4),
            "linear regression R², coresets": round(judgement.r2_coreset, 4),
            "linear regression quality ratio": round(quality(judgement.r2_coreset, judgement.r2_full), 4),
            "coefficients, relative difference": round(float(np.linalg.norm(gap) / scale), 4)
            if scale else "-",
            "k-means cost, full data": f"{judgement.km_cost_full:.5g}",
            "k-means cost, coresets": f"{judgement.km_cost_coreset:.5g}",
            "k-means quality ratio": round(judgement.km_cost_full / judgement.km_cost_coreset, 4)
            if judgement.km_cost_coreset > 0 else "-",
            "k-means, coresets vs full data":
                f"{compression['kmeans']:.1f}x smaller, quality ratio {summary_ratio(judgement, 'kmeans')}",
            "linear regression, coresets vs full":
                f"{compression['linear_regression']:.1f}x smaller, quality ratio "
                f"{summary_ratio(judgement, 'linear_regression')}",
            "evaluation time (s)": round(judgement.seconds, 3),
        })
        if args.plot is not None:
            plot(args.plot, judgement, compression)
            summary["plot"] = args.plot

    print("\nSummary")
    for key, value in summary.items():
        shown = f"{value:,}" if isinstance(value, int) and not isinstance(value, bool) else value
        print(f"  {key:<36} {shown}")
    if cluster is None:
        print(f"  Memory: about {in_memory:,} rows at once (a batch being read, the buffer of up to "
              f"chunk + batch rows{', and up to 2 x jobs chunks waiting or built' if parallel else ''}), "
              f"plus at most {MAX_HELD_OUT:,} held-out rows and the coresets; not the file.")
    else:
        print(f"  Memory: the client holds about {in_memory:,} rows at once (a batch being read, a partition "
              "being gathered, a chunk of its feature space and its last layer's buffer), plus at most "
              f"{MAX_HELD_OUT:,} held-out rows and the coresets; the cluster holds every row fed until "
              "its leaves are built.")
    if judgement is not None:
        print("  Quality ratio: the coresets' model against the full data's (R² on held-out rows, coresets "
              "over full; k-means cost, full over coresets): 1.0 = as good, below 1 = worse.")
    for note in notes:
        print(f"  Note: {note}")
    if judgement is not None:
        print("  Coefficients (full data | coresets):")
        for name, full, core in zip(encoded_names + ["(intercept, at the mean)"],
                                    judgement.lr_coefficients_full, judgement.lr_coefficients_coreset):
            print(f"    {name[:34]:<34} {full:>12.5g} | {core:>12.5g}")
    summary["notes"] = notes
    return summary


def build_here(args: argparse.Namespace, data_manager: DataManager, params: List[Any],
               batches: Iterator[Dataset], bar: Any, jobs: int, parallel: bool) -> Collector:
    """Stream the batches through a chunk layer in this process (on worker threads with --jobs)."""
    if parallel:
        pool = ThreadPoolManager()
        if pool.max_workers != jobs:
            pool.shutdown()
            ThreadPoolManager.configure(max_workers=jobs)
    layer = StreamLayer(data_manager, params, args.chunk_size, Tree())
    layer.target = args.target or "y"
    collector = Collector()
    pool = ThreadPoolManager()
    try:
        for _ in layer.process(batches, create_buffer=True, after_create_leaf_node=collector):
            # Parallel mode: hold the reading back while 2 x jobs chunks wait or run, so memory stays
            # bounded by the chunk size, not by the file.
            while parallel and layer.failure is None and pool.pending_count() >= jobs:
                time.sleep(0.005)
            if layer.failure is not None:
                break
        if parallel:
            try:
                pool.wait_until_idle()
            except TaskError as exc:
                if layer.failure is not None:
                    raise layer.failure from None
                raise UserError(f"a chunk's callback failed: {one_line(exc)}") from None
    finally:
        bar.close()
    if layer.failure is not None:
        raise layer.failure
    return collector


def build_on_cluster(args: argparse.Namespace, client: Any, data_manager: DataManager, params: List[Any],
                     encoding: Dict[str, Any], batches: Iterator[Dataset], bar: Any,
                     started: float) -> Tuple[Collector, List[str], Dict[str, object]]:
    """Send the batches to the cluster as partitions, and build every leaf there.

    Returns the collected leaves, the feature columns the workers used, and the summary's lines about
    the cluster (workers, partitions, where the time went).
    """
    from quillmarsh.distributed import PartitionError, build_leaves, scatter_batches

    names = [feature.name for feature in data_manager.data_params.features]
    target = args.target or "y"
    space = StreamSpace(data_manager, names, args.chunk_size)
    partitions = Partitions(PARTITION_CHUNKS * args.chunk_size)

    fed_rows = 0

    def fed() -> Iterator[Dataset]:
        nonlocal fed_rows
        for dset in batches:
            space.add(dset)
            partitions.add(dset.ind)
            fed_rows += len(dset.ind)
            yield dset
        partitions.close()
        space.finish()

    try:
        parts = scatter_batches(client, fed(), names, target=target, rows_per_partition=partitions.rows)
    finally:
        bar.close()
    loaded = time.perf_counter()
    n_parts = len(parts)
    if not parts:
        raise UserError("no row was fed to the cluster: the input has too few rows")
    settings, features = worker_settings(data_manager.feature_space, names, encoding)
    try:
        result = build_leaves(parts, target, settings, params, args.chunk_size, client=client,
                              n_rows=fed_rows, progress=not args.quiet)
    except PartitionError as exc:
        number = exc.partition
        rows = (f" (sample indices {partitions.ranges[number][0]} to {partitions.ranges[number][1]})"
                if number < len(partitions.ranges) else "")
        raise UserError(f"partition #{number + 1} of {n_parts}{rows} failed on its worker: "
                        f"{type(exc.error).__name__}: {one_line(exc.error)}") from None
    except OSError as exc:  # Dask's closed connections and timeouts are OSErrors
        raise UserError(f"--dask {args.dask}: the connection to the cluster failed: {type(exc).__name__}: "
                        f"{one_line(exc)}") from None
    except Exception as exc:  # the client's last layer, which drains the rows the partitions left over
        raise UserError(f"the client's last layer (the rows the partitions left over) could not be built: "
                        f"{type(exc).__name__}: {one_line(exc)}") from None
    finally:
        del parts
    workers = len(client.scheduler_info().get("workers", {}))
    plural = "" if workers == 1 else "es"
    where = f"local cluster of {workers} worker process{plural}" if args.dask == "local" else \
        f"scheduler {args.dask}, {workers} worker{plural[1:]}"
    details: Dict[str, object] = {
        "mode": f"Dask, {where}",
        "workers": workers,
        "partitions": n_parts,
        "time reading and scattering (s)": round(loaded - started, 3),
        "  of which learning the features (s)": round(space.seconds, 3),
        "time building on the cluster (s)": round(result.wall_seconds - result.tail_seconds, 3),
        "time on the workers, summed (s)": round(sum(p.seconds for p in result.partitions), 3),
        "time in the client's last layer (s)": round(result.tail_seconds, 3),
    }
    return collect_leaves(result.leaves), features, details


def summary_ratio(judgement: Judgement, model: str) -> str:
    if model == "kmeans":
        cost = judgement.km_cost_coreset
        ratio = judgement.km_cost_full / cost if cost > 0 else float("nan")
    else:
        ratio = quality(judgement.r2_coreset, judgement.r2_full)
    return f"{ratio:.4f}"


def quality(coreset_score: float, full_score: float) -> float:
    """R² of the coresets' model over the full-data model's (1.0: as good)."""
    return coreset_score / full_score if full_score else float("nan")


def peak_memory_mb() -> Optional[int]:
    try:
        import resource
    except ImportError:  # not on Windows
        return None
    peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    return int(peak / 1024) if sys.platform != "darwin" else int(peak / 2**20)


if __name__ == "__main__":
    main()
