"""``python -m quillmarsh``: the command-line main job (see ``quillmarsh.cli``)."""

from __future__ import annotations

import os
import sys

from quillmarsh.cli import INTERRUPTED, main

if __name__ == "__main__":
    status = main()
    if status == INTERRUPTED:
        # Under ``-m``, CPython ends the process by SIGINT, whatever the exit status, once a
        # KeyboardInterrupt has passed through code run from a string (the dataclasses and named
        # tuples that imports make, for instance), even when it was caught. Everything is cleaned up
        # by now, so leave with the promised status directly.
        sys.stdout.flush()
        sys.stderr.flush()
        os._exit(status)
    sys.exit(status)
