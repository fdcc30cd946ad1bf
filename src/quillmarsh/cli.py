"""The ``quillmarsh`` command: a table of any length streamed into one bounded summary per model.

One pass reads the table in batches of ``--batch-rows`` rows and feeds them to one ``CoresetTree`` that
holds a coreset object per model (k-means, linear regression) on the same leaves, so memory holds about
one batch, one chunk and the tree's ``O(m log n)`` rows. Every tenth row (0-based position ending in 9)
is held out. Unless ``--no-eval``, a second streamed pass judges the summaries in bounded memory
(``quillmarsh.evaluation``): features standardised by streamed means and variances, regression against
the exact streamed least squares, k-means against a full-data ``MiniBatchKMeans`` solved from the stream
alone, a uniform reservoir sample of the same size, and scikit-learn's streaming learners.

    quillmarsh                                        # a synthetic table
    quillmarsh --data rows.parquet --target price --out summary/ --summary-json run.json
    python -m quillmarsh --csv rows.csv --target price --model linear_regression --coreset-size 2000

Exit status: 0 on success, 2 for bad input (one line on standard error), 1 when the run fails
otherwise, 130 when interrupted.
"""

from __future__ import annotations

import argparse
import contextlib
import json
import os
import sys
import time
from dataclasses import dataclass, field
from typing import TYPE_CHECKING, Any, Callable, Dict, Iterator, List, NoReturn, Optional, Sequence, Tuple

if TYPE_CHECKING:
    import numpy as np
    import pandas as pd

    from quillmarsh.core.tree.coreset_tree import Coreset, CoresetTree
    from quillmarsh.data.feature_space import FeatureSpace
    from quillmarsh.evaluation import QualityRow, StreamingStandardizer
    from quillmarsh.io import SpilledBatches

__all__ = ["main", "build_parser"]

PROG = "quillmarsh"
INTERRUPTED = 130
"""The exit status after Ctrl-C (128 + SIGINT, as shells report it)."""
HOLD_OUT_EVERY = 10
"""Every tenth row (0-based position ending in 9) is held out of the tree, to judge the models on."""
MODELS = ("kmeans", "linear_regression")
DEFAULTS: Dict[str, int] = {"rows": 203_500, "features": 8, "batch_rows": 10_000, "coreset_size": 1000,
                            "k": 8, "max_text_values": 1000}
SYNTHETIC_TARGET = "y"
PROGRESS_DELAY = 1.0
"""Seconds before a progress bar shows: short runs and early input errors draw none."""
DROPPED_FOR_TARGET = "target missing or not a number"
EVALUATION_ROWS = 8192
"""Rows of the pieces the judgement spills and reads back: a few MB at a time, whatever the batch."""
DEFAULT_CHUNK_ROWS = 10_000
"""Leaves hold ``max(DEFAULT_CHUNK_ROWS, 5 * M)`` rows unless ``--chunk-size`` says: a chunk's build needs
memory for about ten copies of its processed rows."""


class UserError(Exception):
    """A problem with the command line or the input, told as one line (exit status 2)."""


class _Parser(argparse.ArgumentParser):
    """argparse, with every error as one line and no usage block."""

    def error(self, message: str) -> NoReturn:
        raise UserError(message)


def _positive(text: str) -> int:
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a whole number: {text!r}") from None
    if value < 1:
        raise argparse.ArgumentTypeError(f"must be positive, got {value}")
    return value


def build_parser() -> argparse.ArgumentParser:
    """Return the command's argument parser.

    Returns
    -------
    argparse.ArgumentParser
        Its ``error`` raises ``UserError`` instead of printing the usage and exiting.
    """
    from quillmarsh import __version__

    parser = _Parser(
        prog=PROG,
        description="Stream a table (CSV or Parquet, or a synthetic one) into one bounded, weighted summary "
        "(a coreset) per model, and judge it against full-data references in bounded memory.",
        epilog="Every tenth row is held out of the summary for R² on unseen rows. Exit status: 0 done, "
        "2 bad input, 1 failed, 130 interrupted.",
    )
    source = parser.add_argument_group("input")
    source.add_argument("--data", metavar="PATH", help="the table: CSV or Parquet, by its suffix "
                        "(.csv; .parquet or .pq)")
    source.add_argument("--csv", metavar="PATH", help="the table, read as CSV whatever its suffix")
    source.add_argument("--target", help="the column to predict (numeric); rows where it is missing or not "
                        "a number are dropped")
    source.add_argument("--rows", type=_positive, help=f"synthetic rows (default {DEFAULTS['rows']:,})")
    source.add_argument("--features", type=_positive,
                        help=f"synthetic features (default {DEFAULTS['features']})")
    source.add_argument("--batch-rows", type=_positive, default=DEFAULTS["batch_rows"],
                        help="rows read and added to the tree at a time (default %(default)s)")
    source.add_argument("--max-text-values", type=_positive, default=DEFAULTS["max_text_values"],
                        help="leave out a text column with more distinct values than this in its first "
                        "chunk (default %(default)s)")
    tree = parser.add_argument_group("summary")
    tree.add_argument("--model", choices=("kmeans", "linear_regression", "both"), default="both",
                      help="the models to summarise for (default %(default)s)")
    tree.add_argument("--coreset-size", type=_positive, default=DEFAULTS["coreset_size"], metavar="M",
                      help="rows of the summary, per model (default %(default)s)")
    tree.add_argument("--chunk-size", type=_positive,
                      help=f"rows of each leaf (default the larger of {DEFAULT_CHUNK_ROWS:,} and 5 x M)")
    tree.add_argument("--k", type=_positive, default=DEFAULTS["k"],
                      help="clusters of k-means (default %(default)s)")
    tree.add_argument("--jobs", type=_positive, help="build leaves on N worker threads (pays only with "
                      "more than 2 cores, large chunks and OPENBLAS_NUM_THREADS=1)")
    tree.add_argument("--dask", metavar="local|ADDRESS", help="build the leaves and merge the nodes on a "
                      "Dask cluster: a new local one of --jobs workers (default 2), or the scheduler at "
                      "ADDRESS; the summary is the one built without it")
    tree.add_argument("--blas-threads", type=_positive, default=1, metavar="N",
                      help="threads of numpy's BLAS while building and judging (default %(default)s: a "
                      "chunk's products and SVD are small, and ran 3 times faster on one thread on a "
                      "shared 2-core machine)")
    tree.add_argument("--seed", type=int, default=0, help="seed of the summary, the references and the "
                      "synthetic table (default %(default)s)")
    output = parser.add_argument_group("output")
    output.add_argument("--out", metavar="DIR", help="write coreset-<model>.parquet (the summary's source "
                        "rows, with weight and row) and the saved trees to this folder, atomically")
    output.add_argument("--overwrite", action="store_true", help="with --out: replace a folder that is "
                        "not empty")
    output.add_argument("--summary-json", metavar="FILE", help="write the run's summary as JSON")
    output.add_argument("--plot", metavar="FILE", help="draw the quality table (needs matplotlib)")
    output.add_argument("--no-eval", action="store_true", help="skip the judgement (no second pass)")
    output.add_argument("--verbose", action="store_true", help="a line per batch; tracebacks of failures")
    output.add_argument("--quiet", action="store_true", help="no progress bar")
    parser.add_argument("--version", action="version", version=f"%(prog)s {__version__}")
    return parser


def parse(argv: Optional[Sequence[str]]) -> argparse.Namespace:
    """Parse and check the command line.

    Fills in what the options imply: ``path`` and ``format`` of the table, the synthetic table's
    default size, ``models`` and the default ``chunk_size``.

    Parameters
    ----------
    argv : sequence of str or None
        The arguments; None reads ``sys.argv[1:]``.

    Returns
    -------
    argparse.Namespace
        The checked arguments.

    Raises
    ------
    UserError
        For anything wrong with the command line: a bad or clashing option, or an output file whose
        folder is missing or not writable.
    """
    args = build_parser().parse_args(argv)
    if args.data is not None and args.csv is not None:
        raise UserError("give the table with --data or --csv, not both")
    args.path = args.data if args.data is not None else args.csv
    args.format = "csv" if args.csv is not None else None
    if args.path is not None:
        if not args.target:
            raise UserError(f"{'--data' if args.data is not None else '--csv'} needs --target COLUMN")
        for name in ("rows", "features"):
            if getattr(args, name) is not None:
                raise UserError(f"--{name} applies to the synthetic table only")
    else:
        if args.target is not None:
            raise UserError("--target applies with --data or --csv only")
        args.rows = DEFAULTS["rows"] if args.rows is None else args.rows
        args.features = DEFAULTS["features"] if args.features is None else args.features
    if args.overwrite and args.out is None:
        raise UserError("--overwrite applies only with --out")
    if args.plot is not None and args.no_eval:
        raise UserError("--plot draws the judgement that --no-eval skips")
    if args.verbose and args.quiet:
        raise UserError("--verbose and --quiet exclude each other")
    for option in ("plot", "summary_json"):
        value = getattr(args, option)
        if value is not None:
            folder = os.path.dirname(os.path.abspath(value))
            flag = "--" + option.replace("_", "-")
            if os.path.isdir(value):
                raise UserError(f"{flag} {value} is a folder, not a file")
            if not os.path.isdir(folder):
                raise UserError(f"{flag} {value}: no folder {folder}")
            if not os.access(folder, os.W_OK):
                raise UserError(f"{flag} {value}: the folder {folder} is not writable")
    args.models = list(MODELS) if args.model == "both" else [args.model]
    if args.chunk_size is None:
        args.chunk_size = max(DEFAULT_CHUNK_ROWS, 5 * args.coreset_size)
    return args


# Tables: batches of rows numbered by their 0-based position, read again for every pass.


class SyntheticTable:
    """A linear-regression table with a few missing values; every batch can be made again from the seed.

    Parameters
    ----------
    rows : int
        The table's rows.
    features : int
        The feature columns, ``x0``, ``x1``, ...; the target column is ``y``.
    batch_rows : int
        The rows of a batch.
    seed : int
        Seeds the coefficients and every batch.
    """

    def __init__(self, rows: int, features: int, batch_rows: int, seed: int) -> None:
        import numpy as np

        self.rows, self.features, self.batch_rows, self.seed = rows, features, batch_rows, seed
        self.columns = [f"x{i}" for i in range(features)] + [SYNTHETIC_TARGET]
        self.coefficients = np.random.default_rng(seed).normal(size=features)
        self.size_bytes: Optional[int] = None
        self.position = 0

    def __iter__(self) -> Iterator[pd.DataFrame]:
        import numpy as np
        import pandas as pd

        self.position = 0
        for number, start in enumerate(range(0, self.rows, self.batch_rows)):
            rng = np.random.default_rng([self.seed, number])
            count = min(self.batch_rows, self.rows - start)
            X = rng.normal(size=(count, self.features))
            y = X @ self.coefficients + rng.normal(scale=0.1, size=count)
            X[rng.random(X.shape) < 0.01] = np.nan
            frame = pd.DataFrame(X, columns=self.columns[:-1],
                                 index=pd.RangeIndex(start, start + count, name="row"))
            frame[SYNTHETIC_TARGET] = y
            self.position = start + count
            yield frame

    @property
    def progress(self) -> Tuple[Optional[int], int]:
        """(total, done) in rows."""
        return self.rows, self.position

    def describe(self) -> str:
        """Return the table's description for the report.

        Returns
        -------
        str
            The kind and size of the table.
        """
        return f"synthetic, {self.rows:,} rows x {self.features} features"


class FileTable:
    """A CSV or Parquet file read by ``quillmarsh.io.iter_table``; progress in bytes.

    Parameters
    ----------
    path : str
        The file.
    batch_rows : int
        The rows of a batch.
    file_format : {"csv", "parquet"} or None
        The format; None lets the suffix decide.

    Raises
    ------
    UserError
        If the file cannot be opened as a table (its message on one line).
    """

    def __init__(self, path: str, batch_rows: int, file_format: Optional[str]) -> None:
        from quillmarsh.io import iter_table

        try:
            self.reader = iter_table(path, batch_rows, format=file_format)
        except (OSError, ValueError) as exc:
            raise UserError(_one_line(exc)) from None
        self.path = path
        self.columns = list(self.reader.columns)
        self.size_bytes: Optional[int] = self.reader.size_bytes

    def __iter__(self) -> Iterator[pd.DataFrame]:
        try:
            yield from self.reader
        except (OSError, ValueError) as exc:
            raise UserError(_one_line(exc)) from None

    @property
    def progress(self) -> Tuple[Optional[int], int]:
        """(total, done) in bytes."""
        return self.size_bytes, self.reader.bytes_read

    def describe(self) -> str:
        """Return the table's description for the report.

        Returns
        -------
        str
            The file's path and format.
        """
        return f"{self.path} ({self.reader.format})"


Table = Any  # SyntheticTable or FileTable


@dataclass
class Batch:
    """One batch split for the tree: the input columns, the target as numbers, and which rows are which."""

    X: pd.DataFrame
    y: np.ndarray
    rows: np.ndarray
    held: np.ndarray
    usable: np.ndarray

    @property
    def kept(self) -> np.ndarray:
        """The mask of the rows added to the tree: usable and not held out."""
        result: np.ndarray = self.usable & ~self.held
        return result


def split(frame: pd.DataFrame, target: str) -> Batch:
    """Split a batch into its features, its target as numbers and its row masks.

    Parameters
    ----------
    frame : pandas.DataFrame
        The batch, indexed by the rows' positions in the table.
    target : str
        The target column.

    Returns
    -------
    Batch
        The features, the target as float64 (NaN where not a finite number), the rows' positions,
        and the masks of the held-out and the usable rows.

    Raises
    ------
    UserError
        If the target column holds timestamps.
    """
    import numpy as np

    from quillmarsh.data.feature_space import as_numbers

    column = frame[target].to_numpy()
    if column.dtype.kind == "M":
        raise UserError(f"--target {target!r} holds timestamps, not numbers")
    y = as_numbers(column)
    usable = np.isfinite(y)
    y[~usable] = np.nan
    rows = np.asarray(frame.index, dtype=np.int64)
    return Batch(frame.drop(columns=[target]), y, rows, rows % HOLD_OUT_EVERY == HOLD_OUT_EVERY - 1, usable)


def check_target_values(frame: pd.DataFrame, target: str) -> bool:
    """Tell whether the batch settles that the target is numeric.

    The first batch with present values decides: fewer than half of them numbers is a text target.

    Parameters
    ----------
    frame : pandas.DataFrame
        The batch.
    target : str
        The target column.

    Returns
    -------
    bool
        True when the batch has present target values, at least half of them numbers; False when it
        has none.

    Raises
    ------
    UserError
        When the target holds text.
    """
    import numpy as np

    from quillmarsh.data.feature_space import as_numbers

    column = frame[target]
    present = column[column.notna()]
    if not len(present):
        return False
    numbers = np.isfinite(as_numbers(present.to_numpy()))
    if numbers.sum() < 0.5 * len(present):
        shown = ", ".join(repr(v) for v in present[~numbers].head(3).tolist())
        raise UserError(f"--target {target!r} is not numeric (values such as {shown})")
    return True


# The tree.


def make_tree(args: argparse.Namespace, client: Any = None) -> CoresetTree:
    """Make one tree holding a coreset object per chosen model, on the same leaves.

    Parameters
    ----------
    args : argparse.Namespace
        The checked arguments (see ``parse``).
    client : distributed.Client, default=None
        Builds the leaves on that Dask cluster; then ``--jobs`` is not used for the tree.

    Returns
    -------
    CoresetTree
        The empty tree; it keeps the chunks' rows only when saved (``--out``), to remove rows later.
    """
    from quillmarsh.core.coreset import CoresetBase, CoresetKMeans, CoresetLinearRegression
    from quillmarsh.core.tree.coreset_tree import CoresetTree

    objects: List[CoresetBase] = []
    for model in args.models:
        if model == "kmeans":
            objects.append(CoresetKMeans(k=args.k, dtype="float64"))
        else:
            objects.append(CoresetLinearRegression(dtype="float64"))
    # Only a saved tree (--out) may have rows removed later: without one, storing every chunk would
    # write a copy of the whole input for nothing.
    return CoresetTree(objects, coreset_size=args.coreset_size, chunk_size=args.chunk_size,
                       n_jobs=None if client is not None else args.jobs, random_state=args.seed,
                       client=client, max_text_values=args.max_text_values, keep_rows=args.out is not None)


def feature_space(tree: CoresetTree) -> FeatureSpace:
    """Return the stream's feature space, in which the tree's summaries are encoded.

    Parameters
    ----------
    tree : CoresetTree
        The tree.

    Returns
    -------
    FeatureSpace
        The tree's feature space.

    Raises
    ------
    RuntimeError
        If the tree has no rows yet.
    """
    space = tree.feature_space_
    if space is None:
        raise RuntimeError("the tree has no rows yet")
    return space


BUILD_STAGES = ("preprocess", "sensitivities", "leaves", "merges")
"""The library's stages within the build, as ``quillmarsh.timing`` measures them (summed over threads)."""

TREE_FOLDER = "tree"
"""Where ``--out`` saves the tree: one save holds the summaries of every model (``CoresetTree.load``)."""


# The run.


@dataclass
class Counts:
    """The rows of the run: read, held out (and of those, with a target), dropped, kept, with a target."""

    read: int = 0
    held_out: int = 0
    held_out_usable: int = 0
    dropped: int = 0
    kept: int = 0
    target_present: int = 0


@dataclass
class Stages:
    """Seconds of the run's stages, from ``started`` on, and of the library's stages within the build."""

    read: float = 0.0
    build: float = 0.0
    evaluation: float = 0.0
    output: float = 0.0
    started: float = field(default_factory=time.perf_counter)
    within_build: Dict[str, float] = field(default_factory=dict)  # the library's stages, by name


def _one_line(exc: BaseException) -> str:
    return " ".join(str(exc).split()) or type(exc).__name__


def peak_rss_mb() -> Optional[float]:
    """Return the process's peak resident memory so far.

    Returns
    -------
    float or None
        The peak in MiB, to 0.1; None where the platform does not tell.
    """
    try:
        import resource
    except ImportError:
        return None
    peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    return round(peak / 2**20 if sys.platform == "darwin" else peak / 1024, 1)


class Progress:
    """A tqdm bar over the table's bytes (rows for the synthetic table) on standard error.

    Parameters
    ----------
    table : SyntheticTable or FileTable
        The table being read.
    description : str
        The bar's label.
    quiet : bool
        Whether to show no bar.
    """

    def __init__(self, table: Table, description: str, quiet: bool) -> None:
        from tqdm import tqdm

        self.table = table
        total, _ = table.progress
        in_bytes = isinstance(table, FileTable)
        # tqdm's own settings in the environment (TQDM_DELAY, TQDM_MININTERVAL) take precedence.
        defaults = (("delay", PROGRESS_DELAY), ("mininterval", 0.5))
        timing: Dict[str, Any] = {name: value for name, value in defaults
                                  if f"TQDM_{name.upper()}" not in os.environ}
        self.bar = tqdm(total=total, desc=description, unit="B" if in_bytes else " rows", unit_scale=True,
                        unit_divisor=1024 if in_bytes else 1000, file=sys.stderr, disable=quiet,
                        leave=False, dynamic_ncols=True, **timing)

    def update(self) -> None:
        """Move the bar to the table's progress."""
        _, done = self.table.progress
        self.bar.update(max(0, done - self.bar.n))

    def close(self) -> None:
        """Close the bar."""
        self.bar.close()


def open_table(args: argparse.Namespace) -> Tuple[Table, str]:
    """Open the table and name its target column.

    Parameters
    ----------
    args : argparse.Namespace
        The checked arguments.

    Returns
    -------
    table : SyntheticTable or FileTable
        The table.
    target : str
        Its target column.

    Raises
    ------
    UserError
        If the file cannot be read, the target is not one of its columns or its only one, or (with
        ``--out``) the table has a column named ``weight`` or ``row``.
    """
    if args.path is None:
        return SyntheticTable(args.rows, args.features, args.batch_rows, args.seed), SYNTHETIC_TARGET
    table = FileTable(args.path, args.batch_rows, args.format)
    if args.target not in table.columns:
        raise UserError(f"--target {args.target!r} is not a column of {args.path} "
                        f"(columns: {', '.join(table.columns)})")
    if len(table.columns) < 2:
        raise UserError(f"{args.path} has no column besides the target {args.target!r}")
    if args.out is not None:
        clash = [name for name in ("weight", "row") if name in table.columns]
        if clash:
            raise UserError(f"--out: the table has a column named {clash[0]!r}, which the saved summary "
                            "adds; rename it first")
    return table, args.target


def build(args: argparse.Namespace, table: Table, target: str, tree: CoresetTree, counts: Counts,
          stages: Stages) -> None:
    """Make the first pass: split every batch and add its kept rows to the tree.

    Parameters
    ----------
    args : argparse.Namespace
        The checked arguments.
    table : SyntheticTable or FileTable
        The table.
    target : str
        Its target column.
    tree : CoresetTree
        The tree to fill.
    counts : Counts
        Updated with the rows read, held out, dropped and kept.
    stages : Stages
        Updated with the seconds of reading and building.

    Raises
    ------
    UserError
        If a batch lacks the target column, the target is text, the table has no rows, or no row
        was kept.
    """
    from quillmarsh.io import read_ahead

    progress = Progress(table, "building", args.quiet)
    settled = False
    # The next batch is read and parsed on a thread while this one is built: "read" is then the time
    # the build waits for its input. (Not in the second pass: there it gained nothing and cost 20 MB.)
    iterator = read_ahead(table)
    try:
        while True:
            started = time.perf_counter()
            frame = next(iterator, None)
            stages.read += time.perf_counter() - started
            if frame is None:
                break
            if target not in frame.columns:
                raise UserError(f"--target {target!r} is not a column of the table")
            if not settled:
                settled = check_target_values(frame, target)
            started = time.perf_counter()
            batch = split(frame, target)
            kept = batch.kept
            counts.read += len(batch.rows)
            counts.held_out += int(batch.held.sum())
            counts.held_out_usable += int((batch.held & batch.usable).sum())
            counts.dropped += int((~batch.held & ~batch.usable).sum())
            counts.kept += int(kept.sum())
            counts.target_present += int(frame[target].notna().sum())
            if kept.any():
                tree.add(batch.X[kept], batch.y[kept], ids=batch.rows[kept])
            stages.build += time.perf_counter() - started
            progress.update()
            if args.verbose:
                progress.bar.write(f"rows {int(batch.rows[0]):,} to {int(batch.rows[-1]):,}: "
                                   f"{int(kept.sum()):,} added, {tree.n_leaves_} leaves so far",
                                   file=sys.stderr)
    finally:
        iterator.close()  # stops the reading thread at once, whatever ended the loop
        progress.close()
    if counts.read == 0:
        raise UserError("the table has no rows")
    if counts.kept == 0:
        if counts.target_present == 0:
            raise UserError(f"--target {target!r} is missing in every row")
        raise UserError(f"no row was kept: every row outside the held-out tenth lacks a numeric {target!r}")


def pad(X: np.ndarray, width: int) -> np.ndarray:
    """Widen a summary's rows to the stream's final feature space (later columns are 0 for them).

    Parameters
    ----------
    X : ndarray of shape (n_rows, n_columns)
        The rows.
    width : int
        The columns of the final feature space.

    Returns
    -------
    ndarray of shape (n_rows, max(n_columns, width))
        ``X`` itself when it is wide enough, else a padded copy.
    """
    import numpy as np

    if X.shape[1] >= width:
        return X
    return np.pad(X, ((0, 0), (0, width - X.shape[1])))


def second_pass(args: argparse.Namespace, table: Table, target: str, tree: CoresetTree,
                summaries: Dict[str, Coreset], evaluate: bool, collect: bool,
                stages: Stages) -> Tuple[Optional[Dict[str, Any]], Optional[pd.DataFrame]]:
    """Make the second streamed pass: the judgement's statistics and spill, and the summary's source rows.

    Parameters
    ----------
    args : argparse.Namespace
        The checked arguments.
    table : SyntheticTable or FileTable
        The table, read again.
    target : str
        Its target column.
    tree : CoresetTree
        The built tree.
    summaries : dict of str to Coreset
        The summary of each chosen model.
    evaluate : bool
        Whether to gather what the judgement needs.
    collect : bool
        Whether to take the summaries' source rows from the table.
    stages : Stages
        Updated with the seconds of the pass.

    Returns
    -------
    state : dict or None
        With ``evaluate``: the ``"spills"`` of the encoded usable rows, the kept ones under False and
        the held-out ones under True (to be closed by the caller, ``close_spills``), the
        ``"standardizer"`` and the uniform ``"reservoir"`` sample of the kept rows.
    rows : pandas.DataFrame or None
        With ``collect``: the summaries' source rows, by position.
    """
    import numpy as np

    from quillmarsh.evaluation import ReservoirSample, StreamingStandardizer
    from quillmarsh.io import SpilledBatches, rows_at

    space = feature_space(tree)
    # constant columns stay, as zeros: the rows are then standardised where they lie (see judge)
    standardizer = StreamingStandardizer(drop_constant=False)
    reservoir = ReservoirSample(max(1, min(args.coreset_size, max(len(s.ids) for s in summaries.values()))),
                                random_state=args.seed)
    spills = {False: SpilledBatches(), True: SpilledBatches()} if evaluate else None
    progress = Progress(table, "evaluating" if evaluate else "collecting rows", args.quiet)

    def spill_rows(frame: pd.DataFrame) -> None:
        assert spills is not None
        batch = split(frame, target)
        usable = batch.usable
        if not usable.any():
            return
        encoded, held_out = space.transform(batch.X[usable]), batch.held[usable]
        for held, spill in spills.items():
            rows = held_out == held
            if not rows.any():
                continue
            X, y = encoded[rows], batch.y[usable][rows]
            if not held:
                standardizer.partial_fit(X)
                reservoir.partial_fit(X, y, ids=batch.rows[usable][rows])
            for start in range(0, len(y), EVALUATION_ROWS):
                piece = slice(start, start + EVALUATION_ROWS)
                spill.append(X=X[piece], y=y[piece])

    def batches() -> Iterator[pd.DataFrame]:
        for frame in table:
            if evaluate:
                spill_rows(frame)
            progress.update()
            yield frame

    started = time.perf_counter()
    rows: Optional[pd.DataFrame] = None
    try:
        if collect:
            positions = np.unique(np.concatenate([s.ids for s in summaries.values()]))
            rows = rows_at(batches(), positions)
        else:
            for _ in batches():
                pass
    except BaseException:
        if spills is not None:
            close_spills(spills)
        raise
    finally:
        progress.close()
    stages.evaluation += time.perf_counter() - started
    if spills is None:
        return None, rows
    return {"spills": spills, "standardizer": standardizer, "reservoir": reservoir}, rows


def close_spills(spills: Dict[bool, SpilledBatches]) -> None:
    """Remove the judgement's spilled rows.

    Parameters
    ----------
    spills : dict of bool to SpilledBatches
        The spills of ``second_pass``.
    """
    for spill in spills.values():
        spill.close()


def judge(args: argparse.Namespace, tree: CoresetTree, summaries: Dict[str, Coreset], state: Dict[str, Any],
          notes: List[str]) -> List[QualityRow]:
    """Fit every chosen model on the summary, a uniform sample and the references; return the quality rows.

    Parameters
    ----------
    args : argparse.Namespace
        The checked arguments.
    tree : CoresetTree
        The built tree.
    summaries : dict of str to Coreset
        The summary of each chosen model.
    state : dict
        What ``second_pass`` gathered.
    notes : list of str
        Appended with the constant columns left out, if any.

    Returns
    -------
    list of QualityRow
        The quality rows of every model; empty when every feature column is constant.
    """
    spills, standardizer, reservoir = state["spills"], state["standardizer"], state["reservoir"]
    names = feature_space(tree).feature_names
    width = len(names)
    constant = [names[i] for i in standardizer.constant_columns_]
    if constant:
        shown = ", ".join(constant[:10]) + (f" and {len(constant) - 10} more" if len(constant) > 10 else "")
        notes.append(f"{len(constant)} constant feature column(s) left out of the judgement: {shown}")
    if len(constant) == width:
        notes.append("every feature column is constant: nothing to judge")
        return []

    from tqdm import tqdm

    # The standardizer keeps the constant columns, as zeros everywhere: no model can use them.
    uniform = (standardizer.transform(reservoir.X), reservoir.y, reservoir.weights)

    def samples_of(summary: Coreset) -> Tuple[np.ndarray, Optional[np.ndarray], np.ndarray]:
        return standardizer.transform(pad(summary.X, width)), summary.y, summary.weights

    for spill in spills.values():
        standardize_in_place(spill, standardizer)
    steps = {"linear_regression": 5, "kmeans": 5}
    bar = tqdm(total=sum(steps[model] for model in args.models), desc="judging", unit=" steps",
               file=sys.stderr, disable=args.quiet, leave=False, dynamic_ncols=True,
               bar_format="{desc}: {n_fmt}/{total_fmt} steps done, {elapsed}{postfix}")

    started = [False]

    def step(name: str) -> None:
        bar.set_postfix_str(name, refresh=not started[0])
        if started[0]:
            bar.update(1)
        started[0] = True

    def pieces(held: bool) -> Iterator[Tuple[np.ndarray, np.ndarray]]:
        for batch in spills[held]:
            yield batch["X"], batch["y"]

    def kept() -> Iterator[Tuple[np.ndarray, np.ndarray]]:
        return pieces(False)

    def held_out() -> Iterator[Tuple[np.ndarray, np.ndarray]]:
        return pieces(True)

    try:
        return judged(args, summaries, samples_of, kept, held_out, uniform, step)
    finally:
        bar.close()


def standardize_in_place(spill: SpilledBatches, standardizer: StreamingStandardizer) -> None:
    """Standardise spilled rows where they lie, batch by batch: ``X`` becomes ``(X - mean_) / scale_``.

    The judgement reads the kept rows about ten times: standardised once, they are read back as they
    are on every pass, without a copy, and no second spill is written. The standardizer keeps every
    column (``drop_constant=False``), so the rows keep their width and a constant column becomes 0.

    Parameters
    ----------
    spill : SpilledBatches
        Batches of encoded ``X`` (and ``y``).
    standardizer : StreamingStandardizer
        Fitted on the kept rows, without ``drop_constant``.
    """
    import numpy as np

    mean, scale = standardizer.mean_, standardizer.scale_
    for batch in spill.writable():
        X = batch["X"]
        np.subtract(X, mean, out=X)
        np.divide(X, scale, out=X)


def judged(args: argparse.Namespace, summaries: Dict[str, Coreset], samples_of: Callable[[Coreset], Any],
           kept: Any, held_out: Any, uniform: Any, step: Callable[[str], None]) -> List[QualityRow]:
    """Return the quality rows of every chosen model.

    Parameters
    ----------
    args : argparse.Namespace
        The checked arguments.
    summaries : dict of str to Coreset
        The summary of each chosen model.
    samples_of : callable
        Turns a summary into standardised ``(X, y, sample_weight)``.
    kept, held_out : callable
        Return a fresh stream of the kept and the held-out rows, standardised.
    uniform : tuple
        The uniform sample as ``(X, y, sample_weight)``, standardised.
    step : callable
        Told the name of each step as it starts.

    Returns
    -------
    list of QualityRow
        The rows of ``judge_regression`` and ``judge_kmeans``, in the order of the models.
    """
    from quillmarsh.evaluation import judge_kmeans, judge_regression

    table: List[QualityRow] = []
    for model in args.models:
        summary = summaries[model]
        samples = {
            f"coreset tree, {len(summary.ids):,} rows": samples_of(summary),
            f"uniform sample (reservoir), {len(uniform[0]):,} rows": uniform,
        }
        if model == "linear_regression":
            table += judge_regression(kept, held_out, samples, random_state=args.seed, measure_memory=True,
                                      progress=step)
        else:
            table += judge_kmeans(kept, samples, args.k, random_state=args.seed, measure_memory=True,
                                  progress=step)
    return table


def write_outputs(args: argparse.Namespace, folder: str, tree: CoresetTree, summaries: Dict[str, Coreset],
                  rows: pd.DataFrame, target_columns: List[str]) -> Dict[str, Any]:
    """Write ``coreset-<model>.parquet`` (the source rows, their weight and row) and the saved tree.

    Parameters
    ----------
    args : argparse.Namespace
        The checked arguments.
    folder : str
        The folder to write into.
    tree : CoresetTree
        The tree, saved under ``TREE_FOLDER``.
    summaries : dict of str to Coreset
        The summary of each chosen model.
    rows : pandas.DataFrame
        The summaries' source rows, by position.
    target_columns : list of str
        The table's columns to write.

    Returns
    -------
    dict
        By model: the file's name, its rows and the tree's folder.
    """
    import numpy as np

    from quillmarsh.io import write_parquet

    written: Dict[str, Any] = {}
    for model in args.models:
        summary = summaries[model]
        order = np.argsort(summary.ids, kind="stable")
        ids, weights = summary.ids[order], summary.weights[order]
        frame = rows.loc[ids, target_columns].copy()
        frame["weight"] = weights
        frame["row"] = ids
        name = f"coreset-{model}.parquet"
        write_parquet(frame.reset_index(drop=True), os.path.join(folder, name))
        written[model] = {"coreset": name, "rows": len(frame), "tree": TREE_FOLDER}
    tree.save(os.path.join(folder, TREE_FOLDER))
    return written


def run(args: argparse.Namespace) -> Dict[str, Any]:
    """Run the whole job: read, build, judge, write and report.

    Parameters
    ----------
    args : argparse.Namespace
        The checked arguments.

    Returns
    -------
    dict
        The run's summary, as JSON values.

    Raises
    ------
    UserError
        For bad input, or an ``--out`` folder that cannot be made.
    """
    from quillmarsh.io import atomic_folder

    table, target = open_table(args)
    if args.out is None:
        with _blas_threads(args.blas_threads):
            return _run(args, table, target, None)
    manager = atomic_folder(args.out, overwrite=args.overwrite)
    try:
        folder = manager.__enter__()
    except (OSError, ValueError) as exc:
        hint = " (add --overwrite to replace it)" if isinstance(exc, FileExistsError) else ""
        raise UserError(f"--out: {_one_line(exc)}{hint}") from None
    with _Entered(manager, folder), _blas_threads(args.blas_threads):
        return _run(args, table, target, folder)


def _blas_threads(threads: int) -> Any:
    """Return a context that limits numpy's BLAS to ``threads`` threads within the block."""
    import importlib

    threadpoolctl: Any = importlib.import_module("threadpoolctl")
    return threadpoolctl.threadpool_limits(limits=threads, user_api="blas")


class _Entered:
    """A context manager already entered, to be left with the block's outcome."""

    def __init__(self, manager: Any, value: Any) -> None:
        self.manager, self.value = manager, value

    def __enter__(self) -> Any:
        return self.value

    def __exit__(self, *exc_info: Any) -> Any:
        return self.manager.__exit__(*exc_info)


def _run(args: argparse.Namespace, table: Table, target: str, folder: Optional[str]) -> Dict[str, Any]:
    with _cluster(args) as client, make_tree(args, client) as tree:
        return _run_tree(args, table, target, folder, tree)


@contextlib.contextmanager
def _cluster(args: argparse.Namespace) -> Iterator[Any]:
    """Yield a Dask client for ``--dask`` (a local cluster of ``--jobs`` workers, default 2), else None."""
    if args.dask is None:
        yield None
        return
    try:
        from quillmarsh.distributed import connect
    except ImportError as exc:
        raise UserError(f"--dask needs Dask: {exc}") from None
    import logging

    try:
        if args.dask == "local":
            client = connect("local", n_workers=args.jobs or 2, silence_logs=logging.ERROR)
        else:
            client = connect(args.dask)
    except (OSError, TimeoutError, ValueError) as exc:
        raise UserError(f"--dask {args.dask}: cannot connect ({_one_line(exc)})") from None
    with client:
        yield client


def _run_tree(args: argparse.Namespace, table: Table, target: str, folder: Optional[str],
              tree: CoresetTree) -> Dict[str, Any]:
    from quillmarsh.timing import STAGES

    counts, stages = Counts(), Stages()
    clock = STAGES.snapshot()
    build(args, table, target, tree, counts, stages)
    started = time.perf_counter()
    summaries = {model: tree.coreset(index) for index, model in enumerate(args.models)}
    stages.build += time.perf_counter() - started
    stages.within_build = STAGES.since(clock)
    rss_after_build = peak_rss_mb()
    space = feature_space(tree)
    notes = list(space.notes)
    evaluate = not args.no_eval
    quality: List[QualityRow] = []
    state, rows = None, None
    if evaluate or folder is not None:
        state, rows = second_pass(args, table, target, tree, summaries, evaluate, folder is not None, stages)
    if state is not None:
        started = time.perf_counter()
        try:
            quality = judge(args, tree, summaries, state, notes)
        finally:
            close_spills(state["spills"])
        stages.evaluation += time.perf_counter() - started
    written = None
    if folder is not None:
        assert rows is not None
        started = time.perf_counter()
        columns = [c for c in table.columns]
        written = write_outputs(args, folder, tree, summaries, rows, columns)
        stages.output += time.perf_counter() - started
    if args.plot is not None and quality:
        plot(args.plot, quality)  # before the report, whose peak memory then counts the drawing
    summary = report(args, table, tree, summaries, counts, stages, quality, notes, written, rss_after_build)
    if args.plot is not None and quality:
        summary["plot"] = args.plot
    if args.summary_json is not None:
        write_json(args.summary_json, summary)
    return summary


# The report.


def report(args: argparse.Namespace, table: Table, tree: CoresetTree, summaries: Dict[str, Coreset],
           counts: Counts, stages: Stages, quality: List[QualityRow], notes: List[str],
           written: Optional[Dict[str, Any]], rss_after_build: Optional[float]) -> Dict[str, Any]:
    """Print the run's summary and quality table; return them as JSON values.

    Parameters
    ----------
    args : argparse.Namespace
        The checked arguments.
    table : SyntheticTable or FileTable
        The table.
    tree : CoresetTree
        The built tree.
    summaries : dict of str to Coreset
        The summary of each chosen model.
    counts : Counts
        The rows of the run.
    stages : Stages
        The seconds of the run.
    quality : list of QualityRow
        The quality rows; empty without the judgement.
    notes : list of str
        Notes printed after the table.
    written : dict or None
        What ``write_outputs`` wrote, or None without ``--out``.
    rss_after_build : float or None
        The peak resident memory after the build, in MiB.

    Returns
    -------
    dict
        The run's summary, as JSON values.
    """
    total = time.perf_counter() - stages.started
    width = len(feature_space(tree).feature_names)
    summary: Dict[str, Any] = {
        "input": table.describe(),
        "target": args.target if args.path is not None else SYNTHETIC_TARGET,
        "rows": {
            "read": counts.read,
            "held_out": counts.held_out,
            "dropped": counts.dropped,
            "dropped_reasons": {DROPPED_FOR_TARGET: counts.dropped} if counts.dropped else {},
            "kept": counts.kept,
        },
        "features": width,
        "coreset_size": args.coreset_size,
        "chunk_size": args.chunk_size,
        "leaves": tree.n_leaves_,
        "summary_rows": {model: int(len(s.ids)) for model, s in summaries.items()},
        "summary_weights": {model: float(s.weights.sum()) for model, s in summaries.items()},
        "seconds": {"read": round(stages.read, 3), "build": round(stages.build, 3),
                    "evaluation": round(stages.evaluation, 3), "output": round(stages.output, 3),
                    "total": round(total, 3),
                    "build_stages": {name: round(stages.within_build.get(name, 0.0), 3)
                                     for name in BUILD_STAGES}},
        "peak_rss_mb": {"after_build": rss_after_build, "end": peak_rss_mb()},
        "quality": [row.as_dict() for row in quality],
        "notes": notes,
    }
    if written is not None:
        summary["out"] = {"folder": os.path.abspath(args.out), "files": written}
    seconds = summary["seconds"]
    entries = [
        ("input", summary["input"]),
        ("rows read", f"{counts.read:,}"),
        ("held out (every 10th)", f"{counts.held_out:,}"),
        ("dropped", f"{counts.dropped:,}" + (f" ({DROPPED_FOR_TARGET})" if counts.dropped else "")),
        ("kept", f"{counts.kept:,}"),
        ("features (processed)", f"{width:,}"),
        ("leaves", f"{tree.n_leaves_:,} of {summary['chunk_size']:,} rows"),
    ]
    for model, s in summaries.items():
        entries.append((f"summary, {model}",
                        f"{len(s.ids):,} rows, weights summing to {s.weights.sum():,.0f}"))
    entries.append(("seconds", f"read {seconds['read']}, build {seconds['build']}, "
                               f"evaluation {seconds['evaluation']}, output {seconds['output']}, "
                               f"total {seconds['total']}"))
    entries.append(("  within the build", ", ".join(f"{name} {seconds['build_stages'][name]}"
                                                   for name in BUILD_STAGES)))
    entries.append(("peak RSS (MiB)", f"{summary['peak_rss_mb']['end']} (after building: {rss_after_build})"))
    if written is not None:
        entries.append(("written to", summary["out"]["folder"]))
    lines = ["", "Summary"] + [f"  {label:<27} {value}" for label, value in entries]
    print("\n".join(lines))
    if quality:
        print(quality_table(quality, counts))
    for note in notes:
        print(f"  Note: {note}")
    return summary


FAMILY_TITLES = {"linear_regression": "Linear regression: squared loss on the kept rows",
                 "kmeans": "k-means (standardised features): cost on the kept rows"}


def quality_table(quality: List[QualityRow], counts: Counts) -> str:
    """Return the quality table as text: one block per model family.

    Parameters
    ----------
    quality : list of QualityRow
        The quality rows.
    counts : Counts
        The rows of the run (for the held-out count).

    Returns
    -------
    str
        The table's lines.
    """
    lines = ["", "Quality (cost ratio: the model's cost over the full-data reference's; 1.0 is as good)"]
    for family in MODELS:
        rows = [row for row in quality if row.model == family]
        if not rows:
            continue
        lines.append(f"  {FAMILY_TITLES[family]}")
        r2 = family == "linear_regression"
        lines.append(f"    {'method':<58} {'rows':>9} {'seconds':>8} {'MiB':>7} {'cost ratio':>10}"
                     + (f" {'R² held out':>11}" if r2 else ""))
        for row in rows:
            memory = "-" if row.peak_memory_bytes is None else f"{row.peak_memory_bytes / 2**20:.1f}"
            line = (f"    {row.method[:58]:<58} {row.rows:>9,} {row.seconds:>8.2f} {memory:>7} "
                    f"{row.cost_ratio:>10.4f}")
            if r2:
                line += f" {row.r2_held_out:>11.4f}" if row.r2_held_out is not None else f" {'-':>11}"
            lines.append(line)
    if counts.held_out_usable:
        lines.append(f"  R² on the {counts.held_out_usable:,} held-out rows with a target.")
    return "\n".join(lines)


def plot(path: str, quality: List[QualityRow]) -> None:
    """Draw each family's cost ratios as bars, labelled with their time.

    Parameters
    ----------
    path : str
        The image file to write.
    quality : list of QualityRow
        The quality rows.

    Raises
    ------
    UserError
        If matplotlib is not installed.
    """
    try:
        import matplotlib
    except ImportError:
        raise UserError("--plot needs matplotlib (pip install 'quillmarsh[plot]')") from None
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    families = [family for family in MODELS if any(row.model == family for row in quality)]
    figure, axes = plt.subplots(len(families), 1, figsize=(9, 2.6 * len(families)), squeeze=False)
    for axis, family in zip(axes[:, 0], families):
        rows = [row for row in quality if row.model == family]
        labels = [row.method for row in rows][::-1]
        ratios = [row.cost_ratio for row in rows][::-1]
        colours = ["#2a7ab9" if "coreset" in label else "#888888" for label in labels]
        bars = axis.barh(labels, ratios, color=colours)
        axis.bar_label(bars, labels=[f"{r:.4f}  ({row.seconds:.2f} s)" for r, row in zip(ratios, rows[::-1])],
                       padding=3, fontsize=8)
        axis.axvline(1.0, color="black", linewidth=0.8)
        axis.set_title(FAMILY_TITLES[family] + ", ratio to the full data", fontsize=10)
        axis.set_xlim(0, max(ratios) * 1.35)
        axis.tick_params(axis="y", labelsize=8)
    figure.tight_layout()
    figure.savefig(path, dpi=110)
    plt.close(figure)


def write_json(path: str, summary: Dict[str, Any]) -> None:
    """Write the summary as JSON, replacing the file only once it is complete.

    Parameters
    ----------
    path : str
        The file.
    summary : dict
        The run's summary; numpy scalars are written as plain numbers.
    """
    temporary = f"{path}.partial"
    with open(temporary, "w", encoding="utf-8") as stream:
        json.dump(summary, stream, indent=1, default=_json_value)
        stream.write("\n")
    os.replace(temporary, path)


def _json_value(value: Any) -> Any:
    import numpy as np

    if isinstance(value, np.generic):
        return value.item()
    raise TypeError(f"{type(value).__name__} is not JSON")


# The entry point.


def _fail(message: str) -> None:
    print(f"{PROG}: error: {message}", file=sys.stderr)


def main(argv: Optional[Sequence[str]] = None, *, on_error: Optional[Callable[[str], None]] = None) -> int:
    """Run the command; return its exit status.

    Parameters
    ----------
    argv : sequence of str, optional
        The arguments (``sys.argv[1:]`` by default).
    on_error : callable, optional
        Told each error line instead of printing it to standard error.

    Returns
    -------
    int
        0 on success, 2 for bad input, 1 for another failure, 130 when interrupted (Ctrl-C).
    """
    tell = on_error if on_error is not None else _fail
    verbose = argv is not None and "--verbose" in argv or argv is None and "--verbose" in sys.argv[1:]
    try:
        args = parse(argv)
        run(args)
    except SystemExit as exc:  # --help and --version
        return exc.code if isinstance(exc.code, int) else 0
    except UserError as exc:
        tell(str(exc))
        return 2
    except KeyboardInterrupt:
        tell("interrupted")
        return INTERRUPTED
    except BrokenPipeError:  # the report piped into a reader that went away
        return 1
    except Exception as exc:
        if verbose:
            import traceback

            traceback.print_exc()
        tell(f"{type(exc).__name__}: {_one_line(exc)}")
        return 1
    return 0
