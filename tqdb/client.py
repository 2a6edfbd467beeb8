"""The blocking client: one connection, one session, every request a method.

    import tqdb
    with tqdb.connect('10.0.0.1', user='admin', password='secret') as db:
        print(db.ping('hello'))
        with db.transaction(tqdb.RESOURCE_RULESET, 'add acme') as tx:
            oid, stamp = db.object_add(tqdb.OBJECT_TYPE_NETOBJECT, 'acme', 0)
        print(tx.commit_id)

Every request of TQDBv17_1.Session is a method of Client with the same name
and arguments (tqdb/methods.py says how each answer is read). A method
sends, waits for the whole answer and returns plain values; a refusal
raises ServerError, CriticalError or LockedError. `submit(name, *args)`
sends without waiting and returns a Pending: thousands may be in flight on
the one connection, their replies matched by correlation id.

Unsolicited messages never reach a request: commit broadcasts, detached
notices and the restart/reload notices go to the callbacks registered with
on_commit / on_detached / on_restart / on_reload, or, for a kind without a
callback, wait in events() as (kind, value) pairs: ('commit', commit id
tuple), ('detached', text), ('restart', reason), ('reload', reason); the
value is None for a notice that could not be read.

Nothing runs in the background, and a Client is used by one thread at a
time: messages are read while the client waits for an answer, in events()
and in pump(). Callbacks run there too, after
the messages read with them have been dispatched; an exception a callback
raises comes out of the call that was waiting.

Low-level API, for transfers, streams and other multi-step exchanges:

    db.session      the TQDBv17_1.Session of the current connection (a new
                    one after reconnect(); valid only while its handle is)
    db.handle       the TQDBv17_1.TQDBAPIHandle of the current connection
    db.send(name, *args, **kw) -> cid
                    calls session.<name>; Error when it could not be queued
                    (correlation id 0), ConnectionLost when the connection
                    is gone. The replies with that id are kept for replies()
                    and reply(). A method that returns a transfer object
                    (fileserve_upload, backup_upload) has its .cid tracked
                    and the object returned.
    db.track(cid) -> cid
                    keeps the replies of a request sent through db.session
                    directly (fileserve_upload_continue, ...); Error for 0.
    db.replies(cid, timeout=None)
                    an iterator over the answer's messages (TQMessage) up to
                    and excluding the OK that ends it; an ERROR / CRITICAL /
                    LOCK answer raises ServerError / CriticalError /
                    LockedError, a lost connection ConnectionLost, a wait of
                    more than timeout seconds for one message Timeout.
    db.reply(cid, timeout=None)
                    the one next reply (DATA or OK), raising as replies().
    db.pump(timeout=0)
                    writes what is queued, waits up to timeout seconds for
                    the socket, reads and dispatches what came; the number
                    of messages read. ConnectionLost once the connection
                    is gone.

timeout=None means the client's timeout (connect's `timeout`).
"""
from __future__ import absolute_import

import collections
import select
import socket
import time

import TQDBv17_1 as _tq
import TQvindelv17_1 as _vindel

from . import methods as _m
from .errors import (AuthenticationError, ConnectionLost, CriticalError, Error, LockedError,
                     ServerError, Timeout, VersionError)

_now = getattr(time, 'monotonic', time.time)

DATA, OK = _tq.MSG_TYPE_DATA, _tq.MSG_TYPE_OK
REFUSALS = {
    _tq.MSG_TYPE_ERROR: ServerError,
    _tq.MSG_TYPE_CRITICAL: CriticalError,
    _tq.MSG_TYPE_LOCK: LockedError,
}
_REPLIES = frozenset([DATA, OK]) | frozenset(REFUSALS)

# Unsolicited messages: their type, the kind of event, how the value is read.
EVENTS = (
    (_tq.MSG_TYPE_BCAST_COMMIT, 'commit', lambda c, m: c.handle.commit_bcast_handle(m)),
    (_tq.MSG_TYPE_DETACHED, 'detached', lambda c, m: m.get_error()),
    (_m.MSG_RESTARTING, 'restart', lambda c, m: c.session.restarting_handle(m)),
    (_m.MSG_RELOADING, 'reload', lambda c, m: c.session.reloading_handle(m)),
)
_EVENT_BY_TYPE = dict((t, (kind, read)) for t, kind, read in EVENTS)
_SETUP = (_tq.MSG_TYPE_VERSION, _tq.MSG_TYPE_AUTH)

DEFAULT_PORT = 17100
_KEY = []


def shared_key():
    """The key pair this process uses when connect() is given none: making
    one is the slow part of a connection, so it is made once."""
    if not _KEY:
        _KEY.append(_vindel.generate_key())
    return _KEY[0]


def refusal(msg, request=None):
    """The exception for a refused request's reply."""
    t = msg.get_type()
    return REFUSALS[t](msg.get_error(), t, request)


class Pending(object):
    """A request in flight; .result() waits for its answer."""

    __slots__ = ('_client', 'request', 'cid', 'args', 'kw', '_generation', '_acc', '_done',
                 '_value', '_error', '_retried')

    def __init__(self, client, request, cid, args, kw):
        self._client, self.request, self.cid = client, request, cid
        self.args, self.kw = args, kw
        self._generation = client._generation
        self._acc = None
        self._done = False
        self._value = self._error = None
        self._retried = False

    def done(self):
        """True once the answer (or the failure) is there."""
        return self._done

    def result(self, timeout=None):
        """The decoded answer, waiting up to timeout seconds (None: the
        client's timeout). Raises the refusal, ConnectionLost or Timeout."""
        if not self._done:
            self._client._wait(self.done, timeout, self.request.name)
        if self._error is None:
            return self._value
        if isinstance(self._error, ConnectionLost) and self._may_retry():
            again = self._client._resubmit(self)
            again._retried = True
            return again.result(timeout)
        raise self._error

    def _may_retry(self):
        return self._client.auto_reconnect and self.request.read_only and not self._retried

    def _finish(self, value=None, error=None):
        self._done, self._value, self._error = True, value, error
        self._acc = None
        self._client._pending.pop(self.cid, None)

    def feed(self, msg):
        """Takes one reply with this request's correlation id."""
        t = msg.get_type()
        req = self.request
        try:
            if t == DATA and req.shape == _m.LIST:
                self._collect(msg)
            elif t == DATA and req.shape == _m.VALUE:
                value = self._client._decoder(req.decoder)(msg, *req.args)
                self._finish(value.convert(None) if hasattr(value, 'convert') else value)
            elif t == OK and req.shape == _m.LIST:
                acc = self._acc
                self._finish(acc.convert(None) if hasattr(acc, 'convert') else acc or [])
            elif t in REFUSALS:
                self._finish(error=refusal(msg, req.name))
            elif req.shape != _m.NOTICE:
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
        if not self._done:
            self._finish(error=error)


class _Inbox(object):
    """The replies of a request sent with Client.send, kept until asked for."""

    __slots__ = ('msgs', 'error')

    def __init__(self):
        self.msgs = collections.deque()
        self.error = None

    def feed(self, msg):
        self.msgs.append(msg)

    def fail(self, error):
        self.error = error


class Transaction(object):
    """`with db.transaction(resource, message) as tx:` begins a transaction on
    resource, commits it with message when the block ends normally (the
    commit id on tx.commit_id) and rolls it back when the block raises
    (the exception goes on). tx.begin_id is the commit id it started from."""

    def __init__(self, client, resource, message):
        self.client, self.resource, self.message = client, resource, message
        self.begin_id = self.commit_id = None

    def __enter__(self):
        self.begin_id = self.client.resource_begin(self.resource)
        return self

    def __exit__(self, exc_type, exc, tb):
        if exc_type is None:
            self.commit_id = self.client.resource_commit(self.message)
            return False
        try:
            self.client.resource_rollback()
        except Error:
            pass  # the block's own exception tells more (a lost connection rolls back anyway)
        return False


class Client(object):
    """One connection to an appliance with one session; see the module's
    documentation. Made by tqdb.connect()."""

    def __init__(self, host, port=DEFAULT_PORT, user='admin', password='admin', timeout=10.0,
                 key=None, reconnect=False):
        self.host, self.port, self.user = host, port, user
        self._password = password
        self.timeout = timeout
        self.key = key
        self.auto_reconnect = reconnect
        self.version = self.login = None
        self.unmatched = 0      # replies whose correlation id no request waits for
        self._callbacks = dict((kind, []) for _, kind, _ in EVENTS)
        self._events = []
        self._calls = collections.deque()
        self._generation = 0
        self._sock = self._io = self.handle = self.session = None
        self._lost = ConnectionLost('not connected')
        self._open()

    # -- connection ---------------------------------------------------------------------------

    def _open(self):
        self._pending = {}
        self._notices = dict((t, []) for t in (_m.MSG_RESTARTING, _m.MSG_RELOADING))
        self._setup = []
        self._decoders = {}
        self._submitted = 0
        deadline = _now() + self.timeout
        try:
            self._sock = socket.create_connection((self.host, self.port), self.timeout)
        except (socket.error, socket.timeout) as e:
            raise ConnectionLost('Could not connect to %s:%s: %s' % (self.host, self.port, e))
        try:
            # Requests and the handshake are small writes answered at once:
            # without this, Nagle's algorithm holds each back for the peer's delayed ACK.
            self._sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            self._io = _vindel.Vindel(self._sock, key=self.key or shared_key())
            self._handshake(deadline)
            self.handle = _tq.TQDBAPIHandle(self._io)
            self._lost = None
            self._log_in(deadline)
        except BaseException:
            self._lost = ConnectionLost('not connected')
            self._drop()
            raise
        self._generation += 1

    def _handshake(self, deadline):
        io = self._io
        while not io.established():
            left = deadline - _now()
            if left <= 0:
                raise Timeout('no handshake with %s:%s within %gs'
                              % (self.host, self.port, self.timeout))
            r, w, _ = select.select([io] if io.want_read() else [],
                                    [io] if io.want_write() else [], [], left)
            if (r or w) and io.handshake(bool(r), bool(w)) < 0:
                raise ConnectionLost('handshake with %s:%s failed' % (self.host, self.port))

    def _log_in(self, deadline):
        h = self.handle
        try:
            self.version = h.version_handle(self._setup_msg(_tq.MSG_TYPE_VERSION, deadline))
        except RuntimeError as e:
            raise VersionError(str(e))
        if not h.auth(self.user, self._password):
            raise Error('the login request could not be queued')
        self.login = h.auth_handle(self._setup_msg(_tq.MSG_TYPE_AUTH, deadline))
        if self.login is None:
            raise AuthenticationError('login refused for %s' % self.user)
        cid = h.session_new()
        self._pending[cid] = inbox = _Inbox()
        msg = self._next(inbox, max(deadline - _now(), 0.001), 'session_new')
        del self._pending[cid]
        if msg.get_type() != DATA:
            raise Error('no session: the appliance answered type %d' % msg.get_type())
        self.session = h.session_new_handle(msg)

    def _setup_msg(self, msg_type, deadline):
        def there():
            return any(m.get_type() == msg_type for m in self._setup)
        self._wait(there, max(deadline - _now(), 0.001), 'the appliance')
        for m in self._setup:
            if m.get_type() == msg_type:
                self._setup.remove(m)
                return m

    def _drop(self):
        """Lets go of the connection; the session and handle first, as they
        point into the transport."""
        self.session = self.handle = self._io = None
        self._decoders = {}
        if self._sock is not None:
            self._sock.close()
            self._sock = None

    def _lose(self, why):
        if self._lost is None:
            self._lost = ConnectionLost(why)
        pending = list(self._pending.values())
        self._pending = {}
        for waiters in self._notices.values():
            del waiters[:]
        for p in pending:
            p.fail(self._lost)

    def close(self):
        """Closes the connection; requests still in flight fail with ConnectionLost."""
        self._lose('closed')
        self._drop()

    def reconnect(self):
        """A new connection, login and session with the same settings. The
        old connection's requests fail with ConnectionLost; its open
        transaction is gone (the appliance rolled it back)."""
        self.close()
        self._open()

    @property
    def connected(self):
        return self._lost is None

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    # -- the event loop -----------------------------------------------------------------------

    def _pump(self, timeout):
        """One turn: write, wait up to timeout for the socket, read and
        dispatch. A lost connection fails what is pending; never raises
        for it."""
        if self._lost is not None:
            return 0
        h, n = self.handle, 0
        try:
            if h.want_write():
                h.write()
            r, w, _ = select.select([self._io], [self._io] if h.want_write() else [], [],
                                    max(timeout, 0))
            if w:
                h.write()
            if r:
                m = h.readmsg()
                while m is not None:
                    n += 1
                    self._dispatch(m)
                    m = h.readmsg()
        except (IOError, OSError, select.error) as e:
            self._lose(str(e.args[-1] if e.args else e))
        self._deliver()
        return n

    def _dispatch(self, msg):
        t = msg.get_type()
        if t in _REPLIES:
            p = self._pending.get(msg.get_cid())
            if p is None:
                self.unmatched += 1
            else:
                p.feed(msg)
        elif t in _EVENT_BY_TYPE:
            kind, read = _EVENT_BY_TYPE[t]
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
        elif t in _SETUP:
            self._setup.append(msg)

    def _deliver(self):
        calls = self._calls
        while calls:
            fn, value = calls.popleft()
            fn(value)

    def _wait(self, done, timeout, what):
        limit = self.timeout if timeout is None else timeout
        deadline = _now() + limit
        while not done():
            if self._lost is not None:
                raise ConnectionLost(*self._lost.args)
            left = deadline - _now()
            if left <= 0:
                raise Timeout('no answer to %s within %gs' % (what, limit))
            self._pump(left)

    def pump(self, timeout=0):
        """One turn of the event loop (see the module's documentation): the
        number of messages read; ConnectionLost once the connection is gone."""
        n = self._pump(timeout)
        if self._lost is not None:
            raise ConnectionLost(*self._lost.args)
        return n

    # -- events -------------------------------------------------------------------------------

    def events(self):
        """The events that arrived since the last call (kinds without a
        callback), as (kind, value) pairs, oldest first."""
        self._pump(0)
        got, self._events = self._events, []
        return got

    def _on(self, kind, fn):
        self._callbacks[kind].append(fn)
        return fn

    # -- requests -----------------------------------------------------------------------------

    def _decoder(self, name):
        d = self._decoders.get(name)
        if d is None:
            owner, _, attr = name.rpartition('.')
            d = self._decoders[name] = getattr(self.handle if owner else self.session, attr)
        return d

    def submit(self, name, *args, **kw):
        """Sends request `name` (a Session method) and returns its Pending."""
        req = _m.REQUESTS.get(name)
        if req is None:
            raise ValueError('no request %r: see tqdb.methods.REQUESTS' % (name,))
        p = Pending(self, req, 0, args, kw)
        if self._lost is not None:
            p.fail(self._lost)
            return p
        p.cid = self._queue(name, args, kw)
        self._pending[p.cid] = p
        if req.shape == _m.NOTICE:
            self._notices[_m.NOTICE_TYPES[name]].append(p)
        self._submitted += 1
        if self._submitted & 511 == 0:
            self._pump(0)  # keep both directions moving under a long batch
        return p

    def _queue(self, name, args, kw):
        cid = getattr(self.session, name)(*args, **kw)
        if not cid:
            raise Error('%s could not be queued' % name)
        return cid

    def _resubmit(self, p):
        if p._generation == self._generation:
            self.reconnect()
        return self.submit(p.request.name, *p.args, **p.kw)

    def transaction(self, resource, message):
        """A Transaction on resource (RESOURCE_*), committed with message."""
        return Transaction(self, resource, message)

    # -- low-level API ------------------------------------------------------------------------

    def send(self, name, *args, **kw):
        if self._lost is not None:
            raise ConnectionLost(*self._lost.args)
        sent = getattr(self.session, name)(*args, **kw)
        self.track(getattr(sent, 'cid', sent), name)
        return sent

    def track(self, cid, what='the request'):
        if not cid:
            raise Error('%s could not be queued' % what)
        self._pending[cid] = _Inbox()
        return cid

    def _inbox(self, cid):
        inbox = self._pending.get(cid)
        if not isinstance(inbox, _Inbox):
            raise ValueError('no request sent with correlation id %r' % (cid,))
        return inbox

    def _next(self, inbox, timeout, what):
        self._wait(lambda: inbox.msgs or inbox.error, timeout, what)
        if inbox.msgs:
            return inbox.msgs.popleft()
        raise inbox.error

    def reply(self, cid, timeout=None):
        msg = self._next(self._inbox(cid), timeout, 'request %d' % cid)
        del self._pending[cid]
        if msg.get_type() in REFUSALS:
            raise refusal(msg)
        return msg

    def replies(self, cid, timeout=None):
        return self._replies(cid, self._inbox(cid), timeout)

    def _replies(self, cid, inbox, timeout):
        try:
            while True:
                msg = self._next(inbox, timeout, 'request %d' % cid)
                t = msg.get_type()
                if t in REFUSALS:
                    raise refusal(msg)
                if t != DATA:
                    return
                yield msg
        finally:
            if self._pending.get(cid) is inbox:
                del self._pending[cid]


def _method(req):
    name = req.name

    def call(self, *args, **kw):
        return self.submit(name, *args, **kw).result()
    call.__name__ = name
    sig = (getattr(_tq.Session, name).__doc__ or name).split(' -> ')[0].split('\n')[0]
    call.__doc__ = '%s: sends %s and returns %s.' % (sig, name, {
        _m.OK: 'None once the appliance has accepted it',
        _m.VALUE: 'the decoded reply (None when the appliance answers OK)',
        _m.LIST: 'the whole answer as one converted list',
        _m.NOTICE: "the notice's reason"}[req.shape])
    return call


def _event_method(kind):
    def on(self, fn):
        return self._on(kind, fn)
    on.__name__ = 'on_' + kind
    on.__doc__ = 'Calls fn(value) for every %s event from now on; returns fn.' % kind
    return on


for _req in _m.REQUESTS.values():
    setattr(Client, _req.name, _method(_req))
for _, _kind, _ in EVENTS:
    setattr(Client, 'on_' + _kind, _event_method(_kind))
del _req, _kind


def connect(host, port=DEFAULT_PORT, user='admin', password='admin', timeout=10.0, key=None,
            reconnect=False):
    """Connects to the appliance at host:port, checks its protocol version,
    logs in and opens a session: a Client (a context manager). key: a
    TQvindelv17_1 key pair to share across connections (default: one made
    per process). reconnect=True sends a read-only request again, once,
    over a new connection when the connection was lost."""
    return Client(host, port, user, password, timeout, key, reconnect)
