#!/usr/bin/env python
"""A traffic report from the statistics reader (Python 2.7 and 3).

    python stats_report.py HOST PORT [USER PASSWORD]

Prints the dates on record, the ten hosts that moved the most bytes on the
last of those days (the top list of every net object, merged), the last
hour of the first link's traffic as a text bar chart, and finally the
link's daily byte counts from a columnar query, streamed row by row to
standard output as CSV. Exits non-zero when the appliance refuses a step.
"""
from __future__ import print_function

import csv
import sys
import time

import TQDBv17_1 as tq
from quickstart import Refused, Script, open_session

BYTES_TOTAL = tq.STATISTICS_TOTALFIELD_BYTES_TOTAL
BAR_WIDTH = 40


class Stats(Script):
    """A session's statistics requests, with the query stream fed to callbacks."""

    def query(self, sql, callbacks):
        """Feeds every reply of the query's stream to the callbacks as it arrives."""
        cid = self.s.stat_query(sql)
        msg = self.ask(cid, 'stat_query')
        while msg.get_type() == tq.MSG_TYPE_DATA:
            self.s.stat_query_handle_msg(None, msg, callbacks)
            msg = self.ask(cid, 'stat_query')


class CsvOut(object):
    """Query callbacks that write the stream as CSV: a header, then each row."""

    def __init__(self, out):
        self.out = csv.writer(out)
        self.rows = 0

    def row_desc_cb(self, columns):
        self.out.writerow([name for name, _type, _extra in columns])

    def row_data_cb(self, values):
        self.out.writerow(['' if v is None else
                           v.decode('utf-8', 'replace') if isinstance(v, bytes) and str is not bytes
                           else v for v in values])
        self.rows += 1

    def notice_cb(self, text):
        print('# notice: %s' % text)


def top_hosts(st, day, count):
    """The count hosts with the most bytes on day, across every net object."""
    s = st.s
    nets = st.listing(s.stat_list(day, day, '', tq.STATISTICS_VALUETYPE_NETOBJECT, BYTES_TOTAL),
                      s.stat_list_handle, 'stat_list (net objects)')
    hosts = []
    for net in nets:
        top = st.listing(s.stat_top_list(day, day, net['name'], count,
                                         tq.STATISTICS_VALUETYPE_HOST, BYTES_TOTAL, 0),
                         s.stat_top_list_handle, 'stat_top_list %s' % net['name'])
        hosts.extend((h['values'][0], h['name'], net['name']) for h in top)
    return sorted(hosts, key=lambda h: -h[0])[:count]


def bar_chart(points):
    """One line per point: its time, a bar scaled to the largest value, the value."""
    top = max([p['values'][0] for p in points] + [1])
    for p in points:
        value = p['values'][0]
        print('  %s %-*s %d' % (time.strftime('%H:%M', time.gmtime(p['time'])), BAR_WIDTH,
                                '#' * int(round(value * float(BAR_WIDTH) / top)), value))


def main(argv):
    st = open_session(argv, __doc__, Stats)
    if st is None:
        return 2
    s = st.s

    dates = s.stat_date_list_handle(st.ask(s.stat_date_list(), 'stat_date_list'))
    if not dates:
        print('no statistics on record')
        return 0
    print('dates on record: %s to %s (%d days)' % (dates[0], dates[-1], len(dates)))

    day = dates[-1]
    print('\ntop 10 hosts by bytes on %s:' % day)
    for rank, (total, name, net) in enumerate(top_hosts(st, day, 10), 1):
        print('  %2d. %-12s %-14s %15d bytes' % (rank, name, net, total))

    links = st.listing(s.stat_list('', '', '', tq.STATISTICS_VALUETYPE_LINK, 0),
                       s.stat_list_handle, 'stat_list (links)')
    if not links:
        print('\nno links on record')
        return 0
    link = links[0]['name']
    graph = st.listing(s.stat_graph('', '', link, tq.STATISTICS_VALUETYPE_LINK, 12,
                                    tq.STATISTICS_GRAPH_MODE_SPEED,
                                    tq.STATISTICS_GRAPHFIELD_BPS_TOTAL, False),
                       s.stat_graph_handle, 'stat_graph %s' % link)
    points = graph[0]['points'] if graph else []
    print('\n%s, bits per second over the last %d points (UTC):' % (link, len(points)))
    bar_chart(points)

    print('\n%s, bytes per day (CSV on standard output):' % link)
    sys.stdout.flush()
    out = CsvOut(sys.stdout)
    st.query("SELECT date, field, value FROM stat_totals WHERE path = '%s' AND field IN "
             "('BYTES_IN', 'BYTES_OUT') ORDER BY date, bit" % link.replace("'", "''"), out)
    sys.stdout.flush()
    print('(%d rows)' % out.rows)
    return 0


if __name__ == '__main__':
    try:
        sys.exit(main(sys.argv))
    except (IOError, RuntimeError) as e:
        print('stats_report failed: %s' % e, file=sys.stderr)
        sys.exit(1)
