"""The coreset tree, ``CoresetTree`` (in ``coreset_tree``).

Its chunk layer is the compiled module ``chunk_layer``. ``CoresetTree`` and ``Coreset`` are loaded on
first use, so that importing the chunk layer alone stays light.
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

__all__ = ["Coreset", "CoresetTree"]

if TYPE_CHECKING:
    from quillmarsh.core.tree.coreset_tree import Coreset, CoresetTree


def __getattr__(name: str) -> Any:
    if name in __all__:
        from quillmarsh.core.tree import coreset_tree

        return getattr(coreset_tree, name)
    raise AttributeError(f"module 'quillmarsh.core.tree' has no attribute {name!r}")
