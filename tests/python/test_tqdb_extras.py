"""tqdb's transfers, query stream and object tree against the simulator (Python 2.7 and 3)."""
import io
import os
import shutil
import tempfile

import tqdb
from tqdb.tree import Tree
from test_tqdb import SimCase

AREA = tqdb.FILESERV_ID_HOSTTRIGGER
BUDGET = 31768  # content bytes of a full upload data message
COUNT = 'WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT x FROM c'


class TransferTest(SimCase):
    sim_args = ('--max-file-bytes', '150000')

    def setUp(self):
        SimCase.setUp(self)
        self.dir = tempfile.mkdtemp()
        self.db = self.connect()

    def tearDown(self):
        shutil.rmtree(self.dir)
        SimCase.tearDown(self)

    def test_file_round_trip_by_path_with_progress(self):
        data = os.urandom(100 * 1024)
        src, dst = os.path.join(self.dir, 'up'), os.path.join(self.dir, 'down')
        with open(src, 'wb') as f:
            f.write(data)
        for move, args in ((self.db.upload, (src, 'f')), (self.db.download, ('f', dst))):
            calls = []
            self.assertEqual(move(AREA, *args, progress=lambda *a: calls.append(a)), len(data))
            done = [d for d, _ in calls]
            self.assertEqual(done, sorted(set(done)))
            self.assertEqual(calls[-1], (len(data), len(data)))
            self.assertEqual(set(t for _, t in calls), set([len(data)]))
        with open(dst, 'rb') as f:
            self.assertEqual(f.read(), data)
        self.assertEqual(sorted(os.listdir(self.dir)), ['down', 'up'])  # no temporary file left

    def test_sizes_at_message_boundaries(self):
        for size in (0, 1, BUDGET - 1, 2 * BUDGET, 2 * BUDGET + 1):
            data = os.urandom(size)
            self.assertEqual(self.db.upload(AREA, io.BytesIO(data), 's'), size)
            out = io.BytesIO()
            self.assertEqual(self.db.download(AREA, 's', out), size)
            self.assertEqual(out.getvalue(), data, size)

    def test_refusals(self):
        dst = os.path.join(self.dir, 'kept')
        with open(dst, 'wb') as f:
            f.write(b'old')
        for call, text in [
                (lambda: self.db.upload(AREA, io.BytesIO(b'x'), 'a/b'), "cannot hold '/'"),
                (lambda: self.db.download(AREA, 'nope', dst), "No file 'nope'"),
                (lambda: self.db.upload(AREA, io.BytesIO(b'x' * 300000), 'big'),
                 'passes the largest file size of 150000 bytes')]:
            with self.assertRaises(tqdb.ServerError) as cm:
                call()
            self.assertIn(text, cm.exception.text)
        self.assertEqual(os.listdir(self.dir), ['kept'])
        with open(dst, 'rb') as f:
            self.assertEqual(f.read(), b'old')
        self.assertEqual(self.db.ping('still'), 'still')
        self.assertEqual([f['name'] for f in self.db.fileserv_list(AREA)], [])

    def test_backup_round_trip(self):
        data = os.urandom(70000)
        self.assertEqual(self.db.backup_upload(io.BytesIO(data), 'b1'), len(data))
        self.assertEqual([(b['path'], b['size']) for b in self.db.backup_list()],
                         [('b1', len(data))])
        out = io.BytesIO()
        self.assertEqual(self.db.backup_download('b1', out), len(data))
        self.assertEqual(out.getvalue(), data)


class QueryTest(SimCase):
    sim_args = ('--query-max-rows', '3000', '--max-reply-bytes', '1024')

    def test_rows_stream_over_many_replies(self):
        db = self.connect()
        rows = db.query(COUNT)
        n = most = 0
        for row in rows:
            n += 1
            self.assertEqual(row, {'x': n})
            most = max(most, len(rows._rows))
            if n == 1:
                self.assertEqual(db.ping('between'), 'between')
        self.assertEqual(n, 3000)
        self.assertLess(most, 1000)
        self.assertEqual(rows.columns, [('x', 8)])  # signed 64-bit
        self.assertEqual(rows.notices, ['Query stopped: row limit of 3000 rows reached'])
        self.assertTrue(rows.complete and rows.done)

    def test_refused_and_closed_queries(self):
        db = self.connect()
        with self.assertRaises(tqdb.ServerError):
            next(db.query('DELETE FROM stat_dates'))
        with db.query(COUNT) as rows:
            self.assertEqual(next(rows), {'x': 1})
        self.assertEqual(list(rows), [])
        self.assertEqual(db.ping('after'), 'after')
        while not rows.done:
            db.pump(0.1)
        self.assertEqual(db.unmatched, 0)


class TreeTest(SimCase):
    def test_objects_by_path(self):
        db = self.connect()
        with db.transaction(tqdb.RESOURCE_RULESET, 'tree'):
            top, _ = db.object_add(tqdb.OBJECT_TYPE_NETOBJECT, 'customers', 0)
            acme, _ = db.object_add(tqdb.OBJECT_TYPE_NETOBJECT, 'acme', top)
            for name, parent in (('lab', acme), ('a/b%', top), ('other', 0)):
                db.object_add(tqdb.OBJECT_TYPE_NETOBJECT, name, parent)
        tree = db.objects(tqdb.OBJECT_TYPE_NETOBJECT)
        node = tree['/customers/acme']
        self.assertEqual((node.id, node.name, node.parent.path, node.record['parent']),
                         (acme, 'acme', '/customers', top))
        self.assertEqual([c.path for c in node.children], ['/customers/acme/lab'])
        self.assertIs(tree['customers/acme/lab'].parent, node)
        self.assertEqual([n.path for n in tree], ['/customers', '/customers/acme',
                                                  '/customers/acme/lab', '/customers/a%2Fb%25',
                                                  '/other'])
        self.assertIn('/customers/a%2Fb%25', tree)
        self.assertNotIn('/customers/a/b%', tree)
        with self.assertRaises(KeyError) as cm:
            tree['/customers/zz/lab']
        self.assertIn("'/customers/zz/lab': no 'zz' under '/customers'", str(cm.exception))

    def test_orphans_and_loops_have_no_path(self):
        recs = [dict(id=i, name='n%d' % i, parent=p) for i, p in
                [(1, 0), (2, 1), (3, 9), (4, 5), (5, 4), (6, 6)]]
        tree = Tree(recs)
        self.assertEqual(tree.paths(), ['/n1', '/n1/n2'])
        self.assertEqual([n.id for n in tree.orphans], [3, 4, 5, 6])
        self.assertEqual(len(tree), 2)
