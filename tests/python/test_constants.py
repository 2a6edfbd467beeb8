"""The integer constants of TQDBv17_1: the count, the order they are set in,
and the codes of every family that a client and the appliance must agree on."""
import sys
import unittest

import TQDBv17_1 as tq

INTS = (int, type(2 ** 64))  # long on Python 2

# (name, value): a few exact codes of every family, the ends of its range.
VALUES = [
    ('MSG_TYPE_AUTH', 0), ('MSG_TYPE_DATA', 6), ('MSG_TYPE_VERSION', 7), ('MSG_TYPE_DETACHED', 11),
    ('RESOURCE_RULESET', 1), ('RESOURCE_LEVELS', 7), ('RESOURCE_SYSDIAG', 7),
    ('RESOURCE_SYSTEM_OVERVIEW', 13), ('RESOURCE_CONNPROT_TRIGGER', 20),
    ('RESOURCE_DYNAMICLIVEVIEW', 23), ('EMERGENCY', 1), ('WARNING', 4), ('VERBOSE', 8),
    ('OBJECT_TYPE_NETOBJECT', 0), ('OBJECT_TYPE_SESSIONCONTEXTOBJECT', 18),
    ('NETOBJECT_ITEM_TYPE_IPV6_RANGE', 6), ('PORTOBJECT_ITEM_TYPE_RANGE', 2),
    ('TIMEOBJECT_DAYMASK_THU', 8), ('BGPOBJECT_ITEM_TYPE_ASPATHPOS', 0),
    ('REWRITEOBJECT_FIELD_POOLID', 6), ('REWRITEOBJECT_DIRECTION_OUTBOUND', 2),
    ('TUNNEL_TYPE_NULL', 6), ('ENRICHOBJECT_KEYTYPE_FILENAME', 2),
    ('SHAPINGOBJECT_SPLIT_SESSIONCONTEXTOBJECT', 9), ('RULESET_RULE_TYPE_STATISTICS', 2),
    ('RULESET_CONDITION_TYPE_NETOBJECT_LOCAL', 14), ('RULESET_CONDITION_TYPE_RULECONDITION', 29),
    ('RULESET_CONDITION_OP_NE', 1), ('RULECONDITION_NOT', 2), ('FWRULE_ACTION_ENRICH', 7),
    ('HOSTTRIGGER_TRIGTYPE_NETOBJECT_CHILD', 3), ('STATISTICS_GRAPHFIELD_BPS_TOTAL', 8192),
    ('STATISTICS_GRAPHFIELD_LINK_UTILIZATION_IN', 16777216),
    # bit 31 arrives as 2147483648, not wrapped negative
    ('STATISTICS_GRAPHFIELD_SHAPING_BYTEDROPS_OUT', 2147483648),
    ('STATISTICS_TOTALFIELD_QUALITY_DROPS_OUT', 2147483648),
    ('STATISTICS_TOTALFIELD_SUBITEMS', 131072), ('STATISTICS_FLAG_HAS_SUBSCRIBERS', 512),
    ('STATISTICS_GRAPH_MODE_SPEED', 2), ('STATISTICS_VALUETYPE_NETOBJECT', 513),
    ('STATISTICS_VALUETYPE_NAT_POOL', 1283), ('CHANNELSTATS_TFIELDS_TX_DROPS', 128),
    ('CHANNEL_CAPS_LINK_TOGGLE', 1048576), ('CHANNEL_MEDIA_10HD', 1), ('CHANNEL_ROLE_MONITOR', 3),
    ('CHANNEL_DIRECTION_EXTERNAL', 3), ('SYSDIAG_ZONE_FLAGS_HIDDEN', 4),
    ('SYSDIAG_ZONE_TYPE_UNFORMATTED', 9), ('SYSTEM_OVERVIEW_TYPE_INT_K', 8),
    ('FILESERV_ID_FIRMWARE_UPLOAD', 10), ('CONFIG_TYPE_INVISIBLE', 128), ('FEATURES_CGNAT', 2048),
] + [('STATISTICS_%sFIELD_QUALITY_%s' % f, 0) for f in [  # above bit 31: published as 0
    ('GRAPH', 'DROPS_IN'), ('GRAPH', 'DROPS_OUT'), ('GRAPH', 'RETRANSMISSIONS_IN'),
    ('GRAPH', 'RETRANSMISSIONS_OUT'), ('TOTAL', 'RETRANSMISSIONS_IN'),
    ('TOTAL', 'RETRANSMISSIONS_OUT')]]


class ConstantsTest(unittest.TestCase):
    def test_values(self):
        self.assertEqual([(n, getattr(tq, n, None)) for n, _ in VALUES], VALUES)
        names = [n for n, v in vars(tq).items() if n.isupper() and isinstance(v, INTS)]
        self.assertEqual(len(names), 396)
        self.assertFalse([n for n in names if isinstance(getattr(tq, n), bool)])
        if sys.version_info >= (3, 7):  # the module dict keeps the order they were set in
            self.assertEqual(names[:2], ['RULESET_RULE_TYPE_FILTER', 'RULESET_RULE_TYPE_SHAPING'])
