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

import select
import socket
import time

import TQDBv17_1 as _tq
import TQvindelv17_1 as _vindel

from . import core as _core
from . import methods as _m
from .core import DEFAULT_PORT, refusal, shared_key  # noqa: F401 - the package's names
from .errors import ConnectionLost, Error, Timeout

_now = getattr(time, 'monotonic', time.time)

DATA, OK, REFUSALS = _core.DATA, _core.OK, _core.REFUSALS
EVENTS = _core.EVENTS
_Inbox = _core.Inbox
_REQUESTS = _m.REQUESTS


class Pending(_core.Answer):
    """A request in flight; .result() waits for its answer."""

    __slots__ = ('args', 'kw', '_generation', '_done', '_value', '_error', '_retried')

    def __init__(self, client, request, cid, args, kw):
        self._client, self.request, self.cid = client, request, cid
        self._acc = None
        self.args, self.kw = args, kw
        self._generation = client._generation
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

    def _settle(self, value, error):
        if not self._done:
            self._done, self._value, self._error = True, value, error


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


class Client(_core.Conversation):
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
        self._init_events()
        self._generation = 0
        self._sock = self._io = None
        self._open()

    # -- connection ---------------------------------------------------------------------------

    def _open(self):
        self._reset()
        self._submitted = 0
        deadline = _now() + self.timeout
        try:
            self._sock = socket.create_connection((self.host, self.port), self.timeout)
        except (socket.error, socket.timeout) as e:
            raise ConnectionLost('Could not connect to %s:%s: %s' % (self.host, self.port, e))
        try:
            _core.nodelay(self._sock)
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
        self.version = _core.read_version(h, self._setup_msg(_tq.MSG_TYPE_VERSION, deadline))
        _core.send_login(h, self.user, self._password)
        self.login = _core.read_login(h, self._setup_msg(_tq.MSG_TYPE_AUTH, deadline), self.user)
        cid = self.track(h.session_new(), 'session_new')
        msg = self._next(self._pending[cid], max(deadline - _now(), 0.001), 'session_new')
        del self._pending[cid]
        self.session = _core.read_session(h, msg)

    def _setup_msg(self, msg_type, deadline):
        got = []

        def there():
            if not got:
                m = self._take_setup(msg_type)
                if m is not None:
                    got.append(m)
            return got
        self._wait(there, max(deadline - _now(), 0.001), 'the appliance')
        return got[0]

    def _drop(self):
        """Lets go of the connection; the session and handle first, as they
        point into the transport."""
        self.session = self.handle = self._io = None
        self._decoders = {}
        if self._sock is not None:
            self._sock.close()
            self._sock = None

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

    # -- requests -----------------------------------------------------------------------------

    def submit(self, name, *args, **kw):
        """Sends request `name` (a Session method) and returns its Pending."""
        req = _REQUESTS.get(name)
        p = Pending(self, req if req is not None else _core.request(name), 0, args, kw)
        if self._lost is not None:
            p.fail(self._lost)
            return p
        self._register(p, args, kw)
        self._submitted += 1
        if self._submitted & 511 == 0:
            self._pump(0)  # keep both directions moving under a long batch
        return p

    def _resubmit(self, p):
        if p._generation == self._generation:
            self.reconnect()
        return self.submit(p.request.name, *p.args, **p.kw)

    def transaction(self, resource, message):
        """A Transaction on resource (RESOURCE_*), committed with message."""
        return Transaction(self, resource, message)

    # -- low-level API ------------------------------------------------------------------------

    def _next(self, inbox, timeout, what):
        self._wait(lambda: inbox.msgs or inbox.error, timeout, what)
        if inbox.msgs:
            return inbox.msgs.popleft()
        raise inbox.error

    def reply(self, cid, timeout=None):
        msg = self._next(self._inbox(cid), timeout, 'request %d' % cid)
        # A reply may arrive just before the connection is lost, which forgets
        # every pending request: the reply is still the answer.
        self._pending.pop(cid, None)
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
    call.__doc__ = _core.method_doc(req)
    return call


for _req in _m.REQUESTS.values():
    setattr(Client, _req.name, _method(_req))
del _req


def connect(host, port=DEFAULT_PORT, user='admin', password='admin', timeout=10.0, key=None,
            reconnect=False):
    """Connects to the appliance at host:port, checks its protocol version,
    logs in and opens a session: a Client (a context manager). key: a
    TQvindelv17_1 key pair to share across connections (default: one made
    per process). reconnect=True sends a read-only request again, once,
    over a new connection when the connection was lost."""
    return Client(host, port, user, password, timeout, key, reconnect)


# -- transfers, the query stream and the ruleset by path ----------------------------------------
# Kept in tqdb.transfers, tqdb.query and tqdb.tree, which use this module:
# imported once everything above is defined.

from . import query as _query, transfers as _transfers, tree as _tree  # noqa: E402


class _Features(object):
    def upload(self, type, local_path, remote_name, progress=None):
        """Uploads local_path (a path or a binary file object) as remote_name
        into the file area type (FILESERV_ID_*); the number of bytes sent.
        progress(done, total) is called as the appliance acknowledges data.
        A refusal raises ServerError (see tqdb.transfers)."""
        return _transfers.upload(self, _transfers.FILES, (type, remote_name), local_path,
                                 progress)

    def download(self, type, remote_name, local_path, progress=None):
        """Downloads remote_name of the file area type into local_path (a path,
        replaced only once the whole file has arrived, or a binary file
        object); the number of bytes written. progress(done, total)."""
        return _transfers.download(self, _transfers.FILES, (type, remote_name), local_path,
                                   progress)

    def backup_upload(self, local_path, remote_name, progress=None):
        """Uploads local_path as the backup remote_name; as upload()."""
        return _transfers.upload(self, _transfers.BACKUPS, (remote_name,), local_path, progress)

    def backup_download(self, remote_name, local_path, progress=None):
        """Downloads the backup remote_name into local_path; as download()."""
        return _transfers.download(self, _transfers.BACKUPS, (remote_name,), local_path,
                                   progress)

    def query(self, text, encoding=_query._DEFAULT_ENCODING, timeout=None):
        """Sends the statistics query text; a tqdb.query.Query, an iterator
        over the answer's rows (dicts keyed by column name) as they arrive."""
        return _query.Query(self, text, encoding, timeout)

    def objects(self, type):
        """The objects of type (OBJECT_TYPE_*) as a tqdb.tree.Tree, addressed
        by path ("/customers/acme")."""
        return _tree.Tree(self.object_list(type), type)

    def forget(self, cid):
        """Stops keeping the replies of cid (sent with send() or track());
        any that still come are counted in .unmatched."""
        if isinstance(self._pending.get(cid), _Inbox):
            del self._pending[cid]


for _name, _fn in list(vars(_Features).items()):
    if not _name.startswith('__'):
        setattr(Client, _name, _fn)
del _name, _fn
