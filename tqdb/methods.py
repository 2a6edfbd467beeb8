"""The request table: for every request of TQDBv17_1.Session, how its answer
arrives and how it is decoded. Client methods are made from these rows.

Most of the table is read from the module itself: a request `x` is decoded
by `x_handle` when the session has one, and a decoder whose second
parameter is a list object (`l`, `lst`, `gl`) reads a list answer. The
rest, where the appliance's answer does not follow from the decoder's
signature, are the small tables below.

Answer shapes:
    ok      OK (or a refusal); the method returns None
    value   one DATA, decoded; None when the appliance answers OK instead
    list    DATA ... then OK, every DATA decoded into one list, returned
            converted ([] when the answer is the OK alone)
    notice  the restart/reload notice (it carries no correlation id), its reason
"""
from __future__ import absolute_import

import collections
import re

import TQDBv17_1 as _tq

OK, VALUE, LIST, NOTICE = 'ok', 'value', 'list', 'notice'

# Message types 9 and 10 have no constant in the module.
MSG_RESTARTING, MSG_RELOADING = 9, 10

# Parameter names the decoders give the list object they continue.
LIST_PARAMS = ('l', 'lst', 'gl')

# Requests decoded by a method whose name is not theirs plus `_handle`
# ('handle.' marks a decoder of TQDBAPIHandle rather than of Session).
DECODERS = {
    'resource_begin': 'handle.begin_handle',
    'resource_commit': 'handle.commit_handle',
    'monitorinterface_list': 'monitoriface_list_handle',
    'channel_divert_label_list': 'channel_label_list_handle',
    'channel_monitor_label_list': 'channel_label_list_handle',
    'dynamicliveview_remove': 'dynamiceliveview_remove_handle',
    'restart': 'restarting_handle',
    'reload': 'reloading_handle',
}

# Answers the decoder's signature does not tell.
SHAPES = {
    # one DATA although the decoder continues a list
    'diag': VALUE,
    'resource_resource_list': VALUE,
    # DATA ... OK although the decoder returns a plain list per message
    'stat_date_list': LIST,
    'stat_transfer_get': LIST,
    'stat_writer_status': LIST,
    'stat_subitem_count': LIST,
    'sysdiag_malloc_usage_get': LIST,
    'sysdiag_zone_get_enum_values': LIST,
    # DATA ... OK with no decoder in the module: the DATA messages themselves
    'services_prop_list': LIST,
    'restart': NOTICE, 'restarting': NOTICE,
    'reload': NOTICE, 'reloading': NOTICE,
}

# Further arguments of decoders that take more than the message.
DECODER_ARGS = {
    'sysdiag_malloc_usage_get': (0,),   # in the order of the answer
}

NOTICE_TYPES = {
    'restart': MSG_RESTARTING, 'restarting': MSG_RESTARTING,
    'reload': MSG_RELOADING, 'reloading': MSG_RELOADING,
}

# Session attributes that are not plain requests: local helpers, and the
# transfers and the query stream, which are driven over the low-level API
# (Client.send / replies / reply) rather than answered in one go.
NOT_REQUESTS = frozenset([
    'channel_label_list_destroy',
    'stat_query', 'stat_query_handle_msg',
    'fileserv_download', 'fileserv_download_handle',
    'backup_download', 'backup_download_handle',
    'fileserve_upload', 'fileserve_upload_continue', 'fileserve_upload_handle_data',
    'backup_upload', 'backup_upload_continue', 'backup_upload_handle',
])

# A request is read-only, and so may be sent again after a reconnect, when
# it reads (a value or a list) and its name has one of these words.
READ_ONLY_WORDS = ('list', 'get', 'ping', 'diag', 'search', 'graph', 'count', 'status',
                   'version', 'expandable', 'fields', 'servicelist', 'types')
_READ_ONLY = re.compile(r'(?:^|_)(?:%s)(?:_|$)' % '|'.join(READ_ONLY_WORDS))


class Request(collections.namedtuple('Request', 'name shape decoder args continues read_only')):
    """One request: its Session method `name`, the answer `shape`, the
    `decoder` name ('handle.' prefix: a TQDBAPIHandle method; None: none), the
    decoder's further `args`, whether the decoder `continues` a list object
    given to it, and whether the request is `read_only`."""
    __slots__ = ()


def _params(doc):
    """The parameter names of the signature on the first docstring line."""
    m = re.match(r'\s*\w+\((.*?)\)', doc or '')
    return [p.split('=')[0].strip() for p in m.group(1).split(',')] if m else []


def _row(name, names):
    decoder = DECODERS.get(name)
    if decoder is None and name + '_handle' in names:
        decoder = name + '_handle'
    continues = False
    if decoder is not None:
        owner = _tq.TQDBAPIHandle if decoder.startswith('handle.') else _tq.Session
        params = _params(getattr(owner, decoder.split('.')[-1]).__doc__)
        continues = len(params) > 1 and params[1] in LIST_PARAMS
    shape = SHAPES.get(name) or (LIST if continues else VALUE if decoder else OK)
    return Request(name, shape, decoder, DECODER_ARGS.get(name, ()), continues,
                   shape in (VALUE, LIST) and bool(_READ_ONLY.search(name)))


def _build():
    names = set(n for n in dir(_tq.Session) if not n.startswith('_'))
    return dict((n, _row(n, names)) for n in names - NOT_REQUESTS if not n.endswith('_handle'))


REQUESTS = _build()


def decoders_covered():
    """Every Session decoder some row uses."""
    return set(r.decoder for r in REQUESTS.values() if r.decoder and '.' not in r.decoder)
