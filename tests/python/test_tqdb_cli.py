"""The tqdb command in-process against the simulator (Python 3): argv -> exit
status and a piece of the output."""
import io
import json
import os
import shutil
import socket
import sys
import tempfile
import threading
import time
import unittest

import tqdb
from simhelper import Simulator, shared_key

if sys.version_info[0] >= 3:   # the command is Python 3 only; this file is found by 2.7 too
    from tqdb import cli

SQL = "SELECT date, field, value FROM stat_totals WHERE path = 'NetObject-1' ORDER BY date"


class CliCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if sys.version_info[0] < 3:
            raise unittest.SkipTest('the tqdb command needs Python 3')
        cls.sim = Simulator()
        cls.tmp = tempfile.mkdtemp()
        cls.env = {'TQDB_HOST': cls.sim.host, 'TQDB_PORT': str(cls.sim.port),
                   'TQDB_PASSWORD': 'admin', 'TQDB_PROFILE': os.path.join(cls.tmp, 'none.ini'),
                   'TQDBSIM': os.environ['TQDBSIM']}

    @classmethod
    def tearDownClass(cls):
        cls.sim.stop()
        shutil.rmtree(cls.tmp)

    def tqdb(self, argv, env=None, stdin=''):
        out, err = io.StringIO(), io.StringIO()
        code = cli.main(argv, env or self.env, io.StringIO(stdin), out, err)
        return code, out.getvalue(), err.getvalue()

    def check(self, rows, env=None):
        """rows: (argv, exit status, piece of stdout (0) or of the one-line stderr[, stdin])."""
        for argv, want, piece, stdin in [r + ('',) * (4 - len(r)) for r in rows]:
            code, out, err = self.tqdb(argv, env, stdin)
            self.assertEqual(code, want, (argv, out, err))
            self.assertIn(piece, out if want == 0 else err, (argv, out, err))
            if want:
                self.assertEqual(err.count('\n'), 1, err)

    def local(self, name):
        return os.path.join(self.tmp, name)


class CommandsTest(CliCase):
    def test_every_command(self):
        data = os.urandom(70000)   # three data messages
        with open(self.local('up.bin'), 'wb') as f:
            f.write(data)
        self.check([
            (['info'], 0, 'tqdbsim 17.1.0'),
            (['objects', 'add', '/customers'], 0, 'commit'),
            (['objects', 'add', '/customers/acme', '-m', 'new customer'], 0, '/customers/acme'),
            (['objects', 'list', '/customers'], 0, '/customers/acme'),
            (['objects', 'add', '/nope/x'], 1, "no object at '/nope'"),
            (['objects', 'rm', '/customers/acme'], 0, 'id'),
            (['objects', 'list', '/customers/acme'], 1, "no 'acme' under '/customers'"),
            (['rules', 'list', '--kind', 'fw'], 0, 'KIND'),
            (['stats', 'top', '-n', '2'], 0, 'NetObject-1'),
            (['stats', 'query', SQL, '--csv'], 0, 'date,field,value\r\n2026-01-01,'),
            (['stats', 'query', SQL], 0, 'DATE'),
            (['stats', 'query', 'SELECT nonsense'], 1, ''),
            (['files', 'ls'], 0, 'hosttrigger'),
            (['files', 'put', self.local('up.bin'), 'hosttrigger', 'up.sh'], 0, 'up.sh'),
            (['files', 'ls', 'hosttrigger'], 0, 'up.sh'),
            (['files', 'get', 'hosttrigger', 'up.sh', self.local('down.bin')], 0, '70000'),
            (['files', 'rm', 'hosttrigger', 'up.sh'], 0, 'up.sh'),
            (['files', 'get', 'hosttrigger', 'up.sh', self.local('x')], 1, 'up.sh'),
            (['files', 'ls', 'attic'], 1, 'no file area attic'),
            (['backup', 'dump', 'b1', '--resource', 'ruleset'], 0, 'b1'),
            (['backup', 'ls'], 0, 'b1'),
            (['backup', 'get', 'b1', self.local('b1.bak')], 0, 'b1'),
            (['backup', 'restore', 'b2', '--file', self.local('b1.bak')], 0, 'b2'),
            (['users', 'add', 'bob', '--read', 'ruleset,statreader'], 0, 'bob', 'pw\n'),
            (['users', 'ls'], 0, 'ruleset,statreader'),
            (['users', 'rm', 'bob'], 0, 'bob'),
            (['users', 'rm', 'bob'], 1, 'no user bob'),
            (['config', 'get', 'system.hostname'], 0, 'tqdbsim'),
            (['config', 'set', 'system.hostname', 'edge-1'], 0, 'edge-1'),
            (['config', 'get', 'no.such.key'], 1, 'no configuration key no.such.key'),
            (['sim', '--help'], 0, 'usage: tqdbsim'),
        ])
        with open(self.local('down.bin'), 'rb') as f:
            self.assertEqual(f.read(), data)
        self.assertFalse(os.path.exists(self.local('x')))

    def test_json(self):
        for argv, check in [
                (['info'], lambda v: 'fw' in v['features'] and v['resources'][0]['name']),
                (['config', 'get', 'system.timezone'], lambda v: v[0]['value'] == 'UTC'),
                (['stats', 'query', SQL], lambda v: set(v[0]) == {'date', 'field', 'value'})]:
            code, out, err = self.tqdb(['--json'] + argv)
            self.assertEqual(code, 0, err)
            self.assertTrue(check(json.loads(out)), out)

    def test_refusals_and_usage(self):
        other = tqdb.connect(self.sim.host, self.sim.port, key=shared_key())
        self.addCleanup(other.close)
        other.resource_begin(tqdb.RESOURCE_CONFIG)
        no_password = dict((k, v) for k, v in self.env.items() if k != 'TQDB_PASSWORD')
        closed = socket.socket()
        closed.bind(('127.0.0.1', 0))
        port = closed.getsockname()[1]
        closed.close()   # nobody listens there now
        self.check([
            (['config', 'set', 'system.timezone', 'CET'], 1, 'is locked by admin'),
            (['--bogus', 'info'], 2, 'unrecognized arguments: --bogus'),
            (['objects', 'list', '--type', 'pets'], 2, 'objects list: argument --type'),
            (['users', 'add', 'eve', '--read', 'toys'], 2, 'no resource toys', 'pw\n'),
            (['--host', '127.0.0.1', '--port', str(port), 'info'], 3, 'Could not connect'),
            (['--profile', 'lab', 'info'], 2, 'no profile [lab]'),
        ])
        self.check([(['info'], 3, 'login refused for admin')], dict(self.env, TQDB_PASSWORD='x'))
        self.check([(['info'], 2, 'no password for admin'),
                    (['--password-stdin', 'info'], 0, 'tqdbsim', 'admin\n')], no_password)

    def test_profile(self):
        path = self.local('profile.ini')
        with open(path, 'w') as f:
            f.write('[lab]\nhost = %s\nport = %d\npassword = admin\n'
                    '[default]\nport = 1\n' % (self.sim.host, self.sim.port))
        env = {'TQDB_PROFILE': path}
        self.check([(['--profile', 'lab', 'info'], 0, 'tqdbsim'),
                    (['info'], 2, 'no password'),                      # [default]: port 1
                    (['--port', str(self.sim.port), '--password-stdin', 'info'], 0, 'tqdbsim',
                     'admin\n')], env)

    def test_watch_shows_commits_of_others(self):
        got = []
        watcher = threading.Thread(target=lambda: got.append(self.tqdb(['watch', '--count', '1'])))
        watcher.start()
        db = tqdb.connect(self.sim.host, self.sim.port, key=shared_key())
        self.addCleanup(db.close)
        deadline = time.time() + 10
        while watcher.is_alive() and time.time() < deadline:   # until the watcher is listening
            with db.transaction(tqdb.RESOURCE_RULESET, 'seen by watch'):
                pass
            watcher.join(0.2)
        self.assertEqual(got[0][0], 0, got)
        self.assertIn(': seen by watch', got[0][1])
