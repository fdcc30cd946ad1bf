"""Conservation of rows through the chunk layer, as hypothesis properties.

Random streams of datasets go through ``ChunkLayer.process`` with buffer edits and removals in between.
Every value of a row encodes the row's sample index, so a row that is lost, duplicated, reordered or
mixed with another one is seen. A small pure-Python model of the buffer says what must come out.
"""

from __future__ import annotations

from typing import Any, Dict, Iterator, List, NamedTuple, Optional, Tuple

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from chunk_support import BUILD_PARAM_KEYS, RecordingDataManager, RecordingParent, patch_node_class
from quillmarsh.core.tree import chunk_layer
from quillmarsh.data.common import Dataset

# About the compiled module's conservation of rows over long random streams: run against it alone.
pytestmark = pytest.mark.compiled_only

PROPERTY = settings(max_examples=150, deadline=None, suppress_health_check=[HealthCheck.too_slow])

CHUNK_SIZES = st.one_of(st.none(), st.just(0), st.just(1), st.integers(min_value=2, max_value=6))


class Shape(NamedTuple):
    """Which optional fields the datasets of one stream carry, and their column counts."""

    features: int
    y: bool
    sample_weight: bool
    props: bool
    orig: int  # 0: no orig field


class Row(NamedTuple):
    """One sample, field by field (None for a field the data does not have)."""

    ind: int
    x: Tuple[float, ...]
    y: Optional[float]
    sample_weight: Optional[float]
    props: Optional[int]
    orig: Optional[Tuple[float, ...]]


SHAPES = st.builds(
    Shape,
    features=st.integers(1, 3),
    y=st.booleans(),
    sample_weight=st.booleans(),
    props=st.booleans(),
    orig=st.integers(0, 2),
)


def encoded_row(ind: int, shape: Shape) -> Row:
    """The row of sample `ind`: every value is computed from the index."""
    return Row(
        ind,
        tuple(float(ind * 8 + j) for j in range(shape.features)),
        ind * 2 + 0.5 if shape.y else None,
        ind / 4 if shape.sample_weight else None,
        ind * 3 if shape.props else None,
        tuple(float(ind * 5 + j) for j in range(shape.orig)) if shape.orig else None,
    )


def to_dataset(rows: List[Row], shape: Shape) -> Dataset:
    """A fresh `Dataset` holding `rows` (new arrays, shared with nothing)."""
    n = len(rows)
    return Dataset(
        np.array([r.ind for r in rows], dtype=np.int64),
        np.array([r.x for r in rows], dtype=float).reshape(n, shape.features),
        np.array([r.y for r in rows], dtype=float) if shape.y else None,
        np.array([r.sample_weight for r in rows], dtype=float) if shape.sample_weight else None,
        np.array([r.props for r in rows], dtype=np.int64) if shape.props else None,
        np.array([r.orig for r in rows], dtype=float).reshape(n, shape.orig) if shape.orig else None,
    )


def rows_from(dset: Any) -> List[Row]:
    """Read the rows back out of a record; every field that is present must have one entry per row."""
    assert isinstance(dset, Dataset), type(dset)
    n = len(dset.ind)
    for field in dset:
        assert field is None or len(field) == n
    rows = []
    for i in range(n):
        rows.append(
            Row(
                int(dset.ind[i]),
                tuple(float(v) for v in dset.X[i]),
                None if dset.y is None else float(dset.y[i]),
                None if dset.sample_weight is None else float(dset.sample_weight[i]),
                None if dset.props is None else int(dset.props[i]),
                None if dset.orig is None else tuple(float(v) for v in dset.orig[i]),
            )
        )
    return rows


def dataset_bytes(dset: Dataset) -> int:
    return sum(a.size * a.itemsize for a in dset if a is not None)


class BufferModel:
    """What the layer's buffer and counter must hold: `buffer` is None or a list of rows."""

    def __init__(self, chunk_size: Optional[int], chunk_index: int) -> None:
        self.chunk_size = chunk_size
        self.chunk_index = chunk_index
        self.buffer: Optional[List[Row]] = None

    def has_buffer(self) -> bool:
        return bool(self.buffer)

    def rows(self) -> List[Row]:
        return list(self.buffer or [])

    def add(self, rows: List[Row]) -> None:
        self.buffer = (self.buffer + rows) if self.has_buffer() else list(rows)

    def drain(self) -> Iterator[Tuple[str, List[Row]]]:
        size = self.chunk_size
        if size is None:
            return
        while self.has_buffer() and (size == 0 or len(self.buffer) >= size):
            if size == 0:
                chunk, self.buffer = self.buffer, None
            else:
                chunk, self.buffer = self.buffer[:size], self.buffer[size:]
            self.chunk_index += 1
            yield "chunk", chunk

    def process(self, datasets: List[List[Row]], create_buffer: bool) -> Iterator[Tuple[str, List[Row]]]:
        for rows in datasets:
            self.add(rows)
            yield from self.drain()
        if create_buffer and self.has_buffer():
            yield "buffer", self.rows()


def layer_rows(layer: Any) -> List[Row]:
    return [] if layer.buffer is None else rows_from(layer.buffer)


def check_same_buffer(layer: Any, model: BufferModel) -> None:
    assert (layer.buffer is None) == (model.buffer is None)
    assert layer_rows(layer) == model.rows()
    assert layer.has_buffer() == model.has_buffer()
    assert layer.get_buffer_size() == len(model.rows())
    assert layer.chunk_index == model.chunk_index


class Stream:
    """One layer, its model, and the ledger of every row that went in and where it went."""

    def __init__(self, chunk_size: Optional[int], chunk_index: Optional[int], shape: Shape) -> None:
        self.shape = shape
        self.dm = RecordingDataManager()
        self.parent = RecordingParent()
        self.layer = chunk_layer.ChunkLayer(self.dm, None, chunk_size, self.parent, chunk_index)
        self.model = BufferModel(chunk_size, 0 if chunk_index is None else chunk_index)
        self.next_index = 0
        self.fed: List[int] = []  # every row put into the layer, in order
        self.gone: List[int] = []  # rows dropped on purpose (remove_from_buffer, set_buffer)
        self.cut: List[Row] = []  # rows of every chunk cut, in order
        self.additions = 0

    def fresh_rows(self, count: int) -> List[Row]:
        rows = [encoded_row(self.next_index + k, self.shape) for k in range(count)]
        self.next_index += count
        return rows

    def process(self, sizes: List[int], create_buffer: bool, is_classification: bool, form: str) -> None:
        layer, model = self.layer, self.model
        datasets = [self.fresh_rows(n) for n in sizes]
        records = [to_dataset(rows, self.shape) for rows in datasets]
        for rows in datasets:
            self.fed.extend(r.ind for r in rows)
        before = layer.build_params
        calls: List[Tuple[Any, Any]] = []
        items: Any = records
        if form == "tuples":
            items = [tuple(r) for r in records]
        elif form == "generator":
            items = iter(records)
        got = list(layer.process(items, create_buffer, is_classification, lambda n, i: calls.append((n, i))))
        expected = list(model.process(datasets, create_buffer))
        self.additions += len(records)

        assert len(got) == len(expected)
        for node, (kind, rows) in zip(got, expected):
            assert node.built == 1
            assert rows_from(node.dset) == rows
            if kind == "chunk":
                assert node.node_id is None
                size = model.chunk_size
                assert size is not None
                if size > 0:
                    assert len(rows) == size
                self.cut.extend(rows)
            else:
                assert node.node_id == chunk_layer.BUFFER_NODE_ID
        assert [(n, i) for n, i in calls] == [(n, None) for n in got]
        check_same_buffer(layer, model)
        assert self.parent.calls == self.additions

        if not records:
            assert layer.build_params is before
        else:
            unique = set()
            if is_classification and self.shape.y:
                unique = {r.y for rows in datasets for r in rows}
            total = sum(dataset_bytes(d) for d in records)
            assert layer.build_params == {
                "number_of_features": self.shape.features,
                "number_of_features_orig": self.shape.orig,
                "number_of_samples": sum(sizes),
                "chunk_size": model.chunk_size,
                "targets_unique_count": len(unique),
                "size_bytes": total,
                "size_MB": str(total / 1048576),
            }
            assert list(layer.build_params) == BUILD_PARAM_KEYS

    def check_ledger(self) -> None:
        """Every row fed is in exactly one chunk, or in the buffer, or was dropped on purpose; in order."""
        kept = [i for i in self.fed if i not in set(self.gone)]
        placed = [r.ind for r in self.cut] + [r.ind for r in self.model.rows()]
        assert placed == kept
        assert len(set(placed)) == len(placed)
        assert [r.ind for r in layer_rows(self.layer)] == [r.ind for r in self.model.rows()]


def pick(data: st.DataObject, rows: List[Row], unknown: bool = True) -> List[int]:
    """Indices of some buffered rows (shuffled) and, perhaps, of samples that are not in the buffer."""
    indices = [r.ind for r in rows]
    chosen = data.draw(st.lists(st.sampled_from(indices), unique=True) if indices else st.just([]))
    chosen = data.draw(st.permutations(chosen))
    if unknown:
        chosen = chosen + data.draw(st.lists(st.integers(-50, -1), unique=True, max_size=2))
    return chosen


def edit(data: st.DataObject, stream: Stream) -> None:
    """One buffer edit, or a look at the buffer through a data manager that reports removals."""
    layer, model, shape = stream.layer, stream.model, stream.shape
    action = data.draw(st.sampled_from(["remove", "update", "set", "clear", "removed"]))
    if action == "remove":
        indices = pick(data, model.rows())
        arg: Any = data.draw(st.sampled_from([list, np.array]))(indices)
        old = layer.buffer
        assert layer.remove_from_buffer(arg) is None
        if model.has_buffer():
            dropped = set(indices)
            stream.gone.extend(r.ind for r in model.rows() if r.ind in dropped)
            model.buffer = [r for r in model.rows() if r.ind not in dropped]
            assert layer.buffer is not old
        else:
            assert layer.buffer is old
    elif action == "update":
        indices = pick(data, model.rows())
        new = {i: (tuple(float(-i * 7 - j - 1) for j in range(shape.features)), -i - 0.25) for i in indices}
        with_x = data.draw(st.booleans())
        with_y = shape.y and data.draw(st.booleans())
        X = np.array([new[i][0] for i in indices], dtype=float).reshape(len(indices), shape.features)
        y = np.array([new[i][1] for i in indices], dtype=float)
        old = layer.buffer
        assert (
            layer.update_buffer(
                np.array(indices, dtype=np.int64), X if with_x else None, y if with_y else None
            )
            is None
        )
        assert layer.buffer is old
        if model.has_buffer():
            model.buffer = [
                r._replace(
                    x=new[r.ind][0] if with_x and r.ind in new else r.x,
                    y=new[r.ind][1] if with_y and r.ind in new else r.y,
                )
                for r in model.rows()
            ]
    elif action == "set":
        rows = stream.fresh_rows(data.draw(st.integers(0, 5)))
        stream.gone.extend(r.ind for r in model.rows())
        stream.fed.extend(r.ind for r in rows)
        record = to_dataset(rows, shape)
        given_as = data.draw(st.sampled_from(["list", "tuple", "record"]))
        arg = {"list": list(record), "tuple": tuple(record), "record": record}[given_as]
        assert layer.set_buffer(arg) is None
        assert type(layer.buffer) is Dataset
        model.buffer = rows
    elif action == "clear":
        stream.gone.extend(r.ind for r in model.rows())
        if data.draw(st.booleans()):
            layer.set_buffer()
        else:
            layer.set_buffer(None)
        model.buffer = None
    else:
        how = data.draw(st.sampled_from(["none", "empty", "some"]))
        removed = {"none": None, "empty": []}.get(how)
        if how == "some":
            removed = pick(data, model.rows())
        stream.dm.removed = None if removed is None else np.array(removed, dtype=np.int64)
        got = layer.get_buffer()
        if not model.has_buffer():
            assert got is None
        elif not removed:
            assert got is layer.buffer
        else:
            assert got is not layer.buffer
            assert rows_from(got) == [r for r in model.rows() if r.ind not in set(removed)]
        stream.dm.removed = None
    check_same_buffer(layer, model)


@PROPERTY
@given(
    data=st.data(),
    chunk_size=CHUNK_SIZES,
    chunk_index=st.one_of(st.none(), st.integers(0, 9)),
    shape=SHAPES,
)
def test_every_row_lands_in_exactly_one_chunk_or_the_buffer(data, chunk_size, chunk_index, shape):
    with pytest.MonkeyPatch.context() as mp:
        patch_node_class(chunk_layer, mp)
        stream = Stream(chunk_size, chunk_index, shape)
        for _ in range(data.draw(st.integers(1, 4), label="calls")):
            for _ in range(data.draw(st.integers(0, 3), label="edits")):
                edit(data, stream)
            sizes = data.draw(st.lists(st.integers(0, 7), max_size=4), label="sizes")
            stream.process(
                sizes,
                create_buffer=data.draw(st.booleans()),
                is_classification=data.draw(st.booleans()),
                form=data.draw(st.sampled_from(["records", "tuples", "generator"])),
            )
            stream.check_ledger()
        # The counter counts the chunks cut, nothing else.
        cut_chunks = stream.model.chunk_index - (chunk_index or 0)
        if chunk_size is None:
            assert cut_chunks == 0 and stream.cut == []
        elif chunk_size > 0:
            assert len(stream.cut) == cut_chunks * chunk_size


class FieldModel:
    """A buffer seen field by field: each field is None or a list of per-row values (lengths may differ)."""

    FIELDS = ("ind", "X", "y")

    def __init__(self, chunk_size: Optional[int]) -> None:
        self.chunk_size = chunk_size
        self.chunk_index = 0
        self.buffer: Optional[Dict[str, Optional[list]]] = None

    def has_buffer(self) -> bool:
        return self.buffer is not None and len(self.buffer["X"]) > 0

    def add(self, fields: Dict[str, Optional[list]]) -> None:
        if not self.has_buffer():
            self.buffer = dict(fields)
            return
        joined = {}
        for name in self.FIELDS:
            old, new = self.buffer[name], fields[name]
            if new is None:
                joined[name] = old
            elif old is None:
                raise ValueError("a buffered field that is None cannot take rows")
            else:
                joined[name] = old + new
        self.buffer = joined

    def process(self, datasets: List[Dict[str, Optional[list]]], create_buffer: bool) -> Iterator[Any]:
        size = self.chunk_size
        for fields in datasets:
            self.add(fields)
            if size is None:
                continue
            while self.has_buffer() and (size == 0 or len(self.buffer["X"]) >= size):
                if size == 0:
                    chunk, self.buffer = self.buffer, None
                else:
                    chunk = {k: None if v is None else v[:size] for k, v in self.buffer.items()}
                    self.buffer = {k: None if v is None else v[size:] for k, v in self.buffer.items()}
                self.chunk_index += 1
                yield "chunk", chunk
        if create_buffer and self.has_buffer():
            yield "buffer", dict(self.buffer)


def fields_of(dset: Any) -> Dict[str, Optional[list]]:
    assert isinstance(dset, Dataset)
    assert dset.sample_weight is None and dset.props is None and dset.orig is None
    return {
        "ind": [int(v) for v in dset.ind],
        "X": [tuple(float(v) for v in row) for row in dset.X],
        "y": None if dset.y is None else [float(v) for v in dset.y],
    }


@PROPERTY
@given(
    chunk_size=CHUNK_SIZES,
    calls=st.lists(
        st.tuples(st.lists(st.tuples(st.integers(0, 6), st.booleans()), max_size=4), st.booleans()),
        min_size=1,
        max_size=4,
    ),
)
def test_datasets_with_and_without_y_are_joined_field_by_field(chunk_size, calls):
    """`y` present in some datasets only: a dataset without `y` keeps the buffered `y`; a dataset with
    `y` cannot join a buffer without one (the error leaves the buffer as it was)."""
    with pytest.MonkeyPatch.context() as mp:
        patch_node_class(chunk_layer, mp)
        layer = chunk_layer.ChunkLayer(RecordingDataManager(), None, chunk_size, RecordingParent())
        model = FieldModel(chunk_size)
        start = 0
        for datasets, create_buffer in calls:
            fields_list = []
            for rows, with_y in datasets:
                ind = list(range(start, start + rows))
                start += rows
                fields_list.append(
                    {
                        "ind": ind,
                        "X": [(float(i * 8), float(i * 8 + 1)) for i in ind],
                        "y": [i * 2 + 0.5 for i in ind] if with_y else None,
                    }
                )
            records = [
                Dataset(
                    np.array(f["ind"], dtype=np.int64),
                    np.array(f["X"], dtype=float).reshape(len(f["ind"]), 2),
                    None if f["y"] is None else np.array(f["y"], dtype=float),
                )
                for f in fields_list
            ]
            real = layer.process(records, create_buffer)
            expected = model.process(fields_list, create_buffer)
            while True:
                try:
                    want = next(expected)
                except ValueError:
                    # The buffer stays as the model had it before the refused dataset (checked below).
                    with pytest.raises(ValueError):
                        next(real)
                    with pytest.raises(StopIteration):
                        next(real)
                    break
                except StopIteration:
                    with pytest.raises(StopIteration):
                        next(real)
                    break
                node = next(real)
                kind, fields = want
                assert fields_of(node.dset) == fields
                assert node.node_id == (None if kind == "chunk" else chunk_layer.BUFFER_NODE_ID)
            assert layer.chunk_index == model.chunk_index
            assert layer.has_buffer() == model.has_buffer()
            if model.buffer is None:
                assert layer.buffer is None
            else:
                assert fields_of(layer.buffer) == model.buffer


@PROPERTY
@given(
    chunk_size=st.integers(1, 6),
    sizes=st.lists(st.integers(0, 9), max_size=5),
    stops=st.lists(st.integers(0, 4), max_size=5),
)
def test_abandoned_generators_keep_what_their_steps_did(chunk_size, sizes, stops):
    """Taking only a few nodes from each call and dropping the generator loses no row: the rows not yet
    cut stay in the buffer for the next call, and the counter has grown by the chunks cut."""
    with pytest.MonkeyPatch.context() as mp:
        patch_node_class(chunk_layer, mp)
        shape = Shape(2, True, False, False, 0)
        stream = Stream(chunk_size, None, shape)
        pending = list(sizes)
        cut: List[Row] = []
        for stop in stops + [None]:
            datasets = [stream.fresh_rows(n) for n in pending]

            def feed(datasets=datasets) -> Iterator[Dataset]:
                for rows in datasets:
                    stream.fed.extend(r.ind for r in rows)
                    yield to_dataset(rows, shape)

            real = stream.layer.process(feed(), create_buffer=False)
            expected = stream.model.process(datasets, create_buffer=False)
            taken = 0
            for node in real:
                kind, rows = next(expected)
                assert rows_from(node.dset) == rows
                cut.extend(rows)
                taken += 1
                if stop is not None and taken >= stop:
                    break
            else:
                assert next(expected, None) is None
            del real, expected
            assert stream.layer.chunk_index == stream.model.chunk_index == len(cut) // chunk_size
            assert layer_rows(stream.layer) == stream.model.rows()
            pending = [] if stop is None else [0]
        # The last call drained everything that fills a chunk; the rest waits in the buffer.
        assert [r.ind for r in cut] + [r.ind for r in stream.model.rows()] == stream.fed
        assert stream.layer.get_buffer_size() < chunk_size
