"""Tests of quillmarsh.validation: the one wording of the recurring argument checks."""

from __future__ import annotations

import numpy as np
import pytest

from quillmarsh.validation import check_positive_int


@pytest.mark.parametrize("value", [1, 7, np.int64(3), np.uint8(200)])
def test_positive_integers_come_back_as_int(value: object) -> None:
    checked = check_positive_int(value, "n")
    assert checked == value and type(checked) is int


@pytest.mark.parametrize("value", [0, -2, 2.0, 1.5, True, "3", None, np.float64(4.0)])
def test_anything_else_is_refused_in_one_wording(value: object) -> None:
    with pytest.raises(ValueError, match=rf"^n must be a positive int, got {repr(value)[:10]}"):
        check_positive_int(value, "n")


def test_none_when_allowed() -> None:
    assert check_positive_int(None, "n", allow_none=True) is None
    with pytest.raises(ValueError, match="^n must be a positive int or None, got 0$"):
        check_positive_int(0, "n", allow_none=True)
