"""Saving coresets to a folder and loading them back.

A folder holds one ``manifest.json`` and one ``.npz`` file per coreset. The manifest lists, for every
coreset, the node it was built on, the rows of that node, the model family, the coreset parameters, the
feature names and the file; each file holds the arrays ``X`` (the coreset's rows, encoded), ``y``,
``weights`` and ``ind`` (the rows' sample indices). Nothing is pickled: the folder can be read by any
numpy and any JSON reader.

    from quillmarsh.io import load_coresets
    for coreset in load_coresets("out"):
        print(coreset.node_id, coreset.model, coreset.X.shape, coreset.weights.sum())
"""

from __future__ import annotations

import json
import os
import re
from dataclasses import dataclass, field
from typing import Any, Dict, List, Sequence, Union

import numpy as np

MANIFEST = "manifest.json"
FORMAT = "quillmarsh-coresets"
VERSION = 1

PathLike = Union[str, "os.PathLike[str]"]


@dataclass
class StoredCoreset:
    """One coreset of one node: weighted rows that stand for the node's rows for one model family.

    ``node_id``: the node's id; ``rows``: the rows the node kept after preprocessing (what the coreset
    stands for); ``model``: the model family ("kmeans", "linear_regression", ...); ``parameters``: the
    coreset's parameters (JSON values); ``feature_names``: the names of the columns of ``X``; ``X``: 2-D
    float array, one row per coreset row; ``y``: 1-D targets or None; ``weights``: one weight per row;
    ``ind``: the rows' sample indices.
    """

    node_id: str
    rows: int
    model: str
    parameters: Dict[str, Any]
    feature_names: List[str]
    X: np.ndarray
    y: np.ndarray | None
    weights: np.ndarray
    ind: np.ndarray
    extra: Dict[str, Any] = field(default_factory=dict)

    def __post_init__(self) -> None:
        n = len(self.weights)
        if np.ndim(self.X) != 2 or len(self.X) != n or len(self.ind) != n:
            raise ValueError(f"X, weights and ind must have one entry per coreset row ({n})")
        if np.shape(self.X)[1] != len(self.feature_names):
            raise ValueError(f"X has {np.shape(self.X)[1]} columns for {len(self.feature_names)} names")
        if self.y is not None and len(self.y) != n:
            raise ValueError(f"y has {len(self.y)} entries for {n} coreset rows")


def _file_name(number: int, coreset: StoredCoreset) -> str:
    safe = re.sub(r"[^A-Za-z0-9._-]", "_", f"{coreset.node_id}-{coreset.model}")[:80]
    return f"coreset-{number:05d}-{safe}.npz"


def save_coresets(directory: PathLike, coresets: Sequence[StoredCoreset], overwrite: bool = False) -> str:
    """Write ``coresets`` to ``directory`` (created if needed) and return the manifest's path.

    A folder that is not empty is refused with ``FileExistsError`` unless ``overwrite`` is true; then
    the files of an earlier save there (its manifest and the files it lists) are removed first, and
    other files are left alone. A path that is a file raises ``NotADirectoryError``.
    """
    directory = os.fspath(directory)
    if os.path.exists(directory) and not os.path.isdir(directory):
        raise NotADirectoryError(f"{directory} is not a folder")
    os.makedirs(directory, exist_ok=True)
    manifest_path = os.path.join(directory, MANIFEST)
    if os.listdir(directory):
        if not overwrite:
            raise FileExistsError(f"{directory} is not empty")
        if os.path.exists(manifest_path):
            with open(manifest_path, encoding="utf-8") as stream:
                old = json.load(stream)
            for entry in old.get("coresets", []):
                path = os.path.join(directory, os.path.basename(entry["file"]))
                if os.path.exists(path):
                    os.remove(path)
            os.remove(manifest_path)
    entries = []
    for number, coreset in enumerate(coresets):
        name = _file_name(number, coreset)
        arrays = {"X": np.asarray(coreset.X, dtype=np.float64), "weights": np.asarray(coreset.weights),
                  "ind": np.asarray(coreset.ind)}
        if coreset.y is not None:
            arrays["y"] = np.asarray(coreset.y)
        np.savez(os.path.join(directory, name), **arrays)  # type: ignore[arg-type]  # numpy's stubs
        entries.append({
            "node_id": str(coreset.node_id),
            "rows": int(coreset.rows),
            "model": coreset.model,
            "parameters": coreset.parameters,
            "coreset_rows": len(coreset.weights),
            "feature_names": list(coreset.feature_names),
            "file": name,
            **({"extra": coreset.extra} if coreset.extra else {}),
        })
    manifest = {"format": FORMAT, "version": VERSION, "coresets": entries}
    tmp = manifest_path + ".tmp"
    with open(tmp, "w", encoding="utf-8") as stream:
        json.dump(manifest, stream, indent=1)
    os.replace(tmp, manifest_path)  # the manifest comes last: a folder with one is complete
    return manifest_path


def load_coresets(directory: PathLike) -> List[StoredCoreset]:
    """Load the coresets that ``save_coresets`` wrote to ``directory``, in the order they were saved.

    Raises ``FileNotFoundError`` when the folder has no manifest, and ``ValueError`` when the manifest
    is not one this version reads.
    """
    directory = os.fspath(directory)
    manifest_path = os.path.join(directory, MANIFEST)
    with open(manifest_path, encoding="utf-8") as stream:
        manifest = json.load(stream)
    known = isinstance(manifest, dict) and manifest.get("format") == FORMAT
    if not known or manifest.get("version") != VERSION:
        raise ValueError(f"{manifest_path} is not a coreset manifest of version {VERSION}")
    loaded = []
    for entry in manifest["coresets"]:
        with np.load(os.path.join(directory, os.path.basename(entry["file"])), allow_pickle=False) as data:
            loaded.append(StoredCoreset(
                node_id=entry["node_id"],
                rows=int(entry["rows"]),
                model=entry["model"],
                parameters=dict(entry["parameters"]),
                feature_names=list(entry["feature_names"]),
                X=data["X"],
                y=data["y"] if "y" in data.files else None,
                weights=data["weights"],
                ind=data["ind"],
                extra=dict(entry.get("extra", {})),
            ))
    return loaded
