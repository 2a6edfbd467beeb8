import re
from typing import Final, NamedTuple

OK: Final = 'ok'
VALUE: Final = 'value'
LIST: Final = 'list'
NOTICE: Final = 'notice'
MSG_RESTARTING: int
MSG_RELOADING: int

LIST_PARAMS: tuple[str, ...]
DECODERS: dict[str, str]
SHAPES: dict[str, str]
DECODER_ARGS: dict[str, tuple[object, ...]]
NOTICE_TYPES: dict[str, int]
NOT_REQUESTS: frozenset[str]
READ_ONLY_WORDS: tuple[str, ...]

class Request(NamedTuple):
    name: str
    # OK, VALUE, LIST or NOTICE
    shape: str
    # A Session method's name, 'handle.<name>' for a TQDBAPIHandle one, None: none.
    decoder: str | None
    args: tuple[object, ...]
    continues: bool
    read_only: bool

REQUESTS: dict[str, Request]

def decoders_covered() -> set[str]: ...
