"""Helpers for the Python suites (Python 2.7 and 3).

- Simulator: starts tqdbsim (path from $TQDBSIM) on a free loopback port and
  stops it again; every wait is bounded.
- Client: one TQDBAPIHandle on a real connection with a small event loop
  (send, then pump until the reply with that correlation id arrives, keeping
  unsolicited messages aside).
- ScriptedPeer: an in-process responder on a socketpair that sends exactly
  the frames a test builds, for replies no well-behaved server sends.
"""
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

WAIT = 10.0  # upper bound of every wait, seconds

_KEY = []


def shared_key():
    """One RSA key pair per process: key generation is the slow part."""
    if not _KEY:
        _KEY.append(V.generate_key())
    return _KEY[0]


# --- wire building ------------------------------------------------------------------------

def u8(v):
    return struct.pack('>B', v)


def u32(v):
    return struct.pack('>I', v)


def u64(v):
    return struct.pack('>Q', v)


def string(b):
    """A length-prefixed string: u32 count including the NUL, bytes, NUL."""
    return u32(len(b) + 1) + b + b'\0'


def frame(code, payload=b''):
    return struct.pack('>IH', code, len(payload)) + payload


REPLY_AUTH = 0x20001
REPLY_BCAST_COMMIT = 0x20002
REPLY_OK = 0x20003
REPLY_ERROR = 0x20004
REPLY_LOCK = 0x20006
REPLY_VERSION = 0x20007
REPLY_DETACHED = 0x20012
REPLY_DATA = 0x21000


# --- the simulator ------------------------------------------------------------------------------

class Simulator(object):
    def __init__(self, *extra):
        path = os.environ.get('TQDBSIM')
        if not path or not os.path.exists(path):
            raise unittest.SkipTest('TQDBSIM is not set to the simulator binary')
        # Its log goes to a file, so that it can never block on a full pipe.
        self.log = tempfile.TemporaryFile()
        self.proc = subprocess.Popen(
            [path, '--port', '0', '--user', 'admin:admin'] + list(extra),
            stdout=subprocess.PIPE, stderr=self.log)
        self.host, self.port = self._wait_listening()

    def _wait_listening(self):
        deadline = time.time() + WAIT
        line = b''
        while time.time() < deadline:
            r, _, _ = select.select([self.proc.stdout], [], [], 0.2)
            if not r:
                if self.proc.poll() is not None:
                    break
                continue
            c = os.read(self.proc.stdout.fileno(), 1)
            if not c:
                break
            if c == b'\n':
                text = line.decode('ascii', 'replace')
                if 'listening on' in text:
                    host, port = text.rsplit(' ', 1)[1].rsplit(':', 1)
                    return host, int(port)
                line = b''
            else:
                line += c
        self.stop()
        self.log.seek(0)
        raise AssertionError('tqdbsim did not start: %r' % self.log.read())

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            deadline = time.time() + WAIT
            while self.proc.poll() is None and time.time() < deadline:
                time.sleep(0.02)
            if self.proc.poll() is None:
                self.proc.kill()
                self.proc.wait()
        self.proc.stdout.close()
        return self.proc.returncode


# --- the event loop -------------------------------------------------------------------------------

class Client(object):
    """A handle with an event loop; unsolicited messages collect in .unsolicited."""

    def __init__(self, host, port):
        self.vindel = V.connect(host, port, WAIT, key=shared_key())
        self.handle = T.TQDBAPIHandle(self.vindel)
        self.unsolicited = []
        self.version = self.wait_type(T.MSG_TYPE_VERSION)

    def pump_once(self, timeout):
        w = [self.vindel] if self.handle.want_write() else []
        r, w, _ = select.select([self.vindel], w, [], timeout)
        if w:
            self.handle.write()
        got = []
        if r:
            while True:
                m = self.handle.readmsg()
                if m is None:
                    break
                got.append(m)
        return got

    def _until(self, match):
        deadline = time.time() + WAIT
        while time.time() < deadline:
            for i, m in enumerate(self.unsolicited):
                if match(m):
                    return self.unsolicited.pop(i)
            for m in self.pump_once(0.1):
                self.unsolicited.append(m)
        raise AssertionError('no matching message within %gs' % WAIT)

    def wait_type(self, msg_type):
        return self._until(lambda m: m.get_type() == msg_type)

    def reply(self, cid):
        assert cid != 0, 'request was not queued'
        return self._until(lambda m: m.get_cid() == cid and m.get_type() not in (
            T.MSG_TYPE_BCAST_COMMIT, T.MSG_TYPE_DETACHED))

    def login(self, user='admin', pwd='admin'):
        self.handle.auth(user, pwd)
        return self.handle.auth_handle(self.wait_type(T.MSG_TYPE_AUTH))

    def session(self):
        return self.handle.session_new_handle(self.reply(self.handle.session_new()))


# --- a scripted responder --------------------------------------------------------------------------

def _drive(vindels):
    deadline = time.time() + WAIT
    while not all(v.established() for v in vindels):
        if time.time() > deadline:
            raise AssertionError('handshake did not finish')
        busy = [v for v in vindels if not v.established()]
        r, w, _ = select.select([v for v in busy if v.want_read()],
                                [v for v in busy if v.want_write()], [], 0.5)
        for v in busy:
            if (v in r or v in w) and v.handshake(v in r, v in w) < 0:
                raise AssertionError('handshake failed')


def wrap_socket(sock, cls):
    """sock as an instance of the socket subclass cls."""
    if hasattr(sock, 'detach'):
        return cls(fileno=sock.detach())
    return cls(_sock=getattr(sock, '_sock', sock))  # Python 2


class ScriptedPeer(object):
    """A TQDBAPIHandle whose peer is this object: send() puts frames on the wire.
    sock_class: a socket subclass for the handle's side."""

    def __init__(self, sock_class=None):
        self.client_sock, self.server_sock = socket.socketpair()
        if sock_class:
            self.client_sock = wrap_socket(self.client_sock, sock_class)
        self.client = V.Vindel(self.client_sock, key=shared_key())
        self.server = V.Vindel(self.server_sock, responder=True)
        _drive([self.client, self.server])
        self.handle = T.TQDBAPIHandle(self.client)

    def send(self, *frames):
        data = b''.join(frames)
        deadline = time.time() + WAIT
        while data:
            if time.time() > deadline:
                raise AssertionError('peer could not send')
            n = self.server.write(data)
            data = data[n:]

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


def python_2():
    return sys.version_info[0] == 2
