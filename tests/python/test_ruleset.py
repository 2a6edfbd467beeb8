"""The ruleset end to end against tqdbsim: transactions and isolation, answers
split over many replies, validation, references, rule order, state kept
across a restart."""
import os
import shutil
import tempfile
import unittest

import TQDBv17_1 as T

from simhelper import Client, Simulator

DATA, OK, ERROR, LOCK = T.MSG_TYPE_DATA, T.MSG_TYPE_OK, T.MSG_TYPE_ERROR, T.MSG_TYPE_LOCK
NET, PORT = T.OBJECT_TYPE_NETOBJECT, T.OBJECT_TYPE_PORTOBJECT


def net_item(value1, kind=T.NETOBJECT_ITEM_TYPE_IPV4_ADDRESS, value2='', exclude=0):
    return {'type': kind, 'value1': value1, 'value2': value2, 'exclude': exclude}


class Operator(object):
    """One logged-in client with one session, and the ruleset calls tests repeat."""

    def __init__(self, sim):
        self.c = Client(sim.host, sim.port)
        assert self.c.login() is not None
        self.s = self.c.session()

    def begin(self, resource=T.RESOURCE_RULESET):
        return self.c.reply(self.s.resource_begin(resource)).get_type()

    def commit(self, text='test'):
        return self.c.call(self.s.resource_commit(text), DATA)

    def rollback(self):
        self.c.call(self.s.resource_rollback(), OK)

    def add_object(self, name, parent=0, kind=NET, items=()):
        oid, stamp = self.s.object_add_handle(self.c.call(self.s.object_add(kind, name, parent),
                                                          DATA))
        for item in items:
            self.c.call(self.s.object_item_add(kind, oid, item), DATA)
        return oid

    def objects(self, kind=NET):
        rows = self.c.listing(self.s.object_list(kind), self.s.object_list_handle)
        return dict((o['name'], o) for o in rows)

    def condition(self, name, items):
        cid, _ = self.s.ruleconditions_add_handle(
            self.c.call(self.s.ruleconditions_add(name, T.RULECONDITION_AND), DATA))
        self.c.call(self.s.ruleconditions_set_items(cid, items), DATA)
        return cid


class RulesetTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.sim = Simulator('--max-reply-bytes', '300')

    @classmethod
    def tearDownClass(cls):
        cls.sim.stop()

    def op(self):
        return Operator(self.sim)

    def test_isolation_commit_and_rollback(self):
        a, b = self.op(), self.op()
        # An edit outside a transaction is refused with a reason.
        refused = a.c.reply(a.s.object_add(NET, 'nowhere', 0))
        self.assertEqual(refused.get_type(), ERROR)
        self.assertIn('transaction', refused.get_error())
        self.assertEqual(a.begin(), DATA)
        a.add_object('iso-kept', items=[net_item('192.0.2.1')])
        self.assertIn('iso-kept', a.objects())        # the holder sees its change
        self.assertNotIn('iso-kept', b.objects())     # others see the committed state
        self.assertEqual(b.c.reply(b.s.object_add(NET, 'x', 0)).get_type(), LOCK)
        a.commit()
        self.assertEqual(b.objects()['iso-kept']['items'][0]['value1'], '192.0.2.1')
        self.assertEqual(a.begin(), DATA)
        a.add_object('iso-dropped')
        a.c.call(a.s.object_rename(NET, a.objects()['iso-kept']['id'], 'iso-renamed'), DATA)
        a.rollback()
        names = b.objects()
        self.assertIn('iso-kept', names)
        self.assertFalse(set(['iso-dropped', 'iso-renamed']) & set(names))

    def test_listing_spans_many_replies(self):
        a = self.op()
        a.begin()
        want = {}
        for i in range(25):
            items = [net_item('10.%d.0.%d' % (i, k)) for k in range(3)]
            a.add_object('many-%02d' % i, items=items)
            want['many-%02d' % i] = [it['value1'] for it in items]
        a.commit()
        msgs = a.c.answer(a.s.object_list(NET))
        self.assertTrue(len(msgs) > 10)              # 25 objects cannot fit in 300 bytes
        self.assertEqual([m.get_type() for m in msgs], [DATA] * (len(msgs) - 1) + [OK])
        self.assertEqual(len(set(m.get_cid() for m in msgs)), 1)
        got = a.objects()
        for name, values in want.items():
            self.assertEqual([it['value1'] for it in got[name]['items']], values)
            self.assertEqual(got[name]['creator'], 'admin')

    def test_bad_items_are_refused(self):
        a = self.op()
        a.begin()
        oid = a.add_object('bad-items')
        port = a.add_object('bad-ports', kind=PORT)
        cases = [
            (NET, oid, net_item('300.1.2.3')),
            (NET, oid, net_item('10.0.0.0/33', T.NETOBJECT_ITEM_TYPE_IPV4_NETWORK)),
            (NET, oid, net_item('10.0.0.9', T.NETOBJECT_ITEM_TYPE_IPV4_RANGE, '10.0.0.1')),
            (NET, oid, net_item('10.0.0.1', T.NETOBJECT_ITEM_TYPE_IPV6_ADDRESS)),
            (PORT, port, {'type': T.PORTOBJECT_ITEM_TYPE_RANGE, 'value1': 90, 'value2': 80,
                          'exclude': 0}),
            (NET, 999999, net_item('10.0.0.1')),
        ]
        for kind, target, item in cases:
            m = a.c.reply(a.s.object_item_add(kind, target, item))
            self.assertEqual(m.get_type(), ERROR, item)
            self.assertNotEqual(m.get_error(), '')
        for kind, item in ((NET, net_item('2001:db8::1', T.NETOBJECT_ITEM_TYPE_IPV6_ADDRESS)),
                           (PORT, {'type': T.PORTOBJECT_ITEM_TYPE_RANGE, 'value1': 80,
                                   'value2': 90, 'exclude': 'yes'})):
            a.c.call(a.s.object_item_add(kind, port if kind == PORT else oid, item), DATA)
        self.assertEqual(a.objects(PORT)['bad-ports']['items'][0]['exclude'], 1)
        a.rollback()

    def test_references_protect_and_rules_keep_order(self):
        a = self.op()
        a.begin()
        lan = a.add_object('ref-lan', items=[net_item('10.0.0.0/8',
                                                      T.NETOBJECT_ITEM_TYPE_IPV4_NETWORK)])
        cond = a.condition('ref-web', [T.Item(conditiontype=T.RULESET_CONDITION_TYPE_NETOBJECT_CLIENT,
                                              objectid=lan)])
        self.assertEqual(a.objects()['ref-lan']['referenced'], 1)
        refused = a.c.reply(a.s.object_remove(NET, lan))
        self.assertEqual(refused.get_type(), ERROR)
        self.assertIn('ref-web', refused.get_error())
        # A condition may not contain itself.
        loop = a.c.reply(a.s.ruleconditions_set_items(
            cond, [(T.RULESET_CONDITION_TYPE_RULECONDITION, cond)]))
        self.assertEqual(loop.get_type(), ERROR)
        ids = [a.s.fwrule_add_handle(a.c.call(a.s.fwrule_add(
            'ref-rule-%d' % i, T.FWRULE_ACTION_ACCEPT, 1, 0, rulecondition=cond), DATA))[0]
            for i in range(4)]
        a.c.call(a.s.fwrule_position_swap(ids[0], ids[3]), DATA)
        rules = a.c.listing(a.s.fwrule_list(), a.s.fwrule_list_handle)
        mine = [r['id'] for r in rules if r['name'].startswith('ref-rule-')]
        self.assertEqual(mine, [ids[3], ids[1], ids[2], ids[0]])
        self.assertEqual([r['position'] for r in rules], sorted(r['position'] for r in rules))
        conds = a.c.listing(a.s.ruleconditions_list(), a.s.ruleconditions_list_handle)
        mine = [c for c in conds if c['id'] == cond][0]
        self.assertEqual(mine['items'], [T.Item(conditiontype=0, objectid=lan)])
        a.rollback()

    def test_shaping_object_sent_back_unchanged(self):
        a = self.op()
        a.begin()
        limits = {'inbound': [(1000, 2000, 300, 4, 5, 6)], 'outbound': [(7, 8, 9, 10, 11, 12)]}
        sid, _ = a.s.shaping_object_add_handle(a.c.call(a.s.shaping_object_add(
            'shape', limits, T.SHAPINGOBJECT_SPLIT_LOCALHOST, 100, 24, 0, [1, 2, 3, 4, 5, 6],
            []), DATA))

        def listed():
            rows = a.c.listing(a.s.shaping_object_list(), a.s.shaping_object_list_handle)
            return [o for o in rows if o['id'] == sid][0]
        first = listed()
        self.assertEqual(first['inbound'], [(1000, 2000, 300, 4, 5, 6)])
        self.assertEqual(first['bidir'], [(0, 0, 0, 0, 0, 0)])
        back = dict((k, first[k]) for k in ('inbound', 'outbound', 'bidir'))
        a.c.call(a.s.shaping_object_modify(
            sid, first['name'], back, first['split'], first['max_connections'],
            first['split_argument'], first['flags'], first['wfq'], first['split_netobjects'],
            first['fairness_group'], first['fairness_group_argument']), DATA)
        again = listed()
        for key in ('inbound', 'outbound', 'bidir', 'wfq', 'split', 'max_connections'):
            self.assertEqual(again[key], first[key], key)
        a.rollback()

    def test_edits_show_in_the_next_listing(self):
        a = self.op()
        a.begin()
        parent, child = a.add_object('edit-parent'), a.add_object('edit-child')
        stat, _ = a.s.statistics_object_add_handle(a.c.call(
            a.s.statistics_object_add('edit-stats', interval=30), DATA))
        ipfix, _ = a.s.ipfix_object_add_handle(a.c.call(
            a.s.ipfix_object_add('edit-ipfix', '192.0.2.9'), DATA))
        rule, _ = a.s.statisticsrule_add_handle(a.c.call(a.s.statisticsrule_add('edit-rule', 1, 0),
                                                         DATA))
        fw, _ = a.s.fwrule_add_handle(a.c.call(a.s.fwrule_add('edit-fw', T.FWRULE_ACTION_DROP,
                                                              0, 0), DATA))
        # (request, answer type, listing, what the listing must then show)
        steps = [
            (a.s.object_move(NET, child, parent), DATA,
             lambda: a.objects()['edit-child']['parent'], parent),
            (a.s.object_set_visible(NET, child, ''), OK,
             lambda: a.objects()['edit-child']['visible'], False),
            (a.s.object_attr_set(NET, child, 'site', 'north'), OK,
             lambda: a.s.object_attr_list_handle(a.c.call(a.s.object_attr_list(NET, child))),
             [('site', 'north')]),
            (a.s.rule_attr_set(T.RULESET_RULE_TYPE_STATISTICS, rule, 'k', 'v'), OK,
             lambda: a.s.rule_attr_list_handle(a.c.call(
                 a.s.rule_attr_list(T.RULESET_RULE_TYPE_STATISTICS, rule))), [('k', 'v')]),
            (a.s.statistics_object_modify(stat, 'edit-stats', 1, 24, 7, 60), DATA,
             lambda: [(o['split'], o['fields'], o['interval']) for o in a.c.listing(
                 a.s.statistics_object_list(), a.s.statistics_object_list_handle)
                 if o['id'] == stat], [(1, 7, 60)]),
            (a.s.statisticsrule_set_objects(rule, [stat], [ipfix]), DATA,
             lambda: [(r['statisticsobjects'], r['ipfixobjects'], r['connlog']) for r in
                      a.c.listing(a.s.statisticsrule_list(), a.s.statisticsrule_list_handle)
                      if r['id'] == rule], [([stat], [ipfix], True)]),
            (a.s.fwrule_set_active(fw, 0), DATA,
             lambda: [r['active'] for r in a.c.listing(a.s.fwrule_list(), a.s.fwrule_list_handle)
                      if r['id'] == fw], [False]),
            (a.s.ipfix_object_remove(ipfix), ERROR, lambda: None, None),  # bound to the rule
            (a.s.object_unlink(NET, parent), OK,
             lambda: a.objects()['edit-parent']['referenced'], 0),
        ]
        for cid, want, listing, shown in steps:
            m = a.c.reply(cid)
            self.assertEqual(m.get_type(), want, m.get_error())
            self.assertEqual(listing(), shown)
        ipfixes = a.c.listing(a.s.ipfix_object_list(), a.s.ipfix_object_list_handle)
        self.assertEqual([(o['collector'], o['port'], o['protocol']) for o in ipfixes
                          if o['id'] == ipfix], [('192.0.2.9', 4739, 17)])
        a.rollback()

    def test_live_view_round_trip(self):
        a = self.op()
        self.assertEqual(a.begin(T.RESOURCE_DYNAMICLIVEVIEW), DATA)
        vid, _ = a.s.dynamicliveview_add_handle(a.c.call(a.s.dynamicliveview_add('view'), DATA))
        filters = [T.Filter(key='host', operator=1, values=['a', 'b']),
                   T.Filter(key='port', operator=0, values=[])]
        dists = [T.Distribution(distribution='service', argument='x')]
        a.c.call(a.s.dynamicliveview_update(vid, filters, dists), DATA)
        views = a.c.listing(a.s.dynamicliveview_list(), a.s.dynamicliveview_list_handle)
        view = [v for v in views if v['id'] == vid][0]
        self.assertEqual((view['filter'], view['distribution']), (filters, dists))
        self.assertIsNotNone(a.s.dynamiceliveview_remove_handle(
            a.c.call(a.s.dynamicliveview_remove(vid), DATA)))
        a.rollback()


class StateTest(unittest.TestCase):
    def test_committed_ruleset_survives_a_restart(self):
        tmp = tempfile.mkdtemp()
        try:
            path = os.path.join(tmp, 'state.json')
            sim = Simulator('--state', path)
            try:
                a = Operator(sim)
                a.begin()
                kept = a.add_object('kept', items=[net_item('198.51.100.7')])
                a.commit()
                a.begin()
                a.add_object('never-committed')
                a.s.resource_rollback()
            finally:
                sim.stop()
            sim = Simulator('--state', path)
            try:
                a = Operator(sim)
                got = a.objects()
                self.assertEqual(sorted(got), ['kept'])
                self.assertEqual(got['kept']['id'], kept)
                self.assertEqual(got['kept']['items'][0]['value1'], '198.51.100.7')
                a.begin()   # ids are not given out again after a restart
                self.assertNotEqual(a.add_object('next'), kept)
            finally:
                sim.stop()
        finally:
            shutil.rmtree(tmp)


if __name__ == '__main__':
    unittest.main()
