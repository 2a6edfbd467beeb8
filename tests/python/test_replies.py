"""Decoders against exact reply bytes from a scripted peer."""
import contextlib
import errno
import sys
import traceback
import unittest
import warnings

import TQDBv17_1 as T

from simhelper import (REPLY_AUTH, REPLY_BCAST_COMMIT, REPLY_DATA, REPLY_DETACHED,
                       REPLY_ERROR, REPLY_LOCK, REPLY_OK, REPLY_VERSION, ScriptedPeer,
                       frame, string, u32, u64, u8)

try:
    from StringIO import StringIO  # Python 2: print writes str
except ImportError:
    from io import StringIO


def data(cid, body, session=3):
    return frame(REPLY_DATA, u32(session) + u32(cid) + body)


def method_names(exc_info):
    return [f[2] for f in traceback.extract_tb(exc_info[2])]


@contextlib.contextmanager
def captured(name, remove=False):
    """sys.<name> replaced by a StringIO (or removed) for the block."""
    saved, buf = getattr(sys, name), StringIO()
    if remove:
        delattr(sys, name)
    else:
        setattr(sys, name, buf)
    try:
        yield buf
    finally:
        setattr(sys, name, saved)


class RepliesTest(unittest.TestCase):
    def setUp(self):
        self.peer = ScriptedPeer()
        self.h = self.peer.handle
        self.session = self.h.session_new_handle(self.peer.reply(data(1, u32(42))))

    def tearDown(self):
        self.peer.close()

    def test_version_check(self):
        # Only the low 16 bits count; the three encodings meet at 12 and 125.
        ok = [(0x6080, (17, 1, 0)), (0x6085, (17, 1, 5)), (0x12346080, (17, 1, 0))]
        bad = [(0x6100, '17.2.0'), (0x6000, '17.0.0'), (0x6F80, '17.31.0'), (95, '9.5.0'),
               (11, '11.0.0'), (12, '1.2.0'), (124, '12.4.0'), (125, '0.0.125'),
               (200, '0.1.72'), (4095, '0.31.127'), (4096, '12.0.0')]
        for word, version in ok:
            m = self.peer.reply(frame(REPLY_VERSION, u32(word) + string(b'a' * 300) + string(b'b')))
            self.assertEqual(self.h.version_handle(m), (word, 'a' * 255, 'b', version))
        for word, server in bad:
            m = self.peer.reply(frame(REPLY_VERSION, u32(word) + string(b'x') + string(b'y')))
            try:
                self.h.version_handle(msg=m)
                self.fail('no error for %#x' % word)
            except RuntimeError as e:
                self.assertEqual(str(e), 'Bad version server=%s client=17.1.0' % server)
                self.assertIn('TQDBv17_1.TQDBAPIHandle.version_handle',
                              method_names(sys.exc_info()))
        # A server without version checking, or no announcement at all, warns
        # and passes.
        for m in (self.peer.reply(frame(REPLY_VERSION, u32(0) + string(b'x') + string(b'y'))),
                  self.peer.reply(frame(REPLY_OK, u32(0) + u32(9))), T.TQMessage()):
            with warnings.catch_warnings(record=True) as w:
                warnings.simplefilter('always')
                r = self.h.version_handle(m)
            self.assertEqual(r[0], 0)
            self.assertEqual(r[3], (0, 0, 0))
            self.assertEqual([str(x.message) for x in w],
                             ['Server built without protocol version checking. Use at own risk'])

    def test_auth_reply_cut_at_every_position(self):
        full = u8(1) + u64(2 ** 64 - 1) + u64(5) + u64(7) + u32(9)
        for k in range(len(full) + 1):
            m = self.peer.reply(frame(REPLY_AUTH, full[:k]))
            if k == 0:
                want, line = None, 32
            elif k < 9:
                want, line = (0, 0), 41
            elif k < 17:
                want, line = (2 ** 64 - 1, 0), 42
            else:
                want, line = (2 ** 64 - 1, 5), None
            with captured('stdout') as out:
                self.assertEqual(self.h.auth_handle(m), want, k)
                if line:  # the callback fires once per message
                    self.h.auth_handle(m)
            text = 'Error parsing message at auth.c:%d\n' % line if line else ''
            self.assertEqual(out.getvalue(), text, k)
        refused = self.peer.reply(frame(REPLY_AUTH, u8(0) + u64(1) + u64(2)))
        self.assertIsNone(self.h.auth_handle(refused))
        self.assertIsNone(self.h.auth_handle(self.peer.reply(frame(REPLY_OK, u32(0) + u32(1)))))

    def test_callback_without_stdout_is_unraisable(self):
        m = self.peer.reply(frame(REPLY_AUTH, u8(1)))
        reported = []
        if hasattr(sys, 'unraisablehook'):
            saved = sys.unraisablehook
            sys.unraisablehook = lambda u: reported.append(repr(u.exc_value))
            try:
                with captured('stdout', remove=True):
                    self.assertEqual(self.h.auth_handle(m), (0, 0))
            finally:
                sys.unraisablehook = saved
        else:
            with captured('stderr') as err:
                with captured('stdout', remove=True):
                    self.assertEqual(self.h.auth_handle(m), (0, 0))
            reported.append(err.getvalue())
        self.assertEqual(len(reported), 1)
        self.assertIn('lost sys.stdout', reported[0])

    def test_commit_ids_cut_at_every_position(self):
        body = u64(7) + u64(1700000000) + string(b'tqdbsim') + string(b'log text')
        want = (7, 1700000000, 'tqdbsim', 'log text')
        decoders = [(self.h.begin_handle, 'Could not parse CommitID in BEGIN reply'),
                    (self.h.commit_handle, 'Could not parse CommitID in COMMIT reply'),
                    (self.h.commit_bcast_handle, 'Could not parse CommitID in COMMIT broadcast')]
        for k in range(len(body) + 1):
            for f in (data(5, body[:k]), frame(REPLY_BCAST_COMMIT, u32(3) + body[:k])):
                for decode, text in decoders:
                    m = self.peer.reply(f)  # decoding reads the message: one each
                    if k == len(body):
                        self.assertEqual(decode(m), want)
                        continue
                    with self.assertRaises(RuntimeError) as ctx:
                        decode(m)
                    self.assertEqual(str(ctx.exception), text)
        # Other types never reach the C decoder (which would abort).
        for f in (frame(REPLY_OK, u32(3) + u32(5)), frame(REPLY_LOCK, u32(3) + u32(5) + string(b'x')),
                  frame(REPLY_ERROR, u32(3) + u32(5) + string(b'x')),
                  frame(REPLY_DETACHED, u32(3) + string(b'x'))):
            m = self.peer.reply(f)
            for decode, text in decoders:
                self.assertRaises(RuntimeError, decode, m)
        for decode, text in decoders:
            self.assertRaises(RuntimeError, decode, T.TQMessage())

    def test_resource_records(self):
        def record(rid, name, proxy, enterprise, avg, queries):
            """The record's bytes and the dict it converts to (names keep 63 bytes)."""
            return ((u32(rid) + string(name) + string(b'10.0.0.1') + string(b'pu') +
                     string(b'pp') + u8(proxy) + u8(enterprise) + string(b'admin (session 3)') +
                     string(b'q') + u32(avg) + u64(queries) + string(b'locked')),
                    {'id': rid, 'name': name[:63].decode('ascii'), 'proxyaddress': '10.0.0.1',
                     'proxyuser': 'pu', 'proxypassword': 'pp', 'proxy': proxy != 0,
                     'enterprise': enterprise != 0, 'locker': 'admin (session 3)',
                     'last_query': 'q', 'avg_query_time': avg, 'queries': queries,
                     'status': 'locked'})

        r1, e1 = record(1, b'ruleset', 0x80, 0, 2 ** 32 - 1, 2 ** 40 + 3)
        r2, e2 = record(2, b'n' * 100, 0, 1, 0, 0)
        r3, e3 = record(23, b'dynamicliveview', 1, 1, 5, 2 ** 64 - 1)
        s = self.session
        for k in range(len(r3)):
            l = s.resource_resource_list_handle(self.peer.reply(data(8, r1 + r2 + r3[:k])))
            self.assertEqual(l.convert(None), [e1, e2], k)
        l = s.resource_resource_list_handle(self.peer.reply(data(8, r1 + r2 + r3)), None)
        self.assertIsInstance(l, T.TQResList)
        self.assertEqual(l.convert(None), [e1, e2, e3])
        # A second reply continues the same list; a wrong type leaves it alone.
        self.assertIs(s.resource_resource_list_handle(self.peer.reply(data(9, r3)), l), l)
        self.assertIs(s.resource_resource_list_handle(T.TQMessage(), l), l)
        self.assertIs(s.resource_resource_list_handle(
            self.peer.reply(frame(REPLY_OK, u32(3) + u32(9))), l), l)
        self.assertEqual(l.convert(None), [e1, e2, e3, e3])
        self.assertEqual(l.convert(None), l.convert(1))

    def test_texts_of_messages(self):
        m = self.peer.reply(frame(REPLY_DETACHED, u32(3) + string(b'taken over')))
        self.assertEqual((m.get_type(), m.get_cid(), m.get_error()),
                         (T.MSG_TYPE_DETACHED, 0, 'taken over'))
        m = self.peer.reply(frame(REPLY_ERROR, u32(3) + u32(77) + string(b'e' * 600)))
        self.assertEqual((m.get_type(), m.get_cid(), m.get_error()),
                         (T.MSG_TYPE_ERROR, 77, 'e' * 511))
        self.assertEqual(self.peer.reply(data(4, b'')).get_error(), '')
        s = self.session
        self.assertEqual(s.ping_handle(self.peer.reply(data(4, string(b'p' * 100)))), 'p' * 63)
        self.assertEqual(s.ping_handle(self.peer.reply(data(4, string(b'p' * 63)))), 'p' * 63)
        self.assertIsNone(s.ping_handle(m))
        strings = string(b'alpha') + string(b'beta') + u32(10) + b'cut'
        self.assertEqual(s.diag_handle(self.peer.reply(data(6, strings))).convert(0),
                         ['alpha', 'beta'])

    def test_requests_on_the_wire(self):
        s = self.session
        # Bytes that are not UTF-8 go back exactly as they came.
        raw = b'\xff\xfeok'
        echoed = s.ping_handle(self.peer.reply(data(4, string(raw))))
        sent = [s.ping(echoed), s.resource_begin(T.RESOURCE_SYSDIAG),
                s.resource_begin(resource=T.RESOURCE_LEVELS), s.resource_commit(u'\u00e9'),
                s.resource_resource_steal(-1), s.resource_rollback(),
                s.resource_resource_list(), s.diag(), self.h.session_new(),
                self.h.auth(b'u' * 40, u'p\u00e9')]
        self.assertEqual(sent, [1, 2, 3, 4, 5, 6, 7, 8, 9, 1])
        # A session whose id is 0 does not send the resource list.
        zero = self.h.session_new_handle(self.peer.reply(frame(REPLY_OK, u32(0) + u32(9))))
        self.assertEqual(zero.resource_resource_list(), 0)
        self.assertEqual(zero.ping('z'), 10)
        head = u32(42)
        want = (frame(0x10103, head + u32(1) + string(raw)) +
                frame(0x10201, head + u32(2) + u32(7) + u8(0)) +
                frame(0x10201, head + u32(3) + u32(7) + u8(0)) +
                frame(0x10202, head + u32(4) + string(b'\xc3\xa9')) +
                frame(0x19305, head + u32(5) + u32(0xFFFFFFFF)) +
                frame(0x10203, head + u32(6)) + frame(0x19304, head + u32(7)) +
                frame(0x10105, head + u32(8)) + frame(0x10101, u32(0) + u32(9)) +
                frame(0x10001, string(b'u' * 40) + string(b'p\xc3\xa9')) +
                frame(0x10103, u32(0) + u32(10) + string(b'z')))
        self.assertEqual(self.peer.received(len(want)), want)

    def test_disconnect_after_buffered_messages(self):
        self.assertIsNone(self.h.readmsg())
        self.peer.send(data(1, u32(1)), data(2, u32(2)))
        self.peer.close_peer()
        first = self.peer.read_one()
        second = self.h.readmsg()
        self.assertEqual([first.get_cid(), second.get_cid()], [1, 2])
        for _ in range(2):
            try:
                self.h.readmsg()
                self.fail('no IOError')
            except IOError as e:
                self.assertEqual(str(e), 'Disconnected')
                self.assertIn('TQDBv17_1.TQDBAPIHandle.readmsg', method_names(sys.exc_info()))
        self.assertNotEqual(self.session.ping('x'), 0)
        self.assertTrue(self.h.want_write())
        with self.assertRaises(IOError) as ctx:
            self.h.write()
        self.assertEqual(str(ctx.exception), "Couldn't write to server")

    def test_reset_reports_the_error_number(self):
        self.assertNotEqual(self.session.ping('unread'), 0)
        self.h.write()
        self.assertFalse(self.h.want_write())
        self.peer.close_peer()  # closed with our request unread: a reset
        with self.assertRaises(IOError) as ctx:
            self.h.readmsg()
        self.assertEqual(str(ctx.exception), str(errno.ECONNRESET))
