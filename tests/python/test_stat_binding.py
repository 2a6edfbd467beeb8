"""The statistics reader methods of Session against a scripted peer: request
bytes, the values each statistics list class converts to, and the query
stream fed reply by reply."""
import struct
import unittest

import TQDBv17_1 as T

from simhelper import REPLY_DATA, ScriptedPeer, frame, string, u8, u16, u32, u64


def data(body, cid=1):
    return frame(REPLY_DATA, u32(3) + u32(cid) + body)


ADDR = string(b'a') + string(b'b') + string(b'/p') + u16(514)
NODE_ARGS = ('a', 'b', '/p', 514)

# (call, request code, body after session id and correlation id)
REQUESTS = [
    (lambda s: s.stat_date_list(), 0x19A01, b''),
    (lambda s: s.stat_list(*NODE_ARGS, replymask=2 ** 64 - 1), 0x19A02,
     ADDR + u64(2 ** 64 - 1) + u64(0)),
    (lambda s: s.stat_top_list('a', 'b', '/p', 10, 514, 5, 7), 0x19A06,
     string(b'a') + string(b'b') + string(b'/p') + u32(10) + u16(514) + u64(5) + u64(0) +
     u32(7) + u64(0)),
    (lambda s: s.stat_graph('a', 'b', '/p', 514, 60, 2, 2 ** 32, [1]), 0x19A03,
     ADDR + u32(60) + u8(2) + u64(2 ** 32) + u8(1) + u8(0) + u32(0)),
    (lambda s: s.stat_list_duration(*NODE_ARGS, threshold=''), 0x19A0C, ADDR + u8(0)),
    (lambda s: s.stat_list_search(*NODE_ARGS, max=-1, searchstr='x', recursiondepth=2,
                                  replymask=1), 0x19A1C,
     ADDR + u32(0xFFFFFFFF) + string(b'x') + u32(2) + u64(1)),
    (lambda s: s.stat_is_expandable(*NODE_ARGS), 0x19A11, ADDR),
    (lambda s: s.stat_names_list(*NODE_ARGS, matchstr='m*'), 0x19A1E, ADDR + string(b'm*')),
    (lambda s: s.stat_list_fields(), 0x19A07, b''),
]


def node(name, values=(), extra=(), mode1=None):
    return (string(name) + u8(len(values)) + u8(len(extra)) + u16(514) + u64(3) + u16(7) +
            u16(8) + u64(1700000000) + (b''.join(u64(v) for v in mode1) if mode1 else b'') +
            b''.join(u64(v) for v in values) + b''.join(u64(v) for v in extra))


def node_dict(name, values=(), extra=(), **more):
    return dict(name=name, type=514, flags=3, time=1700000000, values=list(values),
                extra=list(extra), field_a=7, field_b=8, **more)


LIST_HEAD = u8(0) + u64(9) + u8(1) + u32(4) + u32(5)
POINT = (u64(1 << 24) + u8(1) + u8(1) + u64(60) + u8(0) + u32(1) + u32(2) + u64(11) + u64(5) +
         struct.pack('>d', 0.5))
GRAPH = u32(1) + u16(1) + u16(2) + u16(3) + u32(0) + POINT
GRAPH_DICT = dict(total_points=1, g1=1, g2=2, g3=3, usage_count=0, received=1, points=[dict(
    mask=1 << 24, time=60, p1=1, p2=2, opt1=11, opt2=0, values=[5], doubles=[0.5], extra=[])])
NODE_LIST = node(b'n', [2 ** 64 - 1], [6]) + node(b'm')
NODE_LIST_WANT = [node_dict('n', [2 ** 64 - 1], [6]), node_dict('m')]

# (reply body, decoder, converted value)
LISTS = [
    (LIST_HEAD + node(b'h', [1, 2]), 'stat_list_handle', [node_dict('h', [1, 2])]),
    (u8(1) + u64(0) + u8(0) + node(b'h', [], [3], mode1=(4, 5)), 'stat_top_list_handle',
     [node_dict('h', [], [3], mode_value_1=4, mode_value_2=5)]),
    (GRAPH, 'stat_graph_handle', [GRAPH_DICT]),
    (GRAPH, 'stat_subscriber_count_graph_handle', [GRAPH_DICT]),
    (NODE_LIST, 'stat_list_duration_handle', NODE_LIST_WANT),
    (NODE_LIST, 'stat_subscriber_count_list_handle', NODE_LIST_WANT),
    (NODE_LIST, 'stat_subitem_count_list_handle', NODE_LIST_WANT),
    (NODE_LIST, 'stat_names_list_handle', NODE_LIST_WANT),
]

Z = b'Z' + u32(4)


class Recorder(object):
    def __init__(self, fail_on=None):
        self.got, self.fail_on = [], fail_on

    def __getattr__(self, name):
        if name not in ('row_desc_cb', 'row_data_cb', 'notice_cb', 'complete_cb', 'end_cb'):
            raise AttributeError(name)  # bytes_cb is left out: its frames are skipped

        def cb(*args):
            self.got.append((name,) + args)
            if name == self.fail_on:
                raise ValueError(name)
        return cb


def row_stream():
    desc = (u16(5) + b'b\0' + u16(0) + u16(0) + b'i\0' + u16(8) + u16(0) + b'd\0' + u16(10) +
            u16(3) + b's\0' + u16(11) + u16(0) + b'n\0' + u16(5) + u16(0))
    row = (u8(0) + u8(1) + u8(0) + struct.pack('>q', -5) + u8(0) + struct.pack('>d', 2.5) +
           u8(0) + u32(2) + b'hi' + u8(1))
    notice = b'hello\0'
    return (b'T' + u32(4 + len(desc)) + desc + b'D' + u32(4 + len(row)) + row + b'B' + u32(6) +
            b'xy' + b'Q' + u32(4 + len(notice)) + notice + b'C' + u32(4) + Z)


ROWS_WANT = [
    ('row_desc_cb', [('b', 0, 0), ('i', 8, 0), ('d', 10, 3), ('s', 11, 0), ('n', 5, 0)]),
    ('row_data_cb', [True, -5, 2.5, b'hi', None]),
    ('notice_cb', 'hello'), ('complete_cb',), ('end_cb',)]


class StatBindingTest(unittest.TestCase):
    def setUp(self):
        self.peer = ScriptedPeer()
        self.s = self.peer.handle.session_new_handle(
            self.peer.reply(frame(REPLY_DATA, u32(0) + u32(1) + u32(42))))

    def tearDown(self):
        self.peer.close()

    def test_requests_on_the_wire(self):
        for cid, (call, code, body) in enumerate(REQUESTS, 1):
            self.assertEqual(call(self.s), cid)
            want = frame(code, u32(42) + u32(cid) + body)
            self.assertEqual(self.peer.received(len(want)), want, hex(code))
        self.assertRaises(OverflowError, self.s.stat_list, 'a', 'b', 'c', 0, 2 ** 64)

    def test_list_classes(self):
        for body, method, want in LISTS:
            l = getattr(self.s, method)(self.peer.reply(data(body)), None)
            self.assertEqual(l.convert(None), want, method)

    def test_lists_continue_across_replies(self):
        l = self.s.stat_list_handle(self.peer.reply(data(LIST_HEAD + node(b'a'))))
        self.assertIs(self.s.stat_list_handle(self.peer.reply(data(LIST_HEAD + node(b'b'))), l), l)
        self.assertEqual([n['name'] for n in l.convert(0)], ['a', 'b'])
        head = u32(2) + GRAPH[4:-len(POINT)]
        g = self.s.stat_graph_handle(self.peer.reply(data(head + POINT)), None)
        self.s.stat_graph_handle(self.peer.reply(data(POINT)), l=g)
        self.assertEqual(g.convert(0)[0]['received'], 2)
        self.assertEqual(self.s.stat_is_expandable_handle(self.peer.reply(data(u16(2)))), 1)
        self.assertEqual(self.s.stat_subscriber_count_handle(self.peer.reply(data(u64(7)))), 7)
        self.assertEqual(self.s.stat_date_list_handle(self.peer.reply(data(string(b'd1')))), ['d1'])

    def test_query_stream(self):
        cid = self.s.stat_query('select 1')
        want = frame(0x19A21, u32(42) + u32(cid) + b'Q' + u32(13) + b'select 1\0')
        self.assertEqual(self.peer.received(len(want)), want)
        stream, rec = row_stream(), Recorder()
        st = self.s.stat_query_handle_msg(None, self.peer.reply(data(stream[:9], cid)), rec)
        self.assertEqual((rec.got, st.done, st.cid), ([], False, cid))  # the 'T' is not whole
        self.assertIs(self.s.stat_query_handle_msg(
            None, self.peer.reply(data(stream[9:], cid)), rec), st)
        self.assertEqual(rec.got, ROWS_WANT)
        self.assertTrue(st.done)
        self.assertRaises(KeyError, self.s.stat_query_handle_msg, None,
                          self.peer.reply(data(Z, cid)), rec)  # forgotten

    def test_callback_error_propagates(self):
        cid = self.s.stat_query('q')
        rec = Recorder(fail_on='row_desc_cb')
        self.assertRaises(ValueError, self.s.stat_query_handle_msg, None,
                          self.peer.reply(data(row_stream(), cid)), rec)
        self.assertEqual([g[0] for g in rec.got], ['row_desc_cb'])  # nothing after the error
        self.assertRaises(KeyError, self.s.stat_query_handle_msg, None,
                          self.peer.reply(data(Z, cid)), rec)
