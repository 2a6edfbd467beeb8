"""The asyncio client and fleets end to end against the simulator (Python 3.8+;
skipped on older interpreters). Written without async syntax so that every
interpreter can read it: coroutines are run with self.run(), `async with` and
`async for` by their methods."""
import socket
import sys
import time
import unittest

import tqdb
from simhelper import Simulator, shared_key

AIO = sys.version_info >= (3, 8)
if AIO:
    import asyncio
    import tqdb.aio

NET = tqdb.OBJECT_TYPE_NETOBJECT


@unittest.skipUnless(AIO, 'tqdb.aio needs Python 3.8+')
class AioCase(unittest.TestCase):
    def setUp(self):
        self.loop = asyncio.new_event_loop()
        asyncio.set_event_loop(self.loop)
        self.run = self.loop.run_until_complete
        self.sim = Simulator('--max-reply-bytes', '64')  # every answer over many replies
        self.dbs = []

    def tearDown(self):
        for db in self.dbs:
            db.close()
        asyncio.set_event_loop(None)
        self.loop.close()
        self.sim.stop()

    def connect(self, **kw):
        db = self.run(tqdb.aio.connect(self.sim.host, self.sim.port, key=shared_key(), timeout=5.0,
                                  **kw))
        self.dbs.append(db)
        return db

    def collect(self, rows):
        got = []
        while True:
            try:
                got.append(self.run(rows.__anext__()))
            except StopAsyncIteration:
                return got

    def test_requests_and_refusals(self):
        db = self.connect()
        self.assertEqual(db._sock.getsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY), 1)
        self.assertEqual(self.run(db.ping('hi')), 'hi')
        self.assertEqual([u['name'] for u in self.run(db.user_list())], ['admin'])
        with self.assertRaises(tqdb.ServerError) as cm:
            self.run(db.resource_commit('nothing open'))
        self.assertTrue(cm.exception.text.startswith('No transaction open'), cm.exception.text)
        with self.assertRaises(tqdb.AuthenticationError):
            self.connect(password='wrong')

    def test_gather_of_concurrent_requests(self):
        db = self.connect()
        calls = [db.ping('p%d' % i) if i % 2 else db.features_get() for i in range(200)]
        got = self.run(asyncio.gather(*calls))
        self.assertEqual(got, ['p%d' % i if i % 2 else 0xFFF for i in range(200)])
        self.assertEqual((db.unmatched, db._pending), (0, {}))

    def test_transaction_commits_or_rolls_back(self):
        db = self.connect()
        tx = self.run(db.transaction(tqdb.RESOURCE_RULESET, 'kept').__aenter__())
        self.run(db.object_add(NET, 'kept', 0))
        self.run(tx.__aexit__(None, None, None))
        self.assertEqual(tx.commit_id[3], 'kept')
        tx = self.run(db.transaction(tqdb.RESOURCE_RULESET, 'never').__aenter__())
        self.run(db.object_add(NET, 'dropped', 0))
        self.assertFalse(self.run(tx.__aexit__(KeyError, KeyError(), None)))  # the error goes on
        self.assertIsNone(tx.commit_id)
        self.assertEqual([o['name'] for o in self.run(db.object_list(NET))], ['kept'])
        self.run(db.resource_begin(tqdb.RESOURCE_RULESET))  # nothing left open

    def test_query_rows_as_blocking_client(self):
        db = self.connect()
        sql = 'SELECT path, name FROM stat_nodes ORDER BY path'
        with tqdb.connect(self.sim.host, self.sim.port, key=shared_key()) as blocking:
            want = list(blocking.query(sql))
        self.assertEqual(len(want), 97)
        self.assertEqual(self.collect(db.query(sql)), want)
        with self.assertRaises(tqdb.ServerError):
            self.collect(db.query('DELETE FROM stat_nodes'))
        self.assertEqual(self.run(db.ping('after')), 'after')

    def test_events_reach_callbacks(self):
        a, b = self.connect(), self.connect()
        seen = []
        a.on_commit(seen.append)
        self.run(b.resource_begin(tqdb.RESOURCE_RULESET))
        commit = self.run(b.resource_commit('x'))
        self.run(a.ping('turn'))
        self.assertEqual(seen, [commit])
        self.run(a.resource_begin(tqdb.RESOURCE_USERS))
        self.run(b.resource_resource_steal(tqdb.RESOURCE_USERS))
        self.run(a.ping('turn'))
        self.assertEqual([k for k, _ in a.events()], ['detached'])

    def test_fleet_with_a_dead_and_a_silent_target(self):
        dead = Simulator()
        dead_port = dead.port
        dead.stop()
        silent = socket.socket()  # accepts connections, never answers
        silent.bind(('127.0.0.1', 0))
        silent.listen(8)
        try:
            live = (self.sim.host, self.sim.port)
            targets = [live, '127.0.0.1:%d' % dead_port, silent.getsockname(),
                       '%s:%d' % live]
            t0 = time.time()
            got = self.run(tqdb.aio.fleet(targets, lambda db: db.ping('up'), concurrency=8,
                                     timeout=1.0))
            took = time.time() - t0
        finally:
            silent.close()
        self.assertEqual(list(got), targets)
        self.assertEqual(got[live], 'up')
        self.assertEqual(got[targets[3]], 'up')
        self.assertIsInstance(got[targets[1]], tqdb.ConnectionLost)
        self.assertIsInstance(got[targets[2]], tqdb.Timeout)
        self.assertLess(took, 2.0)
