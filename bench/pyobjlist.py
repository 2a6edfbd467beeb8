"""The object-list reply in plain Python (2.7 and 3): a reader that turns
reply bodies into what TQObjList.convert(None) gives, and a writer that makes
such bodies, for the object-list benchmark.

A body is what follows the DATA reply's session and correlation words: a
stream of records, each opened by a tag byte (0 an object, 1 an item of the
current object, anything else skipped). Items may continue in the next body
of the same answer; they then belong to the last object read so far.

The reader follows the client library's rules for bad input: the first
field that runs past the body reads as 0 (a text as '') and ends the body,
keeping the record begun with zero or empty tails; an item of an unknown
object type ends the body too, as its length is unknown.
"""
import struct
import sys

DATA_CODE = 0x21000
MAX_PAYLOAD = 32768
MAX_BODY = MAX_PAYLOAD - 8  # after the session and correlation words

TAG_OBJECT, TAG_ITEM = 0, 1

U8, U16, U32, STR = 'B', 'H', 'I', 's'
_FIXED = dict((k, struct.Struct('>' + k)) for k in (U8, U16, U32))

# Per object type code: the item's own fields in wire order, (key, kind[, max]).
ITEM_FIELDS = (
    (('type', U8), ('value1', STR, 127), ('value2', STR, 127), ('exclude', U8)),  # net
    (('type', U8), ('value1', U16), ('value2', U16), ('exclude', U8)),  # port
    (('value', STR, 255),),  # service
    (('type', U8), ('value1', U16), ('value2', U16), ('exclude', U8)),  # VLAN
    (('protocol', U8),),  # protocol
    (('type', U8), ('value1', U32), ('value2', U32), ('days', U16), ('exclude', U8)),  # time
    (('type', U8), ('asnumber', U32), ('value1', U32)),  # BGP
    (('value', STR, 255),),  # system
    (('property', STR, 255), ('value', STR, 255)),  # property
    (('field', U32), ('direction', U8), ('value', STR, 255)),  # rewrite
    (('value', STR, 255), ('exclude', U8)),  # flag
    (('type', U8), ('value1', U32), ('value2', U32), ('exclude', U8)),  # MPLS
    (('type', U8), ('value1', U8), ('value2', U8), ('exclude', U8)),  # DSCP
    (('type', U8), ('value', U32), ('exclude', U8)),  # channel
    (('value', U8),),  # tunnel level
    (('value', U8),),  # tunnel type
    (('value', STR, 255), ('exclude', U8)),  # Sorvik
    (('netobject', U32), ('keytype', U8), ('key', STR, 255), ('valuetype', U8),
     ('value', STR, 255), ('spoof', U8), ('miss', U8), ('defaultvalue', STR, 255)),  # enrich
    (('schemaname', STR, 255), ('columnname', STR, 255), ('value', STR, 255),
     ('matchtype', U8)),  # session context
)
AUDIT_FIELDS = (('creator', STR, 31), ('creation_date', STR, 22),
                ('modified_by', STR, 31), ('modification_date', STR, 22))

if sys.version_info[0] >= 3:
    def _text(raw):
        return raw.decode('utf-8', 'surrogateescape')

    def _raw(text):
        return text.encode('utf-8', 'surrogateescape') if isinstance(text, str) else text
else:
    def _text(raw):
        return raw

    def _raw(text):
        return text.encode('utf-8') if isinstance(text, unicode) else text  # noqa: F821


# --- reading ----------------------------------------------------------------

# A short field returns the end of the body as its position, so that every
# later field reads empty and the record stream stops there.

def _fixed(kind, buf, pos, end):
    s = _FIXED[kind]
    if pos + s.size > end:
        return 0, end
    return s.unpack_from(buf, pos)[0], pos + s.size


def _string(buf, pos, end, maxlen):
    """A text cut to maxlen characters and at its first NUL."""
    if pos + 4 > end:
        return _text(b''), end
    n = _FIXED[U32].unpack_from(buf, pos)[0]
    pos += 4
    if pos + n > end:
        return _text(b''), end
    take = min(n, maxlen)
    raw = buf[pos:pos + take]
    pos += n
    nul = raw.find(b'\0')
    return _text(raw if nul < 0 else raw[:nul]), pos


def _fields(rows, buf, pos, end, into):
    for row in rows:
        if row[1] == STR:
            into[row[0]], pos = _string(buf, pos, end, row[2])
        else:
            into[row[0]], pos = _fixed(row[1], buf, pos, end)
    return pos


def _read_object(buf, pos, end):
    o = {}
    o['id'], pos = _fixed(U32, buf, pos, end)
    o['name'], pos = _string(buf, pos, end, 255)
    o['parent'], pos = _fixed(U32, buf, pos, end)
    o['referenced'], pos = _fixed(U32, buf, pos, end)
    pos = _fields(AUDIT_FIELDS, buf, pos, end, o)
    visible, pos = _fixed(U8, buf, pos, end)
    o['visible'] = bool(visible)
    _extra, pos = _fixed(U32, buf, pos, end)
    nattr, pos = _fixed(U32, buf, pos, end)
    while nattr and pos < end:  # attributes are not part of the converted object
        _key, pos = _string(buf, pos, end, 255)
        _value, pos = _string(buf, pos, end, 1023)
        nattr -= 1
    o['items'] = []
    return o, pos


def _read_item(buf, pos, end):
    """(item dict or None for an unknown object type, position)."""
    code, pos = _fixed(U8, buf, pos, end)
    item = {}
    item['id'], pos = _fixed(U32, buf, pos, end)
    if code >= len(ITEM_FIELDS):
        return None, end
    pos = _fields(ITEM_FIELDS[code], buf, pos, end, item)
    pos = _fields(AUDIT_FIELDS, buf, pos, end, item)
    return item, pos


def decode_object_list(body, objects=None):
    """Decodes one reply body into objects (a list, made when None) and
    returns it: what Session.object_list_handle(msg, l) then
    l.convert(None) give."""
    if objects is None:
        objects = []
    new = []
    current = None
    pos, end = 0, len(body)
    while pos < end:
        tag = _FIXED[U8].unpack_from(body, pos)[0]
        pos += 1
        if tag == TAG_OBJECT:
            current, pos = _read_object(body, pos, end)
            new.append(current)
        elif tag == TAG_ITEM:
            if current is None:
                if not objects:
                    return objects  # items with no object to hold them
                current = objects[-1]
            item, pos = _read_item(body, pos, end)
            if item is not None:
                current['items'].append(item)
    objects.extend(new)
    return objects


# --- writing ----------------------------------------------------------------

def _put_string(text):
    raw = _raw(text)
    return struct.pack('>I', len(raw) + 1) + raw + b'\0'


def _put_fields(rows, values):
    out = []
    for row in rows:
        if row[1] == STR:
            out.append(_put_string(values[row[0]]))
        else:
            out.append(_FIXED[row[1]].pack(values[row[0]]))
    return b''.join(out)


def encode_object(o):
    """The record of one object (its items are separate records)."""
    return b''.join((struct.pack('>BI', TAG_OBJECT, o['id']), _put_string(o['name']),
                     struct.pack('>II', o['parent'], o['referenced']),
                     _put_fields(AUDIT_FIELDS, o),
                     struct.pack('>BII', 1 if o['visible'] else 0, 0, 0)))


def encode_item(objtype, item):
    return b''.join((struct.pack('>BBI', TAG_ITEM, objtype, item['id']),
                     _put_fields(ITEM_FIELDS[objtype], item),
                     _put_fields(AUDIT_FIELDS, item)))


def records(objtype, objects):
    """The answer's records in order: each object, then its items."""
    for o in objects:
        yield encode_object(o)
        for item in o['items']:
            yield encode_item(objtype, item)


def bodies(recs, limit=MAX_BODY):
    """Packs records into reply bodies of at most limit bytes, cut only
    between records."""
    out, size = [], 0
    for r in recs:
        if size + len(r) > limit and out:
            yield b''.join(out)
            out, size = [], 0
        out.append(r)
        size += len(r)
    if out:
        yield b''.join(out)


def data_frame(body, session=0, cid=0):
    """A whole DATA reply frame: code, length, session word, correlation id, body."""
    return struct.pack('>IHII', DATA_CODE, len(body) + 8, session, cid) + body


AUDIT = {'creator': 'admin', 'creation_date': '2024-05-01 12:00:00',
         'modified_by': 'admin', 'modification_date': '2024-05-01 12:00:00'}


def net_objects(n, k, first_id=1):
    """n net objects of k IPv4 items each (address, network, range, in
    turn), as convert() gives them; every tenth object is a parent of the
    nine behind it."""
    item_id = first_id + n
    objs = []
    for i in range(n):
        oid = first_id + i
        o = {'id': oid, 'name': 'net%06d' % i, 'referenced': i % 3, 'visible': i % 7 != 0,
             'parent': 0 if i % 10 == 0 else oid - i % 10, 'items': []}
        o.update(AUDIT)
        for j in range(k):
            a, b = (i >> 8) & 0xff, i & 0xff
            kind = 1 + j % 3
            value1 = ('10.%d.%d.%d' % (a, b, j), '10.%d.%d.0/24' % (a, b),
                      '10.%d.%d.1' % (a, b))[kind - 1]
            item = {'id': item_id, 'type': kind, 'value1': value1,
                    'value2': '10.%d.%d.99' % (a, b) if kind == 3 else '', 'exclude': j % 2}
            item.update(AUDIT)
            o['items'].append(item)
            item_id += 1
        objs.append(o)
    return objs


def net_object_bodies(n, k):
    """Reply bodies for n net objects with k items each."""
    return list(bodies(records(0, net_objects(n, k))))
