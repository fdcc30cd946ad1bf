// The chunk node: one chunk of samples and the coresets built on it, and the module-level
// function exclude_removed that drops removed samples from an index array and its dataset.
#include "chunk_layer/callables.hpp"
#include "chunk_layer/docstrings.hpp"
#include "chunk_layer/names.hpp"

namespace chunk_layer {
namespace {

using py::Call;
using py::Default;
using py::Handle;
using py::Ref;

const py::Str kHex{"hex"};
const py::Str kSafeMode{"safe_mode"};
const py::Str kCoresetCls{"coreset_cls"};
const py::Str kCatEncodingConfigClear{"cat_encoding_config_clear"};
const py::Str kDataParams{"data_params"};
const py::Str kDataParamsInternal{"data_params_internal"};
const py::Str kFeatures{"features"};
const py::Str kName{"name"};
const py::Str kCategoricalFeatures{"categorical_features_"};
const py::Str kAggregatedMissingReplacements{"aggregated_missing_replacements"};
const py::Str kDropRowsBelow{"drop_rows_below"};
const py::Str kDropColsAbove{"drop_cols_above"};
const py::Str kHandleMissing{"handle_missing_and_categorical_encoding"};
const py::Str kGetProcessedArrays{"get_processed_arrays"};
const py::Str kComputeSensitivities{"compute_sensitivities"};
const py::Str kToDict{"to_dict"};
const py::Str kRemovedRows{"removed_rows"};
const py::Str kFeatureNames{"feature_names"};
const py::Str kAppend{"append"};
const py::Str kSaveSelectedSamplesAsync{"save_selected_samples_async"};
const py::KeywordNames kDtypeKeyword{"dtype"};
const py::KeywordNames kSparseThresholdKeyword{"sparse_threshold"};
const py::KeywordNames kProcessorKeywords{"X",
                                          "y",
                                          "ind",
                                          "props",
                                          "categorical_features",
                                          "feature_names",
                                          "cat_encoding_config",
                                          "missing_replacement",
                                          "drop_rows_below",
                                          "drop_cols_above"};
const py::KeywordNames kReplaceKeywords{"X", "y", "ind", "props"};
const py::KeywordNames kSensitivitiesKeywords{"X", "y"};
const py::KeywordNames kToDictKeywords{"with_important", "use_keep_selected_only"};
const py::KeywordNames kChunkSensitivitiesKeywords{"coreset", "params", "removed_rows",
                                                   "no_features"};
const py::KeywordNames kIsBufferKeyword{"is_buffer"};

// ---- exclude_removed ----------------------------------------------------------------------

}  // namespace

py::Ref membership_test(Handle np) {
    Ref in1d = Ref::steal_or_null(PyObject_GetAttr(np.get(), name::in1d.get()));
    if (in1d) return in1d;
    if (!PyErr_ExceptionMatches(PyExc_AttributeError)) throw py::Error{};
    PyErr_Clear();
    return py::getattr(np, name::isin);
}

namespace {

Ref exclude_removed_body(const Call& call) {
    Handle removed = call[0];
    Ref indices = Ref::borrow(call[1]);
    Handle dataset = call[2];

    Ref mask;
    if (!removed.is_none() && py::length(removed) > 0) {
        Ref np = py::global(call, global::np);
        mask = py::invert(py::call(membership_test(np), indices, removed));
        // With every index removed the indices stay as they were; only the dataset shrinks.
        if (py::truth(py::call_method(np, name::any, mask))) indices = py::item(indices, mask);
    }
    if (dataset.is_none()) return indices;
    if (!mask) return py::tuple(indices, dataset);

    Ref dataset_type = py::global(call, global::Dataset);
    Ref fields = py::new_list();
    py::for_each(dataset, [&](Ref field) {
        py::append(fields, field.is_none() ? field : py::item(field, mask));
    });
    return py::tuple(indices, py::call_unpacked(dataset_type, fields));
}

constexpr py::Parameter kExcludeRemovedParameters[] = {
    {"removed"}, {"indices"}, {"dataset", Default::none}};

// ---- ChunkNode ----------------------------------------------------------------------------

Ref init(const Call& call) {
    Handle self = call[0];
    Handle node_id = call[3];
    py::setattr(self, name::params, Ref::steal(PySequence_List(call[2].get())));
    py::setattr(self, name::dset, call[1]);
    if (py::truth(node_id)) {
        py::setattr(self, name::node_id, node_id);
    } else {
        py::setattr(self, name::node_id,
                    py::getattr(py::call(py::global(call, global::uuid4)), kHex));
    }
    py::setattr(self, name::tree_build_params, call[4]);
    Ref array = py::getattr(py::global(call, global::np), name::array);
    py::setattr(self, name::indices,
                py::call_keywords(array, 1, kDtypeKeyword, py::new_list(),
                                  reinterpret_cast<PyObject*>(&PyLong_Type)));
    py::setattr(self, name::sensitivities, py::new_list());
    py::setattr(self, name::coresets, py::new_list());
    py::setattr(self, name::data_manager, call[5]);
    return Ref::none();
}

Ref is_buffer(const Call& call) {
    Ref node_id = py::getattr(call[0], name::node_id);
    return py::compare(node_id, py::global(call, global::BUFFER_NODE_ID), Py_EQ);
}

Ref instantiate_coreset(const Call& call) {
    Handle self = call[0];
    Handle coreset_cls = call[1];
    Handle coreset_params = call[2];
    // The class gets a keyword dict of its own, so the caller's mapping never changes.
    Ref keywords;
    if (!py::truth(coreset_params)) {
        keywords = py::new_dict();
    } else if (PyDict_Check(coreset_params.get())) {
        keywords = Ref::steal(PyDict_Copy(coreset_params.get()));
    } else {
        keywords = py::call(reinterpret_cast<PyObject*>(&PyDict_Type), coreset_params);
    }
    Ref coreset = Ref::steal(PyObject_Call(coreset_cls.get(), py::tuple().get(), keywords.get()));
    // Only the buffer node's coresets run in safe mode.
    if (py::truth(py::call_method(self, name::is_buffer))) {
        py::setattr(coreset, kSafeMode, Py_True);
    }
    return coreset;
}

Ref build_one(const Call& call, Handle cor_params) {
    Handle self = call[0];
    // Arguments are read into locals first: C++ leaves the order of call arguments open, and
    // collaborators must see their attributes read in Python's left-to-right order.
    Ref coreset_cls = py::getattr(cor_params, kCoresetCls);
    Ref coreset_params = py::getattr(cor_params, name::coreset_params);
    Ref coreset = py::call_method(self, name::_instantiate_coreset, coreset_cls, coreset_params);
    Ref cat_encoding_config =
        py::call_method(py::getattr(self, name::data_manager), kCatEncodingConfigClear);

    // The ten keywords are evaluated in their order; the feature names take the sixth place.
    Ref processor_type = py::global(call, global::DataAutoProcessor);
    Ref X = py::getattr(py::getattr(self, name::dset), name::X);
    Ref y = py::getattr(py::getattr(self, name::dset), name::y);
    Ref ind = py::getattr(py::getattr(self, name::dset), name::ind);
    Ref props = py::getattr(py::getattr(self, name::dset), name::props);
    Ref categorical_features =
        py::getattr(py::getattr(py::getattr(self, name::data_manager), kDataParamsInternal),
                    kCategoricalFeatures);
    Ref feature_names = py::new_list();
    Ref features =
        py::getattr(py::getattr(py::getattr(self, name::data_manager), kDataParams), kFeatures);
    py::for_each(features,
                 [&](Ref feature) { py::append(feature_names, py::getattr(feature, kName)); });
    Ref missing_replacement =
        py::getattr(py::getattr(py::getattr(self, name::data_manager), kDataParamsInternal),
                    kAggregatedMissingReplacements);
    Ref drop_rows_below = py::getattr(
        py::getattr(py::getattr(self, name::data_manager), kDataParams), kDropRowsBelow);
    Ref drop_cols_above = py::getattr(
        py::getattr(py::getattr(self, name::data_manager), kDataParams), kDropColsAbove);
    Ref processor = py::call_keywords(processor_type, 0, kProcessorKeywords, X, y, ind, props,
                                      categorical_features, feature_names, cat_encoding_config,
                                      missing_replacement, drop_rows_below, drop_cols_above);

    Ref zero = py::integer(0);
    Ref X_processed =
        py::call_method_keywords(processor, kHandleMissing, 0, kSparseThresholdKeyword, zero);

    Ref replace = py::getattr(py::getattr(self, name::dset), name::_replace);
    Ref processed_X = py::getattr(processor, name::X);
    Ref processed_y = py::getattr(processor, name::y);
    Ref processed_ind = py::getattr(processor, name::ind);
    Ref processed_props = py::getattr(processor, name::props);
    py::setattr(self, name::dset,
                py::call_keywords(replace, 0, kReplaceKeywords, processed_X, processed_y,
                                  processed_ind, processed_props));

    auto [y_processed, unused_second, unused_third] =
        py::unpack<3>(py::call_method(processor, kGetProcessedArrays), py::TooFew::need_more);

    py::call_method_keywords(coreset, kComputeSensitivities, 0, kSensitivitiesKeywords, X_processed,
                             y_processed);

    Ref record_type = py::global(call, global::ChunkSensitivities);
    Ref coreset_dict =
        py::call_method_keywords(coreset, kToDict, 0, kToDictKeywords, Py_True, Py_False);
    Ref removed_rows = py::getattr(processor, kRemovedRows);
    Ref no_features = py::size(py::length(py::getattr(processor, kFeatureNames)));
    Ref record = py::call_keywords(record_type, 0, kChunkSensitivitiesKeywords, coreset_dict,
                                   cor_params, removed_rows, no_features);
    Ref coresets = py::getattr(self, name::coresets);
    py::call_method(coresets, kAppend, record);
    return record;
}

Ref build(const Call& call) {
    Ref params = py::getattr(call[0], name::params);
    py::for_each(params, [&](Ref cor_params) { build_one(call, cor_params); });
    return Ref::borrow(call[0]);
}

Ref save(const Call& call) {
    Handle self = call[0];
    // The data manager's operation is looked up before anything of the node is read.
    Ref save_async = py::getattr(call[1], kSaveSelectedSamplesAsync);
    Ref dset = py::getattr(self, name::dset);
    Ref indices = py::truth(call[2]) ? Ref::none() : py::getattr(self, name::indices);
    Ref node_id = py::getattr(self, name::node_id);
    Ref node_id_again = py::getattr(self, name::node_id);
    Ref is_buffer_node =
        py::compare(node_id_again, py::global(call, global::BUFFER_NODE_ID), Py_EQ);
    py::call_keywords(save_async, 3, kIsBufferKeyword, dset, indices, node_id, is_buffer_node);
    return Ref::none();
}

Ref add_indices(const Call& call) {
    Handle self = call[0];
    Handle indices = call[1];
    Ref current = py::getattr(self, name::indices);
    if (current.is_none()) {
        py::setattr(self, name::indices, indices);
    } else {
        Ref concatenate = py::getattr(py::global(call, global::np), name::concatenate);
        py::setattr(self, name::indices, py::call(concatenate, py::list(current, indices)));
    }
    return Ref::none();
}

constexpr py::Parameter kInitParameters[] = {
    {"self"},
    {"dset", Default::required, "Dataset"},
    {"params", Default::required, "Iterable[ChunkSensitivitiesParams]"},
    {"node_id", Default::none},
    {"tree_build_params", Default::none, "dict"},
    {"data_manager", Default::none, "DataManagerT"}};
constexpr py::Parameter kSelfParameters[] = {{"self"}};
constexpr py::Parameter kInstantiateCoresetParameters[] = {
    {"self"}, {"coreset_cls"}, {"coreset_params"}};
constexpr py::Parameter kSaveParameters[] = {{"self"},
                                             {"data_manager", Default::required, "DataManagerT"},
                                             {"save_all", Default::false_value}};
constexpr py::Parameter kAddIndicesParameters[] = {{"self"}, {"indices"}};

const py::FunctionDef kInit{"__init__", "ChunkNode.__init__", nullptr, kInitParameters, nullptr,
                            init};
const py::FunctionDef kIsBuffer{
    "is_buffer", "ChunkNode.is_buffer", docs::kChunkNodeIsBuffer, kSelfParameters, nullptr,
    is_buffer};
const py::FunctionDef kInstantiateCoreset{"_instantiate_coreset",
                                          "ChunkNode._instantiate_coreset",
                                          docs::kChunkNodeInstantiateCoreset,
                                          kInstantiateCoresetParameters,
                                          "CoresetBase",
                                          instantiate_coreset};
const py::FunctionDef kBuild{"build",         "ChunkNode.build", docs::kChunkNodeBuild,
                             kSelfParameters, nullptr,           build};
const py::FunctionDef kSave{"save",          "ChunkNode.save", docs::kChunkNodeSave,
                            kSaveParameters, nullptr,          save};
const py::FunctionDef kAddIndices{"add_indices",
                                  "ChunkNode.add_indices",
                                  docs::kChunkNodeAddIndices,
                                  kAddIndicesParameters,
                                  nullptr,
                                  add_indices};

const py::FunctionDef* const kMethods[] = {&kInit,  &kIsBuffer, &kInstantiateCoreset,
                                           &kBuild, &kSave,     &kAddIndices};

}  // namespace

const py::FunctionDef exclude_removed{
    "exclude_removed",         "exclude_removed", docs::kExcludeRemoved,
    kExcludeRemovedParameters, nullptr,           exclude_removed_body};

const ClassDef chunk_node_class{"ChunkNode", docs::kChunkNode, kMethods};

}  // namespace chunk_layer
