"""Helpers for the Python suites (Python 2.7 and 3): the simulator as a child
process ($TQDBSIM), a client with a small event loop, and ScriptedPeer, an
in-process responder that sends exactly the frames a test builds. Every wait
is bounded by WAIT seconds."""
import os
import select
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

import TQDBv17_1 as T
import TQvindelv17_1 as V

WAIT = 10.0
HERE = os.path.dirname(os.path.abspath(__file__))
_KEY = []


def run_python(code):
    """Runs code in a fresh interpreter (for what may crash); (status, output)."""
    p = subprocess.Popen([sys.executable, '-c', 'import sys; sys.path.insert(0, %r)\n' % HERE + code],
                         stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    out = p.communicate()[0].decode('utf-8', 'replace')
    return p.returncode, out


def shared_key():
    """One RSA key pair per process: key generation is the slow part."""
    if not _KEY:
        _KEY.append(V.generate_key())
    return _KEY[0]


def u8(v):
    return struct.pack('>B', v)


def u16(v):
    return struct.pack('>H', v)


def u32(v):
    return struct.pack('>I', v)


def u64(v):
    return struct.pack('>Q', v)


def string(b):
    """u32 count including the NUL, the bytes, the NUL."""
    return u32(len(b) + 1) + b + b'\0'


def frame(code, payload=b''):
    return struct.pack('>IH', code, len(payload)) + payload


REPLY_AUTH, REPLY_BCAST_COMMIT, REPLY_OK, REPLY_ERROR = 0x20001, 0x20002, 0x20003, 0x20004
REPLY_LOCK, REPLY_VERSION, REPLY_DETACHED, REPLY_DATA = 0x20006, 0x20007, 0x20012, 0x21000


def _until(what, done, step):
    """Calls step() until done() holds; AssertionError after WAIT seconds."""
    deadline = time.time() + WAIT
    while not done():
        if time.time() > deadline:
            raise AssertionError(what)
        step()


class Simulator(object):
    def __init__(self, *extra):
        path = os.environ.get('TQDBSIM')
        if not path or not os.path.exists(path):
            raise unittest.SkipTest('TQDBSIM is not set to the simulator binary')
        self.log = tempfile.TemporaryFile()  # a file can never block it as a full pipe would
        self.proc = subprocess.Popen(
            [path, '--port', '0', '--user', 'admin:admin'] + list(extra),
            stdout=subprocess.PIPE, stderr=self.log)
        deadline = time.time() + WAIT
        while time.time() < deadline and self.proc.poll() is None:
            if select.select([self.proc.stdout], [], [], 0.2)[0]:
                text = self.proc.stdout.readline().decode('ascii', 'replace')
                if 'listening on' in text:
                    host, port = text.split()[-1].rsplit(':', 1)
                    self.host, self.port = host, int(port)
                    return
        self.log.seek(0)
        why = self.log.read()
        self.stop()
        raise AssertionError('tqdbsim did not start: %r' % why)

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                _until('', lambda: self.proc.poll() is not None, lambda: time.sleep(0.02))
            except AssertionError:
                self.proc.kill()
                self.proc.wait()
        self.proc.stdout.close()
        self.log.close()
        return self.proc.returncode


class Client(object):
    """A handle with an event loop; messages not yet asked for wait in .unsolicited."""

    def __init__(self, host, port):
        self.vindel = V.connect(host, port, WAIT, key=shared_key())
        self.handle = T.TQDBAPIHandle(self.vindel)
        self.unsolicited = []
        self.version = self.wait_type(T.MSG_TYPE_VERSION)

    def _pump(self):
        w = [self.vindel] if self.handle.want_write() else []
        r, w, _ = select.select([self.vindel], w, [], 0.1)
        if w:
            self.handle.write()
        m = self.handle.readmsg() if r else None
        while m is not None:
            self.unsolicited.append(m)
            m = self.handle.readmsg()

    def _take(self, match):
        deadline = time.time() + WAIT
        while time.time() < deadline:
            for m in self.unsolicited:
                if match(m):
                    self.unsolicited.remove(m)
                    return m
            self._pump()
        raise AssertionError('no matching message within %gs' % WAIT)

    def wait_type(self, msg_type):
        return self._take(lambda m: m.get_type() == msg_type)

    def reply(self, cid):
        assert cid != 0, 'request was not queued'
        return self._take(lambda m: m.get_cid() == cid and m.get_type() not in (
            T.MSG_TYPE_BCAST_COMMIT, T.MSG_TYPE_DETACHED))

    def answer(self, cid):
        """Every DATA message of a multi-message answer, up to the OK that ends it.
        Any other type ends it too and is returned last."""
        got = []
        while True:
            m = self.reply(cid)
            got.append(m)
            if m.get_type() != T.MSG_TYPE_DATA:
                return got

    def listing(self, cid, decode):
        """A list answer decoded message by message into one list object, converted."""
        l = None
        msgs = self.answer(cid)
        assert msgs[-1].get_type() == T.MSG_TYPE_OK, msgs[-1].get_error()
        for m in msgs[:-1]:
            l = decode(m, l)
        return l.convert(None) if l is not None else []

    def call(self, cid, want=None):
        """The single reply to a request, checked against the wanted type when given."""
        m = self.reply(cid)
        if want is not None and m.get_type() != want:
            raise AssertionError('type %d, wanted %d: %s' % (m.get_type(), want, m.get_error()))
        return m

    def login(self, user='admin', pwd='admin'):
        self.handle.auth(user, pwd)
        return self.handle.auth_handle(self.wait_type(T.MSG_TYPE_AUTH))

    def session(self):
        return self.handle.session_new_handle(self.reply(self.handle.session_new()))


class Admin(object):
    """A client logged in as user, with one session (None when refused)."""

    def __init__(self, sim, user='admin', pwd='admin'):
        self.c = Client(sim.host, sim.port)
        self.auth = self.c.login(user, pwd)
        self.s = self.c.session() if self.auth is not None else None

    def call(self, cid, want=T.MSG_TYPE_OK):
        return self.c.call(cid, want)

    def error(self, cid):
        return self.c.call(cid, T.MSG_TYPE_ERROR).get_error()

    def listing(self, name, *args):
        """The converted answer of request name, through its own decoder."""
        return self.c.listing(getattr(self.s, name)(*args), getattr(self.s, name + '_handle'))

    def begin(self, resource):
        return self.call(self.s.resource_begin(resource), T.MSG_TYPE_DATA)

    def commit(self, text='change'):
        return self.call(self.s.resource_commit(text), T.MSG_TYPE_DATA)


class SimTest(unittest.TestCase):
    """One simulator, started with sim_args, for all the tests of a class."""
    sim_args = ()

    @classmethod
    def setUpClass(cls):
        cls.sim = Simulator(*cls.sim_args)

    @classmethod
    def tearDownClass(cls):
        cls.sim.stop()


class ScriptedPeer(object):
    """A TQDBAPIHandle whose peer is this object: send() puts frames on the wire.
    sock_class: a socket subclass for the handle's side."""

    def __init__(self, sock_class=None):
        self.client_sock, self.server_sock = socket.socketpair()
        if sock_class and hasattr(self.client_sock, 'detach'):
            self.client_sock = sock_class(fileno=self.client_sock.detach())
        elif sock_class:  # Python 2
            self.client_sock = sock_class(_sock=getattr(self.client_sock, '_sock',
                                                        self.client_sock))
        self.client = V.Vindel(self.client_sock, key=shared_key())
        self.server = V.Vindel(self.server_sock, responder=True)
        both = [self.client, self.server]

        def step():
            busy = [v for v in both if not v.established()]
            r, w, _ = select.select([v for v in busy if v.want_read()],
                                    [v for v in busy if v.want_write()], [], 0.5)
            for v in busy:
                if (v in r or v in w) and v.handshake(v in r, v in w) < 0:
                    raise AssertionError('handshake failed')
        _until('handshake did not finish', lambda: all(v.established() for v in both), step)
        self.handle = T.TQDBAPIHandle(self.client)

    def send(self, *frames):
        left = [b''.join(frames)]

        def step():
            left[0] = left[0][self.server.write(left[0]):]
        _until('peer could not send', lambda: not left[0], step)

    def read_one(self):
        """The next message, waiting for it."""
        deadline = time.time() + WAIT
        while time.time() < deadline:
            m = self.handle.readmsg()
            if m is not None:
                return m
            select.select([self.client], [], [], 0.05)
        raise AssertionError('no message arrived')

    def received(self, n):
        """Exactly n decrypted bytes that the handle sent, waiting for them."""
        got = b''
        deadline = time.time() + WAIT
        while len(got) < n and time.time() < deadline:
            if self.handle.want_write():
                self.handle.write()
            select.select([self.server], [], [], 0.05)
            chunk = self.server.read(n - len(got))
            if chunk == b'':
                break
            got += chunk or b''
        return got

    def reply(self, *frames):
        self.send(*frames)
        return self.read_one()

    def close_peer(self):
        self.server_sock.close()

    def close(self):
        for s in (self.client_sock, self.server_sock):
            s.close()
