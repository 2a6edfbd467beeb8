"""The ruleset methods of Session against a scripted peer: the exact request
bytes each argument conversion produces, the values each list class converts
to, setup_item's errors, the value classes, and list objects that outlive
their session and handle."""
import collections
import gc
import struct
import sys
import traceback
import unittest

import TQDBv17_1 as T

from simhelper import REPLY_DATA, REPLY_OK, ScriptedPeer, frame, string, u8, u32


def u16(v):
    return struct.pack('>H', v)


def data(body, cid=1):
    return frame(REPLY_DATA, u32(3) + u32(cid) + body)


AUDIT = (string(b'al') + string(b'2026-01-01 00:00:00') + string(b'bo') +
         string(b'2026-01-02 00:00:00'))
AUDIT_KEYS = {'creator': 'al', 'creation_date': '2026-01-01 00:00:00', 'modified_by': 'bo',
              'modification_date': '2026-01-02 00:00:00'}
F = collections.namedtuple('F', 'key operator values')   # any object with the attributes
D = collections.namedtuple('D', 'distribution argument')
NET_ITEM = {'type': 1, 'value1': '10.0.0.1', 'value2': 'x', 'exclude': 'yes'}
LIMITS = {'inbound': [(1, 2, 3, 4, 5, 6)], 'bidir': [[0, 0, 0, 0, 0, 9]]}

# (call, request code, body after session id and correlation id)
REQUESTS = [
    (lambda s: s.object_add(0, u'w\u00e9b', 7), 0x11002, u8(0) + string(b'w\xc3\xa9b') + u32(7)),
    (lambda s: s.object_set_visible(0, 5, ''), 0x11005, u8(0) + u32(5) + u8(0)),
    (lambda s: s.object_set_visible(type=0, id=5, visible=[0]), 0x11005, u8(0) + u32(5) + u8(1)),
    (lambda s: s.object_item_remove(0, 5, 9), 0x11012, u8(0) + u32(9)),
    (lambda s: s.object_item_add(0, 3, NET_ITEM), 0x11010,
     u8(0) + u32(3) + u8(1) + string(b'10.0.0.1') + string(b'x') + u8(1)),
    (lambda s: s.object_item_update(1, 8, {'type': 2, 'value1': 80, 'value2': 90, 'exclude': 0}),
     0x11011, u8(1) + u32(8) + u8(2) + u16(80) + u16(90) + u8(0)),
    (lambda s: s.fwrule_add('r', 1, 1, 0), 0x13002,
     string(b'r') + u32(0) + u32(1) + u8(1) + u8(0) + u32(0) * 3 + string(b'') * 4),
    (lambda s: s.fwrule_add('r', 5, 0, 2, divert_label='d', rulecondition=4), 0x13002,
     string(b'r') + u32(4) + u32(5) + u8(0) + u8(2) + u32(0) * 3 + string(b'') + string(b'd') +
     string(b'') * 2),
    (lambda s: s.fwrule_update(3, 1, 0, 0, 7, 0, 0, '', '', 'inj', 'tr', 2), 0x13003,
     u32(3) + u32(2) + u32(1) + u8(0) + u8(0) + u32(7) + u32(0) * 2 + string(b'') * 2 +
     string(b'inj') + string(b'tr')),
    (lambda s: s.fwrule_rename(i=2, newname='n'), 0x13005, u32(2) + string(b'n')),
    (lambda s: s.shapingrule_set_objects(2, (7, 8)), 0x17007, u32(2) + u32(7) + u32(8)),
    (lambda s: s.statisticsrule_set_objects(4, [10, 11], [20]), 0x1800B,
     u32(4) + u8(1) + u32(10) + u8(1) + u32(11) + u8(2) + u32(20)),
    (lambda s: s.statisticsrule_add('s', 1, 0, rulecondition=6), 0x18002,
     string(b's') + u32(6) + u8(1) + u8(0)),
    (lambda s: s.rule_attr_set(T.RULESET_RULE_TYPE_SHAPING, 2, 'k', 'v'), 0x11202,
     u8(1) + u32(2) + string(b'k') + string(b'v')),
    (lambda s: s.shaping_object_add('so', LIMITS, 2, 100, 24, 0xFFFFFFFF, [1, 2, 3, 4, 5, 6],
                                    [11, 12]), 0x16002,
     string(b'so') + u8(2) + u32(24) + u32(100) + u32(0xFFFFFFFF) + b'\x01\x02\x03\x04\x05\x06' +
     u8(0) + u32(0) + u32(2) + u8(1) + b''.join(u32(v) for v in (1, 3, 2, 4, 5, 6)) +
     u8(0) + u32(0) * 5 + u32(9) + u32(2) + u32(11) + u32(12)),
    (lambda s: s.shaping_object_modify(9, 'so', {}, 0, -1, 0, 0, (0,) * 6, [], 5, 6), 0x16005,
     u32(9) + string(b'so') + u8(0) + u32(0) + u32(0xFFFFFFFF) + u32(0) + b'\0' * 6 + u8(5) +
     u32(6) + u32(0) + u32(0)),
    (lambda s: s.ruleconditions_set_items(7, [T.Item(conditiontype=5, objectid=10), (0, 3)]),
     0x11105, u32(7) + u16(2) + u8(5) + u32(10) + u8(0) + u32(3)),
    (lambda s: s.ruleconditions_set_items(7, []), 0x11105, u32(7) + u16(0)),
    (lambda s: s.dynamicliveview_update(3, [F('k', 1, ['a', 'b']), T.Filter(key='e', operator=0,
                                                                          values=[])],
                                        [D('d', 'x')]), 0x1AC04,
     u32(3) + u32(1) + string(b'd') + string(b'x') + u32(2) + u8(1) + string(b'k') + u32(2) +
     string(b'a') + string(b'b') + u8(0) + string(b'e') + u32(0)),
    (lambda s: s.dynamicliveview_update(3, [], ()), 0x1AC04, u32(3) + u32(0) + u32(0)),
    (lambda s: s.statistics_object_add('st'), 0x1B002,
     string(b'st') + u8(0) + u32(0) + u32(0) + u32(60)),
    (lambda s: s.statistics_object_add('n' * 256, fields=0xFFFFFFFF), 0x1B002,  # name[256]
     string(b'n' * 255) + u8(0) + u32(0) + u32(0xFFFFFFFF) + u32(60)),
    (lambda s: s.ipfix_object_add('ip', '10.0.0.2', protocol=6), 0x1B102,
     string(b'ip') + string(b'10.0.0.2') + u16(4739) + u8(6) + u32(60)),
]

FW = (u32(4) + u8(1) + string(b'fw') + u8(0) + u32(3) + u8(2) + u32(1) + u32(9) + u32(5) +
      u32(6) + u32(7) + string(b'ml') + string(b'dl') + string(b'inj') + string(b'tr') + u32(8) +
      AUDIT)
FW_DICT = dict(id=4, name='fw', rulecondition=8, action=3, quick=False, log_level=2,
               rewriteobject=5, enrichobject=6, monitor_iface=7, monitor_label='ml',
               divert_label='dl', position=1, orderby=9, inject_data='inj', trigger='tr',
               active=True, **AUDIT_KEYS)
SHAPING_OBJ = (u32(0xFFFFFFFE) + string(b'so') + u8(2) + u32(24) + u32(100) + u32(3) + u32(0) +
               AUDIT + b'\x01\x02\x03\x04\x05\x06' + u8(1) + u32(2) + u32(1) + u8(2) +
               b''.join(u32(v) for v in (10, 20, 30, 40, 50, 60)) + u32(1) + u32(11))
ZERO = (0,) * 6

AUDIT_ORDER = ['creator', 'creation_date', 'modified_by', 'modification_date']
KEY_ORDER = {
    'fwrule_list_handle': ['id', 'name', 'rulecondition', 'action', 'quick', 'log_level',
                           'rewriteobject', 'enrichobject', 'monitor_iface', 'monitor_label',
                           'divert_label', 'position', 'orderby', 'inject_data', 'trigger',
                           'active'] + AUDIT_ORDER,
    'shaping_object_list_handle': ['id', 'name', 'vbs_hours', 'max_connections',
                                   'split_argument', 'inbound', 'outbound', 'bidir', 'split'] +
    AUDIT_ORDER + ['wfq', 'flags', 'split_netobjects', 'fairness_group',
                   'fairness_group_argument'],
    'object_list_handle': ['id', 'name', 'parent', 'visible'] + AUDIT_ORDER +
    ['referenced', 'items'],
}

# (reply body, decoder, converted list)
LISTS = [
    (FW + FW.replace(u32(4) + u8(1) + string(b'fw'), u32(5) + u8(0) + string(b'gw'), 1),
     'fwrule_list_handle', [dict(FW_DICT, id=5, name='gw', active=False), FW_DICT]),
    (u32(2) + u8(1) + string(b'sr') + u8(3) + u8(4) + u8(5) + u32(6) + AUDIT + u32(2) + u32(7) +
     u32(8), 'shapingrule_list_handle',
     [dict(id=2, name='sr', rulecondition=6, priority=3, precedence=4, fair_factor=5, active=True,
           objects=[7, 8], **AUDIT_KEYS)]),
    (u32(3) + u8(4) + string(b'st') + u32(1) + AUDIT + u8(2) + u32(10) + u32(11) + u8(1) +
     u32(20), 'statisticsrule_list_handle',
     [dict(id=3, name='st', rulecondition=1, active=False, statisticsobjects=[11, 10],
           ipfixobjects=[20], connlog=True, insights_traffic=False, **AUDIT_KEYS)]),
    (u8(0) + u32(6) + string(b'net') + u32(0) + u32(2) + AUDIT + u8(1) + u32(0) + u32(0) +
     u8(1) + u8(0) + u32(12) + u8(1) + string(b'10.0.0.1') + string(b'') + u8(1) + AUDIT,
     'object_list_handle',
     [dict(id=6, name='net', parent=0, visible=True, referenced=2,
           items=[dict(id=12, type=1, value1='10.0.0.1', value2='', exclude=1, **AUDIT_KEYS)],
           **AUDIT_KEYS)]),
    (SHAPING_OBJ, 'shaping_object_list_handle',
     [dict(id=-2, name='so', vbs_hours=0, max_connections=100, split_argument=24,
           inbound=[ZERO], outbound=[(10, 30, 20, 40, 50, 60)], bidir=[ZERO], split=2,
           wfq=[1, 2, 3, 4, 5, 6], flags=3, split_netobjects=[11], fairness_group=1,
           fairness_group_argument=2, **AUDIT_KEYS)]),
    (u8(0) + u32(9) + string(b'rc') + u8(1) + AUDIT + u8(1) + u8(5) + u32(10) + u8(1) + u8(0) +
     u32(3), 'ruleconditions_list_handle',
     [dict(id=9, name='rc', operator=1, items=[T.Item(conditiontype=0, objectid=3),
                                               T.Item(conditiontype=5, objectid=10)],
           **AUDIT_KEYS)]),
    (u8(0) + u32(1) + string(b'v') + AUDIT + u8(1) + u32(2) + u32(1) + string(b'd') +
     string(b'x') + u8(2) + u32(3) + u32(1) + u8(1) + string(b'k') + u8(3) + u32(4) + u32(1) +
     u32(3) + string(b'a'), 'dynamicliveview_list_handle',
     [dict(id=1, name='v', distribution=[T.Distribution(distribution='d', argument='x')],
           filter=[T.Filter(key='k', operator=1, values=['a'])], **AUDIT_KEYS)]),
    (u32(5) + string(b'so') + u8(7) + u32(24) + u32(0xFFFFFFFF) + u32(300) + AUDIT,
     'statistics_object_list_handle',
     [dict(id=5, name='so', split=7, split_argument=24, fields=0xFFFFFFFF, interval=300,
           **AUDIT_KEYS)]),
    (u32(6) + string(b'ip') + string(b'10.1.1.1') + u16(4739) + u8(17) + u32(60) + AUDIT,
     'ipfix_object_list_handle',
     [dict(id=6, name='ip', collector='10.1.1.1', port=4739, protocol=17, interval=60,
           **AUDIT_KEYS)]),
]


class RulesetBindingTest(unittest.TestCase):
    def setUp(self):
        self.peer = ScriptedPeer()
        self.s = self.peer.handle.session_new_handle(
            self.peer.reply(frame(REPLY_DATA, u32(0) + u32(1) + u32(42))))

    def tearDown(self):
        self.peer.close()

    def test_requests_on_the_wire(self):
        for cid, (call, code, body) in enumerate(REQUESTS, 1):
            self.assertEqual(call(self.s), cid)
            want = frame(code, u32(42) + u32(cid) + body)
            self.assertEqual(self.peer.received(len(want)), want, hex(code))

    def test_list_classes(self):
        for body, method, want in LISTS:
            l = getattr(self.s, method)(self.peer.reply(data(body)), None)
            got = l.convert(None)
            self.assertEqual(got, want, method)
            if method in KEY_ORDER and sys.version_info >= (3, 7):
                self.assertEqual(list(got[0]), KEY_ORDER[method])
            # A wrong type leaves l as it was and returns it.
            self.assertIs(getattr(self.s, method)(self.peer.reply(frame(REPLY_OK, u32(3) + u32(1))),
                                                  l), l)
            self.assertEqual(l.convert(None), want)

    def test_listed_shaping_object_goes_back_unchanged(self):
        o = self.s.shaping_object_list_handle(self.peer.reply(data(SHAPING_OBJ))).convert(0)[0]
        limits = dict((k, o[k]) for k in ('inbound', 'outbound', 'bidir'))
        self.assertEqual(self.s.shaping_object_modify(
            o['id'], o['name'], limits, o['split'], o['max_connections'], o['split_argument'],
            o['flags'], o['wfq'], o['split_netobjects'], o['fairness_group'],
            o['fairness_group_argument']), 1)
        limit = [u32(v) for v in (10, 20, 30, 40, 50, 60)]
        want = frame(0x16005, u32(42) + u32(1) + SHAPING_OBJ[:4] + string(b'so') + u8(2) +
                     u32(24) + u32(100) + u32(3) + b'\x01\x02\x03\x04\x05\x06' + u8(1) + u32(2) +
                     u32(3) + u8(1) + u32(0) * 6 + u8(2) + b''.join(limit) + u8(0) +
                     u32(0) * 6 + u32(1) + u32(11))
        self.assertEqual(self.peer.received(len(want)), want)

    def test_detached_session_converts_and_sends_nothing(self):
        s = T.Session()
        self.assertEqual(s.fwrule_add('r', 1, 1, 0), 0)
        self.assertRaises(KeyError, s.object_item_add, 0, 1, {})
        self.assertRaises(OverflowError, s.object_list, 2 ** 31)
        self.assertEqual(s.object_list(2 ** 31 - 1), 0)

    def test_single_values(self):
        s, reply = self.s, self.peer.reply
        stamp = string(b'2026-01-01 00:00:00')
        self.assertEqual(s.object_rename_handle(reply(data(stamp))), '2026-01-01 00:00:00')
        self.assertEqual(s.dynamiceliveview_remove_handle(reply(data(stamp))),
                         '2026-01-01 00:00:00')
        self.assertFalse(hasattr(s, 'dynamicliveview_remove_handle'))
        self.assertIsNone(s.fwrule_rename_handle(reply(frame(REPLY_OK, u32(3) + u32(1)))))
        self.assertEqual(s.object_add_handle(reply(data(u32(77) + stamp))),
                         (77, '2026-01-01 00:00:00'))
        self.assertEqual(s.rule_attr_list_handle(
            reply(data(string(b'a') + string(b'1') + string(b'b') + string(b'2')))),
            [('b', '2'), ('a', '1')])
        self.assertRaises(TypeError, s.object_rename_handle, None)

    def test_setup_item(self):
        self.assertEqual(T.setup_item(T.OBJECT_TYPE_NETOBJECT, NET_ITEM)['exclude'], 1)
        for kind in (-1, 19):
            self.assertRaises(RuntimeError, T.setup_item, kind, {})
        bad = [({'type': 1, 'value1': 'a', 'exclude': 0}, KeyError),
               (dict(NET_ITEM, value1=5), TypeError), (dict(NET_ITEM, type='1'), TypeError)]
        for item, error in bad:
            self.assertRaises(error, T.setup_item, 0, item)
            self.assertRaises(error, self.s.object_item_add, 0, 1, item)
        try:
            self.s.fwrule_add('r', 1, 1)
        except TypeError:
            names = [entry[2] for entry in traceback.extract_tb(sys.exc_info()[2])]
            self.assertIn('TQDBv17_1.Session.fwrule_add', names)
        self.assertRaises(TypeError, self.s.fwrule_add, 'r', 1, 1, 0, bogus=1)

    def test_value_classes(self):
        a = T.Item(conditiontype=0, objectid=5)
        self.assertEqual(repr(a), 'Item(conditiontype=0, objectid=5)')
        self.assertTrue(a == T.Item(0, 5) and not a != T.Item(0, 5))
        self.assertTrue(a != T.Item(0, 6) and a != (0, 5))
        self.assertEqual(repr(T.Distribution(distribution='d', argument='')),
                         "Distribution(distribution='d', argument='')")
        self.assertEqual(T.Filter(key='k', operator=1, values=['v']).values, ['v'])
        self.assertRaises(TypeError, T.Item, conditiontype=0)

    def test_list_outlives_session_and_handle(self):
        l = self.s.ruleconditions_list_handle(self.peer.reply(data(LISTS[5][0])), None)
        # Items opening the next reply attach to the last condition.
        self.s.ruleconditions_list_handle(self.peer.reply(data(u8(1) + u8(2) + u32(4))), l)
        del self.s
        self.peer.handle = None
        self.peer.close()
        gc.collect()
        self.assertEqual(l.convert(None)[0]['items'][0], T.Item(conditiontype=2, objectid=4))


if __name__ == '__main__':
    unittest.main()
