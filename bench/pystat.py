"""The statistics reader's replies in plain Python (2.7 and 3), for the
statistics benchmark: readers that turn reply bodies into what the module
gives, and writers that make such bodies.

1. The list reply (stat_list and its kin): a list header (mode, the
   continuation id, key/value pairs), then tree nodes while at least four
   bytes remain. decode_stat_list() gives the node dicts of
   TQStatreaderList.convert(); the nodes of later replies of one answer
   follow those of the earlier ones. A field that runs past the body reads
   as 0 (a text as '') and ends the body, keeping the node begun.

2. The query stream (stat_query): frames of a kind byte and a u32 length
   that counts itself, laid end to end over the replies; a reply carries
   any slice of the stream. QueryStream.feed() hands every frame that is
   whole to the callback object as Session.stat_query_handle_msg does:
   row_desc_cb([(name, type, aux), ...]), row_data_cb([value, ...]),
   notice_cb(text), bytes_cb(bytes), complete_cb(), end_cb(); a callback
   the object lacks is skipped.
"""
import struct

from pyobjlist import MAX_BODY, _put_string, _raw, _string, _text

U8, U16, U32, U64 = 'B', 'H', 'I', 'Q'
_FIXED = dict((k, struct.Struct('>' + k)) for k in (U8, U16, U32, U64))
NAME_MAX = 2047  # a node name keeps this many bytes

# --- the list reply ------------------------------------------------------------

# A node's fields in wire order; the two mode values only in lists of mode 1.
NODE_HEAD = (('type', U16), ('flags', U64), ('field_a', U16), ('field_b', U16), ('time', U64))
MODE_VALUES = (('mode_value_1', U64), ('mode_value_2', U64))


def _fixed(kind, buf, pos, end):
    """A short field reads 0 and returns the end of the body as its
    position, so that every later field reads empty too."""
    s = _FIXED[kind]
    if pos + s.size > end:
        return 0, end
    return s.unpack_from(buf, pos)[0], pos + s.size


def _u64s(n, buf, pos, end):
    out = []
    for _ in range(n):
        v, pos = _fixed(U64, buf, pos, end)
        out.append(v)
    return out, pos


def _read_node(buf, pos, end, mode1):
    node = {}
    node['name'], pos = _string(buf, pos, end, NAME_MAX)
    n_values, pos = _fixed(U8, buf, pos, end)
    n_extra, pos = _fixed(U8, buf, pos, end)
    for key, kind in NODE_HEAD + (MODE_VALUES if mode1 else ()):
        node[key], pos = _fixed(kind, buf, pos, end)
    node['values'], pos = _u64s(n_values, buf, pos, end)
    node['extra'], pos = _u64s(n_extra, buf, pos, end)
    return node, pos


def decode_stat_list(body, nodes=None):
    """Decodes one list reply body behind nodes (a list, made when None) and
    returns it: what Session.stat_list_handle(msg, lst) then lst.convert(None)
    give."""
    if nodes is None:
        nodes = []
    end = len(body)
    mode, pos = _fixed(U8, body, 0, end)
    _id, pos = _fixed(U64, body, pos, end)
    count, pos = _fixed(U8, body, pos, end)
    pos = min(pos + 8 * count, end)  # the key/value pairs are not converted
    while end - pos >= 4:
        node, pos = _read_node(body, pos, end, mode == 1)
        nodes.append(node)
    return nodes


def encode_list_head(mode, cont_id, pairs=()):
    return (struct.pack('>BQB', mode, cont_id, len(pairs)) +
            b''.join(struct.pack('>II', k, v) for k, v in pairs))


def encode_node(node, mode1):
    """The wire record of a node dict as convert() gives it."""
    values, extra = node['values'], node['extra']
    parts = [_put_string(node['name']), struct.pack('>BB', len(values), len(extra))]
    parts.extend(_FIXED[kind].pack(node[key])
                 for key, kind in NODE_HEAD + (MODE_VALUES if mode1 else ()))
    parts.extend(_FIXED[U64].pack(v) for v in values + extra)
    return b''.join(parts)


def list_bodies(nodes, mode=1, pairs=((1, 0),), cont_id=0x5eed, limit=MAX_BODY):
    """The bodies of a list answer holding these nodes: each reply a head
    and as many whole nodes as fit limit bytes; every reply but the last
    carries the continuation id."""
    recs = [encode_node(n, mode == 1) for n in nodes]
    head_size = len(encode_list_head(mode, 0, pairs))
    out, chunk, size = [], [], head_size
    for r in recs:
        if size + len(r) > limit and chunk:
            out.append(chunk)
            chunk, size = [], head_size
        chunk.append(r)
        size += len(r)
    out.append(chunk)
    return [encode_list_head(mode, cont_id if i + 1 < len(out) else 0, pairs) + b''.join(c)
            for i, c in enumerate(out)]


# --- the query stream --------------------------------------------------------------

HEADER = struct.Struct('>BI')
COL_BOOL, COL_BYTES = 0, 11
# Per column type: the struct of its value; bytes are a u32 count and the bytes.
COL_STRUCTS = tuple(struct.Struct('>' + c) for c in '?BbHhIiQqfdI')
FRAME_Q, FRAME_T, FRAME_D, FRAME_B, FRAME_C, FRAME_Z = (ord(c) for c in 'QTDBCZ')

class QueryStream(object):
    """The state of one query's stream: the bytes of the frame in progress
    and the current row description (a list of column types)."""

    def __init__(self):
        self.pending = bytearray()
        self.types = None
        self.done = False

    def feed(self, body, cb):
        """Delivers every frame of the stream that is whole once body (one
        reply's slice) has arrived."""
        buf = self.pending + body
        pos, end = 0, len(buf)
        while end - pos >= 5:
            kind, length = HEADER.unpack_from(buf, pos)
            payload = length - 4 if length > 4 else 0
            if end - pos - 5 < payload:
                break
            start = pos + 5
            pos = start + payload
            self._frame(kind, buf, start, pos, cb)
        self.pending = buf[pos:]

    def _frame(self, kind, buf, pos, end, cb):
        if kind == FRAME_D:
            call = getattr(cb, 'row_data_cb', None)
            if call is not None and self.types is not None:
                call(self._row(buf, pos, end))
        elif kind == FRAME_T:
            cols = self._desc(buf, pos, end)
            self.types = [c[1] for c in cols]
            call = getattr(cb, 'row_desc_cb', None)
            if call is not None:
                call(cols)
        elif kind == FRAME_Q:
            call = getattr(cb, 'notice_cb', None)
            if call is not None:
                raw = bytes(buf[pos:end])
                nul = raw.find(b'\0')
                call(_text(raw if nul < 0 else raw[:nul]))
        elif kind == FRAME_B:
            call = getattr(cb, 'bytes_cb', None)
            if call is not None:
                call(bytes(buf[pos:end]))
        elif kind in (FRAME_C, FRAME_Z):
            if kind == FRAME_Z:
                self.done = True
            call = getattr(cb, 'complete_cb' if kind == FRAME_C else 'end_cb', None)
            if call is not None:
                call()

    @staticmethod
    def _desc(buf, pos, end):
        """[(name, type, aux), ...]; a name keeps 64 bytes."""
        count = _FIXED[U16].unpack_from(buf, pos)[0]
        pos += 2
        cols = []
        for _ in range(count):
            nul = buf.find(b'\0', pos, end)
            if nul < 0:
                nul = end
            name = bytes(buf[pos:min(nul, pos + 64)])
            col_type, aux = struct.unpack_from('>HH', buf, nul + 1)
            pos = nul + 5
            cols.append((_text(name), col_type, aux))
        return cols

    def _row(self, buf, pos, end):
        """The row's values: None for a null column or a type without a value."""
        row = []
        for col_type in self.types:
            null = buf[pos]
            pos += 1
            if null or col_type > COL_BYTES:
                row.append(None)
                continue
            s = COL_STRUCTS[col_type]
            value = s.unpack_from(buf, pos)[0]
            pos += s.size
            if col_type == COL_BYTES:
                value, pos = bytes(buf[pos:pos + value]), pos + value
            if pos > end:
                raise ValueError('a value runs past its data row')
            row.append(value)
        return row


# --- writing the stream ---------------------------------------------------------------

def stream_frame(kind, payload=b''):
    return struct.pack('>cI', kind, len(payload) + 4) + payload


def row_desc_frame(cols):
    """A "T" frame of (name, type, aux) columns."""
    return stream_frame(b'T', struct.pack('>H', len(cols)) + b''.join(
        _raw(name) + b'\0' + struct.pack('>HH', col_type, aux) for name, col_type, aux in cols))


def data_row_frame(types, row):
    """A "D" frame of the row's values (None: null) in the columns' types."""
    parts = []
    for col_type, value in zip(types, row):
        if value is None:
            parts.append(b'\1')
        elif col_type == COL_BYTES:
            parts.append(struct.pack('>BI', 0, len(value)) + value)
        else:
            parts.append(b'\0' + COL_STRUCTS[col_type].pack(value))
    return stream_frame(b'D', b''.join(parts))


def stream_bodies(stream, limit=MAX_BODY):
    """The stream cut into reply bodies of limit bytes, wherever that falls."""
    return [stream[i:i + limit] for i in range(0, len(stream), limit)]


def query_stream(cols, rows):
    """The whole stream of a query's answer: description, rows, completion, end."""
    types = [c[1] for c in cols]
    return b''.join([row_desc_frame(cols)] + [data_row_frame(types, r) for r in rows] +
                    [stream_frame(b'C'), stream_frame(b'Z')])


# --- sample answers -----------------------------------------------------------------

# Bytes in and out, connections, packets in and out, latency in.
REPLY_MASK_FIELDS = 6
HOST, NETOBJECT = 514, 513
VALID, EXPANDABLE, GRAPHS = 1, 2, 8


def stat_nodes(n, first_time=1700000000):
    """n host nodes of a mode 1 list as convert() gives them: six totals
    each, every fourth with one extra value."""
    nodes = []
    for i in range(n):
        base = (i * 2654435761) % (1 << 40)
        nodes.append({
            'name': '10.%d.%d.%d' % (i >> 16, (i >> 8) & 0xff, i & 0xff),
            'type': HOST, 'flags': VALID | GRAPHS | (EXPANDABLE if i % 5 == 0 else 0),
            'time': first_time + 300 * (i % 288), 'field_a': i % 4, 'field_b': 1,
            'mode_value_1': i + 1, 'mode_value_2': base >> 3,
            'values': [base, base >> 1, i % 1000, base >> 9, base >> 10, 150 + i % 97][
                :REPLY_MASK_FIELDS],
            'extra': [i] if i % 4 == 0 else []})
    return nodes


# An integer, a real, a text, a column that is always null and a bool.
QUERY_COLS = [('id', 8, 0), ('rate', 10, 3), ('host', 11, 0), ('unused', 5, 0),
              ('active', COL_BOOL, 0)]


def query_rows(n):
    """n rows of QUERY_COLS as the callbacks get them."""
    return [[i * 7919 - (1 << 40), i * 0.25 + 0.125, ('host-%06d.example' % i).encode('ascii'),
             None, i % 3 == 0] for i in range(n)]
