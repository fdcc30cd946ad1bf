"""Coresets saved to a folder load back as they were."""

from __future__ import annotations

import json
from pathlib import Path

import numpy as np
import pytest

from quillmarsh.io import StoredCoreset, load_coresets, save_coresets


def coreset(node_id: str, model: str, rows: int = 4) -> StoredCoreset:
    rng = np.random.default_rng(len(node_id) + rows)
    return StoredCoreset(
        node_id=node_id, rows=rows * 10, model=model, parameters={"k": 2, "dtype": "float32"},
        feature_names=["a", "b=x"], X=rng.normal(size=(rows, 2)), y=rng.normal(size=rows),
        weights=rng.random(rows) + 1, ind=np.arange(rows) * 3,
    )


def test_round_trip(tmp_path: Path) -> None:
    saved = [coreset("n1", "kmeans"), coreset("buffer", "linear_regression", rows=2)]
    manifest = save_coresets(tmp_path / "out", saved)
    entries = json.loads(Path(manifest).read_text())["coresets"]
    assert [(e["node_id"], e["rows"], e["model"], e["coreset_rows"]) for e in entries] == [
        ("n1", 40, "kmeans", 4), ("buffer", 20, "linear_regression", 2)]
    assert entries[0]["feature_names"] == ["a", "b=x"] and entries[0]["parameters"]["k"] == 2
    loaded = load_coresets(tmp_path / "out")
    for before, after in zip(saved, loaded):
        assert (after.node_id, after.rows, after.model, after.parameters, after.feature_names) == (
            before.node_id, before.rows, before.model, before.parameters, before.feature_names)
        for name in ("X", "y", "weights", "ind"):
            np.testing.assert_array_equal(getattr(after, name), getattr(before, name))


def test_non_empty_folder_needs_overwrite_and_old_files_go(tmp_path: Path) -> None:
    save_coresets(tmp_path, [coreset("n1", "kmeans"), coreset("n2", "kmeans")])
    with pytest.raises(FileExistsError):
        save_coresets(tmp_path, [coreset("n3", "kmeans")])
    (tmp_path / "notes.txt").write_text("mine")
    save_coresets(tmp_path, [coreset("n3", "kmeans")], overwrite=True)
    assert sorted(p.name for p in tmp_path.iterdir() if p.suffix == ".npz") == ["coreset-00000-n3-kmeans.npz"]
    assert (tmp_path / "notes.txt").exists()
    assert [c.node_id for c in load_coresets(tmp_path)] == ["n3"]


def test_bad_paths_and_records(tmp_path: Path) -> None:
    (tmp_path / "file").write_text("")
    with pytest.raises(NotADirectoryError):
        save_coresets(tmp_path / "file", [])
    with pytest.raises(FileNotFoundError):
        load_coresets(tmp_path)
    (tmp_path / "manifest.json").write_text('{"format": "other"}')
    with pytest.raises(ValueError, match="manifest"):
        load_coresets(tmp_path)
    with pytest.raises(ValueError, match="columns"):
        StoredCoreset(node_id="n", rows=1, model="m", parameters={}, feature_names=["a"],
                      X=np.zeros((1, 2)), y=None, weights=np.ones(1), ind=np.zeros(1))
