"""System diagnostics end to end against tqdbsim: zones and their values,
levels in a transaction, alerts, the log, memory usage, refusals."""

import TQDBv17_1 as T

from simhelper import Client, SimTest

DATA, OK, ERROR = T.MSG_TYPE_DATA, T.MSG_TYPE_OK, T.MSG_TYPE_ERROR
CPU = {'name': 'cpu', 'systemid': 0, 'values': [
    {'name': 'load', 'type': T.SYSDIAG_ZONE_TYPE_PERCENT},
    {'name': 'state', 'type': T.SYSDIAG_ZONE_TYPE_ENUM, 'flags': T.SYSDIAG_ZONE_FLAGS_HIDDEN}]}


class SysdiagTest(SimTest):
    sim_args = ('--max-reply-bytes', '200')

    @classmethod
    def setUpClass(cls):
        super(SysdiagTest, cls).setUpClass()
        cls.c = Client(cls.sim.host, cls.sim.port)
        assert cls.c.login() is not None
        cls.s = cls.c.session()
        cls.c.call(cls.s.sysdiag_zone_register(CPU), OK)
        cls.c.call(cls.s.sysdiag_zone_register({'name': 'disk', 'values': []}), OK)

    def listing(self, method, *args):
        s = self.s
        return self.c.listing(getattr(s, method)(*args), getattr(s, method + '_handle'))

    def value(self, zone, name):
        return self.listing('sysdiag_zone_value_get', zone, name)[0]

    def test_zones_read_back_as_registered(self):
        zones = self.listing('sysdiag_zone_list')
        self.assertEqual([z['name'] for z in zones][:2], ['cpu', 'disk'])  # in oid order
        cpu = self.listing('sysdiag_zone_get', 'cpu')
        self.assertEqual(cpu, [zones[0]])
        self.assertEqual(cpu[0]['values'], [
            {'id': 1, 'name': 'load', 'type': 4, 'flags': 0},
            {'id': 2, 'name': 'state', 'type': 8, 'flags': 4}])
        self.assertEqual(self.s.sysdiag_zone_get_enum_values_handle(self.c.call(
            self.s.sysdiag_zone_get_enum_values(cpu[0]['oid']), DATA))[1], {'value': 1, 'name': 'ok'})

    def test_reregistering_keeps_the_oid_and_moves_the_version(self):
        ver = self.s.sysdiag_zone_version_handle
        v1 = ver(self.c.call(self.s.sysdiag_zone_version(), DATA))
        self.c.call(self.s.sysdiag_zone_register({'name': 'tmp', 'values': []}), OK)
        oid = self.listing('sysdiag_zone_get', 'tmp')[0]['oid']
        self.c.call(self.s.sysdiag_zone_register({'name': 'tmp', 'values': [
            {'name': 'x', 'type': 9}]}), OK)
        again = self.listing('sysdiag_zone_get', 'tmp')[0]
        self.assertEqual((again['oid'], len(again['values'])), (oid, 1))
        self.assertEqual(ver(self.c.call(self.s.sysdiag_zone_version(), DATA)), v1 + 2)

    def test_values_track_min_max_rate_and_levels_alert(self):
        oid = self.listing('sysdiag_zone_get', 'cpu')[0]['oid']
        for vals in ([10, 1], [30, 1], [20, 1]):
            self.c.call(self.s.sysdiag_zone_update_values(oid, 2000, vals), OK)
        v = self.value('cpu', 'load')
        self.assertEqual((v['value'], v['min'], v['max'], v['rate'], v['level'], v['range']),
                         (20, 10, 30, 0, 0, 0))
        # A level is part of a transaction on resource 7; outside one it is refused.
        upd = lambda: self.s.sysdiag_level_update('%d.1' % oid, 0, 15, 0, 4, 'hot', 'page')
        self.c.call(upd(), ERROR)
        self.c.call(self.s.resource_begin(T.RESOURCE_SYSDIAG), DATA)
        self.c.call(upd(), OK)
        self.assertEqual(self.value('cpu', 'load')['level'], 0)  # not committed yet
        self.c.call(self.s.resource_commit('levels'), DATA)
        v = self.value('cpu', 'load')
        self.assertEqual((v['level'], v['range'], v['alert_flags']), (1, 2, 1))
        self.c.call(self.s.sysdiag_zone_update_values(oid, 1000, [30, 1]), OK)  # rate 10/s
        self.assertEqual(self.value('cpu', 'load')['alert_flags'], 3)
        self.assertEqual(self.listing('sysdiag_level_list'), [{
            '_oid': '%d.1' % oid, 'minimum': 0, 'maximum': 15, 'minimum_rate': 0,
            'maximum_rate': 4, 'comment': 'hot', 'trigger': 'page'}])

    def test_log_post_list_ack(self):
        for sev, title in ((0, 'a'), (2, 'b'), (1, 'c')):
            self.c.call(self.s.sysdiag_log_post(sev, title, 'body ' + title), OK)
        first = self.listing('sysdiag_log_list', 0, 0)[0]['id']
        self.c.call(self.s.sysdiag_log_ack(first + 1), OK)
        rows = [(e['title'], e['severity'], e['is_new'])
                for e in self.listing('sysdiag_log_list', 0, first)]
        self.assertEqual(rows, [('a', 0, True), ('b', 2, False), ('c', 1, True)])
        self.assertEqual([e['title'] for e in self.listing('sysdiag_log_list', 1, first + 1)], ['c'])
        self.assertEqual(self.listing('sysdiag_log_list', 0, first + 3), [])
        self.assertEqual(self.listing('sysdiag_log_list', 0, 0)[0]['system'], 'tqdbsim')

    def test_memory_usage_of_the_simulator(self):
        entry = self.listing('sysdiag_malloc_usage_list')
        self.assertEqual(entry, [{'systemname': 'tqdbsim', 'zonename': 'tqdbsim'}])
        get = lambda typ: self.s.sysdiag_malloc_usage_get_handle(self.c.call(
            self.s.sysdiag_malloc_usage_get('tqdbsim', 'tqdbsim'), DATA), typ)
        largest = [u['bytes'] for u in get(1)]
        self.assertTrue(largest and largest == sorted(largest, reverse=True))
        self.assertEqual(sorted(u['label'] for u in get(0)), sorted(u['label'] for u in get(1)))

    def test_system_names(self):
        self.c.call(self.s.sysdiag_zone_system_name_set(4, 'edge'), OK)
        self.assertEqual(self.value('cpu', 'load')['systemid'], 0)

    def test_refusals_name_what_is_wrong(self):
        s = self.s
        rows = [
            (s.sysdiag_zone_get('nope'), "Unknown zone 'nope'"),
            (s.sysdiag_zone_value_get('cpu', 'nope'), "Zone 'cpu' has no value 'nope'"),
            (s.sysdiag_zone_update_values(999, 1, []), 'Unknown zone 999'),
            (s.sysdiag_zone_get_enum_values(999), 'Unknown zone 999'),
            (s.sysdiag_log_ack(99999), 'No log entry 99999'),
            (s.sysdiag_log_post(3, 't', 'b'), 'Severity 3 is not one of 0 to 2'),
            (s.sysdiag_level_update('999.1', 0, 0, 0, 0, '', ''), 'Unknown zone 999'),
            (s.sysdiag_malloc_usage_get('x', 'y'), "No memory usage for system 'x' zone 'y'"),
            (s.sysdiag_zone_register({'name': 'd', 'values': [{'name': 'a', 'type': 1}] * 2}),
             "Zone 'd' names value 'a' twice"),
            (s.sysdiag_zone_register({'name': 'd', 'values': [{'name': 'a', 'type': 10}]}),
             "Value 'a': type 10 is not one of 0 to 9"),
        ]
        for cid, text in rows:
            m = self.c.call(cid, ERROR)
            self.assertEqual(m.get_error(), text)
        oid = self.listing('sysdiag_zone_get', 'cpu')[0]['oid']
        self.assertEqual(self.c.call(s.sysdiag_zone_update_values(oid, 1, [1]), ERROR).get_error(),
                         'Zone %d (cpu) has 2 values; 1 given' % oid)

    def test_bad_arguments_raise_before_sending(self):
        for bad in ('1', '1.', '.1', '1.2.3', ' 1.2', '4294967296.1', 'a.b'):
            with self.assertRaises(ValueError) as raised:
                self.s.sysdiag_level_update(bad, 0, 0, 0, 0, '', '')
            self.assertTrue(str(raised.exception).startswith('oid: '), bad)
        for zone, exc in (([], TypeError), ({'values': []}, ValueError),
                          ({'name': 'x' * 64, 'values': []}, ValueError),
                          ({'name': 'x', 'values': [{'type': 1}]}, ValueError)):
            self.assertRaises(exc, self.s.sysdiag_zone_register, zone)
