"""The tqdb command: the tasks operators do by hand on an appliance.

    tqdb info
    tqdb objects add /customers/acme
    tqdb stats query "SELECT date, value FROM stat_totals" --csv > totals.csv
    TQDB_PASSWORD=... tqdb --host 10.0.0.1 --json users ls

Every command is a row of COMMANDS: its group and action, the function that
does it and its arguments. A function gets the parsed arguments and a Run
(the connection, made when first asked for, and the output) and returns
what it found: a Table (rows of dicts and the columns shown on a
terminal), a dict of facts, or None when it wrote its own output.
--json prints the same values whole, for machines.

Python 3 and the standard library only.
"""
import argparse
import configparser
import contextlib
import csv
import getpass
import json
import os
import shutil
import subprocess
import sys
import time

import tqdb
from tqdb import tree as tqdb_tree

EXIT_OK, EXIT_REFUSED, EXIT_USAGE, EXIT_CONNECTION = 0, 1, 2, 3

EPILOG = """\
connection settings, first found wins: the options; the environment
(TQDB_HOST, TQDB_PORT, TQDB_USER, TQDB_PASSWORD); the profile file
($TQDB_PROFILE or ~/.config/tqdb/profile.ini: one [section] per profile with
host, port, user, password; --profile NAME, default "default"); 127.0.0.1,
17100, admin. The password is never an option: --password-stdin reads it from
the first line of standard input, otherwise it is asked for on a terminal.

exit status:
  0  done
  1  the appliance refused the request, or what it names is not there
  2  the command line is wrong (or no password could be had)
  3  no connection: the appliance cannot be reached, the login or the
     protocol version was refused, or the connection was lost
errors are one line on standard error."""


class UsageError(Exception):
    """The command line cannot be carried out as written (exit 2)."""


class Refused(Exception):
    """The appliance does not have what the command names (exit 1)."""


# Exceptions and their exit status, the first matching row wins: every
# tqdb.Error that is not a refusal means the conversation itself failed.
EXIT_CODES = (
    (UsageError, EXIT_USAGE),
    (Refused, EXIT_REFUSED),
    (tqdb.ServerError, EXIT_REFUSED),
    (tqdb.Error, EXIT_CONNECTION),
    (EnvironmentError, EXIT_REFUSED),   # a local file that cannot be read or written
)


def _named(prefix):
    """The module's constants with prefix, by their lower-case rest."""
    return dict((n[len(prefix):].lower(), v) for n, v in vars(tqdb).items()
                if n.startswith(prefix) and isinstance(v, int))


OBJECT_TYPES = _named('OBJECT_TYPE_')
RESOURCES = _named('RESOURCE_')
FEATURES = _named('FEATURES_')
VALUE_TYPES = _named('STATISTICS_VALUETYPE_')
TOTAL_FIELDS = _named('STATISTICS_TOTALFIELD_')
RULE_KINDS = (('fw', 'fwrule_list'), ('shaping', 'shapingrule_list'),
              ('statistics', 'statisticsrule_list'))
AREA_FLAGS = ((1, 'writable'), (2, 'downloadable'))


def _when(stamp):
    return time.strftime('%Y-%m-%d %H:%M:%S', time.gmtime(stamp))


def _bits(mask, names):
    return [n for n, bit in sorted(names.items(), key=lambda i: i[1]) if mask & (1 << bit)]


# -- output ------------------------------------------------------------------------------------

class Table(object):
    """rows (dicts) and the columns a person sees: (heading, key or function)."""

    def __init__(self, rows, columns):
        self.rows, self.columns = rows, columns


def _cell(value):
    if value is None:
        return '-'
    if isinstance(value, bool):
        return 'yes' if value else 'no'
    if isinstance(value, (list, tuple)):
        return ','.join(_cell(v) for v in value) or '-'
    return value.decode('utf-8', 'replace') if isinstance(value, bytes) else str(value)


def write_table(out, rows, columns):
    """Columns as wide as their widest cell; numbers to the right."""
    cells = [[(_cell(key(r) if callable(key) else r.get(key)),
               isinstance(key(r) if callable(key) else r.get(key), int)) for _, key in columns]
             for r in rows]
    widths = [max([len(h)] + [len(row[i][0]) for row in cells]) for i, (h, _) in enumerate(columns)]
    out.write('  '.join(h.upper().ljust(w) for (h, _), w in zip(columns, widths)).rstrip() + '\n')
    for row in cells:
        out.write('  '.join(c.rjust(w) if num else c.ljust(w)
                            for (c, num), w in zip(row, widths)).rstrip() + '\n')


def _plain(value):
    if isinstance(value, bytes):
        return value.decode('utf-8', 'replace')
    raise TypeError('%r cannot be written as JSON' % (value,))


def write_json(out, value):
    json.dump(value, out, default=_plain)
    out.write('\n')


def show(out, value, as_json):
    if value is None:
        return
    if as_json:
        write_json(out, value.rows if isinstance(value, Table) else value)
    elif isinstance(value, Table):
        write_table(out, value.rows, value.columns)
    else:
        width = max(len(k) for k in value)
        for k, v in value.items():
            out.write('%s  %s\n' % (k.ljust(width), _cell(v)))


class Progress(object):
    """progress(done, total) for a transfer: a bar on standard error when it
    is a terminal, nothing otherwise."""

    def __init__(self, label, stream=None):
        self.label, self.stream = label, stream or sys.stderr
        self.on = self.stream.isatty()
        self.drawn = False

    def __call__(self, done, total):
        if not self.on:
            return
        if total is None:   # a source whose size is not known
            self.stream.write('\r%s %d bytes' % (self.label, done))
        else:
            width = max(10, min(40, shutil.get_terminal_size().columns - len(self.label) - 30))
            part = float(done) / total if total else 1.0
            filled = int(part * width)
            self.stream.write('\r%s [%s%s] %3d%% %d/%d bytes' % (
                self.label, '#' * filled, ' ' * (width - filled), part * 100, done, total))
        self.stream.write('\033[K')   # clear what a longer line left
        self.stream.flush()
        self.drawn = True

    def close(self):
        if self.drawn:
            self.stream.write('\n')


# -- settings ----------------------------------------------------------------------------------

def profile_path(environ):
    return environ.get('TQDB_PROFILE') or os.path.join(
        os.path.expanduser('~'), '.config', 'tqdb', 'profile.ini')


def settings(args, environ):
    """host, port, user and password (None: still to be asked for)."""
    parser = configparser.ConfigParser(interpolation=None)
    path = profile_path(environ)
    try:
        parser.read(path)
    except configparser.Error as e:
        raise UsageError('profile file %s: %s' % (path, str(e).splitlines()[0]))
    name = args.profile or 'default'
    if args.profile and not parser.has_section(name):
        raise UsageError('no profile [%s] in %s' % (name, path))
    profile = dict(parser.items(name)) if parser.has_section(name) else {}
    chosen = {}
    for key, option, default in (('host', args.host, '127.0.0.1'),
                                 ('port', args.port, str(tqdb.DEFAULT_PORT)),
                                 ('user', args.user, 'admin'), ('password', None, None)):
        chosen[key] = next((v for v in (option, environ.get('TQDB_' + key.upper()),
                                        profile.get(key)) if v is not None), default)
    try:
        chosen['port'] = int(chosen['port'])
    except ValueError:
        raise UsageError('port %r is not a number' % chosen['port'])
    return chosen


class Run(object):
    """One invocation: its arguments, output, passwords and connection."""

    def __init__(self, args, environ, stdin, stdout, stderr):
        self.args, self.environ, self.stdin, self.out = args, environ, stdin, stdout
        self.err = stderr
        self._db = None

    def secret(self, prompt):
        """The next password: a line of standard input when asked to read it
        there or when that is no terminal, else typed at a prompt."""
        if self.args.password_stdin or not self.stdin.isatty():
            line = self.stdin.readline()
            if not line:
                raise UsageError('standard input ended before the password for %s' % prompt)
            return line.rstrip('\r\n')
        return getpass.getpass('%s: ' % prompt)

    @property
    def db(self):
        if self._db is None:
            s = settings(self.args, self.environ)
            password = s['password']
            if password is None or self.args.password_stdin:
                if not self.args.password_stdin and not self.stdin.isatty():
                    raise UsageError('no password for %s: set TQDB_PASSWORD, a profile, or use '
                                     '--password-stdin' % s['user'])
                password = self.secret('password of %s@%s' % (s['user'], s['host']))
            self._db = tqdb.connect(s['host'], s['port'], user=s['user'], password=password,
                                    timeout=self.args.timeout)
        return self._db

    def close(self):
        if self._db is not None:
            self._db.close()

    def transaction(self, resource, what):
        return self.db.transaction(resource, self.args.message or 'tqdb: ' + what)

    def progress(self, label):
        return Progress(label)


# -- commands ----------------------------------------------------------------------------------

def cmd_info(run, args):
    db = run.db
    word, name, version = db.version[:3]
    resources = [dict((k, v) for k, v in r.items() if k != 'proxypassword')  # not for a screen
                 for r in db.resource_resource_list()]
    facts = {'appliance': '%s %s' % (name, version), 'protocol': '0x%04x' % word,
             'user': '%s (id %s)' % (db.user, db.login[0]),
             'features': _bits(db.features_get(), dict((n, b.bit_length() - 1)
                                                       for n, b in FEATURES.items())),
             'resources': resources}
    if args.json:
        return facts
    show(run.out, dict((k, v) for k, v in facts.items() if k != 'resources'), False)
    run.out.write('\n')
    return Table(resources, (('resource', 'name'), ('status', 'status'),
                             ('locker', 'locker'), ('last query', 'last_query')))


def _node(tree, path):
    try:
        return tree[path]
    except KeyError as e:
        raise Refused(e.args[0])


def _split(path):
    """The parent's path and the last name of a path (names quoted as in a tree's paths)."""
    parent, _, name = ('/' + path.strip('/')).rpartition('/')
    if not name:
        raise UsageError('an object needs a name: %s' % path)
    return parent, name


def cmd_objects_list(run, args):
    tree = run.db.objects(OBJECT_TYPES[args.type])
    nodes = list(tree) if args.path.strip('/') == '' else list(_node(tree, args.path).walk())
    rows = [dict(n.record, path=n.path) for n in nodes]
    return Table(rows, (('path', 'path'), ('id', 'id'), ('items', lambda o: len(o['items'])),
                        ('visible', 'visible'), ('modified', 'modification_date')))


def cmd_objects_add(run, args):
    kind = OBJECT_TYPES[args.type]
    parent_path, name = _split(args.path)
    with run.transaction(tqdb.RESOURCE_RULESET, 'add %s %s' % (args.type, args.path)) as tx:
        parent = _node(run.db.objects(kind), parent_path).id if parent_path else 0
        oid = run.db.object_add(kind, tqdb_tree.unquote(name), parent)[0]
    return {'path': parent_path + '/' + name, 'id': oid, 'commit': tx.commit_id[0]}


def cmd_objects_rm(run, args):
    kind = OBJECT_TYPES[args.type]
    with run.transaction(tqdb.RESOURCE_RULESET, 'remove %s %s' % (args.type, args.path)) as tx:
        node = _node(run.db.objects(kind), args.path)
        run.db.object_remove(kind, node.id)
    return {'path': node.path, 'id': node.id, 'commit': tx.commit_id[0]}


def cmd_rules_list(run, args):
    rows = [dict(r, kind=kind) for kind, request in RULE_KINDS
            if args.kind in (None, kind) for r in getattr(run.db, request)()]
    return Table(rows, (('kind', 'kind'), ('id', 'id'), ('name', 'name'),
                        ('active', 'active'), ('condition', 'rulecondition')))


def cmd_stats_top(run, args):
    rows = run.db.stat_top_list(args.start, args.end, args.path, args.count,
                                VALUE_TYPES[args.type], TOTAL_FIELDS[args.field], 0)
    for rank, r in enumerate(rows, 1):
        r['rank'] = rank
    return Table(rows, (('rank', 'rank'), ('name', 'name'),
                        (args.field, lambda r: r['values'][0] if r['values'] else None)))


def cmd_stats_query(run, args):
    rows = run.db.query(args.sql)
    if args.csv:
        out, header = csv.writer(run.out), None
        for row in rows:
            if header is None:
                header = list(row)
                out.writerow(header)
            out.writerow([_cell(row[k]) if row[k] is not None else '' for k in header])
        _notices(run, rows)
        return None
    if args.json:   # a row at a time: an answer may be larger than memory
        sep = '['
        for row in rows:
            run.out.write(sep + json.dumps(row, default=_plain))
            sep = ',\n '
        run.out.write(']\n' if sep != '[' else '[]\n')
        _notices(run, rows)
        return None
    got = list(rows)
    _notices(run, rows)
    return Table(got, [(k, k) for k in (got[0] if got else ())])


def _notices(run, rows):
    """The appliance's notes on a cut answer (row or time limit): the rows are
    good but not all, which a script reading the output must be able to see."""
    for text in getattr(rows, 'notices', ()):
        run.err.write('tqdb: notice: %s\n' % text)


def _area(run, name):
    areas = run.db.fileserv_types()
    for a in areas:
        if name in (a['name'], str(a['id'])):
            return a['id']
    raise Refused('no file area %s (areas: %s)' % (name, ', '.join(a['name'] for a in areas)))


def _transfer(run, label, fn, *fn_args):
    progress = run.progress(label)
    try:
        fn(*fn_args, progress=progress)
    finally:
        progress.close()


def cmd_files_ls(run, args):
    if args.area is None:
        return Table(run.db.fileserv_types(), (
            ('area', 'name'), ('id', 'id'), ('flags', lambda a: [n for b, n in AREA_FLAGS
                                                                  if a['flags'] & b])))
    return Table(run.db.fileserv_list(_area(run, args.area)),
                 (('name', 'name'), ('size', 'size'), ('date', lambda f: _when(f['date'])
                                                       if 'date' in f else None)))


def cmd_files_get(run, args):
    local = args.local or os.path.basename(args.name)
    _transfer(run, args.name, run.db.download, _area(run, args.area), args.name, local)
    return {'area': args.area, 'name': args.name, 'saved': local, 'size': os.path.getsize(local)}


def cmd_files_put(run, args):
    name = args.name or os.path.basename(args.local)
    size = os.path.getsize(args.local)
    _transfer(run, name, run.db.upload, _area(run, args.area), args.local, name)
    return {'area': args.area, 'name': name, 'size': size}


def cmd_files_rm(run, args):
    run.db.fileserve_remove(_area(run, args.area), args.name)
    return {'area': args.area, 'removed': args.name}


def _resource(name):
    if name not in RESOURCES:
        raise UsageError('no resource %s (resources: %s)' % (name, ', '.join(sorted(RESOURCES))))
    return RESOURCES[name]


def cmd_backup_dump(run, args):
    resource = _resource(args.resource) if args.resource else 0
    return {'backup': run.db.backup_dump(args.name or '', resource)}


def cmd_backup_ls(run, args):
    return Table(run.db.backup_list(), (('backup', 'path'), ('created', lambda b: _when(
        b['cdate'])), ('size', 'size')))


def cmd_backup_get(run, args):
    local = args.local or os.path.basename(args.name)
    _transfer(run, args.name, run.db.backup_download, args.name, local)
    return {'backup': args.name, 'saved': local, 'size': os.path.getsize(local)}


def cmd_backup_restore(run, args):
    if args.file:
        _transfer(run, args.name, run.db.backup_upload, args.file, args.name)
    run.db.backup_restore(args.name, _resource(args.resource) if args.resource else 0)
    return {'restored': args.name, 'resource': args.resource or 'all'}


def _mask(names):
    mask = 0
    for n in filter(None, (names or '').split(',')):
        mask |= 1 << _resource(n.strip())
    return mask


def cmd_users_ls(run, args):
    def names(key):
        return lambda u: _bits(u[key], RESOURCES) if u[key] != 0xFFFFFFFF else ['all']
    return Table(run.db.user_list(), (('user', 'name'), ('id', 'id'), ('read', names('readbm')),
                                      ('write', names('writebm')), ('timeout', 'timeout'),
                                      ('hosts', 'hosts')))


def cmd_users_add(run, args):
    read, write = _mask(args.read), _mask(args.write)
    db = run.db
    password = run.secret('password of the new user %s' % args.name)
    if run.stdin.isatty() and not args.password_stdin and \
            run.secret('the same again') != password:
        raise UsageError('the two passwords differ')
    with run.transaction(tqdb.RESOURCE_USERS, 'add user %s' % args.name) as tx:
        uid = db.user_add(args.name, password, read | write, write, 0, args.idle_timeout, 0,
                          args.hosts)
    return {'user': args.name, 'id': uid, 'commit': tx.commit_id[0]}


def cmd_users_rm(run, args):
    with run.transaction(tqdb.RESOURCE_USERS, 'remove user %s' % args.name) as tx:
        user = next((u for u in run.db.user_list() if u['name'] == args.name), None)
        if user is None:
            raise Refused('no user %s' % args.name)
        run.db.user_remove(user['id'])
    return {'user': args.name, 'id': user['id'], 'commit': tx.commit_id[0]}


def cmd_config_get(run, args):
    values = run.db.config_list()
    by_key = dict((v['key'], v) for v in values)
    for key in args.keys:
        if key not in by_key:
            raise Refused('no configuration key %s' % key)
    rows = [by_key[k] for k in args.keys] if args.keys else values
    return Table(rows, (('key', 'key'), ('value', 'value'), ('default', 'default'),
                        ('description', 'description')))


def cmd_config_set(run, args):
    with run.transaction(tqdb.RESOURCE_CONFIG, 'set %s' % args.key) as tx:
        run.db.config_set(args.key, args.value)
    return {'key': args.key, 'value': args.value, 'commit': tx.commit_id[0]}


# How each event reads on a terminal.
EVENT_TEXT = {
    'commit': lambda c: 'commit %s on %s at %s: %s' % (c[0], c[2], _when(c[1]), c[3])
    if c else 'commit (unreadable)',
    'detached': lambda text: 'detached: %s' % text,
    'restart': lambda why: 'the appliance restarts: %s' % why,
    'reload': lambda why: 'the appliance reloads: %s' % why,
}


def cmd_watch(run, args):
    """Events until Ctrl-C, the connection's end or --count of them."""
    db, seen = run.db, []

    def shown(kind):
        def show_event(value):
            seen.append(kind)
            if args.json:
                write_json(run.out, {'event': kind, 'time': time.time(), 'value': value})
            else:
                run.out.write('%s  %s\n' % (_when(time.time()), EVENT_TEXT[kind](value)))
            run.out.flush()
        return show_event
    for kind in EVENT_TEXT:
        getattr(db, 'on_' + kind)(shown(kind))
    try:
        while not args.count or len(seen) < args.count:
            try:
                db.pump(1.0)
            except tqdb.ConnectionLost:
                if seen and seen[-1] == 'restart':
                    return None
                raise
    except KeyboardInterrupt:
        pass
    return None


def find_simulator(environ):
    """$TQDBSIM, the binary installed with the package, or tqdbsim on PATH."""
    here = os.path.join(os.path.dirname(os.path.abspath(__file__)), 'bin', 'tqdbsim')
    for path in (environ.get('TQDBSIM'), here, shutil.which('tqdbsim', path=environ.get('PATH'))):
        if path and os.path.isfile(path) and os.access(path, os.X_OK):
            return path
    raise Refused('no tqdbsim: not in $TQDBSIM, %s or on PATH' % here)


def cmd_sim(run, args):
    """Runs the simulator until it stops; its output passes through."""
    proc = subprocess.Popen([find_simulator(run.environ)] + args.sim_args,
                            stdout=subprocess.PIPE, universal_newlines=True)
    try:
        for line in proc.stdout:
            run.out.write(line)
            run.out.flush()
    except KeyboardInterrupt:
        proc.terminate()   # it stops on SIGTERM as on SIGINT
    finally:
        proc.stdout.close()
        status = proc.wait()
    if status:
        raise Refused('tqdbsim stopped with status %d' % status)
    return None


# -- the command line --------------------------------------------------------------------------

def arg(*names, **kw):
    return names, kw


OBJECT_TYPE = arg('--type', '-t', choices=sorted(OBJECT_TYPES), default='netobject',
                  help='object type (default netobject)')
MESSAGE = arg('-m', '--message', help='commit message (default: what the command did)')
RESOURCE = arg('--resource', '-r', help='one resource, by name (default: all)')

# (group, action, function, help, arguments); an action of None: a command on its own.
COMMANDS = (
    ('info', None, cmd_info, 'version, features, resources and their lockers', ()),
    ('objects', 'list', cmd_objects_list, 'objects under a path', (
        arg('path', nargs='?', default='/'), OBJECT_TYPE)),
    ('objects', 'add', cmd_objects_add, 'add an object at a path (its parent exists)', (
        arg('path'), OBJECT_TYPE, MESSAGE)),
    ('objects', 'rm', cmd_objects_rm, 'remove the object at a path', (
        arg('path'), OBJECT_TYPE, MESSAGE)),
    ('rules', 'list', cmd_rules_list, 'firewall, shaping and statistics rules', (
        arg('--kind', choices=[k for k, _ in RULE_KINDS], help='only rules of this kind'),)),
    ('stats', 'top', cmd_stats_top, 'the largest items under a statistics path', (
        arg('path', nargs='?', default='', help='statistics path (default: the root)'),
        arg('--type', choices=sorted(VALUE_TYPES), default='netobject'),
        arg('--field', choices=sorted(TOTAL_FIELDS), default='bytes_total'),
        arg('-n', '--count', type=int, default=10),
        arg('--from', dest='start', default='', metavar='DATE', help='first day, YYYY-MM-DD'),
        arg('--to', dest='end', default='', metavar='DATE', help='last day, YYYY-MM-DD'))),
    ('stats', 'query', cmd_stats_query, 'run a statistics query, rows as they arrive', (
        arg('sql'), arg('--csv', action='store_true', help='CSV with a header line'))),
    ('files', 'ls', cmd_files_ls, 'the file areas, or the files of one', (
        arg('area', nargs='?'),)),
    ('files', 'get', cmd_files_get, 'download a file', (
        arg('area'), arg('name'), arg('local', nargs='?', help='default: the name, here'))),
    ('files', 'put', cmd_files_put, 'upload a file', (
        arg('local'), arg('area'), arg('name', nargs='?', help="default: the local file's"))),
    ('files', 'rm', cmd_files_rm, 'remove a file', (arg('area'), arg('name'))),
    ('backup', 'dump', cmd_backup_dump, 'make a backup on the appliance', (
        arg('name', nargs='?', help='default: chosen by the appliance'), RESOURCE)),
    ('backup', 'ls', cmd_backup_ls, 'the backups on the appliance', ()),
    ('backup', 'get', cmd_backup_get, 'download a backup', (
        arg('name'), arg('local', nargs='?'))),
    ('backup', 'restore', cmd_backup_restore, 'restore a backup', (
        arg('name'), RESOURCE, arg('--file', '-f', help='upload this local backup first'))),
    ('users', 'ls', cmd_users_ls, 'the user accounts', ()),
    ('users', 'add', cmd_users_add, 'add a user; the password is asked for (or read from '
     'standard input)', (
        arg('name'), MESSAGE,
        arg('--read', metavar='RESOURCES', help='resources it may read, comma-separated'),
        arg('--write', metavar='RESOURCES', help='resources it may change (and read)'),
        arg('--idle-timeout', type=int, default=0, metavar='SECONDS',
            help='idle time before logout (0: never)'),
        arg('--hosts', default='', help='addresses it may log in from (default: any)'))),
    ('users', 'rm', cmd_users_rm, 'remove a user', (arg('name'), MESSAGE)),
    ('config', 'get', cmd_config_get, 'configuration values', (arg('keys', nargs='*'),)),
    ('config', 'set', cmd_config_set, 'set a configuration value', (
        arg('key'), arg('value'), MESSAGE)),
    ('watch', None, cmd_watch, 'commits and notices as they happen, until Ctrl-C', (
        arg('--count', type=int, default=0, help='stop after this many events'),)),
    ('sim', None, cmd_sim, 'run the appliance simulator (tqdbsim)', (
        arg('sim_args', nargs='*', metavar='TQDBSIM_OPTION', help="tqdbsim's own options"),)),
)


class Parser(argparse.ArgumentParser):
    """Usage errors as one line and an exception, not an exit."""

    def error(self, message):
        where = self.prog.partition(' ')[2]
        raise UsageError('%s: %s' % (where, message) if where else message)


def parser():
    top = Parser(prog='tqdb', description='Work with a TQDB appliance.', epilog=EPILOG,
                 formatter_class=argparse.RawDescriptionHelpFormatter)
    top.add_argument('--version', action='version', version='tqdb (TQDBv17_1)')
    for names, kw in (
            arg('--host', help='appliance address'), arg('--port', help='TCP port'),
            arg('--user', '-u', help='user name'),
            arg('--profile', '-p', help='profile of the profile file'),
            arg('--password-stdin', action='store_true',
                help='read passwords from standard input, one a line'),
            arg('--json', action='store_true', help='JSON output'),
            arg('--timeout', type=float, default=10.0, help='seconds to wait for an answer')):
        top.add_argument(*names, **kw)
    groups = top.add_subparsers(dest='group', metavar='COMMAND', parser_class=Parser)
    groups.required = True
    made = {}
    for group, action, fn, text, arguments in COMMANDS:
        if action is None:
            # The simulator's options, --help included, are its own.
            p = groups.add_parser(group, help=text, description=text, add_help=group != 'sim')
        else:
            if group not in made:
                g = groups.add_parser(group, help='%s: %s' % (group, ' '.join(
                    a for gr, a, _, _, _ in COMMANDS if gr == group)))
                made[group] = g.add_subparsers(dest='action', metavar='ACTION',
                                               parser_class=Parser)
                made[group].required = True
            p = made[group].add_parser(action, help=text, description=text)
        p.set_defaults(run=fn, message=None)
        for names, kw in arguments:
            p.add_argument(*names, **kw)
    return top


def split_sim(argv):
    """(the command line up to the `sim` command word, what follows it): the
    words after `sim` are the simulator's own, `--port 0` included."""
    takes_value = set(o for a in parser()._actions if a.nargs != 0 for o in a.option_strings)
    i = 0
    while i < len(argv):
        word = argv[i]
        if word == 'sim':
            rest = argv[i + 1:]
            return argv[:i + 1], rest[1:] if rest[:1] == ['--'] else rest
        if not word.startswith('-'):
            break  # another command
        i += 2 if word in takes_value else 1
    return argv, []


def main(argv=None, environ=None, stdin=None, stdout=None, stderr=None):
    """Runs one command; the exit status."""
    environ = os.environ if environ is None else environ
    stdin, stdout = stdin or sys.stdin, stdout or sys.stdout
    stderr = stderr or sys.stderr
    run = None
    try:
        with contextlib.redirect_stdout(stdout):   # --help and --version
            own, sim_args = split_sim(list(sys.argv[1:] if argv is None else argv))
            args, rest = parser().parse_known_args(own)
        if rest:
            raise UsageError('unrecognized arguments: %s' % ' '.join(rest))
        args.sim_args = sim_args
        run = Run(args, environ, stdin, stdout, stderr)
        show(stdout, args.run(run, args), args.json)
        return EXIT_OK
    except SystemExit as e:   # --help and --version
        return e.code or EXIT_OK
    except KeyboardInterrupt:
        stderr.write('tqdb: interrupted\n')
        return 130
    except BrokenPipeError:
        # The reader had enough (`tqdb stats query ... | head`): not a failure.
        if stdout is sys.__stdout__:   # nothing more may reach it, not even at exit
            os.dup2(os.open(os.devnull, os.O_WRONLY), stdout.fileno())
        return EXIT_OK
    except Exception as e:   # noqa: BLE001 - every failure becomes one line and a status
        for kind, code in EXIT_CODES:
            if isinstance(e, kind):
                stderr.write('tqdb: %s\n' % (' '.join(str(e).split()) or type(e).__name__))
                return code
        raise
    finally:
        if run is not None:
            run.close()


if __name__ == '__main__':
    sys.exit(main())
