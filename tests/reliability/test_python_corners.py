"""Corners where the chunk layer module behaves as plain Python: each runs in a fresh interpreter,
once through the compiled module and once through its plain-Python reference, and both must
show the behaviour stated (error messages in the module's wording where the two word them apart)."""

from __future__ import annotations

import json
import re
import subprocess
import sys
from pathlib import Path
from typing import Any, Dict

from chunk_support import child_environment

SCRIPT = Path(__file__).parent / "scripts" / "python_corners.py"
SIDES = ("module", "reference")
MULTIPLE_VALUES = r"__init__\(\) got multiple values for argument 'chunk_size'"


def run(corner: str) -> Dict[str, Any]:
    outcomes = {}
    for side in SIDES:
        result = subprocess.run([sys.executable, str(SCRIPT), corner, side], capture_output=True,
                                text=True, timeout=120, env=child_environment())
        assert result.returncode == 0, f"{side}: {result.stderr}"
        outcomes[side] = json.loads(result.stdout)
    return outcomes


def test_keywords_from_the_callers_dict_stay_alive_while_the_body_empties_it() -> None:
    outcomes = run("keywords_the_body_empties")
    for side in SIDES:
        assert outcomes[side] == ["emptied", "read again", "freed"], side


def test_a_keyword_given_twice_is_refused() -> None:
    outcomes = run("keyword_given_twice")
    for side in SIDES:
        outcome = outcomes[side]
        assert outcome["subclass"].startswith("TypeError: "), side
        assert re.search(MULTIPLE_VALUES, outcome["subclass"]), outcome
        if outcome["repeated"] != "not tried":  # a C caller's keyword names, from 3.10 on
            assert re.search(MULTIPLE_VALUES, outcome["repeated"]), outcome
    # The str subclass is matched with its own ==, against each parameter name in turn.
    assert outcomes["module"]["compared"] == outcomes["reference"]["compared"]
    assert outcomes["module"]["compared"][-1] == "chunk_size"


def test_throw_with_three_arguments_warns_from_3_12_on() -> None:
    outcomes = run("throw_with_three_arguments")
    assert outcomes["module"] == outcomes["reference"]
    if sys.version_info >= (3, 12):
        assert outcomes["module"] == {
            "warnings": ["DeprecationWarning: the (type, exc, tb) signature of throw() is deprecated, "
                         "use the single-arg signature instead."],
            "as error": "DeprecationWarning",
            "next": "b",
        }
    else:
        assert outcomes["module"] == {"warnings": [], "as error": "KeyError", "next": "finished"}


def test_a_generator_whose_step_is_refused_at_the_recursion_limit_is_finished() -> None:
    outcomes = run("generator_refused_at_the_limit")
    assert outcomes["module"] == outcomes["reference"]
    for started in ("unstarted", "started"):
        assert outcomes["module"][started] == ["RecursionError in the step", "finished", "finished"]
