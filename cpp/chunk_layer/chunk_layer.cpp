// The chunk layer: its buffer of samples that do not fill a chunk yet, the cutting of incoming
// datasets into chunk nodes (in order, or on the shared task pool), the buffer node, and the
// work on chunks already built (rebuild by id, filtering with a caller's predicate).
#include <vector>

#include "chunk_layer/callables.hpp"
#include "chunk_layer/docstrings.hpp"
#include "chunk_layer/names.hpp"
#include "support/py_generator.hpp"

namespace chunk_layer {


namespace {

using py::Call;
using py::Default;
using py::Handle;
using py::Ref;

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
constexpr py::Parameter kCallbackParameters[] = {
    {"self"}, {"after_create_leaf_node", Default::none}};
constexpr py::Parameter kProcessParameters[] = {{"self"},
                                                {"dsets", Default::none, "Iterator"},
                                                {"create_buffer", Default::true_value},
                                                {"is_classification", Default::false_value},
                                                {"after_create_leaf_node", Default::none}};
constexpr py::Parameter kUpdateBufferParameters[] = {
    {"self"}, {"indices"}, {"X", Default::none}, {"y", Default::none}};
constexpr py::Parameter kRebuildParameters[] = {
    {"self"}, {"chunk_ids", Default::required, "List[str]"}};
constexpr py::Parameter kFilterOutSamplesParameters[] = {
    {"self"}, {"filter_function"}, {"node_ids"}, {"with_buffer", Default::true_value}};

const py::FunctionSpec kInit{"__init__", "ChunkLayer.__init__", nullptr, kInitParameters, nullptr,
                             not_implemented};
const py::FunctionSpec kHasBuffer{"has_buffer", "ChunkLayer.has_buffer",
                                  docs::kChunkLayerHasBuffer, kSelfParameters, nullptr,
                                  not_implemented};
const py::FunctionSpec kGetBuffer{"get_buffer",          "ChunkLayer.get_buffer",
                                  docs::kChunkLayerGetBuffer, kSelfParameters,
                                  "Union[Dataset, None]", not_implemented};
const py::FunctionSpec kSetBuffer{"set_buffer", "ChunkLayer.set_buffer",
                                  docs::kChunkLayerSetBuffer, kSetBufferParameters, nullptr,
                                  not_implemented};
const py::FunctionSpec kAddToBuffer{"_add_to_buffer", "ChunkLayer._add_to_buffer",
                                    docs::kChunkLayerAddToBuffer, kAddToBufferParameters, nullptr,
                                    not_implemented};
const py::FunctionSpec kRemoveFromBuffer{"remove_from_buffer", "ChunkLayer.remove_from_buffer",
                                         nullptr, kRemoveFromBufferParameters, nullptr,
                                         not_implemented};
const py::FunctionSpec kRebuildNode{"_rebuild_node", "ChunkLayer._rebuild_node", nullptr,
                                    kRebuildNodeParameters, nullptr, not_implemented};
const py::FunctionSpec kCreateNode{"_create_node",         "ChunkLayer._create_node",
                                   docs::kChunkLayerCreateNode, kCreateNodeParameters,
                                   "ChunkNode",            not_implemented};
const py::FunctionSpec kPrintProgress{"_print_progress", "ChunkLayer._print_progress",
                                      docs::kChunkLayerPrintProgress, kPrintProgressParameters,
                                      nullptr, not_implemented};
const py::FunctionSpec kGetBufferSize{"get_buffer_size", "ChunkLayer.get_buffer_size",
                                      docs::kChunkLayerGetBufferSize, kSelfParameters, nullptr,
                                      not_implemented};
const py::FunctionSpec kCreateBufferNode{"create_buffer_node", "ChunkLayer.create_buffer_node",
                                         docs::kChunkLayerCreateBufferNode, kCallbackParameters,
                                         nullptr, not_implemented};
const py::FunctionSpec kGetFromBuffer{"_get_from_buffer",
                                      "ChunkLayer._get_from_buffer",
                                      docs::kChunkLayerGetFromBuffer,
                                      kCallbackParameters,
                                      nullptr,
                                      not_implemented,
                                      true};
const py::FunctionSpec kProcess{"process", "ChunkLayer.process", docs::kChunkLayerProcess,
                                kProcessParameters, nullptr, not_implemented, true};
const py::FunctionSpec kUpdateBuffer{"update_buffer", "ChunkLayer.update_buffer", nullptr,
                                     kUpdateBufferParameters, nullptr, not_implemented};
const py::FunctionSpec kRebuild{"rebuild", "ChunkLayer.rebuild", nullptr, kRebuildParameters,
                                nullptr, not_implemented, true};
const py::FunctionSpec kFilterOutSamples{"filter_out_samples", "ChunkLayer.filter_out_samples",
                                         nullptr, kFilterOutSamplesParameters, nullptr,
                                         not_implemented};

const py::FunctionSpec* const kMethods[] = {
    &kInit,          &kHasBuffer,   &kGetBuffer,         &kSetBuffer,        &kAddToBuffer,
    &kRemoveFromBuffer, &kRebuildNode, &kCreateNode,     &kPrintProgress,    &kGetBufferSize,
    &kCreateBufferNode, &kGetFromBuffer, &kProcess,      &kUpdateBuffer,     &kRebuild,
    &kFilterOutSamples};

}  // namespace

py::Ref not_implemented(const py::Call& call) {
    PyErr_Format(PyExc_NotImplementedError, "%U is not built yet",
                 py::function_qualname(call.function).get());
    throw py::Error{};
}

const ClassSpec chunk_layer_class{"ChunkLayer", docs::kChunkLayer, kMethods};

}  // namespace chunk_layer
