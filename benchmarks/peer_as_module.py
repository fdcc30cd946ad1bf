"""A pytest plugin that puts a peer in the compiled module's place, to run the module's tests on it.

    PYTHONPATH=benchmarks PEER=cython .venv/bin/python -m pytest -p peer_as_module tests/chunk_layer/...
    PYTHONPATH=benchmarks PEER=python .venv/bin/python -m pytest -p peer_as_module tests/chunk_layer/...

With ``PEER=cython`` (the default) the Cython peer is built if needed and imported; with ``PEER=python``
``baseline.py`` runs as it is. Either is registered as ``quillmarsh.core.tree.chunk_layer`` before the
tests import it, so a test that swaps a global of the module swaps it in the peer. This is how the
transcription is checked against the module's behaviour; tests of the module's own frame (its name,
entry point, function and generator types) do not apply to a peer.
"""

from __future__ import annotations

import os
import sys

import quillmarsh.core.tree as tree

if os.environ.get("PEER", "cython") == "cython":
    import cython_peer

    peer = cython_peer.load()
else:
    import baseline as peer

sys.modules["quillmarsh.core.tree.chunk_layer"] = peer
tree.chunk_layer = peer  # type: ignore[attr-defined]
