"""Saving a coreset tree to a directory and loading it back.

A save is a directory::

    PATH/CURRENT            the name of the current version, one line
    PATH/v-<hex>/           one version: manifest.json, the nodes' rows, the stored chunks, the buffer

A new save writes a whole new version beside the old one, then makes it current by replacing the
small ``CURRENT`` file in one rename, and only then removes the old version. So a crash at any moment
leaves the previous save whole and current. The manifest (JSON) holds the format and its version, the
tree's parameters and counters, its coreset objects (class by module and name, parameters as plain
values), the stream's feature space, and every file of the version with its size, so a missing or
truncated file is found at load time and named. The nodes' rows are plain numeric ``.npz`` arrays.
The stored chunks are the data manager's files, hard links of the tree's own where the file system
allows (a copy otherwise); they hold a table stream's raw values, text included, as numpy object
arrays, so load only saves you trust, as for any file that holds objects.
"""

from __future__ import annotations

import dataclasses
import importlib
import json
import os
import shutil
import uuid
from typing import Any, Dict, List, Type

import numpy as np

from quillmarsh.core.coreset._base import CoresetBase
from quillmarsh.core.tree._store import IdRanges, node_file_name, rows_from_file, rows_to_arrays, write_atomic
from quillmarsh.data.common import Dataset
from quillmarsh.data.feature_space import FeatureSpace

__all__ = ["FORMAT", "VERSION", "SaveFormatError", "load_tree", "save_tree"]

FORMAT = "quillmarsh-coreset-tree"
VERSION = 1
CURRENT = "CURRENT"
MANIFEST = "manifest.json"


class SaveFormatError(ValueError):
    """A saved tree that cannot be loaded: of a newer format, or damaged. The message names the file."""


def _sync_dir(path: str) -> None:
    fd = os.open(path, os.O_RDONLY)
    try:
        os.fsync(fd)
    finally:
        os.close(fd)


def _link_or_copy(source: str, target: str) -> None:
    """Put the working file ``source`` into a save, on disk before the save is made current."""
    try:
        os.link(source, target)
    except OSError:
        shutil.copy2(source, target)
    fd = os.open(target, os.O_RDONLY)
    try:
        os.fsync(fd)
    finally:
        os.close(fd)


def _plain(value: Any) -> Any:
    """Return a parameter value as JSON can hold it."""
    if isinstance(value, np.dtype):
        return value.name
    if isinstance(value, np.generic):
        return value.item()
    if value is None or isinstance(value, (bool, int, float, str)):
        return value
    if isinstance(value, (list, tuple)):
        return [_plain(v) for v in value]
    if isinstance(value, dict):
        return {str(k): _plain(v) for k, v in value.items()}
    raise TypeError(f"cannot save a parameter of type {type(value).__name__}: {value!r}")


def save_tree(tree: Any, path: str) -> None:
    """Write ``tree`` to the directory ``path`` as a new version, and make it current atomically.

    Parameters
    ----------
    tree : CoresetTree
        The tree to save.
    path : str
        The save's directory; created if needed.

    Raises
    ------
    TypeError
        If a coreset object has a parameter that JSON cannot hold as a plain value.
    """
    os.makedirs(path, exist_ok=True)
    version = f"v-{uuid.uuid4().hex}"
    target = os.path.join(path, version)
    os.makedirs(os.path.join(target, "nodes"))
    os.makedirs(os.path.join(target, "chunks"))
    try:
        manifest = _write_version(tree, target)
        with open(os.path.join(target, MANIFEST), "w", encoding="utf-8") as stream:
            json.dump(manifest, stream, indent=1)
            stream.flush()
            os.fsync(stream.fileno())
        for folder in ("nodes", "chunks", ""):
            _sync_dir(os.path.join(target, folder))
        pointer = os.path.join(path, f"{CURRENT}.{uuid.uuid4().hex}.tmp")
        with open(pointer, "w", encoding="utf-8") as stream:
            stream.write(version + "\n")
            stream.flush()
            os.fsync(stream.fileno())
        os.replace(pointer, os.path.join(path, CURRENT))
        _sync_dir(path)
    except BaseException:
        shutil.rmtree(target, ignore_errors=True)
        raise
    for name in os.listdir(path):  # older versions, and leftovers of saves that never finished
        if name != version and (name.startswith("v-") or name.endswith(".tmp")):
            full = os.path.join(path, name)
            shutil.rmtree(full, ignore_errors=True) if os.path.isdir(full) else os.remove(full)


def _write_version(tree: Any, target: str) -> Dict[str, Any]:
    layer = tree._layer
    state: Dict[str, Any] = {
        "n_samples_": tree.n_samples_,
        "n_removed_": tree.n_removed_,
        "n_leaves_": tree.n_leaves_,
        "n_features_in_": tree.n_features_in_,
        "feature_names_in_": tree.feature_names_in_,
        "kind": tree._kind,
        "has_y": tree._has_y,
        "n_blocks": tree._n_blocks,
        "next_id": tree._next_id,
        "chunk_index": None if layer is None else layer.chunk_index,
    }
    manifest: Dict[str, Any] = {
        "format": FORMAT,
        "version": VERSION,
        "params": {
            "coreset_size": tree.coreset_size,
            "chunk_size": tree.chunk_size,
            "n_jobs": tree.n_jobs,
            "entropy": tree._entropy,
            "max_categories": tree.max_categories,
            "max_text_values": tree.max_text_values,
            "keep_rows": tree.keep_rows,
        },
        "coresets": [
            {
                "class": f"{type(c).__module__}:{type(c).__qualname__}",
                "params": _plain({k: v for k, v in c.get_params().items() if k != "random_state"}),
                "safe_mode": bool(c.safe_mode),
            }
            for c in tree.coreset_objects
        ],
        "state": state,
        "leaves": [
            [index, leaf.node_id, leaf.low, leaf.high, leaf.rows] for index, leaf in tree._leaves.items()
        ],
        "open": [],
        "closed": sorted(list(key) for key in tree._store.closed),
        "feature_space": None,
        "data_params_internal": None,
    }
    write_atomic(os.path.join(target, "ids.npz"), {"starts": tree._ids.starts, "ends": tree._ids.ends}, True)
    for key in sorted(tree._store.closed):
        name = node_file_name(key)
        _link_or_copy(os.path.join(tree._store.folder, name), os.path.join(target, "nodes", name))
    for key, rows in sorted(tree._store.open.items()):
        manifest["open"].append(list(key))
        write_atomic(os.path.join(target, "nodes", node_file_name(key)), rows_to_arrays(rows), True)
    if layer is not None:
        manager = layer.data_manager
        manager.wait_for_saves()
        chunks = os.path.join(tree.data_dir, "chunks")
        for name in sorted(os.listdir(chunks)):
            if name.endswith(".npz") or name == "removed.npy":
                _link_or_copy(os.path.join(chunks, name), os.path.join(target, "chunks", name))
        manifest["feature_space"] = manager.feature_space.to_state()
        manifest["data_params_internal"] = _plain(dataclasses.asdict(manager.data_params_internal))
        if layer.buffer is not None:
            arrays = {name: value for name, value in zip(Dataset._fields, layer.buffer) if value is not None}
            write_atomic(os.path.join(target, "buffer.npz"), arrays, True)
    manifest["files"] = {
        os.path.relpath(os.path.join(folder, name), target): os.path.getsize(os.path.join(folder, name))
        for folder, _, names in os.walk(target)
        for name in names
    }
    return manifest


def _damaged(path: str, why: str) -> SaveFormatError:
    return SaveFormatError(f"{path}: {why}; the save is damaged")


def load_tree(cls: Type[Any], path: str, data_dir: Any, client: Any = None) -> Any:
    """Read the current version of the save at ``path`` into a new tree of class ``cls``.

    Parameters
    ----------
    cls : type
        The tree's class, ``CoresetTree`` or a subclass.
    path : str
        The save's directory.
    data_dir : str or None
        The new tree's own storage; None makes a temporary directory.
    client : dask.distributed.Client, default=None
        Builds the tree's further leaves on that Dask cluster.

    Returns
    -------
    CoresetTree
        The loaded tree.

    Raises
    ------
    SaveFormatError
        If ``path`` holds no saved tree, or one of a newer format, or a damaged one (a file missing,
        truncated or unreadable); the message names the file.
    """
    pointer = os.path.join(path, CURRENT)
    if not os.path.isfile(pointer):
        raise SaveFormatError(f"{pointer}: not found; {path!r} holds no saved tree")
    with open(pointer, encoding="utf-8") as stream:
        version = stream.read().strip()
    source = os.path.join(path, version)
    manifest_path = os.path.join(source, MANIFEST)
    try:
        with open(manifest_path, encoding="utf-8") as stream:
            manifest = json.load(stream)
    except FileNotFoundError:
        raise _damaged(manifest_path, "missing") from None
    except (ValueError, UnicodeDecodeError) as exc:
        raise _damaged(manifest_path, f"not valid JSON ({exc})") from None
    if not isinstance(manifest, dict) or manifest.get("format") != FORMAT:
        raise SaveFormatError(f"{manifest_path}: not a saved coreset tree")
    if not isinstance(manifest.get("version"), int) or manifest["version"] > VERSION:
        raise SaveFormatError(
            f"{manifest_path}: format version {manifest.get('version')!r} is newer than this library's "
            f"({VERSION}); upgrade quillmarsh to load it"
        )
    for relative, size in manifest["files"].items():
        full = os.path.join(source, relative)
        if not os.path.isfile(full):
            raise _damaged(full, "missing")
        if os.path.getsize(full) != size:
            raise _damaged(full, f"{os.path.getsize(full)} bytes where {size} were written")
    try:
        return _build(cls, manifest, source, data_dir, client)
    except SaveFormatError:
        raise
    except (OSError, ValueError, KeyError) as exc:
        raise SaveFormatError(f"{source}: cannot be read ({type(exc).__name__}: {exc})") from exc


def _coreset_object(entry: Dict[str, Any], manifest_path: str) -> CoresetBase:
    module_name, _, qualname = entry["class"].partition(":")
    try:
        found: Any = importlib.import_module(module_name)
        for part in qualname.split("."):
            found = getattr(found, part)
    except (ImportError, AttributeError):
        raise SaveFormatError(
            f"{manifest_path}: coreset class {entry['class']!r} cannot be imported"
        ) from None
    if not (isinstance(found, type) and issubclass(found, CoresetBase)):
        raise SaveFormatError(f"{manifest_path}: {entry['class']!r} is not a coreset class")
    coreset: CoresetBase = found(**entry["params"])
    coreset.safe_mode = bool(entry["safe_mode"])
    return coreset


def _build(cls: Type[Any], manifest: Dict[str, Any], source: str, data_dir: Any, client: Any) -> Any:
    from quillmarsh.core.tree.coreset_tree import _Leaf

    params = manifest["params"]
    coresets = [_coreset_object(entry, os.path.join(source, MANIFEST)) for entry in manifest["coresets"]]
    tree = cls(
        coresets,
        coreset_size=params["coreset_size"],
        chunk_size=params["chunk_size"],
        n_jobs=params["n_jobs"],
        random_state=params["entropy"],
        data_dir=data_dir,
        client=client,
        max_categories=params["max_categories"],
        max_text_values=params["max_text_values"],
        keep_rows=params.get("keep_rows", True),  # saves from before the choice kept their rows
    )
    state = manifest["state"]
    tree.n_samples_ = state["n_samples_"]
    tree.n_removed_ = state["n_removed_"]
    tree.n_leaves_ = state["n_leaves_"]
    tree.n_features_in_ = state["n_features_in_"]
    tree.feature_names_in_ = state["feature_names_in_"]
    tree._kind = state["kind"]
    tree._has_y = state["has_y"]
    tree._n_blocks = state["n_blocks"]
    tree._next_id = state["next_id"]
    with np.load(os.path.join(source, "ids.npz"), allow_pickle=False) as ids:
        tree._ids = IdRanges(ids["starts"], ids["ends"])
    tree._leaves = {
        int(i): _Leaf(str(node), int(lo), int(hi), int(rows)) for i, node, lo, hi, rows in manifest["leaves"]
    }
    nodes = os.path.join(source, "nodes")
    for key in manifest["closed"]:
        name = node_file_name(tuple(key))
        _link_or_copy(os.path.join(nodes, name), os.path.join(tree._store.folder, name))
        tree._store.closed.add(tuple(key))
    for key in manifest["open"]:
        tree._store.open[tuple(key)] = rows_from_file(os.path.join(nodes, node_file_name(tuple(key))))
    if state["chunk_index"] is None:
        return tree
    chunks = os.path.join(tree.data_dir, "chunks")
    os.makedirs(chunks, exist_ok=True)
    for name in sorted(os.listdir(os.path.join(source, "chunks"))):
        _link_or_copy(os.path.join(source, "chunks", name), os.path.join(chunks, name))
    tree._layer = tree._make_layer(
        tree.feature_names_in_, tree.n_features_in_, chunk_index=state["chunk_index"]
    )
    manager = tree._layer.data_manager
    manager.feature_space = FeatureSpace.from_state(manifest["feature_space"])
    internal = manifest["data_params_internal"]
    manager.data_params_internal.categorical_features_ = list(internal["categorical_features_"])
    manager.data_params_internal.aggregated_missing_replacements = internal["aggregated_missing_replacements"]
    buffer_path = os.path.join(source, "buffer.npz")
    if os.path.exists(buffer_path):
        with np.load(buffer_path, allow_pickle=True) as data:
            fields: List[Any] = [data[name] if name in data.files else None for name in Dataset._fields]
        tree._layer.set_buffer(fields)
    return tree
