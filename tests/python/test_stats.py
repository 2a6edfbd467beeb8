"""The statistics reader end to end against tqdbsim: every stat_* request of
Session checked against the same store read through stat_query and its
views; a stream over many replies, refused queries, the row limit and
invalidation."""
import sys

import TQDBv17_1 as T

from simhelper import Admin, SimTest

DATA, OK, ERROR = T.MSG_TYPE_DATA, T.MSG_TYPE_OK, T.MSG_TYPE_ERROR
NETOBJ, HOST, LINK = (T.STATISTICS_VALUETYPE_NETOBJECT, T.STATISTICS_VALUETYPE_HOST,
                      T.STATISTICS_VALUETYPE_LINK)
IN, OUT, TOTAL = (T.STATISTICS_TOTALFIELD_BYTES_IN, T.STATISTICS_TOTALFIELD_BYTES_OUT,
                  T.STATISTICS_TOTALFIELD_BYTES_TOTAL)
DAYS = ('2026-01-02', '2026-01-03')
HOST1 = 'NetObject-1/10.1.0.1'


def text(v):
    return v.decode('utf-8') if sys.version_info[0] > 2 and isinstance(v, bytes) else v


def bits(mask):
    return [b for b in range(64) if mask >> b & 1]


class Stream(object):
    """The callbacks of one query: rows, notices and the frames seen."""

    def __init__(self):
        self.rows, self.notices, self.frames = [], [], ''

    def row_desc_cb(self, cols):
        self.frames += 'T'

    def row_data_cb(self, row):
        self.rows.append([text(v) for v in row])

    def notice_cb(self, t):
        self.notices.append(t)

    def complete_cb(self):
        self.frames += 'C'

    def end_cb(self):
        self.frames += 'Z'


class Operator(Admin):
    def query(self, sql):
        """(stream, the reply that ended the answer, the number of DATA replies)."""
        st, msgs = Stream(), self.c.answer(self.s.stat_query(sql))
        for m in msgs[:-1]:
            self.s.stat_query_handle_msg(None, m, st)
        return st, msgs[-1], len(msgs) - 1

    def sql(self, sql):
        st, end, _ = self.query(sql)
        assert end.get_type() == OK and st.frames == 'TCZ', (sql, end.get_error(), st.frames)
        return st.rows

    def sums(self, where, mask, days=DAYS):
        """{name: [date-range sum of each selected field in bit order]} of stat_nodes rows."""
        rows = self.sql("SELECT n.name, t.bit, sum(t.value) FROM stat_nodes n JOIN stat_totals t"
                        " ON t.path = n.path WHERE %s AND t.bit IN (%s) AND t.date BETWEEN '%s'"
                        " AND '%s' GROUP BY n.path, t.bit ORDER BY t.bit"
                        % (where, ','.join(map(str, bits(mask))), days[0], days[1]))
        out = {}
        for name, _, total in rows:
            out.setdefault(name, []).append(total)
        return out

    def nodes(self, where, col='name'):
        return [r[0] for r in self.sql('SELECT %s FROM stat_nodes WHERE %s' % (col, where))]

    def single(self, name, *args):
        return getattr(self.s, name + '_handle')(self.c.call(getattr(self.s, name)(*args), DATA))


class StatsTest(SimTest):
    sim_args = ('--max-reply-bytes', '300')

    def setUp(self):
        self.op = Operator(self.sim)

    def test_lists_agree_with_the_views(self):
        op = self.op
        mask = IN | TOTAL
        root_nets = "n.parent = '' AND n.type = %d" % NETOBJ
        sums = op.sums(root_nets, mask)
        nets = op.listing('stat_list', DAYS[0], DAYS[1], '/', NETOBJ, mask)
        self.assertEqual([n['name'] for n in nets], op.nodes("parent = '' AND type = %d" % NETOBJ))
        self.assertEqual(dict((n['name'], n['values']) for n in nets), sums)
        self.assertEqual(op.single('stat_transfer_get', DAYS[0], DAYS[1], 'NetObject-1', NETOBJ,
                                   mask)[0]['values'], sums['NetObject-1'])
        for n in nets:
            self.assertEqual(n['flags'] & (T.STATISTICS_FLAG_VALID | T.STATISTICS_FLAG_EXPANDABLE),
                             3)
        # Top list: by the first selected field, then offset, then max.
        for top_max, offset in [(0, 0), (2, 1), (4, 11), (3, 12)]:
            want = op.sql("SELECT n.name FROM stat_nodes n JOIN stat_totals t ON t.path = n.path"
                          " WHERE n.parent = '' AND t.bit = 1 AND t.date BETWEEN '%s' AND '%s'"
                          " GROUP BY n.path ORDER BY sum(t.value) DESC LIMIT %d OFFSET %d"
                          % (DAYS + (top_max or -1, offset)))
            got = op.listing('stat_top_list', DAYS[0], DAYS[1], '', top_max, 0, OUT | TOTAL, offset)
            self.assertEqual([n['name'] for n in got], [r[0] for r in want], (top_max, offset))

    def test_search_and_names(self):
        op = self.op
        found = lambda depth, top=0: [n['name'] for n in op.listing(
            'stat_list_search', '', '', '', 0, top, 'hTTp', depth, TOTAL)]
        every = op.nodes("name LIKE '%http%'")
        self.assertEqual(sorted(found(0)), sorted(every))
        self.assertEqual(found(1), op.nodes("parent = '' AND name LIKE '%http%'"))
        self.assertEqual(found(0, 3), found(0)[:3])
        names = op.listing('stat_names_list', '', '', 'NetObject-2', 0, '10.2.0')
        self.assertEqual([n['name'] for n in names], op.nodes("parent = 'NetObject-2' AND "
                                                              "name LIKE '%10.2.0%'"))
        self.assertEqual(set(len(n['values']) for n in names), set([0]))

    def test_counts_and_flags(self):
        op = self.op
        under = "parent = 'NetObject-1'"
        cases = [  # (request, path, value of each node, stat_nodes column, rows)
            ('stat_subitem_count_list', 'NetObject-1', 'subitems', under),
            ('stat_subscriber_count_list', 'NetObject-1', 'subscribers', under),
            ('stat_subitem_count', 'NetObject-1', 'subitems', "path = 'NetObject-1'"),
        ]
        for name, path, col, where in cases:
            got = (op.listing if name.endswith('list') else op.single)(name, '', '', path, 0)
            self.assertEqual([n['values'] for n in got], [[v] for v in op.nodes(where, col)], name)
        subs = op.nodes("path = '%s'" % HOST1, 'subscribers')[0]
        self.assertEqual(op.single('stat_subscriber_count', '', '', HOST1, HOST), subs)
        with_subs = op.listing('stat_list_subscribers', '', '', 'NetObject-1', 0, 0, IN)
        self.assertEqual([n['name'] for n in with_subs], op.nodes(under + ' AND subscribers > 0'))
        for path, expandable in [('NetObject-1', 1), (HOST1 + '/' + op.nodes(
                "parent = '%s'" % HOST1)[0], 0)]:
            self.assertEqual(op.single('stat_is_expandable', '', '', path, 0), expandable, path)
        writer = op.single('stat_writer_status')[0]
        self.assertEqual(writer['values'][1:], [op.sql('SELECT count(*) FROM stat_nodes')[0][0],
                                                op.sql('SELECT count(*) FROM stat_dates')[0][0]])
        busy = op.sql("SELECT n.name, count(*) * 86400 FROM stat_nodes n JOIN stat_totals t"
                      " ON t.path = n.path WHERE n.%s AND t.bit = 10 AND t.value > 0 AND t.date"
                      " BETWEEN '%s' AND '%s' GROUP BY n.path" % ((under,) + DAYS))
        got = op.listing('stat_list_duration', DAYS[0], DAYS[1], 'NetObject-1', 0, False)
        self.assertEqual(sorted([n['name'], n['values'][0]] for n in got), sorted(busy))

    def test_dates_fields_and_graphs(self):
        op = self.op
        dates = op.single('stat_date_list')
        self.assertEqual(dates, [r[0] for r in op.sql('SELECT date FROM stat_dates')])
        self.assertEqual((dates[0], len(dates)), ('2026-01-01', 7))
        fields = op.single('stat_list_fields')
        self.assertEqual((fields['count_a'], fields['count_b']), (34, 36))
        self.assertEqual([[f['id'], f['kind'], f['subkind'], f['name']] for f in fields['fields']],
                         op.sql('SELECT id, kind, subkind, name FROM stat_fields'))
        util = T.STATISTICS_GRAPHFIELD_LINK_UTILIZATION_IN
        g = op.listing('stat_graph', '', '', 'Link-1', LINK, 5, T.STATISTICS_GRAPH_MODE_SPEED,
                       T.STATISTICS_GRAPHFIELD_BPS_IN | util, False)[0]
        want = op.sql("SELECT time, value FROM stat_graph WHERE path = 'Link-1' AND bit IN (0, 24)"
                      " ORDER BY time DESC, bit LIMIT 10")[::-1]
        self.assertEqual((g['total_points'], g['received'], g['g1']), (5, 5, 2))
        self.assertEqual([[p['time'], p['opt1'], p['time'], p['values'][0]] for p in g['points']],
                         [want[i] + want[i + 1] for i in range(0, 10, 2)])
        subs = op.nodes("path = '%s'" % HOST1, 'subscribers')[0]
        g = op.listing('stat_subscriber_count_graph', '', '', HOST1, HOST, 4)[0]
        self.assertEqual([p['values'] for p in g['points']], [[subs]] * 4)

    def test_query_stream_and_refusals(self):
        op = self.op
        st, end, replies = op.query('SELECT * FROM stat_totals')
        self.assertEqual((end.get_type(), st.frames), (OK, 'TCZ'))
        self.assertEqual(len(st.rows), op.sql('SELECT count(*) FROM stat_totals')[0][0])
        self.assertGreater(replies, 100)
        for sql, why in [('SELECT * FROM nope', 'no such table: nope'),
                         ('DELETE FROM dates_t', 'not authorized'),
                         ('SELECT 1; SELECT 2', 'A query is one statement')]:
            st, end, replies = op.query(sql)
            self.assertEqual((end.get_type(), end.get_error(), replies), (ERROR, why, 0), sql)


class LimitsTest(SimTest):
    sim_args = ('--query-max-rows', '5')

    def setUp(self):
        self.op = Operator(self.sim)

    def test_row_limit_notice(self):
        st, end, _ = self.op.query('SELECT path FROM stat_nodes')
        self.assertEqual((len(st.rows), st.frames, end.get_type()), (5, 'TCZ', OK))
        self.assertEqual(st.notices, ['Query stopped: row limit of 5 rows reached'])

    def test_invalidate_needs_a_transaction(self):
        op, c, s = self.op, self.op.c, self.op.s
        refused = c.call(s.stat_data_invalidate('', '', 'NetObject-2', 0, False), ERROR)
        self.assertIn('resource 5', refused.get_error())
        op.begin(T.RESOURCE_STATREADER)
        c.call(s.stat_data_invalidate('', '', 'NetObject-2', 0, False), OK)
        got = op.single('stat_transfer_get', '', '', 'NetObject-2', 0, IN | OUT)
        self.assertEqual(got[0]['values'], [0, 0])
        kept = op.single('stat_transfer_get', '', '', 'NetObject-3', 0, IN)
        self.assertNotEqual(kept[0]['values'], [0])
        c.call(s.stat_graph_invalidate('', '', 'NetObject-2', 0, True), OK)
        gone = c.call(s.stat_transfer_get('', '', 'NetObject-2', 0, IN), ERROR)
        self.assertEqual(gone.get_error(), "No statistics node at 'NetObject-2'")
        self.assertEqual(op.nodes("path LIKE 'NetObject-2%'"), [])
