"""The blocking tqdb client end to end against the simulator (Python 2.7 and 3)."""
import unittest

import TQDBv17_1 as T
import tqdb
from tqdb import methods
from simhelper import Simulator, shared_key

NET = tqdb.OBJECT_TYPE_NETOBJECT


class SimCase(unittest.TestCase):
    sim_args = ()

    def setUp(self):
        self.sim = Simulator(*self.sim_args)
        self.clients = []

    def tearDown(self):
        for c in self.clients:
            c.close()
        self.sim.stop()

    def connect(self, **kw):
        kw.setdefault('key', shared_key())
        kw.setdefault('timeout', 5.0)
        c = tqdb.connect(self.sim.host, self.sim.port, **kw)
        self.clients.append(c)
        return c

    def add_object(self, db, name):
        with db.transaction(tqdb.RESOURCE_RULESET, 'add ' + name) as tx:
            db.object_add(NET, name, 0)
        return tx

    def names(self, db):
        return [o['name'] for o in db.object_list(NET)]


class MethodTableTest(unittest.TestCase):
    def test_every_session_request_is_a_client_method(self):
        rows = methods.REQUESTS
        used = methods.decoders_covered()
        for name in dir(T.Session):
            if name.startswith('_') or name in methods.NOT_REQUESTS:
                continue
            self.assertTrue(name in rows or name in used, name)
        for row in rows.values():
            self.assertTrue(callable(getattr(tqdb.Client, row.name)), row.name)
            if row.decoder:
                owner = T.TQDBAPIHandle if row.decoder.startswith('handle.') else T.Session
                self.assertTrue(hasattr(owner, row.decoder.split('.')[-1]), row.decoder)
            self.assertFalse(row.read_only and row.shape == methods.OK, row.name)


class ShapesTest(SimCase):
    def test_answer_shapes(self):
        db = self.connect()
        tx = self.add_object(db, 'acme')
        rows = [  # (request, args, check of the plain value returned)
            ('ping', ('hi',), lambda v: v == 'hi'),
            ('diag', (), lambda v: v[0] == 'Server: tqdbsim appliance simulator'),
            ('object_list', (NET,), lambda v: [o['name'] for o in v] == ['acme']),
            ('user_list', (), lambda v: [u['name'] for u in v] == ['admin']),
            ('features_get', (), lambda v: v == 0xFFF),
            ('stat_date_list', (), lambda v: isinstance(v, list)),
            ('services_prop_list', (), lambda v: v and all(isinstance(m, T.TQMessage) for m in v)),
            ('resource_begin', (tqdb.RESOURCE_USERS,), lambda v: v[2] == 'tqdbsim'),
            ('resource_rollback', (), lambda v: v is None),
        ]
        for name, args, check in rows:
            value = getattr(db, name)(*args)
            self.assertTrue(check(value), (name, value))
        self.assertEqual(tx.commit_id[3], 'add acme')

    def test_ok_answer_returns_none(self):
        db = self.connect()
        with db.transaction(tqdb.RESOURCE_RULESET, 'attr'):
            db.object_add(NET, 'a', 0)
            self.assertIsNone(db.object_attr_set(NET, 1, 'k', 'v'))
        self.assertEqual(db.object_attr_list(NET, 1), [('k', 'v')])

    def test_server_error_carries_the_text(self):
        db = self.connect()
        with self.assertRaises(tqdb.ServerError) as cm:
            db.resource_commit('nothing open')
        e = cm.exception
        self.assertNotIsInstance(e, tqdb.LockedError)
        self.assertEqual(e.msg_type, tqdb.MSG_TYPE_ERROR)
        self.assertTrue(e.text.startswith('No transaction open in session'), e.text)

    def test_low_level_send_and_replies(self):
        db = self.connect()
        self.add_object(db, 'acme')
        cid = db.send('object_list', NET)
        msgs = list(db.replies(cid))
        self.assertEqual([m.get_type() for m in msgs], [tqdb.MSG_TYPE_DATA])
        self.assertEqual(db.session.object_list_handle(msgs[0]).convert(None)[0]['name'], 'acme')
        self.assertEqual(db.session.ping_handle(db.reply(db.send('ping', 'x'))), 'x')
        with self.assertRaises(tqdb.ServerError):
            db.reply(db.send('resource_rollback'))


class SmallRepliesTest(SimCase):
    sim_args = ('--max-reply-bytes', '64')  # every list answer spread over many DATA

    def test_every_argumentless_read_finishes_with_its_whole_answer(self):
        db = self.connect()
        for row in sorted(methods.REQUESTS.values()):
            doc = getattr(T.Session, row.name).__doc__
            if row.read_only and methods._params(doc) == ['']:
                try:
                    getattr(db, row.name)()
                except tqdb.ServerError:
                    pass
        self.assertEqual(len(db.config_list()), 16)   # gathered over 16 DATA and the OK
        self.assertEqual(db.unmatched, 0)  # no answer had more messages than were read


class TransactionTest(SimCase):
    def test_commit_and_rollback_by_exception(self):
        db, other = self.connect(), self.connect()
        tx = self.add_object(db, 'kept')
        self.assertEqual(tx.commit_id[:1], (tx.begin_id[0] + 1,))

        class Oops(Exception):
            pass
        with self.assertRaises(Oops):
            with db.transaction(tqdb.RESOURCE_RULESET, 'never') as tx2:
                db.object_add(NET, 'dropped', 0)
                raise Oops()
        self.assertIsNone(tx2.commit_id)
        self.assertEqual(self.names(db), ['kept'])
        self.assertEqual(self.names(other), ['kept'])

    def test_second_client_is_locked_out(self):
        a, b = self.connect(), self.connect()
        with a.transaction(tqdb.RESOURCE_RULESET, 'mine'):
            with self.assertRaises(tqdb.LockedError) as cm:
                b.resource_begin(tqdb.RESOURCE_RULESET)
            self.assertIsInstance(cm.exception, tqdb.ServerError)
            self.assertEqual(cm.exception.msg_type, tqdb.MSG_TYPE_LOCK)
            self.assertIn('is locked by admin', cm.exception.text)
        b.resource_begin(tqdb.RESOURCE_RULESET)  # free again after the commit

    def test_pipelined_pings(self):
        db = self.connect()
        pending = [db.submit('ping', 'p%d' % i) for i in range(2000)]
        self.assertEqual([p.result() for p in pending], ['p%d' % i for i in range(2000)])
        self.assertTrue(all(p.done() for p in pending))

    def test_events_reach_callbacks_or_the_queue(self):
        a, b = self.connect(), self.connect()
        seen = []
        a.on_commit(seen.append)
        tx = self.add_object(b, 'x')
        a.ping('turn')
        self.assertEqual(seen, [tx.commit_id])
        self.assertEqual(a.events(), [])
        tx2 = self.add_object(a, 'y')
        b.resource_begin(tqdb.RESOURCE_USERS)
        a.resource_resource_steal(tqdb.RESOURCE_USERS)
        b.ping('turn')
        events = b.events()
        self.assertEqual(events[0], ('commit', tx2.commit_id))
        self.assertEqual([k for k, _ in events[1:]], ['detached'])
        self.assertIn('taken over', events[1][1])
        self.assertEqual(seen, [tx.commit_id])  # its own commit is not announced to a


class ConnectFailureTest(SimCase):
    def test_login_refused(self):
        with self.assertRaises(tqdb.AuthenticationError):
            self.connect(password='wrong')

    def test_version_refused(self):
        self.sim.stop()
        self.sim = Simulator('--version', '0x6100')
        with self.assertRaises(tqdb.VersionError):
            self.connect()

    def test_nobody_listening(self):
        port = self.sim.port
        self.sim.stop()
        self.sim = Simulator()
        with self.assertRaises(tqdb.ConnectionLost) as cm:
            tqdb.connect(self.sim.host, port, key=shared_key(), timeout=2.0)
        self.assertIsInstance(cm.exception, IOError)


class RestartTest(SimCase):
    def test_restart_then_reconnect_keeps_committed_state(self):
        a, b = self.connect(), self.connect()
        self.add_object(a, 'kept')
        self.assertEqual(a.restart('maintenance'), 'maintenance')
        with self.assertRaises(tqdb.ConnectionLost) as cm:
            a.ping('gone')
        self.assertIsInstance(cm.exception, IOError)
        a.reconnect()
        self.assertEqual(self.names(a), ['kept'])
        with self.assertRaises(tqdb.ConnectionLost):
            b.ping('gone')
        self.assertEqual(b.events()[-1], ('restart', 'maintenance'))

    def test_reconnect_true_retries_reads_only(self):
        admin, db = self.connect(), self.connect(reconnect=True)
        self.add_object(admin, 'kept')
        admin.restart()
        self.assertEqual(self.names(db), ['kept'])       # read across the restart
        admin.reconnect()
        admin.restart()
        with self.assertRaises(tqdb.ConnectionLost):
            db.resource_begin(tqdb.RESOURCE_RULESET)     # a change is never sent twice
        db.reconnect()
        db.resource_begin(tqdb.RESOURCE_RULESET)
