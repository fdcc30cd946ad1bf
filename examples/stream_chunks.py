"""Stream rows through a coreset tree and fit models on its bounded summary: the library's API in brief.

The main job, with files, a progress bar, a judgement against full-data references and outputs, is the
command ``quillmarsh`` (``python -m quillmarsh --help``). This shows the calls it is built on: one
``CoresetTree`` holding a k-means and a linear-regression coreset object on the same leaves, fed block
by block, then scikit-learn models fitted on each summary with its weights, next to the exact least
squares of every row (streamed) and the k-means cost of both on fresh rows.

    python examples/stream_chunks.py
"""

from __future__ import annotations

import numpy as np
from sklearn.cluster import KMeans
from sklearn.linear_model import LinearRegression

from quillmarsh import CoresetTree
from quillmarsh.core.coreset import CoresetKMeans, CoresetLinearRegression
from quillmarsh.evaluation import StreamingLeastSquares, kmeans_cost

ROWS, BLOCK, FEATURES, M = 200_000, 20_000, 5, 500


def block(rng: np.random.Generator, coefficients: np.ndarray) -> tuple[np.ndarray, np.ndarray]:
    """Rows in four groups, and a target linear in them with a little noise."""
    X = rng.normal(size=(BLOCK, FEATURES)) + 6.0 * rng.integers(0, 2, size=(BLOCK, 2)) @ np.eye(2, FEATURES)
    return X, X @ coefficients + 1.5 + rng.normal(scale=0.5, size=BLOCK)


def main() -> None:
    rng = np.random.default_rng(0)
    coefficients = rng.normal(size=FEATURES)
    tree = CoresetTree([CoresetKMeans(k=4), CoresetLinearRegression()], coreset_size=M, random_state=0)
    exact = StreamingLeastSquares()  # the least squares of every row, for comparison
    for _ in range(ROWS // BLOCK):
        X, y = block(rng, coefficients)
        tree.add(X, y)  # memory: the block, a chunk and O(M log n) rows of the tree
        exact.partial_fit(X, y)
    print(f"{tree.n_samples_:,} rows in {tree.n_leaves_} leaves; summaries of "
          f"{len(tree.coreset(0).ids)} and {len(tree.coreset(1).ids)} weighted rows")

    regression = tree.fit(LinearRegression(), 1)  # sample_weight = the summary's weights
    print("coefficients, summary:   ", np.round(regression.coef_, 3))
    print("coefficients, all rows:  ", np.round(exact.coef_, 3))

    clusters = tree.fit(KMeans(n_clusters=4, n_init=3, random_state=0), 0)
    fresh, _ = block(rng, coefficients)
    uniform = fresh[rng.choice(BLOCK, size=M, replace=False)]
    reference = KMeans(n_clusters=4, n_init=3, random_state=0).fit(fresh)
    on_uniform = KMeans(n_clusters=4, n_init=3, random_state=0).fit(uniform)
    best = kmeans_cost(fresh, reference.cluster_centers_)
    for name, model in (("summary", clusters), ("uniform sample", on_uniform)):
        ratio = kmeans_cost(fresh, model.cluster_centers_) / best
        print(f"k-means cost on fresh rows, {name}: {ratio:.4f} x the cost of k-means fitted on them")


if __name__ == "__main__":
    main()
