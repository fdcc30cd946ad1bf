"""quillmarsh: a coreset-tree library for incremental learning.

The chunk layer, ``quillmarsh.core.tree.chunk_layer``, is a compiled extension module; the rest of
the package is the plain Python library around it.
"""

__version__ = "0.1.0"
