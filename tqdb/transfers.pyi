from typing import IO, Any, Callable, NamedTuple, Union

# progress(done, total): total is None when the size cannot be known.
_Progress = Callable[[int, Union[int, None]], object]

WINDOW: int

class Family(NamedTuple):
    what: str
    start: str
    next: str
    start_handle: str
    fetch: str
    fetch_handle: str

FILES: Family
BACKUPS: Family

def upload(db: Any, family: Family, target: tuple[Any, ...], source: str | IO[bytes],
           progress: _Progress | None = None, window: int = ...) -> int: ...
def download(db: Any, family: Family, source: tuple[Any, ...], dest: str | IO[bytes],
             progress: _Progress | None = None) -> int: ...
