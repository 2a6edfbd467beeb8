"""The statistics query as a stream of rows.

    rows = db.query('SELECT path, subscribers FROM stat_nodes')
    for row in rows:
        print(row['path'], row['subscribers'])
    if rows.notices:
        print('incomplete:', rows.notices[0])

db.query(text) sends the query at once and returns a Query: an iterator
over the answer's rows, each a dict keyed by column name (of two columns
with one name, the later wins). Rows are made as the replies arrive and
handed out one by one: the client reads a reply only when the rows it
has are used up, so a long answer is never held whole.

Values: int, float, bool, None for a null column; byte strings are
decoded with `encoding` (utf-8 by default on Python 3, undecodable bytes
kept as surrogates; None keeps bytes; Python 2 keeps str unless an
encoding is given).

Notices ("Query stopped: row limit of 100000 rows reached") do not end the
iteration and are not raised: the rows before them are good, and whether a
cut answer is an error is the script's call. They are collected, in order,
in .notices. A refused query (bad SQL, a write) raises ServerError from
the first next(); a lost connection ConnectionLost; a wait of more than
`timeout` seconds (None: the client's) for the next reply Timeout.

Other requests may be sent while a query is read: replies are matched by
correlation id. close() (or leaving a `with` block, or dropping the
iterator) before the end lets the rest of the answer be read and dropped
as the client goes on.
"""
from __future__ import absolute_import

import collections
import sys
import weakref

from .client import DATA, REFUSALS, refusal

_DEFAULT_ENCODING = 'utf-8' if sys.version_info[0] >= 3 else None
_ERRORS = 'surrogateescape' if sys.version_info[0] >= 3 else 'strict'


class Query(object):
    """An iterator over the rows of one statistics query; see the module.

    .columns  [(name, column type)] once the row description has been read
    .notices  the notice texts read so far
    .complete True once the appliance has marked the answer complete
    .done     True once the whole answer has been read (or refused, or lost)
    .cid      the request's correlation id
    """

    def __init__(self, db, text, encoding=_DEFAULT_ENCODING, timeout=None):
        self.text, self.timeout = text, timeout
        self.columns, self.notices = None, []
        self.complete = self.done = False
        self._db, self._names = db, ()
        self._rows = collections.deque()
        self._msgs = collections.deque()  # replies not yet read, in order
        self._error, self._keep = None, True
        self._decode = encoding and (lambda v: v.decode(encoding, _ERRORS)
                                     if type(v) is bytes else v)
        self.cid = db.send('stat_query', text)
        # The client holds the feed, the feed only a weak reference to this
        # iterator: a script that drops it does not keep its replies coming.
        self._feed = db._pending[self.cid] = _Feed(self, db)

    def __iter__(self):
        return self

    def __next__(self):
        rows, msgs = self._rows, self._msgs
        while not rows and self._keep and not self.done:
            if not msgs:
                self._db._wait(lambda: msgs or self._error, self.timeout, 'stat_query')
            if msgs:
                self._read(msgs.popleft(), self)
            else:
                self.done = True
        if rows:
            return rows.popleft()
        if self._error is not None:
            error, self._error = self._error, None
            raise error
        raise StopIteration

    next = __next__

    def _read(self, msg, sink):
        """Reads one reply: a DATA's frames go to sink's callbacks, anything
        else ends the answer."""
        t = msg.get_type()
        if t == DATA:
            feed = self._feed
            feed.state = feed.session.stat_query_handle_msg(feed.state, msg, sink)
        else:
            self.done = True
            if t in REFUSALS:
                self._error = refusal(msg, 'stat_query')

    def close(self):
        """Stops handing out rows; the rest of the answer is read and dropped."""
        self._keep = False
        self._rows.clear()
        self._drop()

    def _drop(self):
        msgs = self._msgs
        while msgs:  # the session keeps a query's stream until its end has been read
            self._read(msgs.popleft(), _IGNORE)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def __del__(self):
        try:
            self._drop()
        except Exception:  # noqa: BLE001 - a lost connection has nothing left to read
            pass

    # -- the stream's frames, called by the session while it reads a reply --------------------

    def row_desc_cb(self, cols):
        self.columns = [(name, kind) for name, kind, _ in cols]
        self._names = [name for name, _, _ in cols]

    def row_data_cb(self, values):
        if self._decode:
            values = map(self._decode, values)
        self._rows.append(dict(zip(self._names, values)))

    def notice_cb(self, text):
        self.notices.append(text)

    def complete_cb(self):
        self.complete = True


class _Ignore(object):
    """A sink with no callbacks: the frames of a closed query are skipped."""


_IGNORE = _Ignore()


class _Feed(object):
    """Takes the query's replies for the client and keeps them for the
    query to read when it needs rows; a closed or dropped query's are read
    and dropped at once."""

    __slots__ = ('query', 'db', 'session', 'state', 'cid')

    def __init__(self, query, db):
        self.query, self.db, self.cid = weakref.ref(query), db, query.cid
        self.session, self.state = db.session, None

    def feed(self, msg):
        q = self.query()
        t = msg.get_type()
        if t != DATA and self.db._pending.get(self.cid) is self:
            del self.db._pending[self.cid]
        if q is not None and q._keep:
            q._msgs.append(msg)
        elif t == DATA:
            self.state = self.session.stat_query_handle_msg(self.state, msg, _IGNORE)
        elif q is not None:
            q.done = True

    def fail(self, error):
        q = self.query()
        if q is not None:
            q._error = error
