"""Users, public keys and permissions end to end against tqdbsim."""
import base64
import struct
import sys

import TQDBv17_1 as T

from simhelper import Admin, SimTest

DATA, OK, ERROR = T.MSG_TYPE_DATA, T.MSG_TYPE_OK, T.MSG_TYPE_ERROR
USERS, RULESET = T.RESOURCE_USERS, T.RESOURCE_RULESET
KEYS = ['id', 'name', 'readbm', 'writebm', 'survbm', 'timeout', 'flags', 'hosts']


def key(kind='ssh-ed25519', inner=None, comment=' me@host'):
    """An OpenSSH key line whose data starts with its type name (inner when given)."""
    name = (inner or kind).encode('ascii')
    blob = struct.pack('>I', len(name)) + name + struct.pack('>I', 32) + b'\x07' * 32
    return kind + ' ' + base64.b64encode(blob).decode('ascii') + comment


class Account(Admin):
    def users(self):
        return self.listing('user_list')

    def keys(self, name):
        return self.listing('user_pubkey_list', name)

    def add(self, name, pwd='pw', readbm=0, writebm=0, hosts=''):
        m = self.call(self.s.user_add(name, pwd, readbm, writebm, 4, 300, 2, hosts), DATA)
        return self.s.user_add_handle(m)

    def auth_id(self, name, pwd, address='192.0.2.9'):
        return self.s.user_auth_handle(self.call(self.s.user_auth(name, pwd, address), DATA))


class UsersTest(SimTest):
    sim_args = ('--user', 'ops:secret')

    def test_accounts_and_logins(self):
        a = Account(self.sim)
        seeded = a.users()
        order = list if sys.version_info >= (3, 7) else sorted  # dicts keep insertion order
        self.assertEqual([order(u.keys()) for u in seeded], [order(KEYS)] * 2)
        self.assertEqual([(u['id'], u['name'], u['readbm']) for u in seeded],
                         [(1, 'admin', 0xFFFFFFFF), (2, 'ops', 0xFFFFFFFF)])
        a.begin(USERS)
        uid = a.add('carol', 'c-pw', readbm=1 << RULESET, hosts='10.0.0.0/8, 192.0.2.7')
        self.assertEqual(a.auth_id('carol', 'c-pw', '10.1.2.3'), 0)  # not committed yet
        a.commit()
        carol = [u for u in a.users() if u['name'] == 'carol'][0]
        self.assertEqual(carol, dict(zip(KEYS, [uid, 'carol', 1 << RULESET, 0, 4, 300, 2,
                                                '10.0.0.0/8, 192.0.2.7'])))
        self.assertNotIn('c-pw', repr(a.users()))
        for pwd, address, want in [('c-pw', '10.1.2.3', uid), ('c-pw', '192.0.2.7', uid),
                                   ('c-pw', '192.0.2.8', 0), ('c-pw', '11.0.0.1', 0),
                                   ('C-pw', '10.1.2.3', 0), ('', '10.1.2.3', 0)]:
            self.assertEqual(a.auth_id('carol', pwd, address), want, (pwd, address))
        self.assertIsNotNone(Account(self.sim, 'carol', 'c-pw').auth)
        self.assertIsNone(Account(self.sim, 'carol', 'wrong').auth)
        # Modify: an empty password keeps the old one; a new name and masks.
        a.begin(USERS)
        a.call(a.s.user_modify(uid, 'carla', '', 7, 0, 0, 0, 0, ''))
        a.commit()
        self.assertEqual(a.auth_id('carla', 'c-pw'), uid)
        a.begin(USERS)
        a.call(a.s.user_modify(_id=uid, name='carla', password='new', readbm=7, writebm=0,
                               survbm=0, timeout=0, flags=0, hosts=''))
        a.call(a.s.user_remove(uid))
        a.call(a.s.resource_rollback())
        self.assertEqual(a.auth_id('carla', 'c-pw'), uid)

    def test_refusals(self):
        a = Account(self.sim)
        s = a.s
        a.begin(USERS)
        ops = [u['id'] for u in a.users() if u['name'] == 'ops'][0]
        rows = [
            (s.user_add('admin', 'x', 0, 0, 0, 0, 0, ''), "User 'admin' exists already"),
            (s.user_add('', 'x', 0, 0, 0, 0, 0, ''), 'A user name has 1 to 64 characters'),
            (s.user_add('n' * 65, 'x', 0, 0, 0, 0, 0, ''), 'A user name has 1 to 64'),
            (s.user_add('nopw', '', 0, 0, 0, 0, 0, ''), 'A new user needs a password'),
            (s.user_add('h', 'x', 0, 0, 0, 0, 0, '10.0.0.0/33'), "Bad hosts: '10.0.0.0/33'"),
            (s.user_add('h', 'x', 0, 0, 0, 0, 0, 'example.com'), "Bad hosts: 'example.com'"),
            (s.user_modify(999, 'z', '', 0, 0, 0, 0, 0, ''), 'Unknown user id 999'),
            (s.user_modify(ops, 'admin', '', 0, 0, 0, 0, 0, ''), "User 'admin' exists already"),
            (s.user_remove(999), 'Unknown user id 999'),
            (s.user_pubkey_add('nobody', key()), "Unknown user 'nobody'"),
            (s.user_pubkey_add('ops', 'ssh-foo AAAA'), "Bad public key: unknown key type"),
            (s.user_pubkey_add('ops', 'ssh-rsa'), 'Bad public key: not a public key line'),
            (s.user_pubkey_add('ops', 'ssh-rsa %%%%'), 'Bad public key: the key data is not base64'),
            (s.user_pubkey_add('ops', key('ssh-rsa', 'ssh-dss')), 'Bad public key: the key data is not a ssh-rsa key'),
            (s.user_pubkey_remove('ops', key()), "User 'ops' has no such key"),
            (s.user_remove(ops), None),
            (s.user_remove(1), "User 'admin' is the last that may change the users"),
            (s.user_modify(1, 'admin', '', 0, 1, 0, 0, 0, ''), 'is the last that may change'),
        ]
        for cid, error in rows:
            m = a.c.reply(cid)
            got = (m.get_type(), error and error in m.get_error())
            self.assertEqual(got, (ERROR, True) if error else (OK, None), (error, m.get_error()))
        a.call(s.resource_rollback())
        # Outside a transaction nothing changes.
        self.assertIn('begin one first', a.error(s.user_remove(ops)))

    def test_public_keys(self):
        a = Account(self.sim)
        rsa, ed = key('ssh-rsa'), key('ecdsa-sha2-nistp256', comment='')
        self.assertEqual(a.keys('ops'), [])
        a.begin(USERS)
        a.call(a.s.user_pubkey_add('ops', rsa))
        a.call(a.s.user_pubkey_add(username='ops', pubkey=ed))
        self.assertEqual(a.error(a.s.user_pubkey_add('ops', rsa.replace('me@host', 'other'))),
                         "User 'ops' has this key already")
        self.assertEqual(a.keys('ops'), [rsa, ed])
        a.call(a.s.user_pubkey_remove('ops', rsa.split(' me@')[0]))  # the comment does not count
        a.commit()
        self.assertEqual(a.keys('ops'), [ed])

    def test_permissions(self):
        a = Account(self.sim)
        a.begin(USERS)
        a.add('reader', 'r-pw', readbm=1 << RULESET)
        a.commit()
        r = Account(self.sim, 'reader', 'r-pw')
        self.assertEqual(r.listing('object_list', T.OBJECT_TYPE_NETOBJECT), [])
        rows = [
            (r.s.user_list(), 'Permission denied: user reader may not read resource 3 (users)'),
            (r.s.resource_begin(RULESET),
             'Permission denied: user reader may not write resource 1 (ruleset)'),
            (r.s.resource_resource_steal(USERS),
             'Permission denied: user reader may not write resource 3 (users)'),
            (r.s.stat_list_fields(),
             'Permission denied: user reader may not read resource 5 (statreader)'),
        ]
        for cid, error in rows:
            self.assertEqual(r.error(cid), error)
        # Core requests need no read bit.
        r.call(r.s.ping('x'), DATA)
