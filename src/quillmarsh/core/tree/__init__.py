"""The coreset tree; its chunk layer is the compiled module ``chunk_layer``."""
