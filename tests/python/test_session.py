"""End to end against tqdbsim: login, sessions, locks, commits, resources."""
import errno
import select
import socket
import sys
import time
import traceback
import unittest

import TQDBv17_1 as T
import TQvindelv17_1 as V

from simhelper import Client, Simulator, WAIT

RESOURCE_KEYS = ['id', 'name', 'proxyaddress', 'proxyuser', 'proxypassword', 'proxy',
                 'enterprise', 'locker', 'last_query', 'avg_query_time', 'queries', 'status']


class SimulatorTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.sim = Simulator()

    @classmethod
    def tearDownClass(cls):
        cls.sim.stop()

    def client(self, login=True):
        c = Client(self.sim.host, self.sim.port)
        if login:
            self.assertIsNotNone(c.login())
        return c

    def test_login_version_and_session_ids(self):
        c = self.client(login=False)
        word, _, _, version = c.handle.version_handle(c.version)
        self.assertEqual((word, version), (0x6080, (17, 1, 0)))
        self.assertIsNone(c.login('admin', 'wrong'))
        self.assertIsNone(c.login('nobody', 'admin'))
        accepted = c.login('admin', 'admin')
        self.assertEqual(len(accepted), 2)
        # The correlation counter starts at 1 and every request takes the next.
        c2 = self.client()
        self.assertEqual(c2.handle.session_new(), 1)
        s = c2.handle.session_new_handle(c2.reply(1))
        self.assertEqual(s.ping('x'), 2)
        self.assertEqual(s.ping_handle(c2.reply(2)), 'x')
        text = u'caf\u00e9 \u2603'
        echo = text if sys.version_info[0] >= 3 else text.encode('utf-8')
        self.assertEqual(s.ping_handle(c2.reply(s.ping(text))), echo)

    def test_diag_appends_to_the_list_given(self):
        c = self.client()
        s = c.session()
        first = s.diag_handle(c.reply(s.diag()))
        self.assertIsInstance(first, T.TQStringList)
        n = len(first.convert(None))
        self.assertTrue(n > 0)
        same = s.diag_handle(c.reply(s.diag()), first)
        self.assertIs(same, first)
        both = first.convert(None)
        self.assertEqual(len(both), 2 * n)
        self.assertEqual(both, first.convert(0))
        self.assertTrue(all(isinstance(x, str) for x in both))

    def test_lock_commit_broadcast_and_rollback(self):
        a, b = self.client(), self.client()
        sa, sb, sb2 = a.session(), b.session(), b.session()
        begin = a.reply(sa.resource_begin(T.RESOURCE_RULESET))
        self.assertEqual(begin.get_type(), T.MSG_TYPE_DATA)
        start = a.handle.begin_handle(begin)

        refused = b.reply(sb.resource_begin(T.RESOURCE_RULESET))
        self.assertEqual(refused.get_type(), T.MSG_TYPE_LOCK)
        self.assertIn('admin', refused.get_error())
        # The commit id decoders refuse a LOCK reply instead of aborting.
        self.assertRaises(RuntimeError, b.handle.begin_handle, refused)

        committed = a.reply(sa.resource_commit(u'first change'))
        cid = a.handle.commit_handle(committed)
        self.assertEqual(cid[3], 'first change')
        self.assertTrue(cid[0] > start[0])
        # Every other session hears of it, with the same commit id.
        for _ in (sb, sb2):
            bcast = b.wait_type(T.MSG_TYPE_BCAST_COMMIT)
            self.assertEqual(b.handle.commit_bcast_handle(bcast), cid)

        # The lock was released by the commit; a rollback releases it too.
        self.assertEqual(b.reply(sb.resource_begin(T.RESOURCE_RULESET)).get_type(),
                         T.MSG_TYPE_DATA)
        self.assertEqual(b.reply(sb.resource_rollback()).get_type(), T.MSG_TYPE_OK)
        self.assertEqual(b.reply(sb.resource_rollback()).get_type(), T.MSG_TYPE_ERROR)
        self.assertEqual(a.reply(sa.resource_begin(T.RESOURCE_RULESET)).get_type(),
                         T.MSG_TYPE_DATA)
        self.assertEqual(a.reply(sa.resource_rollback()).get_type(), T.MSG_TYPE_OK)

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
        for res in (T.RESOURCE_RULESET, T.RESOURCE_USERS, T.RESOURCE_SYSDIAG,
                    T.RESOURCE_CONNPROT_TRIGGER, T.RESOURCE_DYNAMICLIVEVIEW):
            self.assertIn(res, by_id)
        self.assertIn('admin', by_id[T.RESOURCE_USERS]['locker'])
        self.assertEqual(by_id[T.RESOURCE_CHANNELS]['locker'], '')

        # Taking the lock over detaches the holder.
        stolen = b.reply(sb.resource_resource_steal(T.RESOURCE_USERS))
        self.assertEqual(stolen.get_type(), T.MSG_TYPE_OK)
        detached = a.wait_type(T.MSG_TYPE_DETACHED)
        self.assertEqual(detached.get_type(), 11)
        self.assertEqual(detached.get_cid(), 0)
        self.assertNotEqual(detached.get_error(), '')

    def test_buffered_replies_come_before_disconnected(self):
        sim = Simulator()
        try:
            c = Client(sim.host, sim.port)
            c.login()
            s = c.session()
            cids = [s.ping('one'), s.ping('two')]
            while c.handle.want_write():
                c.handle.write()
            # Wait until both replies sit unread in the socket, then stop the
            # simulator under them.
            sock = socket.fromfd(c.vindel.fileno(), socket.AF_INET, socket.SOCK_STREAM)
            need = 2 * (6 + 8 + 4 + 4)
            deadline = time.time() + WAIT
            while time.time() < deadline:
                select.select([sock], [], [], 0.05)
                try:
                    if len(sock.recv(4096, socket.MSG_PEEK)) >= need:
                        break
                except socket.error as e:
                    if e.args[0] != errno.EAGAIN:
                        raise
            sock.close()
            sim.stop()
            got = []
            try:
                for _ in range(100):
                    m = c.handle.readmsg()
                    if m is None:
                        select.select([c.vindel], [], [], 0.05)
                    else:
                        got.append(m)
                self.fail('no IOError')
            except IOError as e:
                self.assertEqual(str(e), 'Disconnected')
                self.assertIn('TQDBv17_1.TQDBAPIHandle.readmsg',
                              [f[2] for f in traceback.extract_tb(sys.exc_info()[2])])
            self.assertEqual([m.get_cid() for m in got[:2]], cids)
            self.assertEqual([s.ping_handle(m) for m in got[:2]], ['one', 'two'])
        finally:
            sim.stop()


class VersionMismatchTest(unittest.TestCase):
    def test_newer_server_is_refused(self):
        sim = Simulator('--version', '0x6100')
        try:
            c = Client(sim.host, sim.port)
            with self.assertRaises(RuntimeError) as ctx:
                c.handle.version_handle(c.version)
            self.assertEqual(str(ctx.exception), 'Bad version server=17.2.0 client=17.1.0')
        finally:
            sim.stop()

    def test_connect_failures_are_ioerrors(self):
        # A port nobody listens on: bind one, then close it.
        s = socket.socket()
        s.bind(('127.0.0.1', 0))
        port = s.getsockname()[1]
        s.close()
        with self.assertRaises(IOError) as ctx:
            V.connect('127.0.0.1', port, 2.0)
        self.assertIn('127.0.0.1:%d' % port, str(ctx.exception))
        # A listener that never answers the greeting: the handshake times out.
        quiet = socket.socket()
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


if __name__ == '__main__':
    unittest.main()
