"""Coreset classes: the base ``CoresetBase`` and the k-means and linear-regression coresets."""

from quillmarsh.core.coreset._base import CoresetBase
from quillmarsh.core.coreset.models import CoresetKMeans, CoresetLinearRegression

__all__ = ["CoresetBase", "CoresetKMeans", "CoresetLinearRegression"]
