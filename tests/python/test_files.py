"""The file service and backups end to end against tqdbsim: uploads of
several data messages read back byte for byte, names refused, an upload cut
off by its connection, and a backup's whole life."""
import io
import os
import socket
import tempfile

import TQDBv17_1 as T

from simhelper import Admin, SimTest

DATA, OK, ERROR = T.MSG_TYPE_DATA, T.MSG_TYPE_OK, T.MSG_TYPE_ERROR
AREA = T.FILESERV_ID_HOSTTRIGGER  # written and downloaded


class Operator(Admin):
    def push(self, up, handle, cont):
        """Drives an upload to its end; the data and finish requests' ids."""
        assert up.cid != 0, 'not queued'
        assert handle(self.c.call(up.cid, DATA), up) == 1
        sent = []
        cid = cont(up)
        while cid:
            sent.append(cid)
            cid = cont(up)
        assert (up.state, up.failed) == (4, 0), (up.state, up.failed)
        for cid in sent:
            self.c.call(cid, OK)
        return sent

    def fetch(self, cid, handle):
        """(insize, contents) of a download answered over several replies."""
        out, insize = io.BytesIO(), 0
        msgs = self.c.answer(cid)
        if msgs[-1].get_type() != OK:
            return None, msgs[-1].get_error()
        for m in msgs[:-1]:
            result, insize = handle(m, out, insize)
            assert result == 1
        return insize, out.getvalue()

    def files(self, area=AREA):
        return dict((f['name'], f) for f in self.listing('fileserv_list', area))

    def backups(self):
        return dict((b['path'], b) for b in self.listing('backup_list'))

    def add_object(self, name):
        self.begin(T.RESOURCE_RULESET)
        self.call(self.s.object_add(T.OBJECT_TYPE_NETOBJECT, name, 0), DATA)
        self.commit(name)


class FilesTest(SimTest):
    sim_args = ('--max-reply-bytes', '300')

    def test_upload_download_and_remove(self):
        op = Operator(self.sim)
        types = op.listing('fileserv_types')
        self.assertEqual([(t['id'], sorted(t)) for t in types],
                         [(i, ['flags', 'id', 'name']) for i in range(11)])
        body = os.urandom(70000)  # three data messages
        up = op.s.fileserve_upload(AREA, 'round.bin', io.BytesIO(body))
        self.assertEqual((up.target_type, up.target_name, up.state), (AREA, 'round.bin', 1))
        self.assertEqual(len(op.push(up, op.s.fileserve_upload_handle_data,
                                     op.s.fileserve_upload_continue)), 4)
        self.assertNotEqual(up.transfer_id, 0)
        self.assertEqual(op.files()['round.bin']['size'], 70000)
        self.assertEqual(op.fetch(op.s.fileserv_download(AREA, 'round.bin'),
                                  op.s.fileserv_download_handle), (70000, body))
        # From a path, which the upload object opens and closes itself.
        fd, path = tempfile.mkstemp()
        os.write(fd, b'small')
        os.close(fd)
        try:
            up = op.s.fileserve_upload(AREA, 'small.txt', path)
            op.push(up, op.s.fileserve_upload_handle_data, op.s.fileserve_upload_continue)
            del up
        finally:
            os.remove(path)
        self.assertEqual(op.fetch(op.s.fileserv_download(AREA, 'small.txt'),
                                  op.s.fileserv_download_handle), (5, b'small'))
        op.call(op.s.fileserve_remove(AREA, 'round.bin'))
        self.assertNotIn('round.bin', op.files())
        self.assertIn('No file', op.fetch(op.s.fileserv_download(AREA, 'round.bin'),
                                          op.s.fileserv_download_handle)[1])

    def test_bad_names_and_areas_refused(self):
        op = Operator(self.sim)
        for area, name in ((AREA, '../evil'), (AREA, ''), (T.FILESERV_ID_SNMP_MIB, 'x.mib')):
            up = op.s.fileserve_upload(area, name, io.BytesIO(b'x'))
            self.assertEqual(op.s.fileserve_upload_handle_data(op.c.call(up.cid, ERROR), up), 0)
            self.assertEqual((up.failed, op.s.fileserve_upload_continue(up)), (1, 0))
        self.assertEqual(op.files(), {})

    def test_interrupted_upload_leaves_nothing(self):
        a, b = Operator(self.sim), Operator(self.sim)
        up = a.s.fileserve_upload(AREA, 'cut.bin', io.BytesIO(os.urandom(70000)))
        a.s.fileserve_upload_handle_data(a.c.call(up.cid, DATA), up)
        a.call(a.s.fileserve_upload_continue(up))
        self.assertEqual(up.state, 2)
        s = socket.fromfd(a.c.vindel.fileno(), socket.AF_INET, socket.SOCK_STREAM)
        s.shutdown(socket.SHUT_RDWR)
        s.close()
        self.assertNotIn('cut.bin', b.files())
        up = b.s.fileserve_upload(AREA, 'cut.bin', io.BytesIO(b'whole'))
        b.push(up, b.s.fileserve_upload_handle_data, b.s.fileserve_upload_continue)
        self.assertEqual(b.files()['cut.bin']['size'], 5)


class BackupsTest(SimTest):
    sim_args = ('--max-reply-bytes', '300')

    def test_dump_list_download_upload_restore_remove(self):
        a = Operator(self.sim)
        a.add_object('kept')
        name = a.s.backup_dump_handle(a.c.call(a.s.backup_dump('bk1', 0), DATA))
        self.assertEqual(name, 'bk1')
        listed = a.backups()['bk1']
        self.assertEqual(sorted(listed), ['cdate', 'path', 'size'])
        size, archive = a.fetch(a.s.backup_download('bk1'), a.s.backup_download_handle)
        self.assertEqual((size, len(archive)), (listed['size'], listed['size']))
        up = a.s.backup_upload('bk1-copy', io.BytesIO(archive))
        a.push(up, a.s.backup_upload_handle, a.s.backup_upload_continue)
        self.assertEqual(a.backups()['bk1-copy']['size'], listed['size'])

        a.add_object('later')
        b = Operator(self.sim)
        a.call(a.s.backup_restore('bk1-copy', T.RESOURCE_RULESET))
        b.c.wait_type(T.MSG_TYPE_BCAST_COMMIT)
        objects = b.listing('object_list', T.OBJECT_TYPE_NETOBJECT)
        self.assertEqual([o['name'] for o in objects], ['kept'])
        for n in ('bk1', 'bk1-copy'):
            a.call(a.s.backup_remove(n))
        self.assertEqual(a.backups(), {})
        m = a.c.reply(a.s.backup_download('bk1'))
        self.assertEqual(a.s.backup_download_handle(m, io.BytesIO(), 0), (0, 0))
