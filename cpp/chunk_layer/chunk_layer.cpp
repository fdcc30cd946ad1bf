// The chunk layer: its buffer of samples that do not fill a chunk yet, the cutting of incoming
// datasets into chunk nodes (in order, or on the shared task pool), the buffer node, and the
// work on chunks already built (rebuild by id, filtering with a caller's predicate).
#include <optional>

#include "chunk_layer/callables.hpp"
#include "chunk_layer/docstrings.hpp"
#include "chunk_layer/names.hpp"
#include "support/ndarray.hpp"
#include "support/py_generator.hpp"

namespace chunk_layer {

namespace {

using py::Call;
using py::Default;
using py::Handle;
using py::Ref;

const py::Str kGetRemoved{"get_removed"};
const py::Str kUpdateBuildParams{"update_build_params"};
const py::Str kGetByNodes{"get_by_nodes"};
const py::Str kVerbose{"verbose"};
const py::Str kNInstances{"n_instances"};
const py::Str kNJobs{"n_jobs"};
const py::Str kGet{"get"};
const py::Str kTime{"time"};
const py::Str kLocaltime{"localtime"};
const py::Str kStrftime{"strftime"};
const py::Str kIsSimpleChunkSize{"is_simple_chunk_size"};
const py::Str kAddToQueue{"add_to_queue"};
const py::Str kHasRunningTasks{"has_running_tasks"};
const py::Str kChain{"chain"};
const py::Str kDtypeName{"dtype"};
const py::Str kFloat32{"float32"};
const py::Str kEmpty{""};
const py::Str kTimeFormat{"%Y-%m-%d %H:%M:%S"};
const py::Str kThreeDecimals{".3f"};
const py::Str kCompleted{" Completed chunk #"};
const py::Str kOutOf{" out of "};
const py::Str kChunks{" chunks"};
const py::Str kBuiltIn{", \033[33m(chunk was built in "};
const py::Str kSecondsReset{" seconds)\033[00m"};
const py::Str kNumberOfFeatures{"number_of_features"};
const py::Str kNumberOfFeaturesOrig{"number_of_features_orig"};
const py::Str kNumberOfSamples{"number_of_samples"};
const py::Str kTargetsUniqueCount{"targets_unique_count"};
const py::Str kSizeBytes{"size_bytes"};
const py::Str kSizeMB{"size_MB"};
const py::Int kZero{0};
const py::Int kOne{1};
const py::Int kBytesPerMegabyte{1048576};
const py::KeywordNames kNodeKeywords{"dset", "params", "node_id", "data_manager"};
const py::KeywordNames kLeafIndexKeyword{"leaf_node_index"};
const py::KeywordNames kWithPropsKeyword{"with_props"};
const py::KeywordNames kBatchSizeKeywords{"n_features", "available", "dtype"};

// ---- buffer ---------------------------------------------------------------------------------

// array.shape[axis]
Ref shape_item(Handle array, int axis) {
    if (auto dimension = py::ndarray_dimension(array, axis)) return py::size(*dimension);
    return py::item(py::getattr(array, name::shape), axis);
}

// dataset[1].shape[0], the number of rows of X: a plain number when X is an exact ndarray,
// else the object Python's subscript gives.
class Rows {
  public:
    explicit Rows(Handle dataset) {
        Ref X = py::item(dataset, 1);
        count_ = py::ndarray_dimension(X, 0);
        if (!count_) boxed_ = py::item(py::getattr(X, name::shape), 0);
    }

    Ref value() const { return count_ ? py::size(*count_) : boxed_; }

    // rows <op> other, as Python compares them; between two plain numbers, without boxing.
    Ref compare(Handle other, int op) const {
        if (count_ && PyLong_CheckExact(other.get())) {
            int overflow = 0;
            const long long bound = PyLong_AsLongLongAndOverflow(other.get(), &overflow);
            if (overflow == 0) return Ref::boolean(py::compare_numbers(*count_, bound, op));
        }
        return py::compare(value(), other, op);
    }

  private:
    std::optional<Py_ssize_t> count_;
    Ref boxed_;
};

Ref init(const Call& call) {
    // Both exact-type checks come before any attribute exists, chunk_size first.
    py::require_exact_type(call[3], &PyLong_Type, "chunk_size", true);
    py::require_exact_type(call[5], &PyLong_Type, "chunk_index", true);
    Handle self = call[0];
    py::setattr(self, name::build_params, Py_None);
    py::setattr(self, name::chunk_corset_params, call[2]);
    py::setattr(self, name::buffer, Py_None);
    py::setattr(self, name::chunk_size, call[3]);
    py::setattr(self, name::data_manager, call[1]);
    py::setattr(self, name::parent, call[4]);
    py::setattr(self, name::chunk_index,
                Ref::borrow(call[5].is_none() ? kZero.get() : call[5].get()));
    return Ref::none();
}

Ref has_buffer(const Call& call) {
    Handle self = call[0];
    if (py::getattr(self, name::buffer).is_none()) return Ref::boolean(false);
    // Returned as the comparison gives it: a buffer whose X has no rows counts as none.
    return Rows(py::getattr(self, name::buffer)).compare(kZero, Py_GT);
}

bool buffer_present(Handle self) {
    return py::truth(py::call_method(self, name::has_buffer));
}

// exclude_removed(removed, buffer.ind, buffer), unpacked into (indices, dataset): the dataset.
Ref buffer_without(const Call& call, Handle removed) {
    Handle self = call[0];
    Ref exclude = py::global(call, global::exclude_removed);
    Ref buffer_ind = py::getattr(py::getattr(self, name::buffer), name::ind);
    Ref result = py::call(exclude, removed, buffer_ind, py::getattr(self, name::buffer));
    auto [indices, dataset] = py::unpack<2>(result);
    return dataset;
}

Ref get_buffer(const Call& call) {
    Handle self = call[0];
    if (!buffer_present(self)) return Ref::none();
    Ref removed_indices = py::call_method(py::getattr(self, name::data_manager), kGetRemoved);
    return buffer_without(call, removed_indices);
}

Ref set_buffer(const Call& call) {
    Handle self = call[0];
    Handle buffer = call[1];
    if (buffer.is_none()) {
        py::setattr(self, name::buffer, Py_None);
    } else {
        Ref dataset_type = py::global(call, global::Dataset);
        py::setattr(self, name::buffer, py::call_unpacked(dataset_type, buffer));
    }
    return Ref::none();
}

Ref add_to_buffer(const Call& call) {
    Handle self = call[0];
    Handle dataset = call[1];
    if (buffer_present(self)) {
        // Field by field, stopping at the shorter record; an incoming None keeps the buffered
        // field, anything else is appended after the buffered rows.
        Ref buffered_fields = py::iter(py::getattr(self, name::buffer));
        Ref incoming_fields = py::iter(dataset);
        Ref concatenate;
        py::TupleBuilder joined;
        while (true) {
            Ref buffered = py::next(buffered_fields);
            if (!buffered) break;
            Ref incoming = py::next(incoming_fields);
            if (!incoming) break;
            if (incoming.is_none()) {
                joined.append(std::move(buffered));
                continue;
            }
            if (!concatenate) {
                concatenate = py::getattr(py::global(call, global::np), name::concatenate);
            }
            joined.append(py::call(concatenate, py::tuple(buffered, incoming)));
        }
        py::setattr(self, name::buffer, joined.build());
    } else {
        py::setattr(self, name::buffer, py::as_tuple(dataset));
    }
    Ref dataset_type = py::global(call, global::Dataset);
    py::setattr(self, name::buffer,
                py::call_unpacked(dataset_type, py::getattr(self, name::buffer)));
    py::call_method(py::getattr(self, name::parent), kUpdateBuildParams);
    return Ref::none();
}

Ref remove_from_buffer(const Call& call) {
    Handle self = call[0];
    if (!buffer_present(self)) return Ref::none();
    Ref dataset = buffer_without(call, call[1]);
    // Re-wrapped as a new record even when nothing was dropped.
    py::call_method(self, name::set_buffer, dataset);
    return Ref::none();
}

Ref get_buffer_size(const Call& call) {
    Handle self = call[0];
    if (!buffer_present(self)) return Ref::borrow(kZero);
    // Every buffered row counts, including rows the data manager reports as removed.
    return Rows(py::getattr(self, name::buffer)).value();
}

Ref update_buffer(const Call& call) {
    Handle self = call[0];
    if (!buffer_present(self)) return Ref::none();
    Ref align = py::global(call, global::align_arrays_by_key);
    Ref keys = py::tuple(py::getattr(py::getattr(self, name::buffer), name::ind));
    Ref aligned = py::call(align, keys, py::tuple(call[1], call[2], call[3]));
    auto [unused_keys, arrays] = py::unpack<2>(aligned);
    auto [indices, X, y] = py::unpack<3>(arrays);
    Ref in1d = membership_test(py::global(call, global::np));
    Ref mask = py::call(in1d, py::getattr(py::getattr(self, name::buffer), name::ind), indices);
    // In place, through the mask: y first, then X.
    if (!y.is_none()) {
        py::set_item(py::getattr(py::getattr(self, name::buffer), name::y), mask, y);
    }
    if (!X.is_none()) {
        py::set_item(py::getattr(py::getattr(self, name::buffer), name::X), mask, X);
    }
    return Ref::none();
}

// ---- node creation and progress ---------------------------------------------------------------

// ChunkNode(dset=..., params=self.chunk_corset_params, node_id=..., data_manager=...).build()
Ref build_node(const Call& call, Handle dset, Handle node_id) {
    Handle self = call[0];
    Ref node_type = py::global(call, global::ChunkNode);
    Ref params = py::getattr(self, name::chunk_corset_params);
    Ref data_manager = py::getattr(self, name::data_manager);
    Ref node = py::call_keywords(node_type, 0, kNodeKeywords, dset, params, node_id, data_manager);
    return py::call_method(node, name::build);
}

Ref now(const Call& call) {
    return py::call_method(py::global(call, global::time), kTime);
}

Ref rebuild_node(const Call& call) {
    return build_node(call, call[1], call[2]);
}

Ref create_node(const Call& call) {
    Handle self = call[0];
    Handle leaf_node_index = call[3];
    Ref started = now(call);
    Ref chunk_node = build_node(call, call[1], call[2]);
    Ref chunk_build_time = py::subtract(now(call), started);
    Ref verbose = py::getattr(py::getattr(self, name::data_manager), kVerbose);
    if (py::compare_truth(verbose, kZero, Py_GT) && !leaf_node_index.is_none()) {
        py::call_method(self, name::_print_progress, chunk_build_time, leaf_node_index);
    }
    return chunk_node;
}

// n_instances // build_params["chunk_size"], read afresh each time.
Ref expected_chunks(Handle self) {
    Ref n_instances = py::getattr(py::getattr(self, name::data_manager), kNInstances);
    Ref chunk_size = py::item(py::getattr(self, name::build_params), name::chunk_size);
    return py::floor_divide(n_instances, chunk_size);
}

Ref print_progress(const Call& call) {
    Handle self = call[0];
    Handle chunk_build_time = call[1];
    Handle leaf_node_index = call[2];
    Handle one = kOne;
    Handle zero = kZero;

    // " out of N chunks", or nothing.
    Ref chunk_count;
    if (!py::getattr(py::getattr(self, name::data_manager), kNInstances).is_none() &&
        py::compare_truth(
            py::call_method(py::getattr(self, name::build_params), kGet, name::chunk_size, zero),
            zero, Py_GT)) {
        // The trailing partial chunk lies beyond the expected count and shows no total.
        Ref number = py::add(leaf_node_index, one);
        if (py::compare_truth(number, expected_chunks(self), Py_LE)) {
            chunk_count = Ref::steal(PyObject_Format(expected_chunks(self).get(), kEmpty.get()));
        }
    }
    Ref time_module = py::global(call, global::time);
    Ref local_time = py::call_method(time_module, kLocaltime);
    Ref ct = py::call_method(time_module, kStrftime, kTimeFormat, local_time);

    Ref number = py::add(leaf_node_index, one);
    Ref time_text = Ref::steal(PyObject_Format(ct.get(), kEmpty.get()));
    Ref number_text = Ref::steal(PyObject_Format(number.get(), kEmpty.get()));
    Ref build_time = Ref::steal(PyObject_Format(chunk_build_time.get(), kThreeDecimals.get()));
    Ref line =
        chunk_count
            ? py::concat({time_text, kCompleted, number_text, kOutOf, chunk_count, kChunks,
                          kBuiltIn, build_time, kSecondsReset})
            : py::concat({time_text, kCompleted, number_text, kBuiltIn, build_time, kSecondsReset});
    py::call(py::global(call, global::print), line);
    return Ref::none();
}

Ref create_buffer_node(const Call& call) {
    Handle self = call[0];
    Handle callback = call[1];
    if (!buffer_present(self)) return Ref::none();
    Ref dataset_type = py::global(call, global::Dataset);
    Ref dset = py::call_unpacked(dataset_type, py::getattr(self, name::buffer));
    Ref node =
        py::call_method(self, name::_create_node, dset, py::global(call, global::BUFFER_NODE_ID));
    // The buffer node's callback never gets a leaf index.
    if (py::truth(callback)) py::call(callback, node, Py_None);
    return node;
}

// ---- draining -----------------------------------------------------------------------------

// The inner functions of the drain capture the layer, the callback and the element type.
enum Captured { kSelf, kCallback, kDtype };

Ref create_leaf_node(const Call& call) {
    Handle self = PyTuple_GET_ITEM(call.closure, kSelf);
    Handle callback = PyTuple_GET_ITEM(call.closure, kCallback);
    Handle leaf_node_index = call[1];
    Ref create = py::getattr(self, name::_create_node);
    Ref chunk_node = py::call_keywords(create, 1, kLeafIndexKeyword, call[0], leaf_node_index);
    if (!callback.is_none()) py::call(callback, chunk_node, leaf_node_index);
    return Ref::none();
}

Ref check_memory_available(const Call& call) {
    Handle dtype = PyTuple_GET_ITEM(call.closure, kDtype);
    Handle buff = call[0];
    Ref evaluate = py::global(call, global::evaluate_max_batch_size);
    Ref n_features = shape_item(py::getattr(buff, name::X), 1);
    Ref max_batch_size =
        py::call_keywords(evaluate, 0, kBatchSizeKeywords, n_features, Py_True, dtype);
    Ref rows = shape_item(py::getattr(buff, name::X), 0);
    // A chunk that does not fit waits only while other builds are running.
    if (py::compare_truth(max_batch_size, rows, Py_LT)) {
        Ref pool = py::call(py::global(call, global::ThreadPoolManager));
        if (py::truth(py::call_method(pool, kHasRunningTasks))) return Ref::boolean(false);
    }
    return Ref::boolean(true);
}

constexpr py::Parameter kLeafParameters[] = {{"buff"}, {"leaf_node_index"}};
const py::FunctionDef kCreateLeafNode{"_create_leaf_node",
                                      "ChunkLayer._get_from_buffer.<locals>._create_leaf_node",
                                      nullptr,
                                      kLeafParameters,
                                      nullptr,
                                      create_leaf_node};
const py::FunctionDef kCheckMemoryAvailable{
    "_check_memory_available",
    "ChunkLayer._get_from_buffer.<locals>._check_memory_available",
    nullptr,
    kLeafParameters,
    nullptr,
    check_memory_available};

// The element type named by the first parameter record, "float32" when there is none. Any
// error of the Exception family in the lookup gives "float32"; it is an ordinary outcome (no
// parameter records at all), so it is handled without throwing.
Ref chunk_dtype(Handle self) {
    auto looked_up = [&]() -> Ref {
        Ref params =
            Ref::steal_or_null(PyObject_GetAttr(self.get(), name::chunk_corset_params.get()));
        if (!params) return params;
        Ref iterator = Ref::steal_or_null(PyObject_GetIter(params.get()));
        if (!iterator) return iterator;
        Ref first = Ref::steal_or_null(PyIter_Next(iterator.get()));
        if (!first) {
            if (!PyErr_Occurred()) PyErr_SetNone(PyExc_StopIteration);
            return first;
        }
        Ref coreset_params =
            Ref::steal_or_null(PyObject_GetAttr(first.get(), name::coreset_params.get()));
        if (!coreset_params) return coreset_params;
        Ref get = Ref::steal_or_null(PyObject_GetAttr(coreset_params.get(), kGet.get()));
        if (!get) return get;
        return Ref::steal_or_null(
            PyObject_CallFunctionObjArgs(get.get(), kDtypeName.get(), kFloat32.get(), nullptr));
    };
    Ref dtype = looked_up();
    if (dtype) return dtype;
    if (!PyErr_ExceptionMatches(PyExc_Exception)) throw py::Error{};
    PyErr_Clear();
    return Ref::borrow(kFloat32);
}

// Dataset(*(a[start:stop] if a is not None else None for a in buffer)), the bounds read afresh
// for every field.
Ref slice_buffer(const Call& call, Handle buffer, bool head) {
    Handle self = call[0];
    Ref dataset_type = py::global(call, global::Dataset);
    auto cut = [&](Ref field) -> Ref {
        if (field.is_none()) return field;
        Ref bound = py::getattr(self, name::chunk_size);
        Ref range = Ref::steal(head ? PySlice_New(nullptr, bound.get(), nullptr)
                                    : PySlice_New(bound.get(), nullptr, nullptr));
        return py::item(field, range);
    };
    if (py::iterates_as_tuple(buffer.get())) {
        // A record: its fields in place, and the new record's tuple made at its final size.
        const Py_ssize_t count = PyTuple_GET_SIZE(buffer.get());
        Ref fields = Ref::steal(PyTuple_New(count));
        for (Py_ssize_t i = 0; i < count; ++i) {
            Ref part = cut(Ref::borrow(PyTuple_GET_ITEM(buffer.get(), i)));
            PyTuple_SET_ITEM(fields.get(), i, part.release());
        }
        return py::call_tuple(dataset_type, fields);
    }
    py::TupleBuilder fields;
    Ref field_iterator = py::iter(buffer);
    while (Ref field = py::next(field_iterator)) fields.append(cut(std::move(field)));
    return py::call_tuple(dataset_type, fields.build());
}

// self.buffer[1].shape[0] >= self.chunk_size, the left side read first.
bool holds_a_chunk(Handle self) {
    const Rows rows(py::getattr(self, name::buffer));
    return py::truth(rows.compare(py::getattr(self, name::chunk_size), Py_GE));
}

bool parallel_mode(Handle self) {
    if (py::getattr(py::getattr(self, name::data_manager), kNJobs).is_none()) return false;
    Ref n_jobs = py::getattr(py::getattr(self, name::data_manager), kNJobs);
    return py::compare_truth(n_jobs, kOne, Py_GT);
}

void increment_chunk_index(Handle self) {
    Ref next_index = py::in_place_add(py::getattr(self, name::chunk_index), kOne);
    py::setattr(self, name::chunk_index, next_index);
}

// Whether the drain cuts chunks at all: chunk_size is a plain row count, or 0.
bool cuts_chunks(const Call& call) {
    Handle self = call[0];
    Ref utils = py::global(call, global::utils);
    return py::truth(
               py::call_method(utils, kIsSimpleChunkSize, py::getattr(self, name::chunk_size))) ||
           py::compare_truth(py::getattr(self, name::chunk_size), kZero, Py_EQ);
}

// One chunk cut off the buffer and handed on: queued on the task pool (None is returned) or built
// here (the node is returned).
Ref drain_one_chunk(const Call& call, Handle ignore_chunk_size, Handle dtype) {
    Handle self = call[0];
    Handle callback = call[1];
    Ref buffer;
    if (py::truth(ignore_chunk_size)) {
        buffer = py::getattr(self, name::buffer);
        py::setattr(self, name::buffer, Py_None);
    } else {
        buffer = slice_buffer(call, py::getattr(self, name::buffer), true);
        py::setattr(self, name::buffer, slice_buffer(call, py::getattr(self, name::buffer), false));
    }

    if (parallel_mode(self)) {
        Ref captured = py::tuple(self, callback, dtype);
        Ref create = py::make_function(kCreateLeafNode, module_name, call.globals, captured);
        Ref check = py::make_function(kCheckMemoryAvailable, module_name, call.globals, captured);
        Ref pool = py::call(py::global(call, global::ThreadPoolManager));
        py::call_method(pool, kAddToQueue, create, check, kZero, buffer,
                        py::getattr(self, name::chunk_index));
        increment_chunk_index(self);
        return Ref::none();
    }
    Ref create = py::getattr(self, name::_create_node);
    Ref node = py::call_keywords(create, 1, kLeafIndexKeyword, buffer,
                                 py::getattr(self, name::chunk_index));
    // Sequential mode hands the callback no leaf index.
    if (!callback.is_none()) py::call(callback, node, Py_None);
    increment_chunk_index(self);
    py::truth(py::getattr(self, name::build_params));
    return node;
}

py::Coroutine get_from_buffer_body(const Call& call) {
    Handle self = call[0];
    if (!cuts_chunks(call)) co_return;  // not a row count: everything waits for the buffer node
    const py::Held ignore_chunk_size(
        call, py::compare(py::getattr(self, name::chunk_size), kZero, Py_EQ));
    const py::Held dtype(call, chunk_dtype(self));
    while (buffer_present(self) && (py::truth(ignore_chunk_size) || holds_a_chunk(self))) {
        co_yield drain_one_chunk(call, ignore_chunk_size, dtype);
    }
}

Ref get_from_buffer(const Call& call) {
    return py::make_generator(call, 2, get_from_buffer_body);
}

// ---- processing ---------------------------------------------------------------------------

Ref byte_size(Handle dset) {
    Ref total = Ref::borrow(kZero);
    Ref field_iterator = py::iter(dset);
    while (Ref field = py::next(field_iterator)) {
        if (field.is_none()) continue;
        Ref elements = py::getattr(field, name::size);
        Ref element_bytes = py::getattr(field, name::itemsize);
        total = py::add(total, py::multiply(elements, element_bytes));
    }
    return total;
}

// The running statistics of one process call, kept by its body across its co_yields.
struct Statistics {
    explicit Statistics(const Call& call)
        : size_bytes(call, Ref::borrow(kZero)),
          number_of_features_orig(call, Ref::borrow(kZero)),
          number_of_samples(call, Ref::borrow(kZero)),
          targets_unique(call) {}

    py::Held size_bytes;
    py::Held number_of_features_orig;
    py::Held number_of_samples;
    py::Held targets_unique;
};

// One incoming dataset taken in: re-made as a record, counted, added to the buffer, and the
// layer's build_params replaced. Returns the record.
Ref take_in(const Call& call, Handle item, Statistics& statistics) {
    Handle self = call[0];
    Handle is_classification = call[3];
    Ref dataset_type = py::global(call, global::Dataset);
    Ref dset = py::call_unpacked(dataset_type, item);
    if (!py::getattr(dset, name::y).is_none() && py::truth(is_classification)) {
        Ref np = py::global(call, global::np);
        Ref pair = py::list(statistics.targets_unique, py::getattr(dset, name::y));
        Ref conc = py::call_method(np, name::concatenate, pair);
        Ref present = py::call(py::global(call, global::filter_missing_and_inf), conc);
        statistics.targets_unique =
            py::call_method(py::global(call, global::np), name::unique, present);
    }
    statistics.size_bytes = py::in_place_add(statistics.size_bytes, byte_size(dset));
    Ref number_of_features = shape_item(py::getattr(dset, name::X), 1);
    if (!py::getattr(dset, name::orig).is_none()) {
        statistics.number_of_features_orig = shape_item(py::getattr(dset, name::orig), 1);
    }
    statistics.number_of_samples = py::in_place_add(
        statistics.number_of_samples, py::size(py::length(py::getattr(dset, name::ind))));
    py::call_method(self, name::_add_to_buffer, dset);

    Ref build_params = py::new_dict();
    py::set_item(build_params, kNumberOfFeatures, number_of_features);
    py::set_item(build_params, kNumberOfFeaturesOrig, statistics.number_of_features_orig);
    py::set_item(build_params, kNumberOfSamples, statistics.number_of_samples);
    py::set_item(build_params, name::chunk_size, py::getattr(self, name::chunk_size));
    py::set_item(build_params, kTargetsUniqueCount,
                 py::size(py::length(statistics.targets_unique)));
    py::set_item(build_params, kSizeBytes, statistics.size_bytes);
    Ref megabytes = py::true_divide(statistics.size_bytes, kBytesPerMegabyte);
    py::set_item(build_params, kSizeMB, Ref::steal(PyObject_Str(megabytes.get())));
    py::setattr(self, name::build_params, build_params);
    return dset;
}

py::Coroutine process_body(const Call& call) {
    Handle self = call[0];
    Handle dsets = call[1];
    Handle create_buffer = call[2];
    Handle callback = call[4];

    Statistics statistics(call);
    statistics.targets_unique =
        py::call_method(py::global(call, global::np), name::array, py::new_list());

    py::Held items(call, py::iter(dsets));
    py::Held item(call);
    py::Held dset(call);
    py::Held drain(call);
    while ((item = py::next(items))) {
        dset = take_in(call, item, statistics);
        // A plain loop over a new drain: values sent or thrown into process stay here.
        drain = py::iter(py::call_method(self, name::_get_from_buffer, callback));
        while (Ref node = py::next(drain)) co_yield std::move(node);
        drain = Ref();
    }
    if (py::truth(create_buffer) && buffer_present(self)) {
        co_yield py::call_method(self, name::create_buffer_node, callback);
    }
}

Ref process(const Call& call) {
    return py::make_generator(call, 5, process_body);
}

// ---- rebuild and filtering ----------------------------------------------------------------

py::Coroutine rebuild_body(const Call& call) {
    Handle self = call[0];
    // A list iterator reads by position at every step, so later changes to the list are seen.
    py::Held chunk_ids(call, py::iter(call[1]));
    py::Held chunk_id(call);
    py::Held dset(call);
    while ((chunk_id = py::next(chunk_ids))) {
        if (py::compare_truth(chunk_id, py::global(call, global::BUFFER_NODE_ID), Py_EQ)) {
            dset = py::call_method(self, name::get_buffer);
        } else {
            Ref ids = py::list(chunk_id);
            dset = py::call_method(py::getattr(self, name::data_manager), kGetByNodes, ids);
        }
        co_yield py::call_method(self, name::_rebuild_node, dset, chunk_id);
    }
}

Ref rebuild(const Call& call) {
    // Checked by the call itself, before any generator exists.
    py::require_exact_type(call[1], &PyList_Type, "chunk_ids", false);
    return py::make_generator(call, 2, rebuild_body);
}

// lambda node_id: self.data_manager.get_by_nodes([node_id], with_props=True)
Ref fetch_with_props(const Call& call) {
    Handle self = call.closure;
    Ref data_manager = py::getattr(self, name::data_manager);
    // Making the list runs no code, so the method is looked up where the call needs it.
    Ref ids = py::list(call[0]);
    return py::call_method_keywords(data_manager, kGetByNodes, 1, kWithPropsKeyword, ids, Py_True);
}

constexpr py::Parameter kNodeIdParameters[] = {{"node_id"}};
const py::FunctionDef kFetchWithProps{"<lambda>", "ChunkLayer.filter_out_samples.<locals>.<lambda>",
                                      nullptr,    kNodeIdParameters,
                                      nullptr,    fetch_with_props};

Ref filter_out_samples(const Call& call) {
    Handle self = call[0];
    Handle filter_function = call[1];
    Ref np = py::global(call, global::np);
    Ref indexes_for_remove = py::call_method(np, name::array, py::new_list());

    Ref fetch = py::make_function(kFetchWithProps, module_name, call.globals, self);
    Ref datasets = py::call(py::global(call, global::map), fetch, call[2]);
    if (py::truth(call[3]) && buffer_present(self)) {
        Ref last = py::list(py::getattr(self, name::buffer));
        datasets = py::call_method(py::global(call, global::itertools), kChain, datasets, last);
    }
    Ref dataset_iterator = py::iter(datasets);
    while (Ref dset = py::next(dataset_iterator)) {
        Ref ind = py::getattr(dset, name::ind);
        Ref X = py::getattr(dset, name::X);
        Ref y = py::getattr(dset, name::y);
        Ref props = py::getattr(dset, name::props);
        Ref filtered_ind = py::call(filter_function, ind, X, y, props);
        if (py::length(filtered_ind) > 0) {
            Ref pair = py::list(indexes_for_remove, filtered_ind);
            indexes_for_remove =
                py::call_method(py::global(call, global::np), name::concatenate, pair);
        }
    }
    return indexes_for_remove;
}

constexpr py::Parameter kInitParameters[] = {
    {"self"},
    {"data_manager", Default::required, "DataManagerT"},
    {"chunk_corset_params", Default::none, "Iterable[ChunkSensitivitiesParams]"},
    {"chunk_size", Default::none, "Optional[int]"},
    {"parent", Default::none, "Optional[Any]"},
    {"chunk_index", Default::none, "int"}};
constexpr py::Parameter kSelfParameters[] = {{"self"}};
constexpr py::Parameter kSetBufferParameters[] = {
    {"self"}, {"buffer", Default::none, "Union[List[np.ndarray], Tuple[np.ndarray]]"}};
constexpr py::Parameter kAddToBufferParameters[] = {{"self"}, {"dataset"}};
constexpr py::Parameter kRemoveFromBufferParameters[] = {{"self"}, {"indices"}};
constexpr py::Parameter kRebuildNodeParameters[] = {
    {"self"}, {"dset", Default::required, "Dataset"}, {"node_id"}};
constexpr py::Parameter kCreateNodeParameters[] = {
    {"self"}, {"dset"}, {"node_id", Default::none}, {"leaf_node_index", Default::none}};
constexpr py::Parameter kPrintProgressParameters[] = {
    {"self"}, {"chunk_build_time"}, {"leaf_node_index"}};
constexpr py::Parameter kCallbackParameters[] = {{"self"},
                                                 {"after_create_leaf_node", Default::none}};
constexpr py::Parameter kProcessParameters[] = {{"self"},
                                                {"dsets", Default::none, "Iterator"},
                                                {"create_buffer", Default::true_value},
                                                {"is_classification", Default::false_value},
                                                {"after_create_leaf_node", Default::none}};
constexpr py::Parameter kUpdateBufferParameters[] = {
    {"self"}, {"indices"}, {"X", Default::none}, {"y", Default::none}};
constexpr py::Parameter kRebuildParameters[] = {{"self"},
                                                {"chunk_ids", Default::required, "List[str]"}};
constexpr py::Parameter kFilterOutSamplesParameters[] = {
    {"self"}, {"filter_function"}, {"node_ids"}, {"with_buffer", Default::true_value}};

const py::FunctionDef kInit{"__init__", "ChunkLayer.__init__", nullptr, kInitParameters, nullptr,
                            init};
const py::FunctionDef kHasBuffer{
    "has_buffer", "ChunkLayer.has_buffer", docs::kChunkLayerHasBuffer, kSelfParameters, nullptr,
    has_buffer};
const py::FunctionDef kGetBuffer{
    "get_buffer",    "ChunkLayer.get_buffer", docs::kChunkLayerGetBuffer,
    kSelfParameters, "Union[Dataset, None]",  get_buffer};
const py::FunctionDef kSetBuffer{"set_buffer",
                                 "ChunkLayer.set_buffer",
                                 docs::kChunkLayerSetBuffer,
                                 kSetBufferParameters,
                                 nullptr,
                                 set_buffer};
const py::FunctionDef kAddToBuffer{"_add_to_buffer",
                                   "ChunkLayer._add_to_buffer",
                                   docs::kChunkLayerAddToBuffer,
                                   kAddToBufferParameters,
                                   nullptr,
                                   add_to_buffer};
const py::FunctionDef kRemoveFromBuffer{"remove_from_buffer",
                                        "ChunkLayer.remove_from_buffer",
                                        nullptr,
                                        kRemoveFromBufferParameters,
                                        nullptr,
                                        remove_from_buffer};
const py::FunctionDef kRebuildNode{"_rebuild_node", "ChunkLayer._rebuild_node",
                                   nullptr,         kRebuildNodeParameters,
                                   nullptr,         rebuild_node};
const py::FunctionDef kCreateNode{"_create_node",
                                  "ChunkLayer._create_node",
                                  docs::kChunkLayerCreateNode,
                                  kCreateNodeParameters,
                                  "ChunkNode",
                                  create_node};
const py::FunctionDef kPrintProgress{"_print_progress",
                                     "ChunkLayer._print_progress",
                                     docs::kChunkLayerPrintProgress,
                                     kPrintProgressParameters,
                                     nullptr,
                                     print_progress};
const py::FunctionDef kGetBufferSize{"get_buffer_size",
                                     "ChunkLayer.get_buffer_size",
                                     docs::kChunkLayerGetBufferSize,
                                     kSelfParameters,
                                     nullptr,
                                     get_buffer_size};
const py::FunctionDef kCreateBufferNode{"create_buffer_node",
                                        "ChunkLayer.create_buffer_node",
                                        docs::kChunkLayerCreateBufferNode,
                                        kCallbackParameters,
                                        nullptr,
                                        create_buffer_node};
const py::FunctionDef kGetFromBuffer{"_get_from_buffer",
                                     "ChunkLayer._get_from_buffer",
                                     docs::kChunkLayerGetFromBuffer,
                                     kCallbackParameters,
                                     nullptr,
                                     get_from_buffer,
                                     true};
const py::FunctionDef kProcess{
    "process", "ChunkLayer.process", docs::kChunkLayerProcess, kProcessParameters, nullptr, process,
    true};
const py::FunctionDef kUpdateBuffer{"update_buffer", "ChunkLayer.update_buffer",
                                    nullptr,         kUpdateBufferParameters,
                                    nullptr,         update_buffer};
const py::FunctionDef kRebuild{
    "rebuild", "ChunkLayer.rebuild", nullptr, kRebuildParameters, nullptr, rebuild, true};
const py::FunctionDef kFilterOutSamples{"filter_out_samples",
                                        "ChunkLayer.filter_out_samples",
                                        nullptr,
                                        kFilterOutSamplesParameters,
                                        nullptr,
                                        filter_out_samples};

const py::FunctionDef* const kMethods[] = {
    &kInit,          &kHasBuffer,        &kGetBuffer,        &kSetBuffer,
    &kAddToBuffer,   &kRemoveFromBuffer, &kRebuildNode,      &kCreateNode,
    &kPrintProgress, &kGetBufferSize,    &kCreateBufferNode, &kGetFromBuffer,
    &kProcess,       &kUpdateBuffer,     &kRebuild,          &kFilterOutSamples};

}  // namespace

const ClassDef chunk_layer_class{"ChunkLayer", docs::kChunkLayer, kMethods};

}  // namespace chunk_layer
