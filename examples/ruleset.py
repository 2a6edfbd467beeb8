#!/usr/bin/env python
"""Builds a small ruleset and lists it back (Python 2.7 and 3).

    python ruleset.py HOST PORT [USER PASSWORD]

In one transaction on the ruleset: the net objects "lan" (10.0.0.0/8), its
child "servers" and "lan6" (2001:db8::/32), the port object "web" (a port
range and a port), the shaping object "lan-limit" with inbound and outbound
limits, the rule condition "lan to web" (client in lan, server port in web),
a shaping rule bound to lan-limit and a firewall rule accepting the
condition's traffic. Then commits, lists everything back and prints it as a
tree. When the appliance refuses a step the transaction is rolled back, the
refusal is printed and the exit status is 1.

When the names are taken already (a second run against the same appliance),
the new records get a suffix such as "-2".
"""
from __future__ import print_function

import sys

import TQDBv17_1 as tq
from quickstart import Refused, Script, open_session

NET, PORT = tq.OBJECT_TYPE_NETOBJECT, tq.OBJECT_TYPE_PORTOBJECT
AUDIT_KEYS = ('id', 'creator', 'creation_date', 'modified_by', 'modification_date')


def constant_names(prefix):
    """{value: name} of the module constants that start with prefix."""
    return dict((getattr(tq, n), n[len(prefix):]) for n in dir(tq) if n.startswith(prefix))


NET_ITEM_TYPES = constant_names('NETOBJECT_ITEM_TYPE_')
CONDITION_TYPES = constant_names('RULESET_CONDITION_TYPE_')
OPERATORS = constant_names('RULECONDITION_')
ACTIONS = constant_names('FWRULE_ACTION_')


class Ruleset(Script):
    """A session's ruleset requests: adds that must give an id, objects with items."""

    def added(self, cid, decode, what):
        """The new id of an add request."""
        new_id, _stamp = decode(self.ask(cid, what))
        if not new_id:
            raise Refused('%s: the reply carries no id' % what)
        return new_id

    def object(self, kind, name, parent, items):
        s = self.s
        oid = self.added(s.object_add(kind, name, parent), s.object_add_handle,
                         'object_add %r' % name)
        for item in items:
            self.added(s.object_item_add(kind, oid, item), s.object_item_add_handle,
                       'object_item_add %r to %r' % (item.get('value1'), name))
        return oid


def net_item(item_type, value1, value2='', exclude=0):
    return {'type': item_type, 'value1': value1, 'value2': value2, 'exclude': exclude}


def port_item(item_type, value1, value2=0, exclude=0):
    return {'type': item_type, 'value1': value1, 'value2': value2, 'exclude': exclude}


def free_suffix(taken, names):
    """'' when none of names is taken, else the first '-N' that frees them all."""
    n, suffix = 1, ''
    while any(name + suffix in taken for name in names):
        n += 1
        suffix = '-%d' % n
    return suffix


def build(rs, suffix):
    """The ruleset's records, in one transaction; returns the commit id."""
    s = rs.s
    rs.ask(s.resource_begin(tq.RESOURCE_RULESET), 'resource_begin')
    lan = rs.object(NET, 'lan' + suffix, 0,
                    [net_item(tq.NETOBJECT_ITEM_TYPE_IPV4_NETWORK, '10.0.0.0/8')])
    rs.object(NET, 'servers' + suffix, lan,
              [net_item(tq.NETOBJECT_ITEM_TYPE_IPV4_RANGE, '10.1.0.10', '10.1.0.20'),
               net_item(tq.NETOBJECT_ITEM_TYPE_IPV4_ADDRESS, '10.1.0.15', exclude=1)])
    rs.object(NET, 'lan6' + suffix, 0,
              [net_item(tq.NETOBJECT_ITEM_TYPE_IPV6_NETWORK, '2001:db8::/32')])
    web = rs.object(PORT, 'web' + suffix, 0,
                    [port_item(tq.PORTOBJECT_ITEM_TYPE_RANGE, 8000, 8080),
                     port_item(tq.PORTOBJECT_ITEM_TYPE_PORT, 443, 443)])

    # rate (kbit/s), burst (kbit), guaranteed rate, queue, packets/s, reserved
    limits = {'inbound': [(10000, 2000, 0, 0, 0, 0)], 'outbound': [(5000, 1000, 0, 0, 0, 0)]}
    shaper = rs.added(s.shaping_object_add('lan-limit' + suffix, limits,
                                           tq.SHAPINGOBJECT_SPLIT_LOCALHOST, 0, 0, 0,
                                           (0, 0, 0, 0, 0, 0), []),
                      s.shaping_object_add_handle, 'shaping_object_add')

    condition = rs.added(s.ruleconditions_add('lan to web' + suffix, tq.RULECONDITION_AND),
                         s.ruleconditions_add_handle, 'ruleconditions_add')
    rs.ask(s.ruleconditions_set_items(condition, [
        tq.Item(conditiontype=tq.RULESET_CONDITION_TYPE_NETOBJECT_CLIENT, objectid=lan),
        tq.Item(conditiontype=tq.RULESET_CONDITION_TYPE_PORTOBJECT_SERVER, objectid=web)]),
        'ruleconditions_set_items')

    rule = rs.added(s.shapingrule_add('limit lan' + suffix, 5, 0, 1, rulecondition=condition),
                    s.shapingrule_add_handle, 'shapingrule_add')
    rs.ask(s.shapingrule_set_objects(rule, [shaper]), 'shapingrule_set_objects')
    rs.added(s.fwrule_add('accept lan to web' + suffix, tq.FWRULE_ACTION_ACCEPT, 1, 0,
                          rulecondition=condition),
             s.fwrule_add_handle, 'fwrule_add')

    commit = rs.conn.handle.commit_handle(
        rs.ask(s.resource_commit('ruleset example'), 'resource_commit'))
    return commit[0]


def rollback(rs):
    """Best effort: the transaction goes anyway when the connection closes."""
    try:
        rs.conn.call(rs.s.resource_rollback(), 'resource_rollback')
    except (IOError, RuntimeError):
        pass


# --- printing -------------------------------------------------------------------

def describe_item(kind, item):
    if kind == NET:
        text = item['value1'] + ('-' + item['value2'] if item['value2'] else '')
        return '%s%s (%s)' % ('not ' if item['exclude'] else '', text,
                              NET_ITEM_TYPES.get(item['type'], item['type']).lower())
    if kind == PORT:
        text = '%d' % item['value1']
        if item['type'] == tq.PORTOBJECT_ITEM_TYPE_RANGE:
            text += '-%d' % item['value2']
        return ('not ' if item['exclude'] else '') + text
    return ', '.join('%s=%r' % kv for kv in sorted(item.items()) if kv[0] not in AUDIT_KEYS)


def print_objects(title, kind, objects):
    print(title)
    ids = set(o['id'] for o in objects)
    children = {}
    for o in objects:
        children.setdefault(o['parent'] if o['parent'] in ids else 0, []).append(o)

    def show(parent, depth):
        for o in children.get(parent, []):
            print('%s%s (id %d%s)' % ('  ' * depth, o['name'], o['id'],
                                      '' if o['visible'] else ', hidden'))
            for item in o['items']:
                print('%s- %s' % ('  ' * (depth + 1), describe_item(kind, item)))
            show(o['id'], depth + 1)
    show(0, 1)


def print_ruleset(net, ports, shapers, conditions, shaping_rules, fw_rules):
    names = {}
    for kind, records in ((NET, net), (PORT, ports)):
        names.update(((kind, o['id']), o['name']) for o in records)
    print_objects('Net objects', NET, net)
    print_objects('Port objects', PORT, ports)

    print('Shaping objects')
    for o in shapers:
        print('  %s (id %d), split %d' % (o['name'], o['id'], o['split']))
        for direction in ('inbound', 'outbound', 'bidir'):
            for limit in o[direction]:
                if any(limit):
                    print('    - %s: %d kbit/s, burst %d kbit' % (direction, limit[0], limit[1]))
    shaper_names = dict((o['id'], o['name']) for o in shapers)

    print('Rule conditions')
    condition_names = dict((c['id'], c['name']) for c in conditions)
    for c in conditions:
        print('  %s (id %d, %s)' % (c['name'], c['id'], OPERATORS.get(c['operator'])))
        for item in c['items']:
            role = CONDITION_TYPES.get(item.conditiontype, str(item.conditiontype))
            kind = (NET if role.startswith('NETOBJECT') else
                    PORT if role.startswith('PORTOBJECT') else None)
            print('    - %s: %d (%s)' % (role.lower(), item.objectid,
                                          names.get((kind, item.objectid), '?')))

    def condition(rule):
        return '%d (%s)' % (rule['rulecondition'],
                            condition_names.get(rule['rulecondition'], 'none'))

    print('Shaping rules')
    for r in shaping_rules:
        print('  %s (id %d%s): condition %s, priority %d' % (
            r['name'], r['id'], '' if r['active'] else ', inactive', condition(r), r['priority']))
        for oid in r['objects']:
            print('    - shaping object %d (%s)' % (oid, shaper_names.get(oid, '?')))
    print('Firewall rules')
    for r in fw_rules:
        print('  %d. %s (id %d%s): %s%s, condition %s' % (
            r['position'], r['name'], r['id'], '' if r['active'] else ', inactive',
            ACTIONS.get(r['action'], r['action']).lower(), ', quick' if r['quick'] else '',
            condition(r)))


def main(argv):
    rs = open_session(argv, __doc__, Ruleset)
    if rs is None:
        return 2
    s = rs.s

    def everything():
        return (rs.listing(s.object_list(NET), s.object_list_handle, 'object_list (net)'),
                rs.listing(s.object_list(PORT), s.object_list_handle, 'object_list (port)'),
                rs.listing(s.shaping_object_list(), s.shaping_object_list_handle,
                           'shaping_object_list'),
                rs.listing(s.ruleconditions_list(), s.ruleconditions_list_handle,
                           'ruleconditions_list'),
                rs.listing(s.shapingrule_list(), s.shapingrule_list_handle, 'shapingrule_list'),
                rs.listing(s.fwrule_list(), s.fwrule_list_handle, 'fwrule_list'))

    before = everything()
    taken = set(r['name'] for records in before[:4] for r in records)
    suffix = free_suffix(taken, ('lan', 'servers', 'lan6', 'web', 'lan-limit', 'lan to web'))
    try:
        seqno = build(rs, suffix)
    except Refused:
        rollback(rs)
        raise
    print('ruleset built and committed (commit %d)' % seqno)
    print_ruleset(*everything())
    return 0


if __name__ == '__main__':
    try:
        sys.exit(main(sys.argv))
    except (IOError, RuntimeError) as e:
        print('ruleset failed: %s' % e, file=sys.stderr)
        sys.exit(1)
