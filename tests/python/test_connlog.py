"""The connection log end to end against tqdbsim: every search agrees with
the whole log filtered here, over answers cut into many replies."""
import time

import TQDBv17_1 as T

from simhelper import Client, SimTest

ORDER = ['starttime', 'endtime', 'server', 'serverport', 'client', 'clientport', 'service',
         'serverhostname', 'protocol', 'netobject', 'natclient', 'natclientport', 'natserver',
         'natserverport']  # the conditions, in filter order


def matches(entry, key, value):
    if key == 'starttime':
        return entry['start'] >= value
    if key == 'endtime':
        return entry['start'] <= value
    if key == 'serverhostname':
        return value.lower() in entry['serverhostname'].lower()
    return entry[key] == value


def day_of(t):
    return time.strftime('%Y-%m-%d', time.gmtime(t))


class ConnlogTest(SimTest):
    sim_args = ('--connlog-entries', '300', '--stats-seed', '5', '--max-reply-bytes', '700')

    @classmethod
    def setUpClass(cls):
        super(ConnlogTest, cls).setUpClass()
        cls.c = Client(cls.sim.host, cls.sim.port)
        cls.c.login()
        cls.s = cls.c.session()
        cls.all = cls.search()

    @classmethod
    def search(cls, **f):
        msgs = cls.c.answer(cls.s.connlog_search(**f))
        assert msgs[-1].get_type() == T.MSG_TYPE_OK, msgs[-1].get_error()
        assert len(msgs) > 2 or f, 'one answer in several replies'
        l = None
        for m in msgs[:-1]:
            l = cls.s.connlog_search_handle(m, l)
        return l.convert(None)

    def test_whole_log(self):
        r, entries = self.all, self.all['entries']
        self.assertEqual((r['total'], r['returned'], r['complete']), (300, 300, True))
        self.assertEqual(r['error'], 'No error')
        self.assertEqual([e['start'] for e in entries], sorted(e['start'] for e in entries))
        self.assertEqual(set(len(e['server'].split('.')) for e in entries), set([1, 4]))
        nat = [e for e in entries if e['natclient'] != '0.0.0.0']
        self.assertTrue(nat and all(e['natserver'] == e['server'] for e in nat))
        self.assertTrue(all(e['service'] and e['vnos'] for e in entries))

    def test_filters_agree_with_the_log(self):
        e, v6 = self.all['entries'][10], [x for x in self.all['entries'] if ':' in x['server']][0]
        mid = e['start']
        for f in [dict(server=e['server']), dict(server=v6['server']), dict(serverport=53),
                  dict(client=e['client'], clientport=e['clientport']),
                  dict(starttime=mid, endtime=mid + 86400), dict(protocol=17),
                  dict(service='DNS'), dict(serverhostname='EXAMPLE.org'), dict(netobject=2),
                  dict(natclient='192.0.2.1'), dict(natserver=e['server'], natserverport=443),
                  dict(protocol=6, starttime=mid, client=v6['client'])]:
            want = [x for x in self.all['entries'] if all(matches(x, k, v) for k, v in f.items())]
            got = self.search(**f)
            self.assertEqual(got['entries'], want, f)
            self.assertEqual(got['total'], len(want), f)
            counts = [len([x for x in self.all['entries'] if matches(x, k, f[k])])
                      for k in ORDER if k in f]
            self.assertEqual(got['matches'], counts, f)

    def test_max_hits_and_offset(self):
        got = self.search(max_hits=7, offset=5)
        self.assertEqual(got['entries'], self.all['entries'][5:12])
        self.assertEqual((got['total'], got['returned'], got['complete']), (300, 7, False))
        self.assertEqual(self.search(offset=299)['entries'], self.all['entries'][299:])
        self.assertEqual(self.search(offset=300)['entries'], [])

    def test_servicelist(self):
        day = day_of(self.all['entries'][0]['start'])
        want = sorted(set(e['service'] for e in self.all['entries'] if day_of(e['start']) == day))
        got = self.c.listing(self.s.connlog_servicelist(day), self.s.connlog_servicelist_handle)
        self.assertEqual(got, want)
        self.assertEqual(self.c.listing(self.s.connlog_servicelist('1999-01-01'),
                                        self.s.connlog_servicelist_handle), [])

    def test_refusals(self):
        m = self.c.call(self.s.connlog_search(client='10.1.0.300'), T.MSG_TYPE_ERROR)
        self.assertEqual(m.get_error(), "Bad address '10.1.0.300' for client")
        self.assertRaises(TypeError, self.s.connlog_search, hostname='x')
