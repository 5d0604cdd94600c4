import os
from types import SimpleNamespace
from typing import Any, Dict, Iterator, List

import numpy as np

NO_TIME: int

class Error(Exception):
    status: int

class Series(np.ndarray[Any, np.dtype[np.void]]):
    def to_pandas(self) -> Any: ...

class Sample:
    @property
    def type(self) -> str: ...
    @property
    def time_ns(self) -> int: ...
    def asdict(self) -> Dict[str, float]: ...
    def __getattr__(self, name: str) -> float: ...

class Recording:
    def __init__(self, native: Any, path: str) -> None: ...
    path: str
    problems: List[str]
    angle_axis: Series
    exposure: Series
    gyro: Series
    accel: Series
    position: Series
    gps_min: Series
    gps: Series
    magnetic: Series
    def info(self) -> Dict[str, Any]: ...

def read(path: str | os.PathLike[str], *, stream: int = -1, origin: str = "container") -> Recording: ...
def samples(path: str | os.PathLike[str], *, stream: int = -1, origin: str = "container") -> Iterator[Sample]: ...
def imu(recording: Recording) -> Series: ...
def write(
    path: str | os.PathLike[str], recording: Any, *, video: str | os.PathLike[str] | None = None, replace: bool = False, overwrite: bool = False
) -> None: ...
def load_motrace(directory: str | os.PathLike[str]) -> SimpleNamespace: ...
