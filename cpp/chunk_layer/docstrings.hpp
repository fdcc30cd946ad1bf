// The docstrings of the module's classes and callables, verbatim: they are part of its interface.
// Callables not listed here have no docstring.
#pragma once

namespace chunk_layer::docs {

// exclude_removed
inline constexpr char kExcludeRemoved[] =
    "\n"
    "    Exclude removed indices from the given indices and dataset.\n"
    "\n"
    "    Args:\n"
    "        removed: A list or array-like object containing the indices to be removed.\n"
    "        indices: The original indices from which to exclude the removed indices.\n"
    "        dataset: A tuple or list containing arrays or None representing the dataset.\n"
    "\n"
    "    Returns:\n"
    "        Tuple: A tuple containing the updated indices and the updated dataset (if provided).\n"
    "\n"
    "    The function creates a mask to exclude the removed indices from the given indices. If a dataset is provided,\n"
    "    it applies the mask to the dataset, updating the corresponding arrays.\n"
    "\n"
    "    If no dataset is provided, only the indices are returned.\n"
    "\n"
    "    Example:\n"
    "        removed = [2, 5, 7]\n"
    "        indices = [1, 2, 3, 4, 5, 6, 7, 8, 9]\n"
    "        dataset = (array1, array2, array3)  # Arrays representing the dataset\n"
    "\n"
    "        new_indices, new_dataset = exclude_removed(removed, indices, dataset)\n"
    "\n"
    "        # new_indices: [1, 3, 4, 6, 8, 9]\n"
    "        # new_dataset: (updated_array1, updated_array2, updated_array3)\n"
    "    ";

// ChunkNode
inline constexpr char kChunkNode[] =
    "\n"
    "    A class for creating chunk nodes.\n"
    "\n"
    "    Parameters\n"
    "    ----------\n"
    "    dset : Dataset\n"
    "        The dataset to build the coreset from.\n"
    "    params : Iterable[ChunkSensitivitiesParams]\n"
    "        A list of parameters to build the coreset.\n"
    "    node_id : str, optional\n"
    "        A unique identifier for the node, by default None.\n"
    "    ";

// ChunkNode.is_buffer
inline constexpr char kChunkNodeIsBuffer[] =
    "\n"
    "        Returns True if the node_id is the BUFFER_NODE_ID.\n"
    "        ";

// ChunkNode.add_indices
inline constexpr char kChunkNodeAddIndices[] =
    "\n"
    "        Adds indices to the node.\n"
    "\n"
    "        Parameters\n"
    "        ----------\n"
    "        indices : numpy.ndarray\n"
    "            An array of indices.\n"
    "        ";

// ChunkNode._instantiate_coreset
inline constexpr char kChunkNodeInstantiateCoreset[] =
    "\n"
    "        Instantiates a coreset object.\n"
    "\n"
    "        Parameters\n"
    "        ----------\n"
    "        coreset_cls : CoresetBase class\n"
    "            A CoresetBase class.\n"
    "        coreset_params : dict, optional\n"
    "            A dictionary of coreset parameters, by default None.\n"
    "\n"
    "        Returns\n"
    "        -------\n"
    "        CoresetBase\n"
    "            A coreset object.\n"
    "        ";

// ChunkNode.build
inline constexpr char kChunkNodeBuild[] =
    "\n"
    "        Builds the coreset.\n"
    "\n"
    "        Returns\n"
    "        -------\n"
    "        ChunkNode\n"
    "            The ChunkNode object.\n"
    "        ";

// ChunkNode.save
inline constexpr char kChunkNodeSave[] =
    "\n"
    "        Saves the selected samples asynchronously.\n"
    "\n"
    "        Parameters\n"
    "        ----------\n"
    "        data_manager : object\n"
    "            The data manager object.\n"
    "        ";

// ChunkLayer
inline constexpr char kChunkLayer[] =
    "\n"
    "    A chunk layer for incremental learning.\n"
    "\n"
    "    This layer divides the dataset into chunks of samples and performs incremental learning on each chunk.\n"
    "\n"
    "    Args:\n"
    "        data_manager: A data manager instance that provides access to the dataset.\n"
    "        chunk_corset_params: An iterable of `ChunkSensitivitiesParams` objects, each containing the parameters for\n"
    "            building a coreset on a chunk of data. Default is `None`.\n"
    "        chunk_size: The maximum size of a chunk. If `None`, the entire dataset is treated as a single chunk.\n"
    "            Default is `None`.\n"
    "    ";

// ChunkLayer.has_buffer
inline constexpr char kChunkLayerHasBuffer[] =
    "\n"
    "        Checks if there is a buffer available.\n"
    "\n"
    "        Returns:\n"
    "            bool: True if there is a buffer available and not empty, False otherwise.\n"
    "        ";

// ChunkLayer.get_buffer
inline constexpr char kChunkLayerGetBuffer[] =
    "\n"
    "        returns unhandled instances.\n"
    "\n"
    "        Returns\n"
    "        -------\n"
    "        a list of numpy arrays\n"
    "\n"
    "        ";

// ChunkLayer.set_buffer
inline constexpr char kChunkLayerSetBuffer[] =
    "\n"
    "        set tree's internal buffer of unhandled instances\n"
    "\n"
    "        Parameters\n"
    "        ----------\n"
    "        buffer: list of numpy ndarrays\n"
    "\n"
    "        Returns\n"
    "        -------\n"
    "\n"
    "        ";

// ChunkLayer._add_to_buffer
inline constexpr char kChunkLayerAddToBuffer[] =
    "\n"
    "        Adds the given dataset to the buffer.\n"
    "\n"
    "        Args:\n"
    "            dataset: The dataset to be added to the buffer.\n"
    "        ";

// ChunkLayer.get_buffer_size
inline constexpr char kChunkLayerGetBufferSize[] =
    "\n"
    "        Returns the size of the buffer.\n"
    "\n"
    "        Returns:\n"
    "            int: The size of the buffer.\n"
    "        ";

// ChunkLayer._create_node
inline constexpr char kChunkLayerCreateNode[] =
    "\n"
    "        Creates a new ChunkNode object.\n"
    "\n"
    "        Args:\n"
    "            dset: The dataset used to build the ChunkNode.\n"
    "            node_id: Optional parameter specifying the ID of the new ChunkNode.\n"
    "            leaf_node_index: Optional parameter specifying the chunk index for verbose, can be None for buffer node.\n"
    "        Returns:\n"
    "            ChunkNode: A new ChunkNode object.\n"
    "        ";

// ChunkLayer._print_progress
inline constexpr char kChunkLayerPrintProgress[] =
    "\n"
    "        print progress in case n_instances is not None:\n"
    "        2024-04-01 14:10:37 Completed 19 out of 100 chunks, (chunk was built in 0.003 seconds)\n"
    "        else:\n"
    "        2024-04-01 14:10:37 Completed 19 chunks, (chunk was built in 0.003 seconds)\n"
    "        chunk build time is printed in yellow\n"
    "        Args:\n"
    "            chunk_build_time: time it took to build a chunk in seconds\n"
    "        ";

// ChunkLayer.create_buffer_node
inline constexpr char kChunkLayerCreateBufferNode[] =
    "\n"
    "        Creates a new ChunkNode object using the data stored in the buffer.\n"
    "\n"
    "        Returns:\n"
    "            Union[None, ChunkNode]: A new ChunkNode object if there is a buffer available, None otherwise.\n"
    "        ";

// ChunkLayer._get_from_buffer
inline constexpr char kChunkLayerGetFromBuffer[] =
    "\n"
    "        Generator that moves data from buffer to CoreSet tree if the length of buffer is greater than chunk_size.\n"
    "        If the buffer has not enough elements to form a chunk according to the chunk_size, no node will be yielded.\n"
    "        If the chunk_size is set to 0, the whole buffer will be consumed for creating a single coreset node.\n"
    "\n"
    "        Yields:\n"
    "            ChunkNode: A ChunkNode object that contains coreset information computed from the chunk of data\n"
    "            in the buffer.\n";

// ChunkLayer.process
inline constexpr char kChunkLayerProcess[] =
    "\n"
    "        Process input datasets by adding them to the internal buffer and creating coreset nodes from the buffered data.\n"
    "\n"
    "        Args:\n"
    "            dsets (List[Dataset]): A list of input datasets to be processed.\n"
    "            create_buffer (bool, optional): Whether to create a buffer node from the remaining data in the buffer\n"
    "                after processing all input datasets. Defaults to True.\n"
    "            is_classification (bool, optional): Whether the task is classification. Defaults to False.\n"
    "            after_create_leaf_node: callable to be executed after node leaf creation\n"
    "        Yields:\n"
    "            ChunkNode: A coreset node created from the buffered data.\n"
    "\n"
    "        Returns:\n"
    "            None\n";

}  // namespace chunk_layer::docs
