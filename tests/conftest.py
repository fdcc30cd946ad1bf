"""Test configuration: the chunk layer's test helpers are importable from every test file."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parent / "chunk_layer"))
