"""What can be set on an enhancer, as the library lists it."""

from __future__ import annotations

import ctypes
from dataclasses import dataclass
from typing import Union

from . import _library as c

Value = Union[int, float, bool, str]


@dataclass(frozen=True)
class Setting:
    """One setting of the library. A bool's value is a bool, a choice's one of `choices`."""

    id: int
    name: str  # words joined by '-'; as an attribute or a keyword by '_'
    description: str
    type: type  # int, float, bool or, for a choice, str
    minimum: float
    maximum: float
    initial: Value
    choices: tuple[str, ...]  # empty unless the value is one of them
    modes: tuple[str, ...]  # the modes that read it

    def number(self, value: Value) -> float:
        """The value as the library takes it. ValueError where it is none; the library judges the range."""
        if isinstance(value, str):
            if value not in self.choices:
                expected = f"one of {', '.join(self.choices)}" if self.choices else f"a {self.type.__name__}"
                raise ValueError(f"{self.name} is {expected}, not {value!r}")
            return self.minimum + self.choices.index(value)
        return float(value)

    def value(self, number: float) -> Value:
        """The library's number as a value of the setting's type."""
        if self.choices:
            return self.choices[round(number - self.minimum)]
        converted: Value = self.type(number)
        return converted


def _listed() -> dict[str, Setting]:
    count = ctypes.c_size_t()
    table = c.library.noxel_settings(ctypes.byref(count))
    types = {c.SETTING_INT: int, c.SETTING_FLOAT: float, c.SETTING_BOOL: bool, c.SETTING_CHOICE: str}
    settings = {}
    for row in table[: count.value]:
        if row.type not in types:
            continue  # of a kind that a later library has brought
        choices: tuple[str, ...] = ()
        if row.choices:
            choices = tuple(row.choices[i].decode() for i in range(int(row.maximum - row.minimum) + 1))
        kind = types[row.type]
        setting = Setting(
            id=row.id,
            name=row.name.decode(),
            description=row.description.decode(),
            type=kind,
            minimum=row.minimum,
            maximum=row.maximum,
            initial=choices[int(row.initial - row.minimum)] if choices else kind(row.initial),
            choices=choices,
            modes=tuple(name for name, number in c.MODES.items() if row.modes >> number & 1),
        )
        settings[setting.name] = setting
    return settings


#: All settings of the library, by name.
SETTINGS: dict[str, Setting] = _listed()
