"""quillmarsh: a coreset-tree library for incremental learning.

Stream rows of any length through a ``CoresetTree`` and get back one small weighted summary, the
coreset, on which a model fits about as well as on all rows. The chunk layer,
``quillmarsh.core.tree.chunk_layer``, is a compiled extension module; the rest of the package is the
plain Python library around it.
"""

__version__ = "0.1.0"

from quillmarsh.core.coreset import CoresetBase, CoresetKMeans, CoresetLinearRegression  # noqa: E402
from quillmarsh.core.tree import Coreset, CoresetTree  # noqa: E402
from quillmarsh.data.common import Dataset  # noqa: E402

__all__ = [
    "Coreset",
    "CoresetBase",
    "CoresetKMeans",
    "CoresetLinearRegression",
    "CoresetTree",
    "Dataset",
    "__version__",
]
