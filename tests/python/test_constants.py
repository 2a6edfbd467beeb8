"""The integer constants that TQDBv17_1 publishes as module attributes.

Expected values are written out from the protocol's own tables (message
types, resources, object items, rules, statistics fields, channels, ...),
not taken from the binding's table, so a mistyped row or a value mangled on
its way into Python shows up here.
"""
import sys
import unittest

import TQDBv17_1 as tq

try:
    INTEGER_TYPES = (int, long)  # noqa: F821 (Python 2)
except NameError:
    INTEGER_TYPES = (int,)

# Published count per name family; a name belongs to the longest prefix that
# matches it.
PREFIX_COUNTS = [
    (("STATISTICS_",), 119),
    (("RULESET_",), 36),
    (("CHANNEL_",), 36),
    (("OBJECT_", "NETOBJECT_", "PORTOBJECT_", "VLANOBJECT_", "MPLSOBJECT_",
      "DSCPOBJECT_", "BGPOBJECT_", "TIMEOBJECT_", "REWRITEOBJECT_",
      "ENRICHOBJECT_", "TUNNEL_", "CHANNELOBJECT_", "SESSIONCONTEXT_"), 72),
    (("SHAPINGOBJECT_",), 10),
    (("FWRULE_", "RULECONDITION_", "HOSTTRIGGER_"), 14),
    (("CHANNELSTATS_",), 16),
    (("SYSDIAG_", "SYSTEM_"), 31),
    (("FEATURES_", "CONFIG_"), 18),
    (("FILESERV_",), 11),
    (("RESOURCE_",), 16),
    (("MSG_TYPE_",), 9),
]
LOG_LEVELS = {"EMERGENCY": 1, "CRITICAL": 2, "ERROR": 3, "WARNING": 4,
              "NOTICE": 5, "INFO": 6, "DEBUG": 7, "VERBOSE": 8}
ALL_PREFIXES = sorted((p for group, _ in PREFIX_COUNTS for p in group),
                      key=len, reverse=True)


def family_of(name):
    if name in LOG_LEVELS:
        return "log levels"
    for prefix in ALL_PREFIXES:
        if name.startswith(prefix):
            return prefix
    return None


def is_constant_name(name):
    return name.isupper() and family_of(name) is not None


def constants():
    return dict((name, value) for name, value in vars(tq).items()
                if is_constant_name(name))


def with_prefix(prefix):
    return dict((name, value) for name, value in constants().items()
                if name.startswith(prefix))


def single_bits(values):
    return all(v > 0 and v & (v - 1) == 0 for v in values)


class ConstantsTestCase(unittest.TestCase):

    def check_values(self, expected):
        for name, value in sorted(expected.items()):
            self.assertTrue(hasattr(tq, name), name)
            self.assertEqual(getattr(tq, name), value, name)


class ConstantSetTest(ConstantsTestCase):

    def test_count_kind_and_families(self):
        found = constants()
        self.assertEqual(len(found), 396)
        for name, value in found.items():
            # bool is an int subclass, and no constant is a class or enum.
            self.assertTrue(isinstance(value, INTEGER_TYPES) and
                            not isinstance(value, bool),
                            "%s is %r" % (name, type(value)))
        per_family = {}
        for name in found:
            fam = family_of(name)
            per_family[fam] = per_family.get(fam, 0) + 1
        for group, count in PREFIX_COUNTS:
            got = sum(per_family.get(p, 0) for p in group)
            self.assertEqual(got, count, "%s: %d" % ("/".join(group), got))
        self.assertEqual(per_family.get("log levels"), 8)

    @unittest.skipUnless(sys.version_info >= (3, 7),
                         "module dict keeps insertion order")
    def test_rule_types_come_first(self):
        names = [n for n in vars(tq) if is_constant_name(n)]
        self.assertEqual(names[:2], ["RULESET_RULE_TYPE_FILTER",
                                     "RULESET_RULE_TYPE_SHAPING"])


class EnvelopeAndLockTest(ConstantsTestCase):

    def test_message_types(self):
        expected = {"MSG_TYPE_AUTH": 0, "MSG_TYPE_BCAST_COMMIT": 1,
                    "MSG_TYPE_OK": 2, "MSG_TYPE_ERROR": 3,
                    "MSG_TYPE_CRITICAL": 4, "MSG_TYPE_LOCK": 5,
                    "MSG_TYPE_DATA": 6, "MSG_TYPE_VERSION": 7,
                    "MSG_TYPE_DETACHED": 11}
        self.check_values(expected)
        self.assertEqual(with_prefix("MSG_TYPE_"), expected)

    def test_resources(self):
        expected = {"RESOURCE_RULESET": 1, "RESOURCE_CHANNELS": 2,
                    "RESOURCE_USERS": 3, "RESOURCE_CONFIG": 4,
                    "RESOURCE_STATREADER": 5, "RESOURCE_CONNLOG": 6,
                    "RESOURCE_LEVELS": 7, "RESOURCE_SYSDIAG": 7,
                    "RESOURCE_BACKUPS": 8, "RESOURCE_LOGS": 9,
                    "RESOURCE_FILESERV": 10, "RESOURCE_RESOURCE": 11,
                    "RESOURCE_HOSTTRIGGER": 12,
                    "RESOURCE_SYSTEM_OVERVIEW": 13,
                    "RESOURCE_CONNPROT_TRIGGER": 20,
                    "RESOURCE_DYNAMICLIVEVIEW": 23}
        self.check_values(expected)
        self.assertEqual(with_prefix("RESOURCE_"), expected)
        self.assertTrue(tq.RESOURCE_LEVELS == tq.RESOURCE_SYSDIAG == 7)
        used = set(with_prefix("RESOURCE_").values())
        for gap in (14, 15, 16, 17, 18, 19, 21, 22):
            self.assertNotIn(gap, used)

    def test_log_levels(self):
        self.check_values(LOG_LEVELS)
        self.assertFalse(hasattr(tq, "ALERT"))


class FamilyValueTest(ConstantsTestCase):

    def test_objects_and_items(self):
        types = with_prefix("OBJECT_TYPE_")
        self.assertEqual(sorted(types.values()), list(range(19)))
        self.check_values({
            "OBJECT_TYPE_NETOBJECT": 0, "OBJECT_TYPE_VLANOBJECT": 3,
            "OBJECT_TYPE_FLAGOBJECT": 10, "OBJECT_TYPE_CHANNELOBJECT": 13,
            "OBJECT_TYPE_SESSIONCONTEXTOBJECT": 18,
            "NETOBJECT_ITEM_TYPE_IPV4_ADDRESS": 1,
            "NETOBJECT_ITEM_TYPE_IPV6_RANGE": 6,
            "PORTOBJECT_ITEM_TYPE_RANGE": 2, "MPLSOBJECT_ITEM_TYPE_LABEL": 1,
            "DSCPOBJECT_ITEM_TYPE_DSCP": 1,
            "CHANNELOBJECT_ITEM_TYPE_CHANNEL": 1,
            "TIMEOBJECT_ITEM_TYPE_DATERANGE": 2,
            "BGPOBJECT_ITEM_TYPE_ASPATHPOS": 0,
            "REWRITEOBJECT_FIELD_POOLID": 6,
            "REWRITEOBJECT_DIRECTION_OUTBOUND": 2,
            "TUNNEL_TYPE_TEREDO": 3, "TUNNEL_TYPE_NULL": 6,
            "ENRICHOBJECT_KEYTYPE_FILENAME": 2,
            "ENRICHOBJECT_MISS_USE_DEFAULT": 1,
            "SESSIONCONTEXT_MATCHTYPE_EQUAL": 0,
            "SHAPINGOBJECT_SPLIT_NONE": 0,
            "SHAPINGOBJECT_SPLIT_SERVER_NETOBJECT": 3,
            "SHAPINGOBJECT_SPLIT_SESSIONCONTEXTOBJECT": 9,
        })
        days = with_prefix("TIMEOBJECT_DAYMASK_")
        self.assertEqual(sum(days.values()), 127)  # every day
        self.assertTrue(single_bits(days.values()))
        self.assertEqual(tq.TIMEOBJECT_DAYMASK_THU, 8)

    def test_rules_and_conditions(self):
        conditions = with_prefix("RULESET_CONDITION_TYPE_")
        self.assertEqual(sorted(conditions.values()), list(range(31)))
        self.check_values({
            "RULESET_RULE_TYPE_FILTER": 0, "RULESET_RULE_TYPE_SHAPING": 1,
            "RULESET_RULE_TYPE_STATISTICS": 2,
            "RULESET_CONDITION_TYPE_NETOBJECT_LOCAL": 14,
            "RULESET_CONDITION_TYPE_DSCPOBJECT_OUT": 18,
            "RULESET_CONDITION_TYPE_CHANNELOBJECT_IN": 19,
            "RULESET_CONDITION_TYPE_SERVICEOBJECT_BASE": 25,
            "RULESET_CONDITION_TYPE_RULECONDITION": 29,
            "RULESET_CONDITION_OP_EQ": 0, "RULESET_CONDITION_OP_NE": 1,
            "RULECONDITION_AND": 0, "RULECONDITION_NOT": 2,
            "FWRULE_ACTION_ACCEPT": 1, "FWRULE_ACTION_DIVERT": 5,
            "FWRULE_ACTION_ENRICH": 7,
            "HOSTTRIGGER_TRIGTYPE_HOST": 0,
            "HOSTTRIGGER_TRIGTYPE_NETOBJECT_CHILD": 3,
        })

    def test_statistics_fields(self):
        # Fields beyond bit 31 are published as 0 on purpose.
        zero = ("GRAPHFIELD_QUALITY_DROPS_IN", "GRAPHFIELD_QUALITY_DROPS_OUT",
                "GRAPHFIELD_QUALITY_RETRANSMISSIONS_IN",
                "GRAPHFIELD_QUALITY_RETRANSMISSIONS_OUT",
                "TOTALFIELD_QUALITY_RETRANSMISSIONS_IN",
                "TOTALFIELD_QUALITY_RETRANSMISSIONS_OUT")
        self.check_values(dict(("STATISTICS_" + n, 0) for n in zero))
        for family, size in (("STATISTICS_GRAPHFIELD_", 36),
                             ("STATISTICS_TOTALFIELD_", 34)):
            bits = [v for v in with_prefix(family).values() if v]
            self.assertEqual(len(with_prefix(family)), size)
            # The rest are the 32 bits of a u32, each used once.
            self.assertEqual(sorted(bits), [1 << i for i in range(32)])
        # Bit 31 must arrive as 2147483648, not wrapped negative.
        self.check_values({
            "STATISTICS_GRAPHFIELD_SHAPING_BYTEDROPS_OUT": 2147483648,
            "STATISTICS_TOTALFIELD_QUALITY_DROPS_OUT": 2147483648,
            "STATISTICS_GRAPHFIELD_BPS_TOTAL": 8192,
            "STATISTICS_GRAPHFIELD_LINK_UTILIZATION_IN": 16777216,
            "STATISTICS_TOTALFIELD_BYTES_TOTAL": 1024,
            "STATISTICS_TOTALFIELD_SUBITEMS": 131072,
            "STATISTICS_TOTALFIELD_RTT_IN": 16777216,
            "STATISTICS_FLAG_REMOTETQDB": 4,
            "STATISTICS_FLAG_HAS_SUBSCRIBERS": 512,
            "STATISTICS_GRAPH_MODE_SPEED": 2,
            "CHANNELSTATS_GFIELDS_RX_PACKETS": 1,
            "CHANNELSTATS_TFIELDS_TX_DROPS": 128,
        })
        self.assertTrue(single_bits(with_prefix("STATISTICS_FLAG_").values()))
        self.assertEqual(len(set(with_prefix("STATISTICS_FLAG_").values())), 10)

    def test_statistics_value_types(self):
        types = with_prefix("STATISTICS_VALUETYPE_")
        self.assertEqual(len(set(types.values())), 37)  # no two alike
        self.check_values({
            "STATISTICS_VALUETYPE_ROOT": 0,
            "STATISTICS_VALUETYPE_AGGREGATION": 256,
            "STATISTICS_VALUETYPE_NETOBJECT": 513,
            "STATISTICS_VALUETYPE_CHANNELSTATS_ROOT": 533,
            "STATISTICS_VALUETYPE_SORVIK": 541,
            "STATISTICS_VALUETYPE_ZONESTATS": 768,
            "STATISTICS_VALUETYPE_CHANNELSTATS": 1024,
            "STATISTICS_VALUETYPE_NAT_POOL": 1283,
        })

    def test_administration(self):
        caps = with_prefix("CHANNEL_CAPS_")
        self.assertEqual(len(set(caps.values())), 14)
        self.assertTrue(single_bits(caps.values()))
        self.assertEqual(sorted(with_prefix("CHANNEL_MEDIA_").values()),
                         list(range(9)))
        self.assertEqual(sorted(with_prefix("SYSDIAG_ZONE_TYPE_").values()),
                         list(range(10)))
        self.assertEqual(sorted(with_prefix("FILESERV_ID_").values()),
                         list(range(11)))
        features = with_prefix("FEATURES_")
        self.assertEqual(sorted(features.values()),
                         [1 << i for i in range(12)])
        self.check_values({
            "CHANNEL_CAPS_AUTONEG": 1, "CHANNEL_CAPS_100000FD": 256,
            "CHANNEL_CAPS_TRAFFIC": 65536, "CHANNEL_CAPS_LINK_TOGGLE": 1048576,
            "CHANNEL_MEDIA_AUTO": 0, "CHANNEL_MEDIA_10HD": 1,
            "CHANNEL_ROLE_DIVERT": 2, "CHANNEL_ROLE_MONITOR": 3,
            "CHANNEL_TYPE_PARTIAL": 2, "CHANNEL_TYPE_EXT_DEBUG": 3,
            "CHANNEL_DIRECTION_REVERSE": 1, "CHANNEL_DIRECTION_EXTERNAL": 3,
            "SYSDIAG_LOG_SEVERITY_CRITICAL": 2,
            "SYSDIAG_ZONE_FLAGS_HIDDEN": 4, "SYSDIAG_ZONE_TYPE_MOMENT": 0,
            "SYSDIAG_ZONE_TYPE_UNFORMATTED": 9,
            "SYSTEM_OVERVIEW_TEMPLATE_TYPE_CHANNEL": 1,
            "SYSTEM_OVERVIEW_VTYPE_MAX": 2,
            "SYSTEM_OVERVIEW_TYPE_INT_K": 8,
            "FILESERV_ID_HOSTTRIGGER": 0, "FILESERV_ID_PCAP_2": 9,
            "FILESERV_ID_FIRMWARE_UPLOAD": 10,
            "CONFIG_TYPE_STRING": 1, "CONFIG_TYPE_BOOLEAN": 5,
            "CONFIG_TYPE_INVISIBLE": 128,
            "FEATURES_BGP": 1, "FEATURES_ENTERPRISE": 32,
            "FEATURES_CGNAT": 2048,
        })


if __name__ == "__main__":
    unittest.main()
