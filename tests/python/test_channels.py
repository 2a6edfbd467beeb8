"""Channels, channel labels and monitor interfaces end to end against tqdbsim."""

import TQDBv17_1 as T

from simhelper import Admin, SimTest

DATA, ERROR, LOCK = T.MSG_TYPE_DATA, T.MSG_TYPE_ERROR, T.MSG_TYPE_LOCK
CHANNELS = T.RESOURCE_CHANNELS
DIVERT, MONITOR = T.CHANNEL_ROLE_DIVERT, T.CHANNEL_ROLE_MONITOR


def labels(a, cid):
    return a.c.listing(cid, a.s.channel_label_list_handle)


class ChannelsTest(SimTest):
    sim_args = ('--channels', '4')

    def test_channels(self):
        a, b = Admin(self.sim), Admin(self.sim)
        chans = a.listing('channel_list')
        self.assertEqual([(c['id'], c['internal'], c['external']) for c in chans],
                         [(k, 'eth%d' % (2 * k - 2), 'eth%d' % (2 * k - 1)) for k in (1, 2, 3, 4)])
        first = chans[0]
        self.assertEqual(sorted(first), sorted(['id', 'active', 'label', 'location', 'internal',
                                                'internal_media', 'external', 'external_media',
                                                'type', 'caps', 'role', 'direction']))
        self.assertEqual((first['active'], first['role'], first['type']),
                         (1, T.CHANNEL_ROLE_TRAFFIC, T.CHANNEL_TYPE_ENGINE))
        self.assertTrue(first['caps'] & T.CHANNEL_CAPS_LINK_TOGGLE)
        self.assertFalse(chans[3]['caps'] & T.CHANNEL_CAPS_AUTONEG)  # the fibre pair
        a.begin(CHANNELS)
        a.call(a.s.channel_update(first, 'uplink', T.CHANNEL_MEDIA_1000FD,
                                    T.CHANNEL_MEDIA_AUTO, T.CHANNEL_ROLE_DIVERT,
                                    T.CHANNEL_DIRECTION_REVERSE))
        a.call(a.s.channel_set_active(id=2, active=0))
        self.assertEqual(b.listing('channel_list'), chans)  # not committed yet
        a.commit()
        got = b.listing('channel_list')
        self.assertEqual([got[0][k] for k in ('label', 'internal_media', 'external_media', 'role',
                                              'direction', 'active')],
                         ['uplink', T.CHANNEL_MEDIA_1000FD, 0, DIVERT, 1, 1])
        self.assertEqual(got[1]['active'], 0)
        # Without a transaction, and while another session holds the channels.
        self.assertIn('begin one first', a.error(a.s.channel_set_active(1, 0)))
        b.begin(CHANNELS)
        a.call(a.s.channel_set_active(1, 0), LOCK)
        b.call(b.s.resource_rollback())

    def test_refusals(self):
        a = Admin(self.sim)
        chans = a.listing('channel_list')
        s, one, fibre = a.s, chans[0], chans[3]
        a.begin(CHANNELS)
        rows = [
            (s.channel_update(dict(one, id=9), 'x', 0, 0, 1, 0), 'Unknown channel 9 (channels are 1 to 4)'),
            (s.channel_update(one, 'x' * 256, 0, 0, 1, 0), 'at most 255 bytes, not 256'),
            (s.channel_update(fibre, 'x', 0, 0, 1, 0), 'cannot run its internal side at media AUTO'),
            (s.channel_update(one, 'x', 0, 9, 1, 0), 'Media 9 is not one of'),
            (s.channel_update(one, 'x', 0, 0, 5, 0), 'Role 5 is not one of'),
            (s.channel_update(one, 'x', 0, 0, 1, 4), 'Direction 4 is not one of'),
            (s.channel_set_active(1, 2), 'active is 0 or 1, not 2'),
            (s.channel_label_add(T.CHANNEL_ROLE_TRAFFIC, 'x', 0), 'divert (2) or monitor (3) role, not 1'),
            (s.channel_label_add(DIVERT, '', 0), 'A channel label name has 1 to 64'),
            (s.channel_label_rename(77, 'x', 0), 'Unknown channel label 77'),
            (s.channel_label_channels_set(77, []), 'Unknown channel label 77'),
            (s.channel_label_remove(77), 'Unknown channel label 77'),
            (s.channel_label_list(1), 'not 1'),
        ]
        for cid, error in rows:
            self.assertIn(error, a.error(cid))
        self.assertRaises(ValueError, s.channel_update, {'id': 1}, 'x', 0, 0, 1, 0)
        self.assertRaises(ValueError, s.channel_label_channels_set, 1, [{'vlan': 1}])
        self.assertRaises(ValueError, s.channel_label_channels_set, 1,
                          [{'channel': 1, 'int_address': '10.0.0.300'}])
        a.call(s.resource_rollback())

    def test_labels(self):
        a = Admin(self.sim)
        s = a.s
        self.assertEqual(labels(a, s.channel_divert_label_list()), [])
        a.begin(CHANNELS)
        d = s.channel_label_add_handle(a.call(s.channel_label_add(DIVERT, 'dpi', 5), DATA))
        m = s.channel_label_add_handle(a.call(s.channel_label_add(MONITOR, 'dpi', 0), DATA))
        self.assertEqual(m, d + 1)
        self.assertIn("A divert label named 'dpi' exists already",
                      a.error(s.channel_label_add(DIVERT, 'dpi', 0)))
        a.call(s.channel_label_rename(id=m, name='tap', flags=3))
        entry = {'channel': 2, 'vlan': 100, 'flags': 1, 'int_address': '192.0.2.1',
                 'ext_heartbeat': '198.51.100.254'}
        a.call(s.channel_label_channels_set(d, [entry, {'channel': 1}]))
        rows = [
            ([{'channel': 5}], 'Unknown channel 5 (channels are 1 to 4)'),
            ([{'channel': 1, 'vlan': 4096}], 'VLAN 4096 of channel 1 is not 0 to 4095'),
            ([{'channel': 1}, {'channel': 1}], 'Channel 1 VLAN 0 appears twice in label'),
        ]
        for entries, error in rows:
            self.assertIn(error, a.error(s.channel_label_channels_set(m, entries)))
        a.commit()
        zero = '0.0.0.0'
        want = {'id': d, 'name': 'dpi', 'flags': 5, 'channels': [
            dict(channel=2, vlan=100, flags=1, int_address='192.0.2.1', int_gateway=zero,
                 int_heartbeat=zero, ext_address=zero, ext_gateway=zero,
                 ext_heartbeat='198.51.100.254'),
            dict(channel=1, vlan=0, flags=0, int_address=zero, int_gateway=zero,
                 int_heartbeat=zero, ext_address=zero, ext_gateway=zero, ext_heartbeat=zero)]}
        self.assertEqual(labels(a, s.channel_divert_label_list()), [want])
        self.assertEqual(labels(a, s.channel_label_list(DIVERT)), [want])
        self.assertEqual(labels(a, s.channel_monitor_label_list()),
                         [{'id': m, 'name': 'tap', 'flags': 3, 'channels': []}])
        # Destroy empties the list object; it can be filled again.
        l = s.channel_label_list_handle(a.c.answer(s.channel_divert_label_list())[0], None)
        self.assertIsNone(s.channel_label_list_destroy(l))
        self.assertEqual(l.convert(None), [])
        self.assertRaises(TypeError, s.channel_label_list_destroy, None)
        a.begin(CHANNELS)
        a.call(s.channel_label_remove(d))
        a.call(s.channel_label_remove(m))
        a.commit()
        self.assertEqual(labels(a, s.channel_divert_label_list()), [])
        self.assertIsNone(s.channel_label_add_handle(a.call(s.channel_label_remove(d), ERROR)))

    def test_monitor_interfaces(self):
        a = Admin(self.sim)
        both = [a.c.listing(cid, a.s.monitoriface_list_handle)
                for cid in (a.s.monitorinterface_list(), a.s.monitoriface_list())]
        self.assertEqual(both[0], both[1])
        self.assertEqual([(i['id'], i['iface']) for i in both[0]],
                         [(k + 1, 'mon%d' % k) for k in range(5)])
        self.assertEqual(both[0][4], {'id': 5, 'description': 'Spare monitor port',
                                      'iface': 'mon4', 'media': T.CHANNEL_MEDIA_1000FD})
