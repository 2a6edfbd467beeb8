"""Protocol version and defaults of the TQDB client."""

# The client's protocol version as the version check sends it, and as
# (major, minor, patch).
PROTOCOL_VERSION: int
VERSION: tuple[int, int, int]
DEFAULT_PORT: int
