"""Checks of the arguments that recur across the library, with one wording for each."""

from __future__ import annotations

import numbers
from typing import Any, Optional, overload

__all__ = ["check_positive_int"]


@overload
def check_positive_int(value: Any, name: str) -> int: ...
@overload
def check_positive_int(value: Any, name: str, allow_none: bool) -> Optional[int]: ...


def check_positive_int(value: Any, name: str, allow_none: bool = False) -> Optional[int]:
    """Return ``value`` as an int when it is an integer above 0 (None too, with ``allow_none``).

    Parameters
    ----------
    value : object
        The argument.
    name : str
        Its name, for the message.
    allow_none : bool, default=False
        Whether None is accepted (and returned).

    Returns
    -------
    int or None

    Raises
    ------
    ValueError
        "<name> must be a positive int, got <value>" for anything else: zero, negatives, floats,
        booleans, strings.
    """
    if value is None and allow_none:
        return None
    if isinstance(value, bool) or not isinstance(value, numbers.Integral) or value < 1:
        suffix = " or None" if allow_none else ""
        raise ValueError(f"{name} must be a positive int{suffix}, got {value!r}")
    return int(value)
