"""The coreset tree: a stream of any length summarised in one weighted coreset of a fixed size.

Rows reach the tree in blocks. The chunk layer buffers them, cuts full chunks and builds every chunk
into a leaf: the chunk preprocessed, and the sensitivities of its rows for each coreset object. The tree
samples each leaf down to ``coreset_size`` rows and merges them by merge and reduce: two nodes of one
level become one node of the next, the union of their weighted rows reduced again to ``coreset_size``
rows by weighted sensitivities. So after ``L`` leaves the tree holds one node per set bit of ``L``,
at most ``ceil(log2 L) + 1`` nodes of ``coreset_size`` rows each, whatever the stream's length. The
summary combines those nodes and the rows that wait in the layer's buffer the same way.
"""

from __future__ import annotations

import numbers
import threading
from typing import Any, Dict, Iterable, List, NamedTuple, Optional, Sequence, Tuple, Union

import numpy as np
import pandas as pd
from quillmarsh.core.tree.chunk_layer import ChunkLayer, ChunkNode, ChunkSensitivitiesParams
from sklearn.utils.validation import has_fit_parameter

from quillmarsh.common import ThreadPoolManager
from quillmarsh.core.coreset._base import CoresetBase
from quillmarsh.core.coreset.sampling import sample_rows
from quillmarsh.data.common import Dataset
from quillmarsh.data.manager import DataManager, DataParams, FeatureField

__all__ = ["Coreset", "CoresetTree"]

CHUNK_SIZE_FACTOR = 10
"""The default ``chunk_size`` is this many times ``coreset_size``: each leaf keeps a tenth of its rows."""

# Seed-sequence words that set the summary's and the buffer's random streams apart from the nodes'.
_FINAL_NODE = 2**32 - 1
_BUFFER_NODE = 2**32 - 2


class Coreset(NamedTuple):
    """The weighted summary of a stream.

    Attributes
    ----------
    ids : ndarray of shape (m,), int64
        The id of each row, leading back to the source rows.
    X : ndarray of shape (m, n_features), float64
        The rows' features (after preprocessing for tables).
    y : ndarray of shape (m,) or None
        The rows' targets; None when the stream has none.
    weights : ndarray of shape (m,), float64
        The rows' weights; they sum to an unbiased estimate of the row count.
    """

    ids: np.ndarray
    X: np.ndarray
    y: Optional[np.ndarray]
    weights: np.ndarray


class _IdRanges:
    """The set of ids held, as sorted, disjoint half-open ranges: a running row count is one range."""

    def __init__(self) -> None:
        self.starts = np.empty(0, dtype=np.int64)
        self.ends = np.empty(0, dtype=np.int64)

    def present(self, ids: np.ndarray) -> np.ndarray:
        """The mask of the ``ids`` that are held."""
        position = np.searchsorted(self.starts, ids, side="right") - 1
        inside = position >= 0
        mask = np.zeros(ids.shape[0], dtype=bool)
        mask[inside] = ids[inside] < self.ends[position[inside]]
        return mask

    def add(self, ids: np.ndarray) -> None:
        """Add distinct ids that are not held."""
        if ids.size == 0:
            return
        ordered = np.sort(ids)
        breaks = np.flatnonzero(np.diff(ordered) != 1) + 1
        starts = np.concatenate([self.starts, ordered[np.r_[0, breaks]]])
        ends = np.concatenate([self.ends, ordered[np.r_[breaks - 1, ordered.size - 1]] + 1])
        order = np.argsort(starts, kind="stable")
        starts, ends = starts[order], ends[order]
        apart = starts[1:] != ends[:-1]  # ranges that touch become one
        self.starts = starts[np.r_[True, apart]]
        self.ends = ends[np.r_[apart, True]]


def _union(parts: Sequence[Coreset]) -> Coreset:
    """The rows of all ``parts`` in order; narrower feature matrices are padded with zero columns.

    The stream's feature space only ever appends columns, and an earlier row holds none of the later
    categories, so zero is right for the columns it lacks.
    """
    width = max(part.X.shape[1] for part in parts)
    X = np.concatenate(
        [np.pad(p.X, ((0, 0), (0, width - p.X.shape[1]))) if p.X.shape[1] < width else p.X for p in parts]
    )
    ys = [part.y for part in parts if part.y is not None]
    y = np.concatenate(ys) if len(ys) == len(parts) else None
    return Coreset(
        ids=np.concatenate([part.ids for part in parts]),
        X=X,
        y=y,
        weights=np.concatenate([part.weights for part in parts]),
    )


class CoresetTree:
    """One bounded, weighted summary of a stream of rows, by merge and reduce over a chunk layer.

    Parameters
    ----------
    coreset : CoresetBase or list of CoresetBase
        The coreset object whose class and parameters every node uses (``get_params``; the tree sets
        ``coreset_size`` and ``random_state``). A list builds one summary per object on the same
        leaves, in one pass.
    coreset_size : int, default=1000
        ``m``: the rows of every node's coreset and of the summary that ``coreset()`` returns.
    chunk_size : int, default=None
        The rows of each leaf; None means ``CHUNK_SIZE_FACTOR * coreset_size`` (10 m).
    n_jobs : int, default=None
        Above 1, the leaves are built on the library's shared task pool, and nodes merge on its
        threads as their children become ready. The summary does not depend on it.
    random_state : None, int or numpy Generator, default=None
        Seeds every node from the seed and the node's position in the tree: the same seed and the
        same blocks give the same summary, with any ``n_jobs``.

    Attributes
    ----------
    coreset_objects : list of CoresetBase
        The coreset objects given (the method ``coreset`` returns the summary).
    n_samples_ : int
        Rows added so far.
    n_leaves_ : int
        Leaves built so far (full chunks; the rows in the buffer are not a leaf yet).
    n_features_in_ : int or None
        Columns of the blocks added (None before the first block).
    feature_names_in_ : list of str or None
        The column names of table input (None for arrays).

    Notes
    -----
    The tree holds at most ``(ceil(log2 L) + 2) * coreset_size`` rows per coreset object for ``L``
    leaves, besides the layer's buffer (less than one chunk) and the chunks being built.

    Examples
    --------
    >>> import numpy as np
    >>> from quillmarsh import CoresetTree
    >>> from quillmarsh.core.coreset import CoresetKMeans
    >>> tree = CoresetTree(CoresetKMeans(k=3), coreset_size=50, random_state=0)
    >>> rng = np.random.default_rng(0)
    >>> for _ in range(5):
    ...     tree.add(rng.normal(size=(400, 2)))
    >>> c = tree.coreset()
    >>> c.X.shape, tree.n_leaves_
    ((50, 2), 4)
    """

    def __init__(
        self,
        coreset: Union[CoresetBase, Sequence[CoresetBase]],
        coreset_size: int = 1000,
        chunk_size: Optional[int] = None,
        n_jobs: Optional[int] = None,
        random_state: Union[None, int, np.random.Generator] = None,
    ) -> None:
        templates = (
            [coreset]
            if isinstance(coreset, CoresetBase)
            else list(coreset)
            if isinstance(coreset, (list, tuple))
            else []
        )
        if not templates or not all(isinstance(t, CoresetBase) for t in templates):
            raise TypeError("coreset must be a coreset object (a CoresetBase) or a non-empty list of them")
        self.coreset_objects = templates
        self.coreset_size = _positive_int("coreset_size", coreset_size)
        self.chunk_size = None if chunk_size is None else _positive_int("chunk_size", chunk_size)
        self.n_jobs = None if n_jobs is None else _positive_int("n_jobs", n_jobs)
        self.random_state = random_state
        self._templates = templates
        self._entropy = _entropy(random_state)
        self._lock = threading.Lock()
        # Per coreset object: the nodes that have no parent yet, by (level, index).
        self._open: List[Dict[Tuple[int, int], Coreset]] = [{} for _ in templates]
        self._summaries: Dict[int, Coreset] = {}
        self._buffer_rows: Optional[List[Coreset]] = None
        self._layer: Optional[ChunkLayer] = None
        self._ids = _IdRanges()
        self._kind: Optional[str] = None  # "array" or "frame"
        self._has_y: Optional[bool] = None
        self._n_blocks = 0
        self.n_samples_ = 0
        self.n_leaves_ = 0
        self.n_features_in_: Optional[int] = None
        self.feature_names_in_: Optional[List[str]] = None

    # -- the stream -----------------------------------------------------------------------------------

    def add(self, X: Any, y: Any = None, ids: Any = None) -> CoresetTree:
        """Add a block of rows.

        Parameters
        ----------
        X : ndarray of shape (n_rows, n_features) or pandas DataFrame
            A numeric array reaches the summary as given. A DataFrame goes through the library's
            preprocessing, in one feature space for the whole stream (text becomes one-hot columns,
            timestamps seconds, missing values are filled; rows whose target is missing are dropped).
            Every block has the same kind and the same columns.
        y : array-like of shape (n_rows,), default=None
            Targets: given with every block, or with none.
        ids : array-like of int of shape (n_rows,), default=None
            The rows' ids, distinct and not held yet; by default the running row count
            (``n_samples_`` onwards).

        Returns
        -------
        CoresetTree
            The tree itself.

        Raises
        ------
        ValueError, TypeError
            For a block that does not fit the stream; the tree is then left unchanged.
        """
        X, y, ids, columns = self._check_block(X, y, ids)
        n = X.shape[0]
        if n == 0:
            return self
        if self._layer is None:
            self._layer = self._make_layer(columns, X.shape[1])
        self._ids.add(ids)
        self._kind = "frame" if columns is not None else "array"
        self._has_y = y is not None
        self.n_features_in_ = X.shape[1]
        self.feature_names_in_ = columns
        self.n_samples_ += n
        self._n_blocks += 1
        self._summaries.clear()
        self._buffer_rows = None
        dataset = Dataset(ind=ids, X=X, y=y)
        for _ in self._layer.process([dataset], create_buffer=False, after_create_leaf_node=self._place_leaf):
            pass
        if self._parallel():
            ThreadPoolManager().wait_until_idle()
        return self

    def coreset(self, index: int = 0) -> Coreset:
        """Return the summary of every row added so far, for coreset object ``index``.

        Parameters
        ----------
        index : int, default=0
            Which coreset object of the list given at construction.

        Returns
        -------
        Coreset
            ``min(coreset_size, rows)`` weighted rows: the open nodes of the tree and the rows that
            wait in the buffer, reduced to ``coreset_size`` rows by weighted sensitivities.
        """
        if isinstance(index, bool) or not isinstance(index, numbers.Integral):
            raise TypeError(f"index must be an int, got {type(index).__name__}")
        if not 0 <= index < len(self._templates):
            raise IndexError(f"index {index} out of range for {len(self._templates)} coreset object(s)")
        index = int(index)
        if index not in self._summaries:
            self._summaries[index] = self._summary(index)
        return self._summaries[index]

    def fit(self, estimator: Any, index: int = 0, **fit_params: Any) -> Any:
        """Fit ``estimator`` on the summary with ``sample_weight`` set to its weights, and return it.

        Parameters
        ----------
        estimator : estimator object
            Any object whose ``fit`` takes ``sample_weight``.
        index : int, default=0
            Which coreset object's summary to fit on.
        **fit_params
            Passed on to ``fit``.

        Returns
        -------
        estimator
            The fitted estimator.
        """
        if not has_fit_parameter(estimator, "sample_weight"):
            raise TypeError(
                f"{type(estimator).__name__}.fit takes no sample_weight, "
                "so it cannot fit on a weighted coreset"
            )
        summary = self.coreset(index)
        if summary.ids.size == 0:
            raise ValueError("the tree holds no rows yet: add some before fitting")
        return estimator.fit(summary.X, summary.y, sample_weight=summary.weights, **fit_params)

    @property
    def feature_names_(self) -> List[str]:
        """The names of the summary's feature columns (the processed ones for table input)."""
        if self._layer is None:
            return []
        return list(self._layer.data_manager.feature_space.feature_names)

    # -- what the chunk layer calls -------------------------------------------------------------------

    def update_build_params(self) -> None:
        """Told by the chunk layer after every addition to its buffer: the buffer's summary is stale."""
        self._buffer_rows = None

    def _place_leaf(self, node: ChunkNode, leaf_index: Optional[int]) -> None:
        """Called by the chunk layer with each built leaf: sample it and merge it into the tree."""
        assert self._layer is not None
        if leaf_index is None:  # sequential build: the layer counts the leaf after this call
            leaf_index = self._layer.chunk_index
        ids = np.asarray(node.dset.ind, dtype=np.int64)
        for t, record in enumerate(node.coresets):
            rng = self._rng(t, 0, leaf_index)
            rows = self._rows_of(record.coreset, ids)
            idxs, weights = sample_rows(
                _sensitivities_of(record.coreset), self.coreset_size, rows.weights, random_state=rng
            )
            self._merge_up(
                t, 0, leaf_index, Coreset(rows.ids[idxs], rows.X[idxs], _take(rows.y, idxs), weights)
            )
        with self._lock:
            self.n_leaves_ += 1

    # -- merge and reduce -----------------------------------------------------------------------------

    def _merge_up(self, t: int, level: int, index: int, rows: Coreset) -> None:
        """Place a node; while its sibling is there too, merge the two into their parent."""
        while True:
            with self._lock:
                sibling = self._open[t].pop((level, index ^ 1), None)
                if sibling is None:
                    self._open[t][(level, index)] = rows
                    return
            left, right = (rows, sibling) if index % 2 == 0 else (sibling, rows)
            level, index = level + 1, index // 2
            rows = self._reduce(t, _union([left, right]), self._rng(t, level, index))

    def _reduce(self, t: int, rows: Coreset, rng: np.random.Generator) -> Coreset:
        """The weighted rows reduced to ``coreset_size`` by weighted sensitivities (as they are if fewer)."""
        if rows.ids.size <= self.coreset_size:
            return rows
        coreset = self._instantiate(t, int(rng.integers(2**63 - 1)))
        coreset.safe_mode = True  # a tiny or degenerate union is kept as a uniform sample
        sensitivities = coreset.compute_sensitivities(rows.X, rows.y, sample_weight=rows.weights)
        idxs, weights = sample_rows(sensitivities, self.coreset_size, rows.weights, random_state=rng)
        return Coreset(rows.ids[idxs], rows.X[idxs], _take(rows.y, idxs), weights)

    def _summary(self, t: int) -> Coreset:
        with self._lock:
            parts = [self._open[t][key] for key in sorted(self._open[t], key=lambda k: (-k[0], k[1]))]
        buffered = self._buffer_summaries()
        if buffered is not None:
            parts.append(buffered[t])
        if not parts:
            width = self.n_features_in_ or 0
            return Coreset(np.empty(0, np.int64), np.empty((0, width)), None, np.empty(0))
        if len(parts) == 1:
            return parts[0]
        return self._reduce(t, _union(parts), self._rng(t, _FINAL_NODE, self.n_leaves_))

    def _buffer_summaries(self) -> Optional[List[Coreset]]:
        """The rows waiting in the buffer, built into the buffer node and sampled, one per coreset object."""
        if self._layer is None or not self._layer.has_buffer():
            return None
        if self._buffer_rows is None:
            node = self._layer.create_buffer_node()
            assert node is not None
            ids = np.asarray(node.dset.ind, dtype=np.int64)
            summaries = []
            for t, record in enumerate(node.coresets):
                rows = self._rows_of(record.coreset, ids)
                idxs, weights = sample_rows(
                    _sensitivities_of(record.coreset),
                    self.coreset_size,
                    rows.weights,
                    random_state=self._rng(t, _BUFFER_NODE, self.n_samples_),
                )
                summaries.append(Coreset(rows.ids[idxs], rows.X[idxs], _take(rows.y, idxs), weights))
            self._buffer_rows = summaries
        return self._buffer_rows

    # -- helpers ----------------------------------------------------------------------------------------

    @staticmethod
    def _rows_of(coreset: Optional[Dict[str, Any]], ids: np.ndarray) -> Coreset:
        """A node's rows from its coreset record: the processed features and targets, each of weight 1."""
        assert coreset is not None, "the chunk layer builds every record with its coreset"
        X = np.asarray(coreset["X"], dtype=np.float64)
        if X.shape[0] != ids.shape[0]:
            raise RuntimeError(f"a node's coreset holds {X.shape[0]} rows, but the node {ids.shape[0]} ids")
        y = coreset["y"]
        return Coreset(ids, X, None if y is None else np.asarray(y).reshape(X.shape[0]), np.ones(X.shape[0]))

    def _instantiate(self, t: int, seed: int) -> CoresetBase:
        params = self._templates[t].get_params()
        params.update(coreset_size=self.coreset_size, random_state=seed)
        coreset: CoresetBase = type(self._templates[t])(**params)
        return coreset

    def _rng(self, t: int, level: int, index: int) -> np.random.Generator:
        return np.random.default_rng([self._entropy, t, level, index])

    def _parallel(self) -> bool:
        return self.n_jobs is not None and self.n_jobs > 1

    def _make_layer(self, columns: Optional[List[str]], width: int) -> ChunkLayer:
        names = columns if columns is not None else [f"f{i}" for i in range(width)]
        manager = DataManager(data_params=DataParams(features=[FeatureField(name) for name in names]))
        manager.n_jobs = self.n_jobs
        # The leaves' own draws: one seed for all, as the layer shares its parameters between chunks;
        # the tree draws each leaf's sample again from its sensitivities, seeded by the leaf's position.
        leaf_seed = int(self._rng(0, _FINAL_NODE, _FINAL_NODE).integers(2**63 - 1))
        params = []
        for template in self._templates:
            coreset_params = template.get_params()
            coreset_params.update(coreset_size=self.coreset_size, random_state=leaf_seed)
            params.append(ChunkSensitivitiesParams(coreset_cls=type(template), coreset_params=coreset_params))
        chunk_size = self.chunk_size if self.chunk_size is not None else CHUNK_SIZE_FACTOR * self.coreset_size
        return ChunkLayer(manager, params, chunk_size=chunk_size, parent=self)

    def _check_block(
        self, X: Any, y: Any, ids: Any
    ) -> Tuple[np.ndarray, Optional[np.ndarray], np.ndarray, Optional[List[str]]]:
        """Validate one block against the stream; return (X, y, ids, column names or None)."""
        block = f"block {self._n_blocks}"
        columns: Optional[List[str]] = None
        if isinstance(X, pd.DataFrame):
            columns = [str(name) for name in X.columns]
            if self._kind == "array":
                raise TypeError(f"{block} is a DataFrame, but earlier blocks were arrays")
            if self.feature_names_in_ is not None and columns != self.feature_names_in_:
                raise ValueError(
                    f"{block} has the columns {columns}, but earlier blocks {self.feature_names_in_}"
                )
            values = X.to_numpy()
        else:
            if self._kind == "frame":
                raise TypeError(f"{block} is an array, but earlier blocks were DataFrames")
            values = np.asarray(X)
            if values.dtype.kind not in "biuf":
                raise TypeError(
                    f"X of {block} must be numeric, got dtype {values.dtype}; pass tables as DataFrames"
                )
        if values.ndim != 2:
            raise ValueError(f"X of {block} must be 2-D, got {values.ndim}-D")
        n, width = values.shape
        if self.n_features_in_ is not None and width != self.n_features_in_:
            raise ValueError(
                f"X of {block} has {width} features, but earlier blocks had {self.n_features_in_}"
            )
        safe = all(t.safe_mode for t in self._templates)
        if columns is None and not safe and n:
            finite = np.isfinite(values).all(axis=0)
            if not finite.all():
                raise ValueError(
                    f"X of {block} holds NaN or infinite values in column {int(np.argmin(finite))} "
                    "(set safe_mode = True on the coreset object to have them filled)"
                )
        target: Optional[np.ndarray] = None
        if y is not None:
            target = np.asarray(y)
            if target.ndim == 2 and target.shape[1] == 1:
                target = target[:, 0]
            if target.ndim != 1:
                raise ValueError(f"y of {block} must be 1-D, got {target.ndim}-D")
            if target.shape[0] != n:
                raise ValueError(f"y of {block} has {target.shape[0]} rows, but X has {n}")
            if columns is None and not safe and n:
                if target.dtype.kind not in "biuf":
                    raise TypeError(f"y of {block} must be numeric, got dtype {target.dtype}")
                if not np.isfinite(target).all():
                    raise ValueError(f"y of {block} holds NaN or infinite values")
        if self._has_y is not None and (target is not None) != self._has_y:
            given = "given" if target is not None else "not given"
            raise ValueError(
                f"y is {given} for {block}, but {'not ' if target is not None else ''}for earlier blocks"
            )
        if ids is None:
            row_ids = np.arange(self.n_samples_, self.n_samples_ + n, dtype=np.int64)
        else:
            raw = np.asarray(ids)
            if raw.dtype.kind not in "iu" or raw.ndim != 1:
                raise TypeError(
                    f"ids of {block} must be a 1-D array of ints, got {raw.dtype} of {raw.ndim}-D"
                )
            if raw.shape[0] != n:
                raise ValueError(f"ids of {block} has {raw.shape[0]} entries, but X has {n} rows")
            row_ids = raw.astype(np.int64)
            ordered = np.sort(row_ids)
            repeated = ordered[1:][ordered[1:] == ordered[:-1]]
            if repeated.size:
                raise ValueError(f"ids of {block} repeat: {_few(np.unique(repeated))}")
        held = row_ids[self._ids.present(row_ids)]
        if held.size:
            raise ValueError(f"ids of {block} are already in the tree: {_few(held)}")
        return values, target, row_ids, columns


def _few(values: Iterable[Any], limit: int = 5) -> str:
    """Up to ``limit`` values for a message, and how many more there are."""
    listed = [int(v) for v in values]
    more = f" and {len(listed) - limit} more" if len(listed) > limit else ""
    return ", ".join(str(v) for v in listed[:limit]) + more


def _sensitivities_of(coreset: Optional[Dict[str, Any]]) -> np.ndarray:
    """The sensitivity of every row of a node's coreset record."""
    assert coreset is not None
    return np.asarray(coreset["sensitivities"])


def _take(values: Optional[np.ndarray], idxs: np.ndarray) -> Optional[np.ndarray]:
    return None if values is None else values[idxs]


def _positive_int(name: str, value: Any) -> int:
    if isinstance(value, bool) or not isinstance(value, numbers.Integral) or value < 1:
        raise ValueError(f"{name} must be a positive int, got {value!r}")
    return int(value)


def _entropy(random_state: Union[None, int, np.random.Generator]) -> int:
    """One non-negative int from which every node's random stream is derived."""
    if random_state is None:
        return int(np.random.SeedSequence().entropy)  # type: ignore[arg-type]
    if isinstance(random_state, np.random.Generator):
        return int(random_state.integers(2**63 - 1))
    if isinstance(random_state, bool) or not isinstance(random_state, numbers.Integral) or random_state < 0:
        raise ValueError(
            f"random_state must be None, a non-negative int or a numpy Generator, got {random_state!r}"
        )
    return int(random_state)
