"""End to end against tqdbsim: login, sessions, locks, commits, resources."""
import socket
import sys
import time
import unittest

import TQDBv17_1 as T
import TQvindelv17_1 as V

from simhelper import WAIT, Client, SimTest

DATA = T.MSG_TYPE_DATA
RESOURCE_KEYS = ['id', 'name', 'proxyaddress', 'proxyuser', 'proxypassword', 'proxy',
                 'enterprise', 'locker', 'last_query', 'avg_query_time', 'queries', 'status']


class SimulatorTest(SimTest):
    def client(self):
        c = Client(self.sim.host, self.sim.port)
        self.assertIsNotNone(c.login())
        return c

    def test_login_ping_and_diag(self):
        c = Client(self.sim.host, self.sim.port)
        self.assertEqual(c.handle.version_handle(c.version)[3], (17, 1, 0))
        self.assertIsNone(c.login('admin', 'wrong'))
        self.assertEqual(len(c.login('admin', 'admin')), 2)
        s = c.session()
        text = u'caf\u00e9 \u2603'
        echo = text if sys.version_info[0] >= 3 else text.encode('utf-8')
        self.assertEqual(s.ping_handle(c.reply(s.ping(text))), echo)
        first = s.diag_handle(c.reply(s.diag()))
        n = len(first.convert(None))
        self.assertIs(s.diag_handle(c.reply(s.diag()), first), first)  # a second reply appends
        both = first.convert(None)
        self.assertTrue(n > 0 and len(both) == 2 * n and all(isinstance(x, str) for x in both))

    def test_broadcast_to_every_session_and_rollback(self):
        # (locks and commit ids through the tqdb client: test_tqdb)
        a, b = self.client(), self.client()
        sa, sb, sb2 = a.session(), b.session(), b.session()
        a.reply(sa.resource_begin(T.RESOURCE_RULESET))
        cid = a.handle.commit_handle(a.reply(sa.resource_commit(u'first change')))
        for _ in (sb, sb2):  # every other session hears of it, with the same id
            self.assertEqual(b.handle.commit_bcast_handle(b.wait_type(T.MSG_TYPE_BCAST_COMMIT)),
                             cid)
        # A rollback releases the lock; a second one has nothing to roll back.
        for client, request, want in ((b, lambda: sb.resource_begin(T.RESOURCE_RULESET), DATA),
                                      (b, sb.resource_rollback, T.MSG_TYPE_OK),
                                      (b, sb.resource_rollback, T.MSG_TYPE_ERROR),
                                      (a, lambda: sa.resource_begin(T.RESOURCE_RULESET), DATA)):
            self.assertEqual(client.reply(request()).get_type(), want)

    def test_resource_list_and_steal(self):
        a, b = self.client(), self.client()
        sa, sb = a.session(), b.session()
        a.reply(sa.resource_begin(T.RESOURCE_USERS))
        listed = sb.resource_resource_list_handle(b.reply(sb.resource_resource_list()))
        rows = listed.convert(None)
        self.assertEqual(rows, listed.convert(None))
        by_id = dict((r['id'], r) for r in rows)
        for r in rows:
            self.assertEqual(sorted(r), sorted(RESOURCE_KEYS))
            if sys.version_info >= (3, 7):  # dicts keep the order keys went in
                self.assertEqual(list(r.keys()), RESOURCE_KEYS)
            self.assertIsInstance(r['proxy'], bool)
            self.assertIsInstance(r['enterprise'], bool)
            self.assertIsInstance(r['name'], str)
        self.assertIn(T.RESOURCE_DYNAMICLIVEVIEW, by_id)
        self.assertIn('admin', by_id[T.RESOURCE_USERS]['locker'])
        self.assertEqual(by_id[T.RESOURCE_CHANNELS]['locker'], '')

        # Taking the lock over detaches the holder.
        stolen = b.reply(sb.resource_resource_steal(T.RESOURCE_USERS))
        self.assertEqual(stolen.get_type(), T.MSG_TYPE_OK)
        detached = a.wait_type(T.MSG_TYPE_DETACHED)
        self.assertEqual((detached.get_type(), detached.get_cid()), (11, 0))
        self.assertNotEqual(detached.get_error(), '')


class ConnectTest(unittest.TestCase):
    def test_connect_failures_are_ioerrors(self):
        s = socket.socket()  # a port nobody listens on: bound, then closed
        s.bind(('127.0.0.1', 0))
        port = s.getsockname()[1]
        s.close()
        with self.assertRaises(IOError) as ctx:
            V.connect('127.0.0.1', port, 2.0)
        self.assertIn('127.0.0.1:%d' % port, str(ctx.exception))
        quiet = socket.socket()  # never answers the greeting: the handshake times out
        quiet.bind(('127.0.0.1', 0))
        quiet.listen(1)
        try:
            start = time.time()
            with self.assertRaises(IOError) as ctx:
                V.connect('127.0.0.1', quiet.getsockname()[1], 0.3)
            self.assertIn('timed out', str(ctx.exception))
            self.assertTrue(time.time() - start < WAIT)
        finally:
            quiet.close()
