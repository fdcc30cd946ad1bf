"""Builds the leaves of one stream on a Dask cluster.

A chunk layer is bound to one process. ``build_leaves`` spreads one stream over the worker processes of a
``dask.distributed`` cluster: every partition of a Dask dataframe (or every delayed partition of a list)
streams through its own ``ChunkLayer`` on a worker, which turns each full chunk into a leaf there. The
rows a partition leaves over go back to the client, which drains them, in partition order, through one
final layer: so every leaf but the last holds exactly ``chunk_size`` rows, as with a single layer, and
the last is the buffer node. The result is a list of picklable ``Leaf`` records (id, row count, sample
indices, coresets and the coresets' samples); nothing of a worker's data manager leaves the worker.

    from quillmarsh.distributed import ManagerSettings, build_leaves, connect

    with connect("local", n_workers=2) as client:
        result = build_leaves(frame, "y", ManagerSettings(data_params), params, 50_000, client=client)

Installed with ``pip install quillmarsh[dask]``.
"""

try:
    import dask  # noqa: F401
    import distributed  # noqa: F401
    import tqdm  # noqa: F401
except ImportError as exc:  # pragma: no cover - depends on the installation
    raise ImportError(
        f"quillmarsh.distributed needs Dask, its distributed scheduler and tqdm ({exc}); "
        "install them with: pip install 'quillmarsh[dask]'"
    ) from exc

from quillmarsh.distributed.leaves import (
    Leaf,
    LeafBuild,
    ManagerSettings,
    PartitionError,
    PartitionFailure,
    PartitionStats,
    build_leaves,
    connect,
    scatter_batches,
)

__all__ = [
    "Leaf",
    "LeafBuild",
    "ManagerSettings",
    "PartitionError",
    "PartitionFailure",
    "PartitionStats",
    "build_leaves",
    "connect",
    "scatter_batches",
]
