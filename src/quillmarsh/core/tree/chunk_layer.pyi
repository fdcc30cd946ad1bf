"""Types of the compiled chunk layer, ``quillmarsh.core.tree.chunk_layer``.

The module is built from C++ (``cpp/chunk_layer/``); these declarations give type checkers and editors
its names and signatures. ``tests/test_typing.py`` runs mypy's ``stubtest`` against the built module,
so a signature that changes there must change here too.
"""

from dataclasses import dataclass
from typing import (
    Any,
    Callable,
    Dict,
    Generator,
    Iterable,
    List,
    Mapping,
    Optional,
    Protocol,
    Sized,
    Tuple,
    Type,
    overload,
)

import numpy.typing as npt
from typing_extensions import Final, Self, TypeAlias

from quillmarsh.core.coreset._base import CoresetBase
from quillmarsh.data.common import Dataset
from quillmarsh.data.manager import DataManagerBase, DataManagerT

__test__: Dict[str, Any]

BUFFER_NODE_ID: Final = "buffer"
"""The node id of the buffer node, and of the buffer in a list of chunk ids."""

class _TreeParent(Protocol):
    """The layer's owner: told after every addition to the buffer."""

    def update_build_params(self) -> object: ...

_AfterCreateLeafNode: TypeAlias = Callable[["ChunkNode", Optional[int]], object]
"""Called with each built node and its zero-based leaf index (None for the buffer node)."""

_FilterFunction: TypeAlias = Callable[
    [npt.NDArray[Any], npt.NDArray[Any], Optional[npt.NDArray[Any]], Optional[npt.NDArray[Any]]], Sized
]
"""Called with one dataset's ``ind``, ``X``, ``y`` and ``props``; returns the indices to remove."""

@dataclass
class ChunkSensitivitiesParams:
    coreset_params: Optional[Dict[str, Any]] = None
    coreset_cls: Optional[Type[CoresetBase]] = None
    coreset_size: int = 10
    chunk_id: Any = None

@dataclass
class ChunkSensitivities:
    coreset: Optional[Dict[str, Any]] = None
    params: Optional[ChunkSensitivitiesParams] = None
    removed_rows: Optional[npt.NDArray[Any]] = None
    no_features: Optional[int] = None

@overload
def exclude_removed(
    removed: Optional[npt.ArrayLike], indices: npt.NDArray[Any], dataset: None = None
) -> npt.NDArray[Any]:
    """Exclude removed indices from the given indices and dataset."""

@overload
def exclude_removed(
    removed: Optional[npt.ArrayLike], indices: npt.NDArray[Any], dataset: Dataset
) -> Tuple[npt.NDArray[Any], Dataset]: ...

class ChunkNode:
    """A class for creating chunk nodes."""

    params: List[ChunkSensitivitiesParams]
    dset: Dataset
    node_id: str
    tree_build_params: Optional[Dict[str, Any]]
    indices: npt.NDArray[Any]
    sensitivities: List[Any]
    coresets: List[ChunkSensitivities]
    data_manager: Optional[DataManagerBase]

    def __init__(
        self,
        dset: Dataset,
        params: Iterable[ChunkSensitivitiesParams],
        node_id: Optional[str] = None,
        tree_build_params: Optional[Dict[str, Any]] = None,
        data_manager: Optional[DataManagerT] = None,
    ) -> None: ...
    def is_buffer(self) -> bool:
        """Returns True if the node_id is the BUFFER_NODE_ID."""

    def _instantiate_coreset(
        self, coreset_cls: Type[CoresetBase], coreset_params: Optional[Mapping[str, Any]]
    ) -> CoresetBase: ...
    def build(self) -> Self:
        """Builds the coreset."""

    def save(self, data_manager: DataManagerT, save_all: bool = False) -> None:
        """Saves the selected samples asynchronously."""

    def add_indices(self, indices: npt.ArrayLike) -> None:
        """Adds indices to the node."""

class ChunkLayer:
    """A chunk layer for incremental learning."""

    build_params: Optional[Dict[str, Any]]
    chunk_corset_params: Optional[Iterable[ChunkSensitivitiesParams]]
    buffer: Optional[Dataset]
    chunk_size: Optional[int]
    data_manager: DataManagerBase
    parent: Optional[_TreeParent]
    chunk_index: int

    def __init__(
        self,
        data_manager: DataManagerT,
        chunk_corset_params: Optional[Iterable[ChunkSensitivitiesParams]] = None,
        chunk_size: Optional[int] = None,
        parent: Optional[_TreeParent] = None,
        chunk_index: Optional[int] = None,
    ) -> None: ...
    def has_buffer(self) -> bool:
        """Checks if there is a buffer available."""

    def get_buffer(self) -> Optional[Dataset]:
        """returns unhandled instances."""

    def set_buffer(self, buffer: Optional[Iterable[Optional[npt.NDArray[Any]]]] = None) -> None:
        """set tree's internal buffer of unhandled instances"""

    def _add_to_buffer(self, dataset: Iterable[Optional[npt.NDArray[Any]]]) -> None: ...
    def remove_from_buffer(self, indices: Optional[npt.ArrayLike]) -> None: ...
    def _rebuild_node(self, dset: Dataset, node_id: str) -> ChunkNode: ...
    def _create_node(
        self, dset: Dataset, node_id: Optional[str] = None, leaf_node_index: Optional[int] = None
    ) -> ChunkNode: ...
    def _print_progress(self, chunk_build_time: float, leaf_node_index: int) -> None: ...
    def get_buffer_size(self) -> int:
        """Returns the size of the buffer."""

    def create_buffer_node(
        self, after_create_leaf_node: Optional[_AfterCreateLeafNode] = None
    ) -> Optional[ChunkNode]:
        """Creates a new ChunkNode object using the data stored in the buffer."""

    def _get_from_buffer(
        self, after_create_leaf_node: Optional[_AfterCreateLeafNode] = None
    ) -> Generator[Optional[ChunkNode], None, None]: ...
    def process(
        self,
        dsets: Optional[Iterable[Dataset]] = None,
        create_buffer: bool = True,
        is_classification: bool = False,
        after_create_leaf_node: Optional[_AfterCreateLeafNode] = None,
    ) -> Generator[Optional[ChunkNode], None, None]:
        """Add each dataset to the buffer and yield a node for every full chunk cut from it.

        In parallel mode (the data manager's ``n_jobs`` above 1) None is yielded for each chunk and the
        node reaches ``after_create_leaf_node`` from the task pool. With ``create_buffer`` the rows left
        over finally become the buffer node.
        """

    def update_buffer(
        self, indices: npt.ArrayLike, X: Optional[npt.ArrayLike] = None, y: Optional[npt.ArrayLike] = None
    ) -> None: ...
    def rebuild(self, chunk_ids: List[str]) -> Generator[ChunkNode, None, None]:
        """Rebuild the node of each chunk id, one per step, from the data held now."""

    def filter_out_samples(
        self, filter_function: _FilterFunction, node_ids: Iterable[str], with_buffer: bool = True
    ) -> npt.NDArray[Any]:
        """Return the indices that ``filter_function`` selects in the given nodes (and the buffer)."""
