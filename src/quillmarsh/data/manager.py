"""The data manager: keeps the samples of the coreset tree's nodes, in memory or in a directory.

Saves are asynchronous: ``save_selected_samples_async`` copies the selected rows at once and a
background thread per manager stores them; ``wait_for_saves`` reports any failed save. The manager also
keeps the set of samples marked removed, which reads leave out. With ``storage_dir`` every node is one
``.npz`` file written atomically, and the removals are one ``removed.npy`` file, so a new manager on the
same directory finds both again.
"""

from __future__ import annotations

import abc
import contextlib
import copy
import hashlib
import io
import os
import queue
import re
import signal
import threading
import uuid
from dataclasses import dataclass, field
from typing import IO, Any, Callable, Dict, Hashable, Iterator, List, Sequence, Tuple, TypeVar, Union

import numpy as np

from quillmarsh.data.common import Dataset
from quillmarsh.data.feature_space import FeatureSpace

__all__ = [
    "DEFAULT_CAT_ENCODING_CONFIG",
    "SAVER_IDLE_SECONDS",
    "DataManager",
    "DataManagerBase",
    "DataManagerT",
    "DataParams",
    "DataParamsInternal",
    "FeatureField",
    "SaveError",
]

DEFAULT_CAT_ENCODING_CONFIG: Dict[str, Any] = {"max_categories": 100, "max_text_values": 1000}
"""Categorical encoding used when none is given: at most 100 one-hot columns per feature (plus "other"),
and a text column with more than 1000 distinct values (in the first chunk that holds it) is left out."""

_REMOVED_FILE = "removed.npy"

# The saver thread stops after this long without work (and starts again on the next save), so an idle
# manager holds no thread and can be garbage-collected even if never closed.
SAVER_IDLE_SECONDS = 1.0


@dataclass
class FeatureField:
    """One input feature: its name and whether it is categorical."""

    name: str
    categorical: bool = False


@dataclass
class DataParams:
    """User-facing preprocessing parameters.

    Parameters
    ----------
    features : list of FeatureField, default=[]
        The input features, in column order.
    drop_rows_below : float, default=0.0
        Rows whose share of present values is below it are dropped (0 keeps all); in [0, 1].
    drop_cols_above : float, default=1.0
        Columns whose share of missing values is above it are dropped (1 keeps all); in [0, 1].

    Raises
    ------
    ValueError
        If ``drop_rows_below`` or ``drop_cols_above`` is not in [0, 1].
    """

    features: List[FeatureField] = field(default_factory=list)
    drop_rows_below: float = 0.0
    drop_cols_above: float = 1.0

    def __post_init__(self) -> None:
        """Check that both fractions are in [0, 1]."""
        for name in ("drop_rows_below", "drop_cols_above"):
            value = getattr(self, name)
            if not 0.0 <= value <= 1.0:
                raise ValueError(f"{name} must be in [0, 1], got {value!r}")


@dataclass
class DataParamsInternal:
    """Parameters learnt from the data while streaming.

    Parameters
    ----------
    categorical_features_ : list of int, default=[]
        The positions of the categorical columns.
    aggregated_missing_replacements : list or None, default=None
        The missing-value replacements aggregated over the chunks seen so far: one per column, None
        meaning "compute it".
    """

    categorical_features_: List[int] = field(default_factory=list)
    aggregated_missing_replacements: List[Any] | None = None


class SaveError(Exception):
    """Raised by ``wait_for_saves`` and ``close`` when saves failed.

    ``errors`` lists ``(node_id, exception)`` pairs, oldest first; the first exception is the
    ``__cause__``.

    Parameters
    ----------
    errors : list of (hashable, BaseException)
        The failed saves, by node id, oldest first; at least one.
    """

    def __init__(self, errors: List[Tuple[Hashable, BaseException]]) -> None:
        self.errors = list(errors)
        node_id, first = self.errors[0]
        super().__init__(
            f"{len(self.errors)} save(s) failed; first, of node {node_id!r}: {type(first).__name__}: {first}"
        )


class DataManagerBase(abc.ABC):
    """The interface the chunk layer uses, and the parameters it reads as plain attributes.

    Usable as a context manager, which calls ``close`` on exit.

    Parameters
    ----------
    data_params : DataParams or None, default=None
        The preprocessing parameters; None means ``DataParams()``.
    data_params_internal : DataParamsInternal or None, default=None
        The parameters learnt while streaming; None means ``DataParamsInternal()``.
    n_jobs : int or None, default=None
        Parallelism for the caller's own processing; the manager itself saves on one thread.
    verbose : int, default=0
        The verbosity.
    n_instances : int or None, default=None
        The expected total number of samples, or None.
    cat_encoding_config : dict or None, default=None
        Holds ``max_categories`` and ``max_text_values`` (see ``DataAutoProcessor``); it is deep-copied.
        None means ``DEFAULT_CAT_ENCODING_CONFIG``.

    Attributes
    ----------
    feature_space : FeatureSpace
        The stream's feature space: every preprocessing pass that gets its configuration from
        ``cat_encoding_config_clear()`` encodes into it, so all chunks share one feature space.
    """

    def __init__(
        self,
        data_params: DataParams | None = None,
        data_params_internal: DataParamsInternal | None = None,
        n_jobs: int | None = None,
        verbose: int = 0,
        n_instances: int | None = None,
        cat_encoding_config: Dict[str, Any] | None = None,
    ) -> None:
        self.data_params = data_params if data_params is not None else DataParams()
        self.data_params_internal = (
            data_params_internal if data_params_internal is not None else DataParamsInternal()
        )
        self.n_jobs = n_jobs
        self.verbose = verbose
        self.n_instances = n_instances
        self._cat_encoding_config = copy.deepcopy(
            cat_encoding_config if cat_encoding_config is not None else DEFAULT_CAT_ENCODING_CONFIG
        )
        self.feature_space = FeatureSpace()

    def cat_encoding_config_clear(self) -> Dict[str, Any]:
        """Return the categorical-encoding configuration for a new preprocessing pass.

        Returns
        -------
        dict
            A new dict on each call: a deep copy of the configuration, which the caller may change
            freely, plus the key ``"feature_space"``, which is the manager's own ``FeatureSpace``
            (shared, not copied: the pass adds the columns and categories it finds to it).
        """
        config = copy.deepcopy(self._cat_encoding_config)
        config["feature_space"] = self.feature_space
        return config

    @abc.abstractmethod
    def get_removed(self) -> np.ndarray | None:
        """Return the sorted int64 indices of the samples marked removed, or None when none is.

        Returns
        -------
        ndarray of int64 or None
            The removed sample indices, sorted.
        """

    @abc.abstractmethod
    def remove_samples(self, indices: Any) -> None:
        """Mark samples as removed (idempotent).

        Parameters
        ----------
        indices : array-like of int
            The sample indices.
        """

    @abc.abstractmethod
    def get_by_nodes(self, node_ids: Sequence[Hashable], with_props: bool = False) -> Dataset:
        """Return the stored samples of the listed nodes, without the removed ones.

        Parameters
        ----------
        node_ids : sequence of hashable
            The nodes, in the order their rows come.
        with_props : bool, default=False
            Whether to return the samples' ``props``.

        Returns
        -------
        Dataset
            The nodes' rows.
        """

    @abc.abstractmethod
    def save_selected_samples_async(
        self, dset: Dataset, indices: Any | None, node_id: Hashable, is_buffer: bool = False
    ) -> None:
        """Store the selected samples of ``dset`` under ``node_id``, in the background.

        Parameters
        ----------
        dset : Dataset
            The node's rows.
        indices : array-like of int or None
            The sample indices (values of ``dset.ind``) to store; None stores all.
        node_id : hashable
            The node's id.
        is_buffer : bool, default=False
            Whether the rows are the layer's buffer.
        """

    @abc.abstractmethod
    def wait_for_saves(self, timeout: float | None = None) -> None:
        """Block until every pending save is stored; raise ``SaveError`` if any failed.

        Parameters
        ----------
        timeout : float or None, default=None
            The most seconds to wait; None waits as long as it takes.
        """

    @abc.abstractmethod
    def stored_node_ids(self, buffer: bool | None = None) -> List[Hashable]:
        """List the ids of the stored nodes.

        Parameters
        ----------
        buffer : bool or None, default=None
            None lists all, True only buffers, False only the other nodes.

        Returns
        -------
        list of hashable
            The node ids.
        """

    @abc.abstractmethod
    def close(self, timeout: float | None = None) -> None:
        """Finish the pending saves and release the manager's resources.

        Parameters
        ----------
        timeout : float or None, default=None
            The most seconds to wait for the pending saves; None waits as long as it takes.
        """

    def __enter__(self: DataManagerT) -> DataManagerT:
        """Return the manager, to be closed at the end of the ``with`` block."""
        return self

    def __exit__(self, *exc_info: Any) -> None:
        """Close the manager (see ``close``)."""
        self.close()


DataManagerT = TypeVar("DataManagerT", bound=DataManagerBase)
"""The type of a data manager in annotations: ``DataManagerBase`` or any subclass of it."""


def _as_index_array(values: Any) -> np.ndarray:
    """Return sample indices as a 1-D int64 array.

    Accepts any array-like of integers, or of floats holding whole numbers (some callers hand back
    float64 index arrays). Raises ``ValueError`` for non-whole or non-finite floats, ``TypeError`` for
    booleans (a mask is not a list of indices) and other types.
    """
    arr = np.asarray(values).ravel()
    if arr.size == 0:
        return np.empty(0, dtype=np.int64)
    if arr.dtype.kind == "O":
        arr = arr.astype(np.float64)
    if arr.dtype.kind in "iu":
        return arr.astype(np.int64)
    if arr.dtype.kind == "f":
        if not np.isfinite(arr).all() or not (arr == np.round(arr)).all():
            raise ValueError("sample indices given as floats must be finite whole numbers")
        return arr.astype(np.int64)
    raise TypeError(f"sample indices must be integers, got dtype {arr.dtype}")


def _concat(parts: List[Dataset], with_props: bool, node_ids: List[Hashable]) -> Dataset:
    values: List[np.ndarray | None] = []
    for name in Dataset._fields:
        column = [getattr(part, name) for part in parts]
        present = [value is not None for value in column]
        if (name == "props" and not with_props) or not any(present):
            values.append(None)
        elif not all(present):
            raise ValueError(f"field {name!r} is stored for some but not all of the nodes {node_ids!r}")
        else:
            values.append(np.concatenate(column))
    return Dataset._make(values)


@contextlib.contextmanager
def _interrupts_deferred() -> Iterator[None]:
    """Hold Ctrl-C back from the main thread until the block ends.

    A zip writer interrupted inside a member's close is left half open, and the interpreter later
    prints the error of its ``__del__``; held back for the few milliseconds of writing in memory, the
    interrupt comes right after, where nothing is half done. Elsewhere than in the main thread, or
    where signals cannot be masked, the block runs as it is.
    """
    mask = getattr(signal, "pthread_sigmask", None)
    if mask is None or threading.current_thread() is not threading.main_thread():
        yield
        return
    before = mask(signal.SIG_BLOCK, {signal.SIGINT})
    try:
        yield
    finally:
        mask(signal.SIG_SETMASK, before)


def _atomic_write(path: str, write: Callable[[IO[bytes]], None], durable: bool = True) -> None:
    """Write a file through a temporary name and ``os.replace``, so readers never see a partial file.

    ``durable`` also waits until the file is on disk before it takes the name. The content is made in
    memory first, with interrupts held back: a writer interrupted half-way (Ctrl-C inside a zip writer,
    say) would leave an object behind that still points at a closed file.
    """
    tmp = f"{path}.{uuid.uuid4().hex}.tmp"
    content = io.BytesIO()
    with _interrupts_deferred():
        write(content)
    try:
        with open(tmp, "wb") as stream:
            stream.write(content.getbuffer())
            if durable:
                stream.flush()
                os.fsync(stream.fileno())
        os.replace(tmp, path)
    except BaseException:
        if os.path.exists(tmp):
            os.remove(tmp)
        raise


def _node_file_name(node_id: Union[str, int]) -> str:
    """Return a node's file name: its id made file-safe, plus a digest that keeps distinct ids apart."""
    safe = re.sub(r"[^A-Za-z0-9._-]", "_", str(node_id))[:64]
    digest = hashlib.sha1(f"{type(node_id).__name__}:{node_id}".encode()).hexdigest()[:12]
    return f"node-{safe}-{digest}.npz"


class DataManager(DataManagerBase):
    """Stores node samples in memory, or with ``storage_dir`` in that directory, and tracks removals.

    - ``save_selected_samples_async`` copies the selected rows before returning (so the caller may reuse
      its arrays at once) and queues them for the manager's saver thread, a daemon thread started on
      demand that stops after ``SAVER_IDLE_SECONDS`` without work. Call ``wait_for_saves`` or ``close``
      before the process exits: a save still queued then is lost (files are written atomically, so
      never half-written).
      Saving under a node id again replaces its samples. ``is_buffer=True`` flags the entry as the
      layer's buffer; it is stored like any node and listed by ``stored_node_ids(buffer=True)``.
    - ``get_by_nodes`` first waits for the pending saves of the nodes it reads, so a read sees every
      earlier save of those nodes. An empty list gives an empty ``Dataset``: ``ind`` of shape (0,),
      ``X`` of shape (0, 0), every other field None.
    - ``wait_for_saves`` and ``close`` raise ``SaveError`` for failed saves; a failed save is never
      dropped silently. After ``close`` saves are refused; reads still work.
    - With ``storage_dir`` and ``durable`` (the default), each file is on disk before it takes its name,
      so a store survives a crash of the machine; a working store that is rebuilt from scratch after a
      crash can pass ``durable=False`` and skip the wait.
    - With ``storage_dir``, node ids must be ``str`` or ``int``; object arrays are pickled into the
      ``.npz`` files, so only point a manager at a directory you trust.
    All maps are guarded by one lock, so reads, removals and saves may come from any threads.

    Parameters
    ----------
    data_params, data_params_internal, n_jobs, verbose, n_instances, cat_encoding_config
        As for ``DataManagerBase``.
    storage_dir : str or path, default=None
        The directory the nodes are stored in (created if needed; what an earlier manager left there
        is loaded); None keeps them in memory.
    durable : bool, default=True
        With ``storage_dir``, whether each file is on disk before it takes its name.
    """

    def __init__(
        self,
        data_params: DataParams | None = None,
        data_params_internal: DataParamsInternal | None = None,
        n_jobs: int | None = None,
        verbose: int = 0,
        n_instances: int | None = None,
        storage_dir: Union[str, os.PathLike[str], None] = None,
        cat_encoding_config: Dict[str, Any] | None = None,
        durable: bool = True,
    ) -> None:
        super().__init__(
            data_params=data_params,
            data_params_internal=data_params_internal,
            n_jobs=n_jobs,
            verbose=verbose,
            n_instances=n_instances,
            cat_encoding_config=cat_encoding_config,
        )
        self.storage_dir = None if storage_dir is None else os.fspath(storage_dir)
        self.durable = bool(durable)
        self._cond = threading.Condition()
        # node id -> (the Dataset in memory, or the path of its file; is_buffer)
        self._nodes: Dict[Hashable, Tuple[Union[Dataset, str], bool]] = {}
        self._removed = np.empty(0, dtype=np.int64)
        self._pending: Dict[Hashable, int] = {}
        self._errors: List[Tuple[Hashable, BaseException]] = []
        self._saves: queue.Queue[Any] = queue.Queue()
        self._worker: threading.Thread | None = None
        self._closed = False
        if self.storage_dir is not None:
            os.makedirs(self.storage_dir, exist_ok=True)
            self._load_directory()

    def get_removed(self) -> np.ndarray | None:
        """Return the sorted int64 indices of the samples marked removed, or None when none is.

        Returns
        -------
        ndarray of int64 or None
            A copy of the removed sample indices, sorted.
        """
        with self._cond:
            return self._removed.copy() if self._removed.size else None

    def remove_samples(self, indices: Any) -> None:
        """Mark samples removed. Idempotent.

        With ``storage_dir`` the removals are written to it before they count.

        Parameters
        ----------
        indices : array-like
            Integers, or floats holding whole numbers.

        Raises
        ------
        ValueError
            For floats that are not finite whole numbers.
        TypeError
            For booleans and other types.
        """
        new = _as_index_array(indices)
        with self._cond:
            merged = np.union1d(self._removed, new)
            if merged.size == self._removed.size:
                return
            if self.storage_dir is not None:
                _atomic_write(
                    os.path.join(self.storage_dir, _REMOVED_FILE), lambda f: np.save(f, merged), self.durable
                )
            self._removed = merged

    def get_by_nodes(self, node_ids: Sequence[Hashable], with_props: bool = False) -> Dataset:
        """Return the stored samples of ``node_ids`` as one ``Dataset``, without the removed samples.

        Waits for the pending saves of the nodes first. The arrays returned are the caller's own.

        Parameters
        ----------
        node_ids : sequence of hashable
            The nodes; their rows come in this order, then each node's stored order.
        with_props : bool, default=False
            Whether to return the samples' ``props``; otherwise ``props`` is None.

        Returns
        -------
        Dataset
            The rows; an empty list gives an empty ``Dataset`` (``X`` of shape (0, 0)).

        Raises
        ------
        KeyError
            Naming the nodes that were never saved.
        ValueError
            If a field is stored for some of the nodes but not all.
        """
        node_ids = list(node_ids)
        with self._cond:
            self._cond.wait_for(lambda: not any(self._pending.get(node) for node in node_ids))
            missing = [node for node in node_ids if node not in self._nodes]
            if missing:
                raise KeyError(f"node(s) never saved: {missing!r}")
            payloads = [self._nodes[node][0] for node in node_ids]
            removed = self._removed
        if not payloads:
            return Dataset(ind=np.empty(0, dtype=np.int64), X=np.empty((0, 0)))
        parts = [p if isinstance(p, Dataset) else self._read_node(p) for p in payloads]
        merged = _concat(parts, with_props, node_ids)
        if removed.size:
            merged = merged.take(~np.isin(merged.ind, removed))
        return merged

    def save_selected_samples_async(
        self, dset: Dataset, indices: Any | None, node_id: Hashable, is_buffer: bool = False
    ) -> None:
        """Store the samples of ``dset`` whose ``ind`` is in ``indices`` (all when None) under ``node_id``.

        Returns at once; the rows are copied before that, and the saver thread stores them. Problems
        with the arguments raise here; failures of the store itself come from ``wait_for_saves``.
        Saving under a node id again replaces its samples.

        Parameters
        ----------
        dset : Dataset or sequence of arrays
            The node's rows (a plain sequence is made a ``Dataset``).
        indices : array-like of int or None
            The sample indices to store; None stores all rows.
        node_id : hashable
            The node's id; ``str`` or ``int`` with ``storage_dir``.
        is_buffer : bool, default=False
            Whether the rows are the layer's buffer (listed by ``stored_node_ids(buffer=True)``).

        Raises
        ------
        TypeError
            If ``node_id`` is not hashable, or (with ``storage_dir``) not a ``str`` or ``int``; or the
            indices are not integers.
        ValueError
            If a field of ``dset`` has not one row per entry of ``ind``, or the indices are floats
            that are not whole numbers.
        RuntimeError
            If the manager is closed.
        """
        if not isinstance(dset, Dataset):
            dset = Dataset(*dset)
        hash(node_id)
        if self.storage_dir is not None and not isinstance(node_id, (str, int, np.integer)):
            raise TypeError(f"node ids of a disk-backed manager must be str or int, got {node_id!r}")
        if isinstance(node_id, np.integer):
            node_id = int(node_id)
        n = len(dset.ind)
        for name, value in zip(Dataset._fields, dset):
            if value is not None and len(value) != n:
                raise ValueError(f"field {name!r} has {len(value)} rows, but ind has {n}")
        if indices is None:
            rows = np.arange(n)
        else:
            rows = np.flatnonzero(np.isin(np.asarray(dset.ind), _as_index_array(indices)))
        selected = dset.take(rows)
        with self._cond:
            if self._closed:
                raise RuntimeError("the data manager is closed")
            self._pending[node_id] = self._pending.get(node_id, 0) + 1
            if self._worker is None:
                self._worker = threading.Thread(target=self._save_loop, name="quillmarsh-saver", daemon=True)
                self._worker.start()
            self._saves.put((node_id, selected, bool(is_buffer)))

    def wait_for_saves(self, timeout: float | None = None) -> None:
        """Block until every pending save is stored; then raise ``SaveError`` if any save failed.

        The reported errors are forgotten.

        Parameters
        ----------
        timeout : float or None, default=None
            The most seconds to wait; None waits as long as it takes.

        Raises
        ------
        SaveError
            If any save failed since the last report.
        TimeoutError
            If saves are still pending after ``timeout`` seconds.
        """
        with self._cond:
            if not self._cond.wait_for(lambda: not self._pending, timeout):
                raise TimeoutError(f"{sum(self._pending.values())} save(s) still pending after {timeout} s")
            if self._errors:
                errors, self._errors = self._errors, []
                raise SaveError(errors) from errors[0][1]

    def stored_node_ids(self, buffer: bool | None = None) -> List[Hashable]:
        """List the ids of the stored nodes: all, or only buffers (``True``) or only others (``False``).

        Pending saves are not listed until stored; call ``wait_for_saves`` first to include them.

        Parameters
        ----------
        buffer : bool or None, default=None
            None lists all, True only buffers, False only the other nodes.

        Returns
        -------
        list of hashable
            The node ids.
        """
        with self._cond:
            return [node for node, (_, flag) in self._nodes.items() if buffer is None or flag == buffer]

    def close(self, timeout: float | None = None) -> None:
        """Refuse further saves, finish the pending ones, stop the saver thread, then report failures.

        Idempotent. Reads still work after it.

        Parameters
        ----------
        timeout : float or None, default=None
            The most seconds to wait for the saver thread; None waits as long as it takes.

        Raises
        ------
        SaveError
            For failed saves not reported yet.
        TimeoutError
            If the saver has not finished after ``timeout`` seconds.
        """
        with self._cond:
            self._closed = True
            worker = self._worker
            if worker is not None and worker.is_alive():
                self._saves.put(None)
        if worker is not None:
            worker.join(timeout)
            if worker.is_alive():
                raise TimeoutError(f"the saver thread has not finished after {timeout} s")
        self.wait_for_saves(timeout=0)

    def _save_loop(self) -> None:
        while True:
            try:
                item = self._saves.get(timeout=SAVER_IDLE_SECONDS)
            except queue.Empty:
                with self._cond:  # saves are queued under this lock, so none can slip in meanwhile
                    if self._saves.empty():
                        self._worker = None
                        return
                continue
            if item is None:
                return
            node_id, dset, is_buffer = item
            error: BaseException | None = None
            try:
                payload = dset if self.storage_dir is None else self._write_node(node_id, dset, is_buffer)
            except BaseException as exc:  # kept for wait_for_saves
                error = exc
            with self._cond:
                if error is None:
                    self._nodes[node_id] = (payload, is_buffer)
                else:
                    self._errors.append((node_id, error))
                self._pending[node_id] -= 1
                if not self._pending[node_id]:
                    del self._pending[node_id]
                self._cond.notify_all()
            del item, dset

    def _write_node(self, node_id: Union[str, int], dset: Dataset, is_buffer: bool) -> str:
        assert self.storage_dir is not None
        path = os.path.join(self.storage_dir, _node_file_name(node_id))
        arrays: Dict[str, Any] = {
            name: value for name, value in zip(Dataset._fields, dset) if value is not None
        }
        arrays["__node_id__"] = np.array(node_id)
        arrays["__is_buffer__"] = np.array(is_buffer)
        _atomic_write(path, lambda f: np.savez(f, **arrays), self.durable)
        return path

    @staticmethod
    def _read_node(path: str) -> Dataset:
        with np.load(path, allow_pickle=True) as data:
            return Dataset._make(data[name] if name in data.files else None for name in Dataset._fields)

    def _load_directory(self) -> None:
        """Index the nodes and load the removals that an earlier manager left in ``storage_dir``."""
        assert self.storage_dir is not None
        for name in sorted(os.listdir(self.storage_dir)):
            if name.startswith("node-") and name.endswith(".npz"):
                path = os.path.join(self.storage_dir, name)
                with np.load(path, allow_pickle=False) as data:
                    node_id = data["__node_id__"].item()
                    self._nodes[node_id] = (path, bool(data["__is_buffer__"]))
        removed_path = os.path.join(self.storage_dir, _REMOVED_FILE)
        if os.path.exists(removed_path):
            self._removed = np.load(removed_path).astype(np.int64)
