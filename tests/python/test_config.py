"""Configuration, services, features, log facilities, restart and reload end to
end against tqdbsim."""
import time

import TQDBv17_1 as T

from simhelper import WAIT, Admin, SimTest

DATA, OK, ERROR, LOCK = T.MSG_TYPE_DATA, T.MSG_TYPE_OK, T.MSG_TYPE_ERROR, T.MSG_TYPE_LOCK
CONFIG, LOGS = T.RESOURCE_CONFIG, T.RESOURCE_LOGS
RESTARTING, RELOADING = 9, 10


def config(a):
    return dict((v['key'], v) for v in a.listing('config_list'))


def service_map(a):
    return dict((v['name'], v) for v in a.listing('services_list'))


def notices_then_gone(client, msg_type):
    """Pumps until the simulator closes the connection; the notices of msg_type
    that came before, and the error that ended it."""
    deadline = time.time() + WAIT
    while time.time() < deadline:
        try:
            client._pump()
        except IOError as e:
            return [m for m in client.unsolicited if m.get_type() == msg_type], str(e)
    raise AssertionError('the connection stayed open')


class ConfigTest(SimTest):
    sim_args = ('--features', str(T.FEATURES_FW | T.FEATURES_SHAPING | T.FEATURES_MONITOR))

    def test_values_categories_flags(self):
        a, b = Admin(self.sim), Admin(self.sim)
        values = config(a)
        self.assertEqual(sorted(values['system.dns']),
                         sorted(['key', 'value', 'default', 'category', 'description', 'type',
                                 'flags']))
        self.assertEqual([values[k]['type'] for k in ('system.hostname', 'system.dns',
                          'shaping.max_rate', 'stats.sample_ratio', 'stats.enabled',
                          'system.support_token')],
                         [T.CONFIG_TYPE_STRING, T.CONFIG_TYPE_IPADDRESS, T.CONFIG_TYPE_INTEGER,
                          T.CONFIG_TYPE_FLOAT, T.CONFIG_TYPE_BOOLEAN, T.CONFIG_TYPE_INVISIBLE])
        categories = a.listing('config_category_list')
        flags = a.listing('config_flags_list')
        self.assertTrue(set(v['category'] for v in values.values()) <=
                        set(c['name'] for c in categories))
        readonly = [f['flag'] for f in flags if f['name'] == 'readonly'][0]
        self.assertTrue(values['system.serial']['flags'] & readonly)

        self.assertIn('No transaction open on resource 4 (config)',
                      a.error(a.s.config_set('system.dns', '192.0.2.1')))
        a.begin(CONFIG)
        self.assertIn('is locked by',
                      b.call(b.s.config_set('network.mtu', '9000'), LOCK).get_error())
        for key, value, why in [('shaping.max_rate', '12x', "takes an integer, not '12x'"),
                                ('system.dns', '300.1.2.3', 'takes an IPv4 or IPv6 address'),
                                ('stats.sample_ratio', 'half', 'takes a number'),
                                ('stats.enabled', 'maybe', 'takes true or false'),
                                ('system.serial', 'X', 'is read-only'),
                                ('no.such.key', '1', "Unknown configuration key 'no.such.key'"),
                                ('system.hostname', 'h' * 256, 'at most 255 bytes, not 256')]:
            self.assertIn(why, a.error(a.s.config_set(teh_key=key, teh_value=value)))
        for key, value in [('system.dns', '2001:db8::53'), ('shaping.max_rate', '-5'),
                           ('stats.enabled', '0'), ('system.hostname', 'h' * 255)]:
            a.call(a.s.config_set(key, value))
        self.assertEqual(config(b)['system.dns']['value'], '192.0.2.53')  # not committed
        a.commit()
        seen = config(b)
        self.assertEqual([seen[k]['value'] for k in ('system.dns', 'shaping.max_rate',
                                                      'stats.enabled')],
                         ['2001:db8::53', '-5', 'false'])
        self.assertEqual(seen['system.dns']['default'], '192.0.2.53')

    def test_services(self):
        a, b = Admin(self.sim), Admin(self.sim)
        before = service_map(a)
        self.assertEqual(sorted(before['sshd']), ['description', 'enabled', 'name', 'running'])
        self.assertIs(before['sshd']['running'], True)
        props = a.c.answer(a.s.services_prop_list())
        self.assertEqual([m.get_type() for m in props][-1], OK)
        a.call(a.s.services_cmd({'sshd': 'stop', 'snmpd': 'enable'},
                                {('sshd', 'port'): '2222'}))
        after = service_map(b)
        self.assertEqual((after['sshd']['running'], after['snmpd']['enabled']), (False, True))
        for services, props, why in [({'nosuch': 'start'}, None, "Unknown service 'nosuch'"),
                                     ({'sshd': 'explode'}, None, "Unknown command 'explode'"),
                                     ({}, {('sshd', 'colour'): 'red'}, "has no property 'colour'")]:
            self.assertIn(why, a.error(a.s.services_cmd(services, props)))
        self.assertEqual(service_map(b), after)  # nothing of a refused command applies
        self.assertRaises(TypeError, a.s.services_cmd, {'sshd': 'stop'}, {'sshd': 'x'})
        b.begin(CONFIG)
        a.call(a.s.services_cmd({'sshd': 'start'}), LOCK)
        b.call(b.s.services_cmd(services={'sshd': 'start'}))
        b.call(b.s.resource_rollback())
        self.assertIs(service_map(a)['sshd']['running'], False)

    def test_features(self):
        a = Admin(self.sim)
        self.assertEqual(a.s.features_get_handle(a.call(a.s.features_get(), DATA)),
                         T.FEATURES_FW | T.FEATURES_SHAPING | T.FEATURES_MONITOR)
        # A reply of another type reads as every feature offered.
        self.assertEqual(a.s.features_get_handle(a.call(a.s.config_set('x', 'y'), ERROR)),
                         2 ** 64 - 1)

    def test_log_facilities(self):
        a, b = Admin(self.sim), Admin(self.sim)
        levels = a.listing('log_facility_list')
        self.assertEqual(len(levels), 65)
        self.assertEqual([l['index'] for l in levels], list(range(65)))
        named = dict((l['name'], l['level']) for l in levels)
        self.assertEqual((named['Interface'], named['Audit View'], named['DEBUG'],
                          levels[64]['name']),
                         (T.INFO, T.WARNING, T.DEBUG, 'I40E'))
        self.assertIn('No transaction open on resource 9 (logs)',
                      a.error(a.s.log_facility_set_level('TCP', 8)))
        a.begin(LOGS)
        a.call(a.s.log_facility_set_level(facility='TCP', level=T.VERBOSE))
        self.assertIn("Unknown log facility 'Nope'",
                      a.error(a.s.log_facility_set_level('Nope', 3)))
        self.assertIn('Log level 9 is out of range',
                      a.error(a.s.log_facility_set_level('TCP', 9)))
        a.commit()
        self.assertEqual([l['level'] for l in b.listing('log_facility_list') if l['name'] == 'TCP'], [T.VERBOSE])

    def test_reload_notice(self):
        a, b = Admin(self.sim), Admin(self.sim)
        self.assertNotEqual(a.s.reload('new rules'), 0)
        for who in (a, b):
            m = who.c.wait_type(RELOADING)
            self.assertEqual((m.get_cid(), who.s.reloading_handle(m)), (0, 'new rules'))
            self.assertIsNone(who.s.restarting_handle(m))
        self.assertEqual(a.s.ping_handle(a.call(a.s.ping('still here'), DATA)), 'still here')


class RestartTest(SimTest):

    def test_restart_keeps_committed_state(self):
        a, b = Admin(self.sim), Admin(self.sim)
        a.begin(CONFIG)
        a.call(a.s.config_set('system.hostname', 'kept'))
        a.commit()
        a.begin(CONFIG)
        a.call(a.s.config_set('system.hostname', 'lost'))
        b.s.restart(reason='upgrade')
        for who in (b, a):  # b first: its loop sends the request
            notices, error = notices_then_gone(who.c, RESTARTING)
            self.assertEqual([who.s.restarting_handle(m) for m in notices], ['upgrade'])
            self.assertIsNone(who.s.reloading_handle(notices[0]))
            self.assertEqual(error, 'Disconnected')
        c = Admin(self.sim)  # the same port
        self.assertEqual(config(c)['system.hostname']['value'], 'kept')
        c.begin(CONFIG)  # the lock went with the connection
        c.s.restart()
        notices, _ = notices_then_gone(c.c, RESTARTING)
        self.assertEqual([c.s.restarting_handle(m) for m in notices], [''])
