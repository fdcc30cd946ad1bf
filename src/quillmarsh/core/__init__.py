"""Core algorithms: coresets, the coreset tree and numeric helpers."""
