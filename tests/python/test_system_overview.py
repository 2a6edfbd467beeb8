"""The system overview end to end against tqdbsim: announcing, listing, graphs,
system information, deleting, and the lock rules of resource 13."""
import time

import TQDBv17_1 as T

from simhelper import Admin, SimTest

DATA, OK, ERROR, LOCK = T.MSG_TYPE_DATA, T.MSG_TYPE_OK, T.MSG_TYPE_ERROR, T.MSG_TYPE_LOCK
OVERVIEW = T.RESOURCE_SYSTEM_OVERVIEW


class Peer(Admin):
    def systems(self):
        return self.listing('system_overview_list')

    def announce(self, sid, name, want=OK):
        return self.call(self.s.system_overview_announce(sid, name, '17.1', 'r42', 'a' * 32,
                                                         'PL-1000'), want)


class SystemOverviewTest(SimTest):
    def test_templates(self):
        p = Peer(self.sim)
        ts = p.listing('system_overview_template_list')
        self.assertEqual(sorted(ts[0].keys()), sorted(['templateid', 'name', 'type', 'flags',
                                                       'vtype', 'zone', 'id', 'descstr', 'ttype']))
        self.assertEqual(set(t['ttype'] for t in ts),
                         set([T.SYSTEM_OVERVIEW_TEMPLATE_TYPE_SYSDIAG,
                              T.SYSTEM_OVERVIEW_TEMPLATE_TYPE_CHANNEL]))
        self.assertEqual([t['templateid'] for t in ts], sorted(t['templateid'] for t in ts))

    def test_announce_list_graph_delete(self):
        p = Peer(self.sim)
        before = int(time.time())
        p.announce(7, 'edge-7')
        got = [s for s in p.systems() if s['systemid'] == 7][0]
        self.assertEqual(got['host'], '127.0.0.1')
        self.assertTrue(before <= got['firstupdate'] == got['lastupdate'] <= time.time())
        self.assertEqual((got['name'], got['distversion'], got['drdlrevision'], got['configmd5'],
                          got['model'], got['values']),
                         ('edge-7', '17.1', 'r42', 'a' * 32, 'PL-1000', []))
        p.announce(7, 'edge-7b')  # an update keeps the first time
        again = [s for s in p.systems() if s['systemid'] == 7][0]
        self.assertEqual((again['name'], again['firstupdate']), ('edge-7b', got['firstupdate']))
        for args, want in [((7, 1), OK), ((8, 1), ERROR), ((7, 999), ERROR)]:
            m = p.call(p.s.system_overview_system_graph(*args), want)
            if want == OK:  # nothing posted yet: the OK alone
                self.assertEqual(p.s.system_overview_system_graph_handle(m).convert(None), [])
        for sid, name, why in [(0, 'x', 'A system id cannot be 0'),
                               (9, 'n' * 65, 'A system name has at most 64 bytes, not 65')]:
            self.assertEqual(p.announce(sid, name, ERROR).get_error(), why)
        # Delete needs the transaction.
        self.assertIn('begin one first', p.error(p.s.system_overview_system_delete(7)))
        p.begin(OVERVIEW)
        p.call(p.s.system_overview_system_delete(7))
        self.assertIn('Unknown system 7', p.error(p.s.system_overview_system_delete(7)))
        p.call(p.s.resource_rollback())
        self.assertIn(7, [s['systemid'] for s in p.systems()])

    def test_sysinfo_and_locks(self):
        a, b = Peer(self.sim), Peer(self.sim)
        self.assertRaises(TypeError, a.s.system_overview_sysinfo_add_system, 'fw1', ['k'])
        self.assertRaises(ValueError, a.s.system_overview_sysinfo_add_system, 'fw1',
                          {'k': 'v' * 1024})
        a.begin(OVERVIEW)
        a.call(a.s.system_overview_sysinfo_add_system('fw1', {'serial': 'X1', 'rack': '4'}))
        a.call(a.s.system_overview_sysinfo_add_system('fw0', {}))
        # Another session is kept out of the overview while a holds it.
        b.announce(11, 'other', LOCK)
        self.assertEqual(b.error(b.s.system_overview_sysinfo_get_system('fw1')),
                         "No system information for 'fw1'")
        a.commit()
        names = None
        for _ in range(2):  # two answers decoded into one list
            names = b.s.system_overview_sysinfo_list_systems_handle(
                b.call(b.s.system_overview_sysinfo_list_systems(), DATA), names)
        self.assertEqual(names.convert(None), ['fw0', 'fw1'] * 2)
        self.assertEqual(b.s.system_overview_sysinfo_get_system_handle(
            b.call(b.s.system_overview_sysinfo_get_system('fw1'), DATA)),
            {'serial': 'X1', 'rack': '4'})
        # Other reply types decode to the empty results.
        m = b.announce(12, 'ok')
        self.assertEqual(b.s.system_overview_sysinfo_get_system_handle(m), {})
        self.assertEqual(b.s.system_overview_list_handle(m, None).convert(None), [])
        self.assertEqual(b.s.system_overview_sysinfo_list_systems_handle(m, lst=names), names)
        self.assertRaises(TypeError, b.s.system_overview_sysinfo_list_systems_handle, m, [])
