// The names the chunk layer module works with, each an interned str made once at load: the
// module-level names its methods look up at call time, and the attribute, method and key names
// of its own objects and of the library's.
#pragma once

#include "support/py_constants.hpp"

namespace chunk_layer {

inline constexpr char kModuleName[] = "quillmarsh.core.tree.chunk_layer";
inline const py::Str module_name{kModuleName};

// Module-level names, looked up in the module's namespace when a method runs.
namespace global {
inline const py::Str np{"np"};
inline const py::Str itertools{"itertools"};
inline const py::Str time{"time"};
inline const py::Str uuid4{"uuid4"};
inline const py::Str utils{"utils"};
inline const py::Str evaluate_max_batch_size{"evaluate_max_batch_size"};
inline const py::Str align_arrays_by_key{"align_arrays_by_key"};
inline const py::Str filter_missing_and_inf{"filter_missing_and_inf"};
inline const py::Str Dataset{"Dataset"};
inline const py::Str DataAutoProcessor{"DataAutoProcessor"};
inline const py::Str ThreadPoolManager{"ThreadPoolManager"};
inline const py::Str BUFFER_NODE_ID{"BUFFER_NODE_ID"};
inline const py::Str ChunkSensitivities{"ChunkSensitivities"};
inline const py::Str exclude_removed{"exclude_removed"};
inline const py::Str ChunkNode{"ChunkNode"};
inline const py::Str print{"print"};
inline const py::Str map{"map"};
}  // namespace global

// Attributes, methods and keys.
namespace name {
// Dataset fields
inline const py::Str ind{"ind"};
inline const py::Str X{"X"};
inline const py::Str y{"y"};
inline const py::Str props{"props"};
inline const py::Str orig{"orig"};
inline const py::Str _replace{"_replace"};
// numpy
inline const py::Str shape{"shape"};
inline const py::Str size{"size"};
inline const py::Str itemsize{"itemsize"};
inline const py::Str array{"array"};
inline const py::Str concatenate{"concatenate"};
inline const py::Str in1d{"in1d"};
inline const py::Str isin{"isin"};
inline const py::Str any{"any"};
inline const py::Str unique{"unique"};
// the chunk layer's attributes and methods
inline const py::Str build_params{"build_params"};
inline const py::Str chunk_corset_params{"chunk_corset_params"};
inline const py::Str buffer{"buffer"};
inline const py::Str chunk_size{"chunk_size"};
inline const py::Str data_manager{"data_manager"};
inline const py::Str parent{"parent"};
inline const py::Str chunk_index{"chunk_index"};
inline const py::Str has_buffer{"has_buffer"};
inline const py::Str get_buffer{"get_buffer"};
inline const py::Str set_buffer{"set_buffer"};
inline const py::Str _add_to_buffer{"_add_to_buffer"};
inline const py::Str _rebuild_node{"_rebuild_node"};
inline const py::Str _create_node{"_create_node"};
inline const py::Str _print_progress{"_print_progress"};
inline const py::Str create_buffer_node{"create_buffer_node"};
inline const py::Str _get_from_buffer{"_get_from_buffer"};
// the chunk node's attributes and methods
inline const py::Str params{"params"};
inline const py::Str dset{"dset"};
inline const py::Str node_id{"node_id"};
inline const py::Str tree_build_params{"tree_build_params"};
inline const py::Str indices{"indices"};
inline const py::Str sensitivities{"sensitivities"};
inline const py::Str coresets{"coresets"};
inline const py::Str is_buffer{"is_buffer"};
inline const py::Str build{"build"};
inline const py::Str _instantiate_coreset{"_instantiate_coreset"};
// parameter records
inline const py::Str coreset_params{"coreset_params"};
}  // namespace name

}  // namespace chunk_layer
