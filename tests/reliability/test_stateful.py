"""A rule-based state machine that drives one chunk layer through every operation on its buffer and its
stored chunks, and checks each step against a small pure-Python model.

The model keeps the buffer as a list of rows (None when the layer holds no record at all), the chunk
counter, the expected ``build_params``, the rows of every chunk the data manager stand-in stores, and
the indices that the data manager reports as removed. Every value of a row encodes its sample index.
"""

from __future__ import annotations

from typing import Any, Dict, List, NamedTuple, Optional, Tuple

import numpy as np
import pytest
from hypothesis import HealthCheck, settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, initialize, invariant, precondition, rule

from chunk_support import BUILD_PARAM_KEYS, RecordingDataManager, RecordingParent, patch_node_class
from quillmarsh.core.tree import chunk_layer
from quillmarsh.data.common import Dataset

# About the compiled module's state over random sequences of operations: run against it alone.
pytestmark = pytest.mark.compiled_only

FEATURES = 2
END = object()


class Row(NamedTuple):
    ind: int
    x: Tuple[float, ...]
    y: Optional[float]
    props: Optional[int]


def dataset_of(rows: List[Row], with_y: bool, with_props: bool) -> Dataset:
    """A fresh record of `rows` (new arrays); sample_weight and orig are None."""
    n = len(rows)
    return Dataset(
        np.array([r.ind for r in rows], dtype=np.int64),
        np.array([r.x for r in rows], dtype=float).reshape(n, FEATURES),
        np.array([r.y for r in rows], dtype=float) if with_y else None,
        None,
        np.array([r.props for r in rows], dtype=np.int64) if with_props else None,
        None,
    )


def rows_of(dset: Any) -> List[Row]:
    assert isinstance(dset, Dataset), type(dset)
    assert dset.sample_weight is None and dset.orig is None
    n = len(dset.ind)
    assert dset.X.shape == (n, FEATURES)
    for field in (dset.y, dset.props):
        assert field is None or len(field) == n
    return [
        Row(
            int(dset.ind[i]),
            tuple(float(v) for v in dset.X[i]),
            None if dset.y is None else float(dset.y[i]),
            None if dset.props is None else int(dset.props[i]),
        )
        for i in range(n)
    ]


def copy_of(dset: Dataset) -> Dataset:
    return Dataset(*(None if a is None else np.array(a, copy=True) for a in dset))


class ChunkLayerMachine(RuleBasedStateMachine):
    def __init__(self) -> None:
        super().__init__()
        self.patch = pytest.MonkeyPatch()
        patch_node_class(chunk_layer, self.patch)
        self.layer: Any = None

    def teardown(self) -> None:
        self.patch.undo()

    # ----------------------------------------------------------------- set-up

    @initialize(
        chunk_size=st.one_of(st.none(), st.just(0), st.just(1), st.integers(2, 5)),
        chunk_index=st.one_of(st.none(), st.integers(0, 20)),
        with_y=st.booleans(),
        with_props=st.booleans(),
    )
    def start(self, chunk_size, chunk_index, with_y, with_props) -> None:
        self.with_y = with_y
        self.with_props = with_props
        self.dm = RecordingDataManager()
        self.parent = RecordingParent()
        self.layer = chunk_layer.ChunkLayer(self.dm, None, chunk_size, self.parent, chunk_index)
        self.chunk_size = chunk_size
        # The model.
        self.buffer: Optional[List[Row]] = None
        self.chunk_index = 0 if chunk_index is None else chunk_index
        self.build_params: Optional[Dict[str, Any]] = None
        self.stored: Dict[str, List[Row]] = {}
        self.removed: Optional[List[int]] = None
        self.next_index = 0
        self.next_chunk = 0
        self.additions = 0

    # ------------------------------------------------------------- the model

    def fresh(self, count: int) -> List[Row]:
        rows = []
        for k in range(count):
            i = self.next_index + k
            rows.append(
                Row(
                    i,
                    (float(i * 8), float(i * 8 + 1)),
                    i * 2 + 0.5 if self.with_y else None,
                    i * 3 if self.with_props else None,
                )
            )
        self.next_index += count
        return rows

    def record(self, rows: List[Row]) -> Dataset:
        return dataset_of(rows, self.with_y, self.with_props)

    def model_has_buffer(self) -> bool:
        return bool(self.buffer)

    def model_process(self, datasets: List[List[Row]], create_buffer: bool, is_classification: bool):
        size_bytes = samples = 0
        targets: set = set()
        for rows in datasets:
            size_bytes += sum(a.nbytes for a in self.record(rows) if a is not None)
            samples += len(rows)
            if is_classification and self.with_y:
                targets |= {r.y for r in rows}
            self.buffer = (self.buffer + rows) if self.model_has_buffer() else list(rows)
            self.additions += 1
            self.build_params = {
                "number_of_features": FEATURES,
                "number_of_features_orig": 0,
                "number_of_samples": samples,
                "chunk_size": self.chunk_size,
                "targets_unique_count": len(targets),
                "size_bytes": size_bytes,
                "size_MB": str(size_bytes / 1048576),
            }
            size = self.chunk_size
            while size is not None and self.model_has_buffer() and (size == 0 or len(self.buffer) >= size):
                if size == 0:
                    chunk, self.buffer = self.buffer, None
                else:
                    chunk, self.buffer = self.buffer[:size], self.buffer[size:]
                self.chunk_index += 1
                yield "chunk", chunk
        if create_buffer and self.model_has_buffer():
            yield "buffer", list(self.buffer)

    def visible_buffer(self) -> Optional[List[Row]]:
        """What `get_buffer()` must give: None without rows, else the rows not reported as removed."""
        if not self.model_has_buffer():
            return None
        removed = set(self.removed or [])
        return [r for r in self.buffer if r.ind not in removed]

    def draw_indices(self, data: st.DataObject) -> List[int]:
        present = [r.ind for r in self.buffer or []]
        chosen = data.draw(st.lists(st.sampled_from(present), unique=True)) if present else []
        chosen = data.draw(st.permutations(chosen))
        return chosen + data.draw(st.lists(st.integers(1000, 1010), unique=True, max_size=2))

    # ------------------------------------------------------------------ rules

    @rule(
        data=st.data(),
        sizes=st.lists(st.integers(0, 6), max_size=3),
        create_buffer=st.booleans(),
        is_classification=st.booleans(),
        with_callback=st.booleans(),
        take=st.one_of(st.none(), st.integers(0, 3)),
        form=st.sampled_from(["list", "generator", "tuples"]),
        drop=st.sampled_from(["del", "close"]),
    )
    def process(self, data, sizes, create_buffer, is_classification, with_callback, take, form, drop) -> None:
        layer = self.layer
        datasets = [self.fresh(n) for n in sizes]
        records = [self.record(rows) for rows in datasets]
        items: Any = records
        if form == "generator":
            items = (r for r in records)
        elif form == "tuples":
            items = [tuple(r) for r in records]
        calls: List[Tuple[Any, Any]] = []
        callback = (lambda node, index: calls.append((node, index))) if with_callback else None

        real = layer.process(items, create_buffer, is_classification, callback)
        expected = self.model_process(datasets, create_buffer, is_classification)
        got: List[Any] = []
        while take is None or len(got) < take:
            node = next(real, END)
            if node is END:
                assert next(expected, None) is None
                break
            kind, rows = next(expected)
            assert node.built == 1
            assert rows_of(node.dset) == rows
            if kind == "chunk":
                assert node.node_id is None
                if self.chunk_size:
                    assert len(rows) == self.chunk_size
                chunk_id = f"chunk-{self.next_chunk}"
                self.next_chunk += 1
                self.dm.chunks[chunk_id] = copy_of(node.dset)
                self.stored[chunk_id] = rows
            else:
                assert node.node_id == chunk_layer.BUFFER_NODE_ID
            got.append(node)
        if drop == "close":
            real.close()
            with pytest.raises(StopIteration):
                next(real)
        del real, expected
        if with_callback:
            assert calls == [(node, None) for node in got]
        assert self.parent.calls == self.additions

    @rule(data=st.data(), take=st.one_of(st.none(), st.integers(0, 3)))
    def rebuild(self, data, take) -> None:
        layer = self.layer
        ids = data.draw(
            st.lists(st.sampled_from(sorted(self.stored) + [chunk_layer.BUFFER_NODE_ID]), max_size=4)
        )
        buffer_before, index_before = layer.buffer, layer.chunk_index
        self.dm.calls.clear()
        gen = layer.rebuild(ids)
        assert self.dm.calls == []
        done: List[str] = []
        while take is None or len(done) < take:
            node = next(gen, END)
            if node is END:
                break
            chunk_id = ids[len(done)]
            assert node.built == 1
            assert node.node_id == chunk_id
            if chunk_id == chunk_layer.BUFFER_NODE_ID:
                expected = self.visible_buffer()
                if expected is None:
                    assert node.dset is None
                else:
                    assert rows_of(node.dset) == expected
                    if not self.removed:
                        assert node.dset is layer.buffer
            else:
                assert node.dset is self.dm.chunks[chunk_id]
            done.append(chunk_id)
        fetched = [c for c in self.dm.calls if c[0] == "get_by_nodes"]
        assert fetched == [("get_by_nodes", ([c],), {}) for c in done if c != chunk_layer.BUFFER_NODE_ID]
        assert len(done) == (len(ids) if take is None else min(take, len(ids)))
        assert layer.buffer is buffer_before and layer.chunk_index == index_before

    @rule(
        data=st.data(),
        modulus=st.integers(1, 4),
        with_buffer=st.one_of(st.none(), st.booleans()),
        as_generator=st.booleans(),
        as_list=st.booleans(),
    )
    def filter_out_samples(self, data, modulus, with_buffer, as_generator, as_list) -> None:
        layer = self.layer
        ids = data.draw(st.lists(st.sampled_from(sorted(self.stored)), max_size=4)) if self.stored else []
        seen: List[List[Row]] = []

        def predicate(ind, X, y, props):
            seen.append(rows_of(Dataset(ind, X, y, None, props, None)))
            picked = ind[ind % modulus == 0]
            return [int(v) for v in picked] if as_list else picked

        buffer_before, index_before = layer.buffer, layer.chunk_index
        self.dm.calls.clear()
        node_ids: Any = (i for i in ids) if as_generator else ids
        if with_buffer is None:
            result = layer.filter_out_samples(predicate, node_ids)
        else:
            result = layer.filter_out_samples(predicate, node_ids, with_buffer)

        groups = [self.stored[i] for i in ids]
        if with_buffer is not False and self.model_has_buffer():
            groups.append(list(self.buffer))  # the raw buffer, removed samples included
        assert seen == groups
        assert isinstance(result, np.ndarray) and result.dtype == np.float64 and result.ndim == 1
        assert result.tolist() == [float(r.ind) for g in groups for r in g if r.ind % modulus == 0]
        assert self.dm.calls == [("get_by_nodes", ([i],), {"with_props": True}) for i in ids]
        assert layer.buffer is buffer_before and layer.chunk_index == index_before

    @rule(data=st.data(), as_array=st.booleans())
    def remove_from_buffer(self, data, as_array) -> None:
        indices = self.draw_indices(data)
        before = self.layer.buffer
        assert (
            self.layer.remove_from_buffer(np.array(indices, dtype=np.int64) if as_array else indices) is None
        )
        if self.model_has_buffer():
            assert self.layer.buffer is not before
            dropped = set(indices)
            self.buffer = [r for r in self.buffer if r.ind not in dropped]
        else:
            assert self.layer.buffer is before

    @rule(data=st.data(), with_x=st.booleans(), with_y=st.booleans())
    def update_buffer(self, data, with_x, with_y) -> None:
        with_y = with_y and self.with_y
        indices = self.draw_indices(data)
        new = {i: ((-i - 0.5, -i - 0.75), -i * 3.0 - 1) for i in indices}
        X = np.array([new[i][0] for i in indices], dtype=float).reshape(len(indices), FEATURES)
        y = np.array([new[i][1] for i in indices], dtype=float)
        before = self.layer.buffer
        kwargs = {}
        if with_x:
            kwargs["X"] = X
        if with_y:
            kwargs["y"] = y
        assert self.layer.update_buffer(np.array(indices, dtype=np.int64), **kwargs) is None
        assert self.layer.buffer is before
        if self.model_has_buffer():
            self.buffer = [
                r._replace(
                    x=new[r.ind][0] if with_x and r.ind in new else r.x,
                    y=new[r.ind][1] if with_y and r.ind in new else r.y,
                )
                for r in self.buffer
            ]

    @rule(count=st.integers(0, 6), form=st.sampled_from(["list", "tuple", "record"]))
    def set_buffer(self, count, form) -> None:
        rows = self.fresh(count)
        record = self.record(rows)
        arg = {"list": list(record), "tuple": tuple(record), "record": record}[form]
        assert self.layer.set_buffer(arg) is None
        assert type(self.layer.buffer) is Dataset and self.layer.buffer is not record
        self.buffer = rows

    @rule(default=st.booleans())
    def clear_buffer(self, default) -> None:
        if default:
            assert self.layer.set_buffer() is None
        else:
            assert self.layer.set_buffer(None) is None
        self.buffer = None

    @rule(data=st.data(), how=st.sampled_from(["none", "empty", "some"]))
    def set_removed(self, data, how) -> None:
        if how == "none":
            self.removed = None
        elif how == "empty":
            self.removed = []
        else:
            known = list(range(self.next_index))
            self.removed = data.draw(st.lists(st.sampled_from(known), unique=True)) if known else [5]
        self.dm.removed = None if self.removed is None else np.array(self.removed, dtype=np.int64)

    @rule()
    def get_buffer(self) -> None:
        self.dm.calls.clear()
        got = self.layer.get_buffer()
        expected = self.visible_buffer()
        if expected is None:
            assert got is None
            assert self.dm.calls == []
        else:
            assert self.dm.calls == [("get_removed", (), {})]
            assert rows_of(got) == expected
            assert (got is self.layer.buffer) == (not self.removed)

    @rule()
    def get_buffer_size(self) -> None:
        size = self.layer.get_buffer_size()
        assert type(size) is int
        assert size == len(self.buffer or [])  # removed samples are counted too

    @rule()
    def has_buffer(self) -> None:
        assert self.layer.has_buffer() == self.model_has_buffer()

    @precondition(lambda self: self.layer is not None and self.chunk_size is not None)
    @rule()
    def drain_directly(self) -> None:
        """The drain generator on its own cuts what fills a chunk and nothing else."""
        got = list(self.layer._get_from_buffer())
        expected = []
        size = self.chunk_size
        while self.model_has_buffer() and (size == 0 or len(self.buffer) >= size):
            if size == 0:
                chunk, self.buffer = self.buffer, None
            else:
                chunk, self.buffer = self.buffer[:size], self.buffer[size:]
            self.chunk_index += 1
            expected.append(chunk)
        assert [rows_of(n.dset) for n in got] == expected

    # ------------------------------------------------------------- invariant

    @invariant()
    def layer_matches_model(self) -> None:
        if self.layer is None:
            return
        layer = self.layer
        assert (layer.buffer is None) == (self.buffer is None)
        if layer.buffer is not None:
            assert type(layer.buffer) is Dataset
            assert rows_of(layer.buffer) == self.buffer
        assert layer.chunk_index == self.chunk_index
        assert layer.build_params == self.build_params
        if self.build_params is not None:
            assert list(layer.build_params) == BUILD_PARAM_KEYS
        assert layer.chunk_size == self.chunk_size and layer.data_manager is self.dm
        assert layer.parent is self.parent and layer.chunk_corset_params is None


ChunkLayerMachine.TestCase.settings = settings(
    max_examples=120,
    stateful_step_count=30,
    deadline=None,
    suppress_health_check=[HealthCheck.too_slow, HealthCheck.filter_too_much],
)
TestChunkLayerMachine = ChunkLayerMachine.TestCase
