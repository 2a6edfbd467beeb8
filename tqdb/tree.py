"""Objects of one type as a tree addressed by path.

    tree = db.objects(tqdb.OBJECT_TYPE_NETOBJECT)
    acme = tree['/customers/acme']
    print(acme.id, acme.parent.path, [c.name for c in acme.children])
    if '/customers/acme/lab' in tree: ...
    for node in tree:            # every object, parents before children
        print(node.path)

The appliance links an object to its parent by id only; the tree puts the
names along that chain together into a path: "/" then the names from the
top-level object down, joined by "/". Names are unique among siblings, so a
path names one object.

Names may hold "/": in a path it is written "%2F", and "%" itself "%25"
(quote() and unquote() convert one name), so every object has a path and
every path splits one way. A path is looked up with or without its leading
"/"; an unknown path raises KeyError naming the path and the part of it
that was found.

An object whose parent is not in the list (or whose parents loop) has no
path: it is in tree.orphans, and in tree.by_id, not in iteration or lookup.
The tree is a snapshot of the list it was made from: it does not follow
later changes.
"""
from __future__ import absolute_import


def quote(name):
    """The name as one step of a path."""
    return name.replace('%', '%25').replace('/', '%2F')


def unquote(step):
    """The name one step of a path stands for."""
    return step.replace('%2F', '/').replace('%2f', '/').replace('%25', '%')


def split(path):
    """The names along path, top-level first."""
    return [unquote(s) for s in path.strip('/').split('/')] if path.strip('/') else []


class Node(object):
    """One object: .name, .id, .path (None for an orphan), .parent (a Node;
    None at the top level), .children (Nodes, in the list's order), .items
    (the record's items) and .record (the object's dict as listed)."""

    __slots__ = ('name', 'id', 'path', 'parent', 'children', 'record', '_by_name')

    def __init__(self, record):
        self.record = record
        self.name, self.id = record['name'], record['id']
        self.path = self.parent = None
        self.children = []
        self._by_name = {}

    @property
    def items(self):
        return self.record.get('items', [])

    def child(self, name):
        """The child named name (not quoted); KeyError when there is none."""
        return self._by_name[name]

    def walk(self):
        """This node and its descendants, parents before children."""
        stack = [self]
        while stack:
            node = stack.pop()
            yield node
            stack.extend(reversed(node.children))

    def __repr__(self):
        return '<Node %s id=%d>' % (self.path or repr(self.name), self.id)


class Tree(object):
    """The objects of one type by path; see the module."""

    def __init__(self, records, object_type=None):
        self.object_type = object_type
        self.by_id = dict((r['id'], Node(r)) for r in records)
        self.children, self._paths = [], {}
        kids = {}
        for node in self.by_id.values():
            kids.setdefault(node.record['parent'], []).append(node)
        for nodes in kids.values():
            nodes.sort(key=lambda n: n.id)
        todo = self._adopt(None, kids.get(0, []))
        while todo:
            node = todo.pop()
            todo.extend(self._adopt(node, kids.get(node.id, [])))
        self.orphans = sorted((n for n in self.by_id.values() if n.path is None),
                              key=lambda n: n.id)

    def _adopt(self, parent, nodes):
        """Hangs nodes under parent (None: the top level); returns them."""
        base = parent.path if parent else ''
        for node in nodes:
            node.parent, node.path = parent, base + '/' + quote(node.name)
            self._paths.setdefault(node.path, node)
            if parent:
                parent._by_name.setdefault(node.name, node)
        (parent.children if parent else self.children).extend(nodes)
        return list(nodes)

    def __getitem__(self, path):
        node = self._paths.get('/' + path.strip('/'))
        if node is not None:
            return node
        names, found = split(path), ''
        for name in names:
            step = found + '/' + quote(name)
            if step not in self._paths:
                break
            found = step
        raise KeyError('no object at %r: %s' % (
            path, 'no %r under %r' % (name, found or '/') if names else 'the path is empty'))

    def get(self, path, default=None):
        try:
            return self[path]
        except KeyError:
            return default

    def __contains__(self, path):
        return ('/' + path.strip('/')) in self._paths

    def __iter__(self):
        for top in self.children:
            for node in top.walk():
                yield node

    def __len__(self):
        return len(self.by_id) - len(self.orphans)

    def paths(self):
        """Every path, parents before children."""
        return [node.path for node in self]
