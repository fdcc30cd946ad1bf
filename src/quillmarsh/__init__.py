"""quillmarsh: a coreset-tree library for incremental learning.

Stream rows of any length through a ``CoresetTree`` and get back one small weighted summary, the
coreset, on which a model fits about as well as on all rows. The chunk layer,
``quillmarsh.core.tree.chunk_layer``, is a compiled extension module; the rest of the package is the
plain Python library around it.

The names below are loaded on first use, so that importing a submodule (the chunk layer, for
instance) does not import scikit-learn and the rest of the library with it.
"""

from __future__ import annotations

import importlib
from typing import TYPE_CHECKING, Any

__version__ = "0.1.0"

_EXPORTS = {
    "Coreset": "quillmarsh.core.tree.coreset_tree",
    "CoresetTree": "quillmarsh.core.tree.coreset_tree",
    "CoresetBase": "quillmarsh.core.coreset",
    "CoresetKMeans": "quillmarsh.core.coreset",
    "CoresetLinearRegression": "quillmarsh.core.coreset",
    "Dataset": "quillmarsh.data.common",
}

__all__ = [
    "Coreset",
    "CoresetBase",
    "CoresetKMeans",
    "CoresetLinearRegression",
    "CoresetTree",
    "Dataset",
    "__version__",
]

if TYPE_CHECKING:
    from quillmarsh.core.coreset import CoresetBase, CoresetKMeans, CoresetLinearRegression
    from quillmarsh.core.tree.coreset_tree import Coreset, CoresetTree
    from quillmarsh.data.common import Dataset


def __getattr__(name: str) -> Any:
    if name in _EXPORTS:
        value = getattr(importlib.import_module(_EXPORTS[name]), name)
        globals()[name] = value
        return value
    raise AttributeError(f"module 'quillmarsh' has no attribute {name!r}")


def __dir__() -> list[str]:
    return sorted(set(globals()) | set(_EXPORTS))
