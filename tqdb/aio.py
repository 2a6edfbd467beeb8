"""The asyncio client (Python 3.8+): the blocking client's requests as
coroutines, over the same modules and the same request table.

    import asyncio, tqdb, tqdb.aio

    async def main():
        async with await tqdb.aio.connect('10.0.0.1', user='admin', password='secret') as db:
            print(await db.ping('hello'))
            objects, users = await asyncio.gather(
                db.object_list(tqdb.OBJECT_TYPE_NETOBJECT), db.user_list())
            async with db.transaction(tqdb.RESOURCE_RULESET, 'add acme') as tx:
                await db.object_add(tqdb.OBJECT_TYPE_NETOBJECT, 'acme', 0)
            async for row in db.query('SELECT name FROM stat_nodes'):
                print(row['name'])

    asyncio.run(main())

No threads: the loop calls the client when the transport's socket is
readable (always watched) or writable (watched while the handle has bytes
queued). Every request is a coroutine method of Client with the Session
method's name and arguments; `submit(name, *args)` sends at once and
returns an asyncio future, so any number of requests share the connection,
their replies matched by correlation id. Answers, refusals (ServerError,
CriticalError, LockedError), events (on_commit, on_detached, on_restart,
on_reload, or events()) are those of the blocking client.

`fleet(targets, fn, concurrency=...)` runs `fn(db)` against many appliances
at once; a dead or slow appliance costs its own slot and its own timeout
only.
"""
import asyncio
import socket

import TQDBv17_1 as _tq
import TQvindelv17_1 as _vindel

from . import core as _core
from . import methods as _m
from . import query as _query
from .core import DEFAULT_PORT, shared_key
from .errors import ConnectionLost, Error, Timeout

__all__ = ['connect', 'fleet', 'Client', 'Transaction', 'Query']


class _Pending(_core.Answer):
    """A request in flight: its answer resolves the future."""

    __slots__ = ('future',)

    def __init__(self, client, request, future):
        _core.Answer.__init__(self, client, request, 0)
        self.future = future

    def _settle(self, value, error):
        f = self.future
        if not f.done():  # a caller's timeout may have cancelled it
            if error is None:
                f.set_result(value)
            else:
                f.set_exception(error)


class Transaction:
    """`async with db.transaction(resource, message) as tx:` begins, commits
    on a normal exit (tx.commit_id) and rolls back when the block raises."""

    def __init__(self, client, resource, message):
        self.client, self.resource, self.message = client, resource, message
        self.begin_id = self.commit_id = None

    async def __aenter__(self):
        self.begin_id = await self.client.resource_begin(self.resource)
        return self

    async def __aexit__(self, exc_type, exc, tb):
        if exc_type is None:
            self.commit_id = await self.client.resource_commit(self.message)
            return False
        try:
            await self.client.resource_rollback()
        except Error:
            pass  # the block's own exception tells more
        return False


class Query(_query.Query):
    """`async for row in db.query(text)`: the rows of a statistics query, as
    the blocking client's db.query() gives them (dicts keyed by column name,
    .notices, .columns, close()), each reply decoded as it arrives."""

    def __aiter__(self):
        return self

    async def __anext__(self):
        while self._waits():
            await self._db._change(self.timeout, 'stat_query')
        try:
            return self.__next__()  # what it needs is there: it does not wait
        except StopIteration:
            raise StopAsyncIteration from None

    def _waits(self):
        """True while next() would wait for a reply."""
        return (self._keep and not self._rows and not self.done
                and not getattr(self, '_msgs', None) and getattr(self, '_error', None) is None)


class Client(_core.Conversation):
    """One connection to an appliance with one session, driven by the
    running event loop. Made by `await tqdb.aio.connect(...)`."""

    def __init__(self, host, port=DEFAULT_PORT, user='admin', password='admin', timeout=10.0,
                 key=None):
        self.host, self.port, self.user = host, port, user
        self._password = password
        self.timeout = timeout
        self.key = key
        self.version = self.login = None
        self._init_events()
        self._loop = None
        self._sock = self._io = None
        self._fd = -1
        self._writing = self._kicked = False
        self._changed = None

    # -- connection ---------------------------------------------------------------------------

    async def _open(self):
        self._loop = asyncio.get_running_loop()
        self._reset()
        try:
            await asyncio.wait_for(self._establish(), self.timeout)
        except asyncio.TimeoutError:
            self._abandon()
            raise Timeout('no session with %s:%s within %gs' % (self.host, self.port,
                                                                self.timeout)) from None
        except BaseException:
            self._abandon()
            raise

    async def _establish(self):
        loop = self._loop
        family, addr = await self._address()
        self._sock = sock = socket.socket(family, socket.SOCK_STREAM)
        sock.setblocking(False)
        _core.nodelay(sock)
        try:
            await loop.sock_connect(sock, addr)
        except OSError as e:
            raise ConnectionLost('Could not connect to %s:%s: %s'
                                 % (self.host, self.port, e)) from None
        self._io = io = _vindel.Vindel(sock, key=self.key or shared_key())
        self._fd = sock.fileno()
        while not io.established():
            r, w = await self._ready(io.want_read(), io.want_write())
            if io.handshake(r, w) < 0:
                raise ConnectionLost('handshake with %s:%s failed' % (self.host, self.port))
        h = self.handle = _tq.TQDBAPIHandle(io)
        self._lost = None
        loop.add_reader(self._fd, self._on_readable)
        self._on_readable()  # what the handshake may have read beyond its own bytes
        self.version = _core.read_version(h, await self._setup_msg(_tq.MSG_TYPE_VERSION))
        _core.send_login(h, self.user, self._password)
        self._kick()
        self.login = _core.read_login(h, await self._setup_msg(_tq.MSG_TYPE_AUTH), self.user)
        cid = self.track(h.session_new(), 'session_new')
        inbox = self._pending[cid]
        self._kick()
        while not inbox.msgs and inbox.error is None:
            await self._next_change()
        self._pending.pop(cid, None)
        if inbox.error is not None:
            raise inbox.error
        self.session = _core.read_session(h, inbox.msgs.popleft())

    async def _address(self):
        """(family, address); only a host name is looked up (asyncio's
        resolver), a numeric address is taken as it is."""
        for family in (socket.AF_INET, socket.AF_INET6):
            try:
                socket.inet_pton(family, self.host)
                return family, (self.host, self.port)
            except (OSError, ValueError):
                pass
        try:
            infos = await self._loop.getaddrinfo(self.host, self.port, type=socket.SOCK_STREAM)
        except OSError as e:
            raise ConnectionLost('Could not resolve %s: %s' % (self.host, e)) from None
        return infos[0][0], infos[0][4]

    def _ready(self, read, write):
        """A future of (readable, writable) once the socket is either of
        what is asked."""
        loop, fd = self._loop, self._fd
        f = loop.create_future()

        def fire(r, w):
            loop.remove_reader(fd)
            loop.remove_writer(fd)
            if not f.done():
                f.set_result((r, w))
        if read:
            loop.add_reader(fd, fire, True, False)
        if write:
            loop.add_writer(fd, fire, False, True)
        if not (read or write):
            f.set_result((False, False))
        return f

    async def _setup_msg(self, msg_type):
        while True:
            m = self._take_setup(msg_type)
            if m is not None:
                return m
            await self._next_change()

    async def _next_change(self):
        self._check()
        if self._changed is None or self._changed.done():
            self._changed = self._loop.create_future()
        await self._changed
        self._check()

    async def _change(self, timeout, what):
        """Waits until messages were read or the connection is lost, at most
        timeout seconds (None: the client's timeout)."""
        if self._lost is not None:
            return
        if self._changed is None or self._changed.done():
            self._changed = self._loop.create_future()
        limit = self.timeout if timeout is None else timeout
        try:
            await asyncio.wait_for(asyncio.shield(self._changed), limit)
        except asyncio.TimeoutError:
            raise Timeout('no answer to %s within %gs' % (what, limit)) from None

    def _abandon(self):
        self._lose('not connected')
        self._drop()

    def _drop(self):
        """Lets go of the connection; the session and handle first, as they
        point into the transport."""
        if self._fd >= 0 and self._loop is not None and not self._loop.is_closed():
            self._loop.remove_reader(self._fd)
            self._loop.remove_writer(self._fd)
        self._fd = -1
        self._writing = False
        self.session = self.handle = self._io = None
        self._decoders = {}
        if self._sock is not None:
            self._sock.close()
            self._sock = None

    def close(self):
        """Closes the connection; requests still in flight fail with ConnectionLost."""
        self._lose('closed')
        self._drop()

    async def reconnect(self):
        """A new connection, login and session with the same settings; the
        old connection's requests fail with ConnectionLost."""
        self.close()
        await self._open()

    async def __aenter__(self):
        return self

    async def __aexit__(self, *exc):
        self.close()
        return False

    # -- the loop's callbacks -----------------------------------------------------------------

    def _lose(self, why):
        _core.Conversation._lose(self, why)
        self._writing = False
        if self._fd >= 0:
            self._loop.remove_reader(self._fd)
            self._loop.remove_writer(self._fd)
        self._notify()

    def _notify(self):
        c = self._changed
        if c is not None and not c.done():
            c.set_result(None)

    def _on_readable(self):
        h = self.handle
        try:
            m = h.readmsg()
            while m is not None:
                self._dispatch(m)
                m = h.readmsg()
        except (IOError, OSError) as e:
            self._lose(str(e.args[-1] if e.args else e))
        self._notify()
        self._deliver()

    def _kick(self):
        """Writes what was queued once this turn of the loop is over, so that
        the requests of one turn leave together."""
        if not self._kicked and not self._writing:
            self._kicked = True
            self._loop.call_soon(self._flush)

    def _flush(self):
        self._kicked = False
        if self._lost is not None:
            return
        try:
            h = self.handle
            h.write()
            more = h.want_write()
        except (IOError, OSError) as e:
            self._lose(str(e.args[-1] if e.args else e))
            return
        if more != self._writing:
            self._writing = more
            if more:
                self._loop.add_writer(self._fd, self._flush)
            else:
                self._loop.remove_writer(self._fd)

    def _check(self):
        if self._lost is not None:
            raise ConnectionLost(*self._lost.args)

    # -- requests -----------------------------------------------------------------------------

    def submit(self, name, *args, **kw):
        """Sends request `name` (a Session method) now and returns an
        asyncio future of its decoded answer."""
        p = _Pending(self, _core.request(name), self._loop.create_future())
        if self._lost is not None:
            p.fail(self._lost)
        else:
            self._register(p, args, kw)
            self._kick()
        return p.future

    async def call(self, name, *args, **kw):
        """The answer to request `name`; Timeout after the client's timeout
        (the request is then forgotten: its answer, when it comes, is dropped)."""
        f = self.submit(name, *args, **kw)
        if f.done() or self.timeout is None:
            return await f
        timer = self._loop.call_later(self.timeout, _expire, f, name, self.timeout)
        try:
            return await f
        finally:
            timer.cancel()

    def transaction(self, resource, message):
        """A Transaction on resource (RESOURCE_*), committed with message."""
        return Transaction(self, resource, message)

    def query(self, text, encoding=_query._DEFAULT_ENCODING, timeout=None):
        """The statistics query's rows, for `async for`; see tqdb.query."""
        return Query(self, text, encoding, timeout)

    def events(self):
        """The events that arrived since the last call (kinds without a
        callback), as (kind, value) pairs, oldest first."""
        got, self._events = self._events, []
        return got


def _expire(f, name, timeout):
    if not f.done():
        f.set_exception(Timeout('no answer to %s within %gs' % (name, timeout)))


def _method(req):
    name = req.name

    async def call(self, *args, **kw):
        return await self.call(name, *args, **kw)
    call.__name__ = call.__qualname__ = name
    call.__doc__ = _core.method_doc(req)
    return call


for _req in _m.REQUESTS.values():
    setattr(Client, _req.name, _method(_req))
del _req


async def connect(host, port=DEFAULT_PORT, user='admin', password='admin', timeout=10.0,
                  key=None):
    """Connects, checks the protocol version, logs in and opens a session
    within timeout seconds: a Client (an async context manager). key: a
    TQvindelv17_1 key pair to share across connections (default: one made
    per process)."""
    db = Client(host, port, user, password, timeout, key)
    await db._open()
    return db


def _address(target):
    """(host, port) of a target: 'host', 'host:port' or (host, port, ...)."""
    if isinstance(target, tuple):
        return target[0], int(target[1])
    host, sep, port = target.rpartition(':')
    if sep and port.isdigit() and ']' not in port:
        return host.strip('[]'), int(port)
    return target, DEFAULT_PORT


async def fleet(targets, fn, concurrency=100, timeout=30.0, key=None, **connect_kw):
    """Runs fn(db) (a coroutine function, or a function returning an
    awaitable or a value) on a connection to each target ('host',
    'host:port' or a tuple (host, port, ...) whose further items only tell
    targets apart), at most `concurrency` connections at a
    time. Returns {target: fn's result, or the exception it ended with};
    each target has `timeout` seconds for connect and fn together (Timeout
    after that), so a dead or slow appliance holds up nobody else. One key
    pair serves every connection (key, else the process's)."""
    key = key or shared_key()
    connect_kw.setdefault('timeout', timeout)
    slots = asyncio.Semaphore(concurrency)

    async def run(host, port):
        async with await connect(host, port, key=key, **connect_kw) as db:
            got = fn(db)
            return (await got) if hasattr(got, '__await__') else got

    async def one(target):
        async with slots:
            try:
                host, port = _address(target)
                return await asyncio.wait_for(run(host, port), timeout)
            except asyncio.TimeoutError:
                return Timeout('%s: no result within %gs' % (target, timeout))
            except Exception as e:  # noqa: BLE001 - every target's failure is its own result
                return e
    results = await asyncio.gather(*(one(t) for t in targets))
    return dict(zip(targets, results))
