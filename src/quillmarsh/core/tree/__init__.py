"""The coreset tree, ``CoresetTree``; its chunk layer is the compiled module ``chunk_layer``."""

from quillmarsh.core.tree.coreset_tree import Coreset, CoresetTree

__all__ = ["Coreset", "CoresetTree"]
