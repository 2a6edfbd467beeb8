"""What the blocking client and the asyncio client share: the conversation
over one TQDBAPIHandle whatever drives its socket.

A Conversation routes every message the handle reads: a reply to the
request waiting for its correlation id, an unsolicited message (commit
broadcast, detached notice, restart/reload notice) to the event callbacks
or the events queue, and the version and login answers aside for the
connection's set-up. An Answer reads the replies of one request by its row
of the request table (tqdb/methods.py) into one plain value; an Inbox keeps
the raw replies of a request the script reads itself.

The drivers only add the waiting: the blocking client selects on the socket
until what it waits for is there, the asyncio client lets the loop call it
when the socket is ready and resolves futures.
"""
from __future__ import absolute_import

import collections
import socket

import TQDBv17_1 as _tq
import TQvindelv17_1 as _vindel

from . import methods as _m
from .errors import (AuthenticationError, ConnectionLost, CriticalError, Error, LockedError,
                     ServerError, VersionError)

DEFAULT_PORT = 17100

DATA, OK = _tq.MSG_TYPE_DATA, _tq.MSG_TYPE_OK
REFUSALS = {
    _tq.MSG_TYPE_ERROR: ServerError,
    _tq.MSG_TYPE_CRITICAL: CriticalError,
    _tq.MSG_TYPE_LOCK: LockedError,
}
REPLIES = frozenset([DATA, OK]) | frozenset(REFUSALS)

# Unsolicited messages: their type, the kind of event, how the value is read.
EVENTS = (
    (_tq.MSG_TYPE_BCAST_COMMIT, 'commit', lambda c, m: c.handle.commit_bcast_handle(m)),
    (_tq.MSG_TYPE_DETACHED, 'detached', lambda c, m: m.get_error()),
    (_m.MSG_RESTARTING, 'restart', lambda c, m: c.session.restarting_handle(m)),
    (_m.MSG_RELOADING, 'reload', lambda c, m: c.session.reloading_handle(m)),
)
EVENT_BY_TYPE = dict((t, (kind, read)) for t, kind, read in EVENTS)
SETUP = (_tq.MSG_TYPE_VERSION, _tq.MSG_TYPE_AUTH)

_KEY = []


def shared_key():
    """The key pair this process uses when connect() is given none: making
    one is the slow part of a connection, so it is made once."""
    if not _KEY:
        _KEY.append(_vindel.generate_key())
    return _KEY[0]


def nodelay(sock):
    """Requests and the handshake are small writes answered at once: without
    TCP_NODELAY, Nagle's algorithm holds each back for the peer's delayed
    ACK (some 40 ms a connection on loopback)."""
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)


def refusal(msg, request=None):
    """The exception for a refused request's reply."""
    t = msg.get_type()
    return REFUSALS[t](msg.get_error(), t, request)


def request(name):
    """The row of request `name`; ValueError for a name that is none."""
    req = _m.REQUESTS.get(name)
    if req is None:
        raise ValueError('no request %r: see tqdb.methods.REQUESTS' % (name,))
    return req


# -- the set-up answers --------------------------------------------------------------------------

def read_version(handle, msg):
    try:
        return handle.version_handle(msg)
    except RuntimeError as e:
        raise VersionError(str(e))


def send_login(handle, user, password):
    if not handle.auth(user, password):
        raise Error('the login request could not be queued')


def read_login(handle, msg, user):
    login = handle.auth_handle(msg)
    if login is None:
        raise AuthenticationError('login refused for %s' % user)
    return login


def read_session(handle, msg):
    if msg.get_type() != DATA:
        raise Error('no session: the appliance answered type %d' % msg.get_type())
    return handle.session_new_handle(msg)


_CONVERTS = {}


def plain(value):
    """A decoded value as plain Python values: the module's list objects
    converted, anything else as it is."""
    kind = type(value)
    converts = _CONVERTS.get(kind)
    if converts is None:
        converts = _CONVERTS[kind] = hasattr(kind, 'convert')
    return value.convert(None) if converts else value


# -- one request's answer ------------------------------------------------------------------------

class Answer(object):
    """The replies of one request read into its plain value. A driver's
    subclass gives _settle(value, error), called once."""

    __slots__ = ('_client', 'request', 'cid', '_acc')

    def __init__(self, client, request, cid):
        self._client, self.request, self.cid = client, request, cid
        self._acc = None

    def _finish(self, value=None, error=None):
        self._acc = None
        self._client._pending.pop(self.cid, None)
        self._settle(value, error)

    def feed(self, msg):
        """Takes one reply with this request's correlation id."""
        t = msg.get_type()
        req = self.request
        shape = req.shape
        try:
            if t == DATA:
                if shape == _m.VALUE:
                    value = self._client._decoder(req.decoder)(msg, *req.args)
                    self._finish(plain(value))
                elif shape == _m.LIST:
                    self._collect(msg)
                elif shape != _m.NOTICE:
                    self._finish()
            elif t == OK and shape == _m.LIST:
                acc = self._acc
                self._finish(plain(acc) if acc is not None else [])
            elif t in REFUSALS:
                self._finish(error=refusal(msg, req.name))
            elif shape != _m.NOTICE:
                self._finish()
        except Exception as e:  # a reply the decoder cannot read fails this request only
            self._finish(error=e)

    def _collect(self, msg):
        req = self.request
        if req.decoder is None:
            self._acc = self._acc or []
            self._acc.append(msg)
        elif req.continues:
            self._acc = self._client._decoder(req.decoder)(msg, self._acc)
        else:
            part = self._client._decoder(req.decoder)(msg, *req.args)
            self._acc = self._acc or []
            self._acc.extend(part)

    def notice(self, reason):
        self._finish(reason)

    def fail(self, error):
        self._finish(error=error)


class Inbox(object):
    """The raw replies of a request the script reads itself, kept until
    asked for. wake, when set, is called after each change."""

    __slots__ = ('msgs', 'error', 'wake')

    def __init__(self):
        self.msgs = collections.deque()
        self.error = None
        self.wake = None

    def feed(self, msg):
        self.msgs.append(msg)
        if self.wake is not None:
            self.wake()

    def fail(self, error):
        self.error = error
        if self.wake is not None:
            self.wake()


# -- the conversation ----------------------------------------------------------------------------

class Conversation(object):
    """The routing of one connection's messages; see the module's
    documentation. A driver sets .handle and .session and calls _reset()
    for every new connection, _dispatch() for every message read, _deliver()
    after a batch and _lose() when the connection is gone."""

    def _init_events(self):
        self.unmatched = 0      # replies whose correlation id no request waits for
        self._callbacks = dict((kind, []) for _, kind, _ in EVENTS)
        self._events = []
        self._calls = collections.deque()
        self._lost = ConnectionLost('not connected')
        self.handle = self.session = None

    def _reset(self):
        self._pending = {}
        self._notices = dict((t, []) for t in (_m.MSG_RESTARTING, _m.MSG_RELOADING))
        self._setup = []
        self._decoders = {}

    def _dispatch(self, msg):
        t = msg.get_type()
        if t in REPLIES:
            p = self._pending.get(msg.get_cid())
            if p is None:
                self.unmatched += 1
            else:
                p.feed(msg)
        elif t in EVENT_BY_TYPE:
            kind, read = EVENT_BY_TYPE[t]
            try:
                value = read(self, msg) if self.session is not None else None
            except Exception:  # noqa: BLE001 - a notice cut short must not fail a request
                value = None
            waiters = self._notices.get(t)
            while waiters:
                waiters.pop(0).notice(value)
            fns = self._callbacks[kind]
            if fns:
                self._calls.extend((fn, value) for fn in fns)
            else:
                self._events.append((kind, value))
        elif t in SETUP:
            self._setup.append(msg)

    def _deliver(self):
        calls = self._calls
        while calls:
            fn, value = calls.popleft()
            fn(value)

    def _lose(self, why):
        """The connection is gone: everything waiting on it fails."""
        if self._lost is None:
            self._lost = ConnectionLost(why)
        pending = list(self._pending.values())
        self._pending = {}
        for waiters in self._notices.values():
            del waiters[:]
        for p in pending:
            p.fail(self._lost)

    def _take_setup(self, msg_type):
        """The set-up message of msg_type when it has arrived, else None."""
        for m in self._setup:
            if m.get_type() == msg_type:
                self._setup.remove(m)
                return m
        return None

    def _decoder(self, name):
        d = self._decoders.get(name)
        if d is None:
            owner, _, attr = name.rpartition('.')
            d = self._decoders[name] = getattr(self.handle if owner else self.session, attr)
        return d

    def _queue(self, name, args, kw):
        cid = getattr(self.session, name)(*args, **kw)
        if not cid:
            raise Error('%s could not be queued' % name)
        return cid

    def _register(self, answer, args, kw):
        """Sends answer's request and routes its replies to it."""
        req = answer.request
        answer.cid = cid = getattr(self.session, req.name)(*args, **kw)
        if not cid:
            raise Error('%s could not be queued' % req.name)
        self._pending[cid] = answer
        if req.shape == _m.NOTICE:
            self._notices[_m.NOTICE_TYPES[req.name]].append(answer)
        return cid

    def _kick(self):
        """Called once requests were queued: a driver that writes on its own
        schedule (the asyncio client) starts writing."""

    def send(self, name, *args, **kw):
        """Calls session.<name> and keeps the replies under the correlation
        id it returns for replies() and reply(); a transfer object's .cid is
        tracked and the object returned."""
        if self._lost is not None:
            raise ConnectionLost(*self._lost.args)
        sent = getattr(self.session, name)(*args, **kw)
        self.track(getattr(sent, 'cid', sent), name)
        self._kick()
        return sent

    def track(self, cid, what='the request'):
        """Keeps the replies of a request sent through .session directly (for
        example fileserve_upload_continue) for replies() and reply()."""
        if not cid:
            raise Error('%s could not be queued' % what)
        self._pending[cid] = Inbox()
        return cid

    def _inbox(self, cid):
        inbox = self._pending.get(cid)
        if not isinstance(inbox, Inbox):
            raise ValueError('no request sent with correlation id %r' % (cid,))
        return inbox

    def _on(self, kind, fn):
        self._callbacks[kind].append(fn)
        return fn

    @property
    def connected(self):
        return self._lost is None


def _event_method(kind):
    def on(self, fn):
        return self._on(kind, fn)
    on.__name__ = 'on_' + kind
    on.__doc__ = 'Calls fn(value) for every %s event from now on; returns fn.' % kind
    return on


for _, _kind, _ in EVENTS:
    setattr(Conversation, 'on_' + _kind, _event_method(_kind))
del _kind


def method_doc(req):
    """The documentation of the client method for request row req."""
    sig = (getattr(_tq.Session, req.name).__doc__ or req.name).split(' -> ')[0].split('\n')[0]
    return '%s: sends %s and returns %s.' % (sig, req.name, {
        _m.OK: 'None once the appliance has accepted it',
        _m.VALUE: 'the decoded reply (None when the appliance answers OK)',
        _m.LIST: 'the whole answer as one converted list',
        _m.NOTICE: "the notice's reason"}[req.shape])
