#!/usr/bin/env python
"""Quick start for the TQDB client (Python 2.7 and 3).

    python quickstart.py HOST PORT [USER PASSWORD]

Connects, checks the protocol version, logs in, opens two sessions, pings,
changes the ruleset inside a transaction in one session while the other is
refused with MSG_TYPE_LOCK, commits, lets the other session decode the
commit broadcast, and lists the resources. Exits non-zero on any failure.
"""
from __future__ import print_function

import select
import sys
import time

import TQDBv17_1 as tq
import TQvindelv17_1 as vindel


class Connection(object):
    """The script's event loop around one TQDBAPIHandle: requests are sent,
    then the socket is pumped until the reply with that correlation id is
    there; anything unsolicited (commit broadcasts, notices) is kept aside."""

    def __init__(self, host, port, timeout=10.0):
        self.timeout = timeout
        self.io = vindel.connect(host, port, timeout)
        self.handle = tq.TQDBAPIHandle(self.io)
        self.pending = []

    def _pump(self):
        writers = [self.io] if self.handle.want_write() else []
        readable, writable, _ = select.select([self.io], writers, [], 0.1)
        if writable:
            self.handle.write()
        if readable:
            while True:
                msg = self.handle.readmsg()
                if msg is None:
                    break
                self.pending.append(msg)

    def wait(self, match, what):
        deadline = time.time() + self.timeout
        while time.time() < deadline:
            for i, msg in enumerate(self.pending):
                if match(msg):
                    return self.pending.pop(i)
            self._pump()
        raise RuntimeError('no %s within %gs' % (what, self.timeout))

    def wait_type(self, msg_type, what):
        return self.wait(lambda m: m.get_type() == msg_type, what)

    def call(self, cid, what):
        """The reply to the request that was given correlation id cid."""
        if cid == 0:
            raise RuntimeError('could not queue %s' % what)
        unsolicited = (tq.MSG_TYPE_BCAST_COMMIT, tq.MSG_TYPE_DETACHED)
        return self.wait(lambda m: m.get_cid() == cid and m.get_type() not in unsolicited,
                         'reply to ' + what)


class Refused(RuntimeError):
    """The appliance refused a step of a script."""


MSG_TYPES = dict((getattr(tq, n), n) for n in dir(tq) if n.startswith('MSG_TYPE_'))


class Script(object):
    """One session's requests for the examples: each sent, waited for and its
    reply type checked, lists gathered over every DATA message up to the OK."""

    def __init__(self, conn, session):
        self.conn, self.s = conn, session

    def ask(self, cid, what, types=(tq.MSG_TYPE_DATA, tq.MSG_TYPE_OK)):
        msg = self.conn.call(cid, what)
        if msg.get_type() not in types:
            raise Refused('%s: the appliance answered %s%s' % (
                what, MSG_TYPES.get(msg.get_type(), msg.get_type()),
                ': ' + msg.get_error() if msg.get_error() else ''))
        return msg

    def answer(self, cid, what):
        """Every DATA message of an answer, up to the OK that ends it."""
        msgs = []
        msg = self.ask(cid, what)
        while msg.get_type() == tq.MSG_TYPE_DATA:
            msgs.append(msg)
            msg = self.ask(cid, what)
        return msgs

    def listing(self, cid, decode, what):
        """A list answer decoded into one list, converted."""
        l = None
        for msg in self.answer(cid, what):
            l = decode(msg, l)
        return l.convert(None) if l is not None else []


def open_session(argv, usage, script=Script):
    """HOST PORT [USER PASSWORD] from argv: connects, checks the version
    announcement, logs in and opens a session; a `script` over it, or None
    after printing usage."""
    if len(argv) not in (3, 5):
        print(usage.strip(), file=sys.stderr)
        return None
    host, port = argv[1], int(argv[2])
    user, password = (argv[3], argv[4]) if len(argv) == 5 else ('admin', 'admin')
    conn = Connection(host, port)
    conn.wait_type(tq.MSG_TYPE_VERSION, 'version announcement')
    conn.handle.auth(user, password)
    if conn.handle.auth_handle(conn.wait_type(tq.MSG_TYPE_AUTH, 'login reply')) is None:
        raise Refused('login refused for %s' % user)
    return script(conn, conn.handle.session_new_handle(
        conn.call(conn.handle.session_new(), 'new session')))


def expect(msg, msg_type, what):
    if msg.get_type() != msg_type:
        raise RuntimeError('%s: message type %d (%s)' % (what, msg.get_type(), msg.get_error()))
    return msg


def main(argv):
    if len(argv) not in (3, 5):
        print(__doc__.strip(), file=sys.stderr)
        return 2
    host, port = argv[1], int(argv[2])
    user, password = (argv[3], argv[4]) if len(argv) == 5 else ('admin', 'admin')

    conn = Connection(host, port)
    handle = conn.handle
    word, name, text, version = handle.version_handle(
        conn.wait_type(tq.MSG_TYPE_VERSION, 'version announcement'))
    print('connected to %s:%d: %s %s, protocol %d.%d.%d' % ((host, port, name, text) + version))

    handle.auth(user, password)
    if handle.auth_handle(conn.wait_type(tq.MSG_TYPE_AUTH, 'login reply')) is None:
        raise RuntimeError('login refused for %s' % user)
    print('logged in as %s' % user)

    editor = handle.session_new_handle(conn.call(handle.session_new(), 'new session'))
    watcher = handle.session_new_handle(conn.call(handle.session_new(), 'new session'))
    echo = editor.ping_handle(conn.call(editor.ping('hello'), 'ping'))
    if echo != 'hello':
        raise RuntimeError('ping echoed %r' % echo)
    print('two sessions open; ping answered %r' % echo)

    begin = expect(conn.call(editor.resource_begin(tq.RESOURCE_RULESET), 'begin'),
                   tq.MSG_TYPE_DATA, 'begin')
    start = handle.begin_handle(begin)
    refused = expect(conn.call(watcher.resource_begin(tq.RESOURCE_RULESET), 'second begin'),
                     tq.MSG_TYPE_LOCK, 'second begin')
    print('ruleset locked at commit %d; the other session is refused: %s'
          % (start[0], refused.get_error()))

    committed = expect(conn.call(editor.resource_commit('quick start'), 'commit'),
                       tq.MSG_TYPE_DATA, 'commit')
    seqno, stamp, system, log = handle.commit_handle(committed)
    broadcast = handle.commit_bcast_handle(
        conn.wait_type(tq.MSG_TYPE_BCAST_COMMIT, 'commit broadcast'))
    if broadcast != (seqno, stamp, system, log):
        raise RuntimeError('broadcast %r differs from commit %r' % (broadcast, committed))
    print('committed %d on %s (%r); the other session saw the broadcast'
          % (seqno, system, log))

    resources = watcher.resource_resource_list_handle(
        expect(conn.call(watcher.resource_resource_list(), 'resource list'),
               tq.MSG_TYPE_DATA, 'resource list')).convert(None)
    print('resources: %s' % ', '.join('%s(%d)%s' % (r['name'], r['id'],
                                                      ' locked by ' + r['locker']
                                                      if r['locker'] else '')
                                      for r in resources))
    return 0


if __name__ == '__main__':
    try:
        sys.exit(main(sys.argv))
    except (IOError, RuntimeError) as e:
        print('quickstart failed: %s' % e, file=sys.stderr)
        sys.exit(1)
