"""``python -m quillmarsh``: the command-line main job (see ``quillmarsh.cli``)."""

from __future__ import annotations

import sys

from quillmarsh.cli import main

if __name__ == "__main__":
    sys.exit(main())
