"""Writes stubs/TQDBv17_1.pyi from the module itself.

    PYTHONPATH=build/python3.11 python3 stubs/gen_stubs.py

What the module tells at run time (its constants in definition order, its
classes and their bases, every Session method with the signature its
docstring opens with) is joined with what only the sources know: how each
request argument is converted (the Conv of its row in binding/*.cc) and, for
the few methods outside the row shapes, the types written out in SPECIAL
below. Decoder return types follow from the docstring's "-> ..." part.
tests/python/test_stubs.py holds the result against the module (stubtest,
and every Session method called by the stub's parameter names).

The same run writes the generated blocks of the tqdb package's stubs: the
clients' request methods (tqdb/client.pyi, tqdb/aio.pyi) with the Session
methods' parameters, and the package's constants (tqdb/__init__.pyi).
"""
import ast
import io
import os
import re
import sys

import TQDBv17_1 as tq

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
OUT = os.path.join(ROOT, 'stubs', 'TQDBv17_1.pyi')

# Argument conversions of the request rows, as stub types.
CONV = {
    'Int': 'int', 'U32': 'int', 'U64': 'int', 'Truth': 'object', 'Text': '_Text',
    'IntSeq': 'Sequence[int]', 'Item': '_ItemDict', 'Limits': '_Limits', 'Wfq': 'Sequence[int]',
    'Conds': 'Sequence[Item | tuple[int, int]]', 'Filters': 'Iterable[Filter]',
    'Dists': 'Iterable[Distribution]', 'Ignored': 'object',
}

# Methods outside the row shapes: parameter types and return type.
SPECIAL = {
    'backup_download_handle': ({'ifile': '_BinaryOut', 'insize': 'int'}, 'tuple[int, int]'),
    'fileserv_download_handle': ({'ifile': '_BinaryOut', 'insize': 'int'}, 'tuple[int, int]'),
    'backup_dump': ({}, 'int'),
    'backup_dump_handle': ({}, 'str | None'),
    'backup_upload': ({'target_name': '_Text', 'input_file': '_Input'}, 'TQBackup'),
    'backup_upload_continue': ({'b': 'TQBackup'}, 'int'),
    'backup_upload_handle': ({'b': 'TQBackup'}, 'int'),
    'fileserve_upload': ({'target_type': 'int', 'target_name': '_Text', 'input_file': '_Input'},
                         'TQFileServe'),
    'fileserve_upload_continue': ({'fil': 'TQFileServe'}, 'int'),
    'fileserve_upload_handle_data': ({'fil': 'TQFileServe'}, 'int'),
    'channel_label_add_handle': ({}, 'int | None'),
    'channel_label_list_destroy': ({'l': 'TQChannelLabelList'}, 'None'),
    'channel_label_channels_set': ({'id': 'int', 'pythonlist': 'Sequence[dict[str, Any]]'},
                                   'int'),
    'channel_update': ({'channel': 'dict[str, Any]', 'label': 'int', 'internal_media': 'int',
                        'external_media': 'int', 'role': 'int', 'direction': 'int'}, 'int'),
    'connprot_trigger_add_handle': ({}, 'int'),
    'hosttrigger_add_handle': ({}, 'int'),
    'user_add_handle': ({}, 'int'),
    'user_auth_handle': ({}, 'int'),
    'features_get_handle': ({}, 'int'),
    'stat_is_expandable_handle': ({}, 'int'),
    'stat_subscriber_count_handle': ({}, 'int'),
    'sysdiag_zone_version_handle': ({}, 'int | None'),
    'ping_handle': ({}, 'str | None'),
    'reloading_handle': ({}, 'str | None'),
    'restarting_handle': ({}, 'str | None'),
    'restart': ({'reason': '_Text | None'}, 'int'),
    'reload': ({'reason': '_Text | None'}, 'int'),
    'restarting': ({'reason': '_Text | None'}, 'int'),
    'reloading': ({'reason': '_Text | None'}, 'int'),
    'services_cmd': ({'services': 'dict[str, str]',
                      'props': 'dict[tuple[str, str], str] | None'}, 'int'),
    'stat_date_list_handle': ({}, 'list[str]'),
    'stat_list_fields_handle': ({}, 'dict[str, Any] | None'),
    'stat_subitem_count_handle': ({}, 'list[dict[str, Any]]'),
    'stat_transfer_get_handle': ({}, 'list[dict[str, Any]]'),
    'stat_writer_status_handle': ({}, 'list[dict[str, Any]]'),
    'stat_query': ({'query': '_Text'}, 'int'),
    'stat_query_handle_msg': ({'state': 'TQStatQueryState | None', 'cb': 'object'},
                              'TQStatQueryState | None'),
    'sysdiag_malloc_usage_get_handle': ({'typ': 'int'}, 'list[dict[str, Any]]'),
    'sysdiag_zone_get_enum_values_handle': ({}, 'list[dict[str, Any]]'),
    'sysdiag_zone_register': ({'zone': 'dict[str, Any]'}, 'int'),
    'sysdiag_zone_update_values': ({'zoneoid': 'int', 'elapsedms': 'int',
                                    'values': 'Sequence[int]'}, 'int'),
    'system_overview_sysinfo_add_system': ({'system': '_Text', 'data': 'dict[str, str]'},
                                           'int'),
    'system_overview_sysinfo_get_system_handle': ({}, 'dict[str, str]'),
    'connlog_search': ({'server': '_Text', 'client': '_Text', 'service': '_Text',
                        'serverhostname': '_Text', 'natclient': '_Text', 'natserver': '_Text'},
                       'int'),
}

# What a signature cannot say.
COMMENTS = {
    'stat_query_handle_msg': [
        "cb may have any of row_desc_cb([(name, type, aux), ...]), row_data_cb([value, ...]),",
        "notice_cb(str), bytes_cb(bytes), complete_cb() and end_cb().",
    ],
    'connlog_search': ['Every filter is optional: 0 and "" match everything.'],
    'hosttrigger_add': ['A threshold of 0 is not watched.'],
}
# Names that keep one type throughout, where the rows are built by macros
# (host trigger thresholds) or by hand (connection log search).
NAMED = dict({'msg@decoder': 'TQMessage'}, **dict.fromkeys(
    'in_bw out_bw in_cps out_cps conns uconns uconn_rate out_ttls qoe_in_int qoe_in_ext '
    'qoe_out_int qoe_out_ext netobject trigtype starttime endtime serverport clientport '
    'protocol natclientport natserverport max_hits offset'.split(), 'int'))
# Docstrings that abbreviate their signature or leave its defaults out:
# "name" or "name=default" as a docstring would write them.
PARAMS = {
    'hosttrigger_update': ['id', 'script', 'in_bw', 'out_bw', 'in_cps', 'out_cps', 'conns',
                           'uconns', 'uconn_rate', 'out_ttls', 'qoe_in_int', 'qoe_in_ext',
                           'qoe_out_int', 'qoe_out_ext', 'netobject', 'trigtype'],
    'fwrule_update': ['i', 'action', 'quick', 'log', 'rewriteobject=0', 'enrichobject=0',
                      'monitor_iface=0', "monitor_label=''", "divert_label=''",
                      "inject_data=''", "trigger=''", 'rulecondition=0'],
}

HEAD = '''"""The TQDB client: handle, sessions, messages and results.

Generated by stubs/gen_stubs.py from the module and binding/*.cc; edit the
generator, not this file.
"""
from typing import IO, Any, Iterable, Mapping, Protocol, Sequence, TypedDict, Union, final

from select import select as select
from TQvindelv17_1 import Vindel

# A text argument: str, or bytes taken as they are.
_Text = Union[str, bytes]
# An object item as object_item_add and object_item_update take it.
_ItemDict = Mapping[str, Any]
# A shaping object's limits, a dict: {"inbound"|"outbound"|"bidir": [6-tuple, ...]}.
_Limits = dict[str, Any]
# An upload's source: a path, or a binary file object.
_Input = Union[str, bytes, IO[bytes]]
# A download's target: a binary file object.
_BinaryOut = IO[bytes]

class _StealsVindel(Protocol):
    def steal_vindel(self) -> Vindel: ...

@final
class TQMessage:
    def get_type(self) -> int: ...
    def get_cid(self) -> int: ...
    def get_error(self) -> str: ...

@final
class TQDBAPIHandle:
    def __init__(self, io: _StealsVindel) -> None: ...
    def want_write(self) -> bool: ...
    def write(self) -> None: ...
    def readmsg(self) -> TQMessage | None: ...
    def version_handle(self, msg: TQMessage) -> tuple[int, str, str, tuple[int, int, int]]: ...
    def auth(self, user: _Text, pwd: _Text) -> int: ...
    def auth_handle(self, msg: TQMessage) -> tuple[int, int] | None: ...
    def session_new(self) -> int: ...
    def session_new_handle(self, msg: TQMessage) -> Session: ...
    # (seqno, timestamp, systemid, text) of a commit id.
    def begin_handle(self, msg: TQMessage) -> tuple[int, int, str, str]: ...
    def commit_handle(self, msg: TQMessage) -> tuple[int, int, str, str]: ...
    def commit_bcast_handle(self, msg: TQMessage) -> tuple[int, int, str, str]: ...

class _Transfer:
    # The state of one upload; read-only.
    @property
    def cid(self) -> int: ...
    @property
    def target_name(self) -> str: ...
    @property
    def target_type(self) -> int: ...
    @property
    def state(self) -> int: ...
    @property
    def failed(self) -> int: ...
    @property
    def transfer_id(self) -> int: ...

@final
class TQFileServe(_Transfer): ...
@final
class TQBackup(_Transfer): ...

@final
class TQStatQueryState:
    @property
    def cid(self) -> int: ...
    @property
    def done(self) -> bool: ...

# The values of rule conditions and live views, as their lists convert them
# and as the requests take them (any object with these attributes will do).
class Item:
    conditiontype: int
    objectid: int
    def __init__(self, conditiontype: int, objectid: int) -> None: ...
class Distribution:
    distribution: str
    argument: str
    def __init__(self, distribution: str, argument: str) -> None: ...
class Filter:
    key: str
    operator: int
    values: Sequence[str]
    def __init__(self, key: str, operator: int, values: Sequence[str]) -> None: ...

class ResultList:
    def convert(self, unused: object) -> list[Any]: ...

class TQIntList(ResultList):
    def __init__(self, values: Sequence[int] = ()) -> None: ...
    def convert(self, unused: object) -> list[int]: ...

def intlisttopython(l: TQIntList) -> list[int]: ...
def ipv4tostr(addr: int) -> str: ...
def ipv6tostr(words: Sequence[int]) -> str: ...
def setup_item(type: int, item: _ItemDict) -> dict[str, Any]: ...
'''

# What convert() makes of each kind of record field.
FIELD_KINDS = {
    'Text': 'str', 'TextPtr': 'str', 'IPv4': 'str', 'IPv6': 'str', 'OidPair': 'str',
    'Flag': 'bool', 'FlagBit': 'bool', 'U8': 'int', 'U16': 'int', 'I32': 'int', 'U32': 'int',
    'U64': 'int', 'IntList': 'list[int]', 'U8Array': 'list[int]', 'U64s': 'list[int]',
    'F64s': 'list[float]', 'Items': 'list[dict[str, Any]]', 'Records': 'list[dict[str, Any]]',
    'Limits': 'list[tuple[int, int, int, int, int, int]]', 'CondItems': 'list[Item]',
    'Distributions': 'list[Distribution]', 'Filters': 'list[Filter]',
}
# The field rows of a table, in order: (kind, key) from each macro's arguments.
FIELD_ROW = re.compile(
    r'TQ_FIELD\(\s*\w+,\s*[\w.]+,\s*(?P<f>\w+),\s*"(?P<fk>\w+)"\)'
    r'|TQ_ARRAY_FIELD\(\s*\w+,\s*[\w.]+,\s*(?P<a>\w+),[^,]+,\s*"(?P<ak>\w+)"\)'
    r'|TQ_LIMIT_FIELD\((?P<lk>\w+),\s*(?P<l>\w+)\)'
    r'|(?P<m>TQ_FLAG_BIT|TQ_OID_FIELD|TQ_RECORDS_FIELD)\([^"]*"(?P<mk>\w+)"\)'
    r'|(?P<audit>TQ_AUDIT_FIELDS)\(')
MACRO_KINDS = {'TQ_FLAG_BIT': 'FlagBit', 'TQ_OID_FIELD': 'OidPair', 'TQ_RECORDS_FIELD': 'Records'}


def record_tables():
    """{list class: (record type name, [(key, type), ...])} of the lists whose
    records convert to dicts by one field table."""
    tables, spans = {}, {}
    for name in sorted(os.listdir(os.path.join(ROOT, 'binding'))):
        if not name.endswith('.cc'):
            continue
        with io.open(os.path.join(ROOT, 'binding', name), encoding='utf-8') as f:
            src = f.read()
        for table, body in re.findall(r'constexpr Field (k\w+)\[\] = \{(.*?)\n\};', src, re.S):
            fields = []
            for m in FIELD_ROW.finditer(body):
                if m.group('audit'):
                    fields += [(k, 'str') for k in
                               ('creator', 'creation_date', 'modified_by', 'modification_date')]
                    continue
                kind = m.group('f') or m.group('a') or m.group('l') or MACRO_KINDS.get(m.group('m'))
                fields.append((m.group('fk') or m.group('ak') or m.group('lk') or m.group('mk'),
                               FIELD_KINDS[kind]))
            tables[(name, table)] = fields
        # A table under its exported name; a part of a table (.first) is not one.
        for g, table in re.findall(r'std::span<const Field> (g_\w+)\{(k\w+)\}', src):
            spans[g] = tables[(name, table)]
        for table in re.findall(r'constexpr Field (k\w+)\[\]', src):
            spans.setdefault(name + ':' + table, tables[(name, table)])
    lists = {}
    with io.open(os.path.join(ROOT, 'binding', 'result_list.cc'), encoding='utf-8') as f:
        src = f.read()
    for cls, table in re.findall(r'record_list\(ListId::\w+,\s*"(\w+)",\s*(\w+)', src):
        fields = spans.get(table) or spans.get('result_list.cc:' + table)
        if fields:
            base = re.sub(r'^(g_|k)|_?[Ff]ields$', '', table)
            lists[cls] = ('_' + ''.join(w[:1].upper() + w[1:] for w in base.split('_')) + 'Record',
                          fields)
    # A connection log search converts to one dict: its figures, the entries
    # with their addresses and texts resolved, the matches and the messages.
    entry = ('_ConnlogEntry', spans['connlog.cc:kEntryFields'] + [
        (k, 'str') for k in ('client', 'server', 'service', 'serverhostname')])
    lists['TQConnlogList'] = ('_ConnlogResult', spans['connlog.cc:kMetaFields'] + [
        ('entries', 'list[_ConnlogEntry]'), ('matches', 'list[int]'), ('warnings', 'list[str]'),
        ('error', 'str')])
    return lists, [entry]


RETURNS = [  # (docstring's "-> ..." prefix, type); the list decoders come first
    (re.compile(r'(\w+) \(a new (\w+) when None\)'), None),
    (re.compile(r'correlation id'), 'int'),
    (re.compile(r'\(new id, timestamp\)'), 'tuple[int, str | None]'),
    (re.compile(r'timestamp'), 'str | None'),
    (re.compile(r'\[\(key, value\), \.\.\.\]'), 'list[tuple[str, str]]'),
]


PROBLEMS = []


def request_convs():
    """Each argument name's stub type, from the request rows of binding/."""
    found = {}
    pat = re.compile(r'\b(arg|field|item_arg)\("(\w+)",\s*(?:Conv::(\w+)|\d)')
    for name in sorted(os.listdir(os.path.join(ROOT, 'binding'))):
        if name.endswith('.cc'):
            with io.open(os.path.join(ROOT, 'binding', name), encoding='utf-8') as f:
                for kind, arg, conv in pat.findall(f.read()):
                    found.setdefault(arg, set()).add(CONV['Item' if kind == 'item_arg' else conv])
    return found


def parse_signature(name, doc):
    m = re.match(re.escape(name) + r'\(([^)]*)\)\s*(?:->\s*(.*))?', doc or '', re.S)
    if not m:
        raise SystemExit('%s: the docstring does not open with its signature' % name)
    params = []
    for p in filter(None, (s.strip() for s in m.group(1).split(','))):
        pname, _, default = p.partition('=')
        params.append((pname.strip(), default.strip() or None))
    return params, (m.group(2) or '').strip()


def session_method(name, convs):
    params, ret_doc = parse_signature(name, getattr(tq.Session, name).__doc__)
    if name in PARAMS:
        params = parse_signature(name, '%s(%s)' % (name, ', '.join(PARAMS[name])))[0]
    types, ret = SPECIAL.get(name, ({}, None))
    if ret is None:
        for pat, t in RETURNS:
            m = pat.match(ret_doc)
            if m and t is None:
                ret = m.group(2)
                types = dict(types, **{m.group(1): m.group(2) + ' | None'})
            elif m:
                ret = t
            if m:
                break
        else:
            PROBLEMS.append('%s: no return type for "-> %s"' % (name, ret_doc))
    out = []
    for pname, default in params:
        # A decoder's msg is the reply; a request's msg is a text (a commit message).
        decoder = '_handle' in name and pname == 'msg'
        t = types.get(pname) or NAMED.get(pname + '@decoder' if decoder else pname)
        if not t:
            # An argument a request accepts but does not send ('object') takes
            # the type the same name has elsewhere.
            known = convs.get(pname, set())
            known = known - {'object'} if len(known) > 1 else known
            if len(known) != 1:
                PROBLEMS.append('%s: no single type for argument %s (%s)' % (name, pname, known))
            t = next(iter(known), '?')
        if default is None:
            out.append('%s: %s' % (pname, t))
        else:
            literal = re.match(r"^(None|-?\d+|'[^']*')$", default)
            out.append('%s: %s = %s' % (pname, t, default if literal else '...'))
    comment = ''.join('    # %s\n' % c for c in COMMENTS.get(name, []))
    return comment + wrap('    def %s(self' % name, ['self'] + out, ') -> %s: ...' % ret)


def wrap(opening, params, closing, width=100):
    """The definition on one line, or its parameters lined up under the first."""
    line = opening[:-len(params[0])] + ', '.join(params) + closing
    if len(line) <= width:
        return line
    indent = ' ' * (len(opening) - len(params[0]))
    lines, cur = [], opening
    for i, p in enumerate(params[1:], 2):
        tail = len(closing) if i == len(params) else 1
        if len(cur) + len(p) + 2 + tail > width:
            lines.append(cur + ',')
            cur = indent + p
        else:
            cur += ', ' + p
    text = '\n'.join(lines + [cur + closing])
    if max(len(l) for l in text.split('\n')) <= width:
        return text
    # Too long even so: the parameters on their own line.
    head = opening[:-len(params[0])]
    return '%s\n        %s\n    %s' % (head, ', '.join(params), closing)


def render():
    """The stub's text."""
    convs = request_convs()
    text = HEAD
    lists = [n for n, o in vars(tq).items()
             if isinstance(o, type) and issubclass(o, tq.ResultList) and o is not tq.ResultList]
    special_lists = {'TQStringList': 'str', 'TQIntList': 'int', 'TQUserPubkeyList': 'str'}
    records, nested = record_tables()
    lines = ['', '# --- the records of the list classes, as convert() gives them', '']
    for rec, fields in sorted(set((r, tuple(f)) for r, f in list(records.values()) + nested)):
        lines.append('class %s(TypedDict):' % rec)
        lines += ['    %s: %s' % f for f in fields]
    lines += ['', '# --- the list classes: convert(unused) gives one value per record', '']
    for n in sorted(lists):
        if n == 'TQIntList':
            continue  # in the head: it has a constructor
        item = 'list[%s]' % (special_lists.get(n) or records.get(n, ('dict[str, Any]',))[0])
        lines.append('class %s(ResultList):' % n)
        if n == 'TQConnlogList':
            lines.append('    # One dict for the whole search, not a list.')
            item = records[n][0] + ': ...  # type: ignore[override]'
        else:
            item += ': ...'
        lines.append('    def convert(self, unused: object) -> %s' % item)
    lines += ['', '# --- Session: x(...) queues a request and returns its correlation id (0 when',
              '# it could not be queued); x_handle(msg, ...) decodes the reply.', '',
              '@final', 'class Session:']
    for n in sorted(k for k in vars(tq.Session) if not k.startswith('__')):
        lines.append(session_method(n, convs))
    lines += ['', '# --- the constants, in definition order', '']
    lines += ['%s: int' % n for n, v in vars(tq).items()
              if type(v) is int and not n.startswith('_')]
    if PROBLEMS:
        raise SystemExit('\n'.join(PROBLEMS))
    return text + '\n'.join(lines) + '\n'


# --- the tqdb package's stubs --------------------------------------------------------
# Its clients have a method for every request of tqdb/methods.py's table, with
# the Session method's parameters and the plain value the answer is read into;
# the package has the module's constants. Those blocks of the hand-written
# stubs are written from the Session stub, between these markers.

TQDB = os.path.join(ROOT, 'tqdb')
REQUESTS_BLOCK = ('    # --- requests: generated by stubs/gen_stubs.py from the Session stub\n',
                  '    # --- end of the requests\n')
CONSTANTS_BLOCK = ('# --- the constants of TQDBv17_1: generated by stubs/gen_stubs.py\n',
                   '# --- end of the constants\n')
# Names the tqdb stubs import from typing; any other name an annotation
# uses is the module's, written _tq.<name>.
TYPING_NAMES = frozenset(['Any', 'IO', 'Iterable', 'Mapping', 'Sequence'])
BUILTIN_NAMES = frozenset(['int', 'str', 'bytes', 'bool', 'float', 'object', 'dict', 'list',
                           'tuple', 'None'])
RECORD = re.compile(r'\b_\w+Record\b|\b_ConnlogResult\b')


def _client_requests(stub, prefix):
    """The request methods of a client stub, from the Session stub's text."""
    sys.path.insert(0, ROOT)
    try:
        from tqdb import methods
    finally:
        sys.path.remove(ROOT)
    tree = ast.parse(stub)
    classes = dict((c.name, c) for c in tree.body if isinstance(c, ast.ClassDef))
    module_names = set(classes) | set(
        t.id for a in tree.body if isinstance(a, ast.Assign) for t in a.targets)

    def seg(node):
        return ast.get_source_segment(stub, node)

    def fn(cls, name):
        return next(f for f in classes[cls].body
                    if isinstance(f, ast.FunctionDef) and f.name == name)

    def plain(t):
        """The type of a decoder's value as the client returns it: a list
        object converted, its records as plain dicts."""
        bare = t.replace(' | None', '')
        if bare in classes and any(getattr(f, 'name', '') == 'convert' for f in classes[bare].body):
            t = seg(fn(bare, 'convert').returns) + t[len(bare):]
        return RECORD.sub('dict[str, Any]', t)

    def qualified(t):
        names = set(re.findall(r'[A-Za-z_]\w*', t))
        unknown = names - module_names - TYPING_NAMES - BUILTIN_NAMES
        if unknown:
            PROBLEMS.append('tqdb stubs: no import for %s' % ', '.join(sorted(unknown)))
        return re.sub(r'(?<![\w.])(%s)\b' % '|'.join(sorted(names & module_names) or ['(?!)']),
                      r'_tq.\1', t)

    lines = []
    for name, req in sorted(methods.REQUESTS.items()):
        if req.shape == methods.OK:
            ret = 'None'
        elif req.decoder is None:
            ret = 'list[TQMessage]'
        else:
            owner, _, decoder = req.decoder.rpartition('.')
            ret = plain(seg(fn('TQDBAPIHandle' if owner else 'Session', decoder).returns))
        f = fn('Session', name)
        args = f.args.args[1:]
        defaults = [None] * (len(args) - len(f.args.defaults)) + f.args.defaults
        params = ['%s: %s' % (a.arg, qualified(seg(a.annotation)))
                  + (' = %s' % seg(d) if d is not None else '') for a, d in zip(args, defaults)]
        lines.append(wrap('    %sdef %s(self' % (prefix, name), ['self'] + params,
                          ') -> %s: ...' % qualified(ret)))
    return ''.join(l + '\n' for l in lines)


def _fill(path, block, text):
    with io.open(path, encoding='utf-8') as f:
        old = f.read()
    start, end = old.find(block[0]), old.find(block[1])
    if start < 0 or end < start:
        raise SystemExit('%s: the markers of the generated block are gone' % path)
    return old[:start + len(block[0])] + text + old[end:]


def render_tqdb(stub):
    """{path: text} of the tqdb stubs with their generated blocks filled."""
    out = {}
    for name, prefix in (('client.pyi', ''), ('aio.pyi', 'async ')):
        path = os.path.join(TQDB, name)
        out[path] = _fill(path, REQUESTS_BLOCK, _client_requests(stub, prefix))
    path = os.path.join(TQDB, '__init__.pyi')
    with io.open(path, encoding='utf-8') as f:
        head = f.read().split(CONSTANTS_BLOCK[0])[0]
    # As the package takes them: the module's upper-case integers.
    consts = [n for n, v in vars(tq).items() if n.isupper() and type(v) is int
              and not re.search(r'\b%s as %s\b' % (n, n), head)]
    out[path] = _fill(path, CONSTANTS_BLOCK, ''.join('%s: int\n' % n for n in consts))
    if PROBLEMS:
        raise SystemExit('\n'.join(PROBLEMS))
    return out


def main():
    text = render()
    outputs = dict(render_tqdb(text), **{OUT: text})
    for path, content in sorted(outputs.items()):
        with io.open(path, 'w', encoding='utf-8') as f:
            f.write(content)
        sys.stdout.write('wrote %s\n' % path)


if __name__ == '__main__':
    main()
