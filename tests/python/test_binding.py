"""The binding itself: argument checking, conversions, object lifetimes and
the checks made at import."""
import gc
import select
import socket
import sys
import traceback
import unittest
import weakref

import TQDBv17_1 as T
import TQvindelv17_1 as V

from simhelper import REPLY_DATA, ScriptedPeer, frame, run_python, u32
from test_boundary import growth


def bad_type(arg, expected, got):
    return "Argument '%s' has incorrect type (expected %s, got %s)" % (arg, expected, got)


class ArgumentTest(unittest.TestCase):
    def setUp(self):
        self.peer = ScriptedPeer()
        self.h = self.peer.handle
        self.s = T.Session()  # bound to no handle: requests return 0

    def tearDown(self):
        self.peer.close()

    def check_type_error(self, text, method, fn, *args, **kw):
        try:
            fn(*args, **kw)
            self.fail('no TypeError')
        except TypeError as e:
            if text is not None:
                self.assertEqual(str(e), text)
            names = [f[2] for f in traceback.extract_tb(sys.exc_info()[2])]
            self.assertEqual(names[-1], method)

    def test_wrong_classes(self):
        m = T.TQMessage()
        msg_none = bad_type('msg', 'TQDBv17_1.TQMessage', 'NoneType')
        for name in ('version_handle', 'auth_handle', 'session_new_handle', 'begin_handle',
                     'commit_handle', 'commit_bcast_handle'):
            self.check_type_error(msg_none, 'TQDBv17_1.TQDBAPIHandle.' + name,
                                  getattr(self.h, name), None)
        self.check_type_error(bad_type('msg', 'TQDBv17_1.TQMessage', 'str'),
                              'TQDBv17_1.Session.ping_handle', self.s.ping_handle, 'x')
        self.check_type_error(bad_type('l', 'TQDBv17_1.TQStringList', 'TQDBv17_1.TQResList'),
                              'TQDBv17_1.Session.diag_handle', self.s.diag_handle, m,
                              T.TQResList())
        self.check_type_error(bad_type('l', 'TQDBv17_1.TQResList', 'list'),
                              'TQDBv17_1.Session.resource_resource_list_handle',
                              self.s.resource_resource_list_handle, msg=m, l=[])

        class StealsInt(object):
            def steal_vindel(self):
                return 5
        self.check_type_error(bad_type('io', 'TQvindelv17_1.Vindel', 'int'),
                              'TQDBv17_1.TQDBAPIHandle.__new__', T.TQDBAPIHandle, StealsInt())
        self.check_type_error(bad_type('key', 'TQvindelv17_1.VindelKey', 'int'),
                              'TQvindelv17_1.Vindel.__new__', V.Vindel, self.peer.client_sock,
                              key=5)
        a, b = socket.socketpair()
        try:  # a connection whose handshake has not run
            self.assertRaises(ValueError, T.TQDBAPIHandle, V.Vindel(a, responder=True))
        finally:
            a.close()
            b.close()

    def test_scalars_and_keywords(self):
        s = self.s
        for ok in (2 ** 31 - 1, -2 ** 31, True):
            self.assertEqual(s.resource_begin(ok), 0)
        for big in (2 ** 31, -2 ** 31 - 1):
            self.assertRaises(OverflowError, s.resource_begin, big)
        self.check_type_error(None, 'TQDBv17_1.Session.resource_begin', s.resource_begin, 1.0)
        self.check_type_error(None, 'TQDBv17_1.Session.ping', s.ping, 5)
        self.check_type_error(None, 'TQDBv17_1.Session.ping', s.ping, nope='x')
        self.check_type_error(None, 'TQDBv17_1.Session.ping', s.ping)
        self.check_type_error(None, 'TQDBv17_1.Session.diag', s.diag, 1)
        self.assertRaises(ValueError, s.ping, 'a\0b')
        self.assertEqual([s.ping(string=b'x'), s.resource_commit(msg=u'x'),
                          s.resource_resource_steal(resid=1), s.resource_rollback(),
                          s.diag()], [0] * 5)
        self.assertEqual(self.h.auth(user='u', pwd=b'p'), 1)
        self.check_type_error(None, 'TQDBv17_1.ResultList.convert', T.TQIntList().convert)


class ConversionTest(unittest.TestCase):
    def test_addresses(self):
        for value, text in ((0xC0A80001, '192.168.0.1'), (0, '0.0.0.0'),
                            (0x01020304, '1.2.3.4'), (0xFFFFFFFF, '255.255.255.255')):
            self.assertEqual(T.ipv4tostr(value), text)
        for words, text in (((0x20010DB8, 0, 0, 1), '2001:db8:0:0:0:0:0:1'),
                            ((0, 0, 0, 0), '0:0:0:0:0:0:0:0'),
                            ((0x000A0B00, 0x10000, 0xFFFF, 0xFEDC0000),
                             'a:b00:1:0:0:ffff:fedc:0'),
                            ([0xFFFFFFFF] * 4, ':'.join(['ffff'] * 8))):
            self.assertEqual(T.ipv6tostr(words), text)
        for bad in (-1, 2 ** 32):
            self.assertRaises(OverflowError, T.ipv4tostr, bad)
        self.assertRaises(ValueError, T.ipv6tostr, (1, 2, 3))

    def test_lists(self):
        self.assertEqual(T.ResultList().convert(None), [])
        values = [3, -1, 0, 2 ** 40, 7]
        l = T.TQIntList(values)
        self.assertEqual(l.convert(None), values)
        self.assertEqual(l.convert(None), l.convert(0))
        self.assertEqual(T.intlisttopython(l), values)
        self.assertEqual(T.TQIntList().convert(0), [])
        self.assertRaises(TypeError, T.TQIntList, ['x'])
        self.assertRaises(TypeError, T.intlisttopython, T.TQStringList())

        class Mine(T.TQIntList):
            pass
        self.assertEqual(Mine(iter([1, 2])).convert(0), [1, 2])
        classes = [getattr(T, n) for n in dir(T) if isinstance(getattr(T, n), type)]
        values = set([T.Item, T.Distribution, T.Filter])  # module-level value classes
        self.assertEqual(len(set(classes) - values), 50)
        lists = [c for c in classes if issubclass(c, T.ResultList)]
        self.assertEqual(len(lists), 44)  # all but six
        for c in lists:
            if c is T.TQConnlogList:  # a search result: one dict, even before any reply
                self.assertEqual(c().convert(None)['entries'], [])
            else:
                self.assertEqual(c().convert(None), [])
        self.assertIs(T.select, select.select)


class LifetimeTest(unittest.TestCase):
    def test_cycles_are_collected(self):
        class Sock(socket.socket):
            pass
        peer = ScriptedPeer(sock_class=Sock)
        session = peer.handle.session_new_handle(
            peer.reply(frame(REPLY_DATA, u32(0) + u32(1) + u32(5))))
        # socket -> session -> handle -> Vindel -> socket
        peer.client_sock.session = session
        alive = weakref.ref(peer.client_sock)
        del session
        peer.client_sock = peer.client = peer.handle = None
        gc.collect()
        self.assertIsNone(alive())
        peer.server_sock.close()

    def test_module_functions_leak_nothing(self):
        """What the sweep of test_boundary leaves out: the functions and
        constructors of the module itself, with good and bad arguments."""
        def calls():
            T.ipv4tostr(1)
            T.intlisttopython(T.TQIntList(range(5)))
            for fn, arg in ((T.ipv6tostr, (1, 2, 3, 4)), (T.ipv6tostr, (1, 2)), (T.ipv4tostr, -1),
                            (T.TQIntList, ['x']), (T.intlisttopython, T.TQStringList())):
                try:
                    fn(arg)
                except (TypeError, ValueError, OverflowError):
                    pass
        grown = growth(calls, [], 100)  # a leak of one block a call leaves 100
        self.assertTrue(max(grown) < 100 and grown[2:4] == [0, 0], grown)


class ImportTest(unittest.TestCase):
    def test_vindel_type_is_checked(self):
        template = '''
import sys, types
fake = types.ModuleType('TQvindelv17_1')
%s
sys.modules['TQvindelv17_1'] = fake
try:
    import TQDBv17_1
except (TypeError, ValueError) as e:
    print('%%s: %%s' %% (type(e).__name__, e))
'''
        cases = (('fake.Vindel = 5', 'TypeError: TQvindelv17_1.Vindel is not a type object'),
                 ('class Vindel(object): pass\nfake.Vindel = Vindel',
                  'ValueError: TQvindelv17_1.Vindel does not appear to be the correct type '
                  'object'))
        for setup, text in cases:
            status, out = run_python(template % setup)
            self.assertEqual((status, out.strip()), (0, text))
