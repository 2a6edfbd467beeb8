"""Host and connection-protection triggers end to end against tqdbsim."""
import os
import shutil
import sys
import tempfile
import unittest

import TQDBv17_1 as T

from simhelper import Admin, Simulator

DATA, OK, ERROR = T.MSG_TYPE_DATA, T.MSG_TYPE_OK, T.MSG_TYPE_ERROR
HOST, CONNPROT = T.RESOURCE_HOSTTRIGGER, T.RESOURCE_CONNPROT_TRIGGER
LIMITS = ['in_bw', 'out_bw', 'in_cps', 'out_cps', 'conns', 'uconns', 'uconn_rate', 'out_ttls',
          'qoe_in_int', 'qoe_in_ext', 'qoe_out_int', 'qoe_out_ext', 'netobject', 'trigtype']
HOST_KEYS = ['id', 'name', 'script'] + LIMITS
ORDER = list if sys.version_info >= (3, 7) else sorted  # dicts keep insertion order


def limits(trigtype=T.HOSTTRIGGER_TRIGTYPE_HOST, netobject=0, out_ttls=-5):
    """Fourteen thresholds: unsigned ones at their top, signed ones below 0."""
    return [0xFFFFFFFF, 2, 3, 4, 5, 6, 7, out_ttls, -1, 0, 2 ** 31 - 1, -2 ** 31, netobject,
            trigtype]


class Triggers(Admin):
    def hosts(self):
        return self.listing('hosttrigger_list')

    def connprots(self):
        return self.listing('connprot_trigger_list')

    def add_host(self, name, script='h.sh', **kw):
        m = self.c.call(self.s.hosttrigger_add(name, script, *limits(**kw)), DATA)
        return self.s.hosttrigger_add_handle(m)

    def add_connprot(self, name, script='c.sh'):
        m = self.c.call(self.s.connprot_trigger_add(name, script), DATA)
        return self.s.connprot_trigger_add_handle(m)

    def netobject(self, name):
        self.begin(T.RESOURCE_RULESET)
        m = self.c.call(self.s.object_add(T.OBJECT_TYPE_NETOBJECT, name, 0), DATA)
        self.commit()
        return self.s.object_add_handle(m)[0]


class TriggersTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp()
        cls.state = os.path.join(cls.dir, 'state.json')
        cls.sim = Simulator('--state', cls.state)

    @classmethod
    def tearDownClass(cls):
        cls.sim.stop()
        shutil.rmtree(cls.dir)

    def test_host_triggers(self):
        t = Triggers(self.sim)
        lan = t.netobject('trig-lan')
        t.begin(HOST)
        a = t.add_host('trig-a')
        b = t.add_host('trig-b', 'b.sh', trigtype=T.HOSTTRIGGER_TRIGTYPE_NETOBJECT_CHILD,
                       netobject=lan)
        self.assertNotIn(0, (a, b))
        got = [x for x in t.hosts() if x['name'].startswith('trig-')]
        self.assertEqual([ORDER(x.keys()) for x in got], [ORDER(HOST_KEYS)] * 2)
        self.assertEqual(got[0], dict(zip(HOST_KEYS, [a, 'trig-a', 'h.sh'] + limits())))
        # Update by keyword: script and thresholds change, the name stays.
        new = dict(zip(LIMITS, limits(T.HOSTTRIGGER_TRIGTYPE_HOST_IN_NETOBJECT, lan, 9)))
        t.call(t.s.hosttrigger_update(id=b, script='b2.sh', **new))
        t.call(t.s.hosttrigger_remove(a))
        t.commit()
        got = [x for x in t.hosts() if x['name'].startswith('trig-')]
        self.assertEqual(got, [dict(new, id=b, name='trig-b', script='b2.sh')])
        self.assertRaises(OverflowError, t.s.hosttrigger_add, 'x', 's', *limits(out_ttls=2 ** 31))

    def test_connprot_triggers(self):
        t = Triggers(self.sim)
        t.begin(CONNPROT)
        a = t.add_connprot('cp-a')
        b = t.add_connprot('cp-b', 'b.sh')
        t.call(t.s.connprot_trigger_update(a, 'a2.sh'))
        t.call(t.s.connprot_trigger_rename(id=a, newname='cp-c'))
        t.call(t.s.connprot_trigger_remove(b))
        self.assertEqual(Triggers(self.sim).connprots(), [])  # others see the committed set
        t.commit()
        self.assertEqual(t.connprots(), [{'id': a, 'name': 'cp-c', 'script': 'a2.sh'}])
        self.assertEqual(ORDER(t.connprots()[0].keys()), ORDER(['id', 'name', 'script']))

    def test_refusals(self):
        h, c = Triggers(self.sim), Triggers(self.sim)  # one transaction per session
        self.assertIn('No transaction open on resource 20 (connprot_trigger)',
                      c.error(c.s.connprot_trigger_add('x', 'x.sh')))
        h.begin(HOST)
        c.begin(CONNPROT)
        dup, cp, _ = h.add_host('dup'), c.add_connprot('cp-x'), c.add_connprot('cp-y')
        hs, cs = h.s, c.s
        rows = [
            (h, hs.hosttrigger_add('dup', 's', *limits()), "Host trigger 'dup' exists already"),
            (h, hs.hosttrigger_add('', 's', *limits()), 'A host trigger name has 1 to 255 bytes'),
            (h, hs.hosttrigger_add('n' * 256, 's', *limits()), 'A host trigger name has 1 to 255'),
            (h, hs.hosttrigger_add('n' * 255, 's' * 255, *limits()), None),
            (h, hs.hosttrigger_add('ok', '', *limits()), 'Bad script name: A file name cannot be empty'),
            (h, hs.hosttrigger_add('ok', '../x', *limits()), "Bad script name: A file name cannot hold '/'"),
            (h, hs.hosttrigger_add('ok', 's', *limits(4)), 'Bad trigger type 4 (trigger types are 0 to 3)'),
            (h, hs.hosttrigger_add('ok', 's', *limits(-1)), 'Bad trigger type -1'),
            (h, hs.hosttrigger_add('ok', 's', *limits(1)), 'type 1 watches a net object: netobject cannot be 0'),
            (h, hs.hosttrigger_add('ok', 's', *limits(2, 999)), 'No net object 999'),
            (h, hs.hosttrigger_update(999, 's', *limits()), 'Unknown host trigger id 999'),
            (h, hs.hosttrigger_update(dup, 's', *limits(3)), 'netobject cannot be 0'),
            (h, hs.hosttrigger_remove(999), 'Unknown host trigger id 999'),
            (c, cs.connprot_trigger_rename(cp, 'cp-y'), "Connection-protection trigger 'cp-y' exists"),
            (c, cs.connprot_trigger_rename(cp, 'cp-x'), None),  # its own name
            (c, cs.connprot_trigger_rename(999, 'z'), 'Unknown connection-protection trigger id 999'),
            (c, cs.connprot_trigger_update(cp, 'a/b'), 'Bad script name'),
            (c, cs.connprot_trigger_remove(999), 'Unknown connection-protection trigger id 999'),
        ]
        for who, cid, error in rows:
            m = who.c.reply(cid)
            got = (m.get_type() == ERROR, error and error in m.get_error())
            self.assertEqual(got, (True, True) if error else (False, None), (error, m.get_error()))

    def test_saved_and_ids_never_reused(self):
        t = Triggers(self.sim)
        t.begin(CONNPROT)
        gone = t.add_connprot('saved-gone')
        kept = t.add_connprot('saved-kept')
        t.commit()
        t.begin(CONNPROT)
        t.call(t.s.connprot_trigger_remove(kept))
        t.commit()
        before = t.connprots()
        again = Simulator('--state', self.state)
        try:
            u = Triggers(again)
            self.assertEqual(u.connprots(), before)
            u.begin(CONNPROT)
            self.assertGreater(u.add_connprot('saved-new'), max(gone, kept))
        finally:
            again.stop()
