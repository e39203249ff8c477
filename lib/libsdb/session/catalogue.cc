/*
 * The attribute catalogue and the table of dynamic variable names, built
 * at compile time.  The name hash of the variables is fixed: h = h * 3 + c
 * over the bytes, modulo 1024, so the table of buckets is a constant too.
 */
#include <array>
#include <bit>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "sdb/sdb_session.h"
#include "sdb_impl.h"

namespace {

constexpr std::pair<uint16_t, const char *> attr_rows[] = {
	{1, "L2TP_LOCAL_IP_ADDRESS"},
	{2, "L2TP_LOCAL_SESSION_ID"},
	{3, "L2TP_LOCAL_TUNNEL_ID"},
	{4, "L2TP_REMOTE_IP_ADDRESS"},
	{5, "L2TP_REMOTE_SESSION_ID"},
	{6, "L2TP_REMOTE_TUNNEL_ID"},
	{7, "L2TP_TUNNEL_GROUP_ID"},
	{8, "L2TP_PPP_ATTR_PROFILE_NAME"},
	{10, "PREFERRED_IPV6_ADDRESS"},
	{11, "IPV6_INTERFACE_ADDRESS"},
	{12, "BUNDLE_SESSION_ID"},
	{13, "PPPOE_ATTR_SERVICE_NAME"},
	{14, "UNDERLYING_INTERFACE_NAME"},
	{15, "LOGIN_TIME"},
	{16, "ATTRIBUTE_SUBSCRIBER_TUNNELED"},
	{17, "USER_NAME"},
	{18, "LOGICAL_SYSTEM_NAME"},
	{19, "INTERFACE_NAME"},
	{20, "PROFILE_NAME"},
	{21, "USER_IP_ADDRESS"},
	{22, "USER_IP_MASK"},
	{23, "USER_IP_POOL"},
	{24, "USER_IPV6_ADDRESS"},
	{25, "USER_IPV6_MASK"},
	{26, "NAS_IPV6_ADDRESS"},
	{27, "USER_IPV6_PREFIX"},
	{28, "USER_IPV6_POOL"},
	{29, "NDRA_IPV6_PREFIX"},
	{30, "LOGIN_IPV6_HOST"},
	{31, "DELEGATED_IPV6_PREFIX"},
	{32, "DELEGATED_IPV6_POOL"},
	{33, "FRAMED_INTERFACE_ID"},
	{34, "RADIUS_ACCT_SESSION_ID"},
	{35, "RADIUS_NAS_PORT_TYPE"},
	{36, "SESSION_STATE"},
	{37, "CLIENT_SESSION_TYPE"},
	{38, "ACCESS_PROFILE_NAME"},
	{39, "ROUTING_INSTANCE_NAME"},
	{40, "USER_MAC_ADDRESS"},
	{41, "DHCP_GI_ADDRESS"},
	{42, "SERVICE_SESSION_NAME"},
	{43, "SESSION_IFL_TYPE"},
	{44, "UNNUMBERED_INTERFACE"},
	{45, "PREFERRED_IP_ADDRESS"},
	{46, "AGGREGATE_CLIENT_ON_IFL"},
	{47, "DFW_INPUT_FILTER_IDX"},
	{48, "DFW_OUTPUT_FILTER_IDX"},
	{49, "SERVICE_BUNDLE"},
	{50, "CHARGEABLE_USER_IDENTITY"},
	{51, "WIMAX_AAA_SID"},
	{52, "ATTR_ACCT_TYPE"},
	{53, "ATTR_ACCT_INTERIM_INTERVAL"},
	{54, "ATTR_ACCT_VOLUME_QUOTA"},
	{55, "ATTR_ACCT_TIME_QUOTA"},
	{56, "DHCP_OPTIONS"},
	{57, "PPPOE_URL"},
	{58, "PPPOE_MOTM"},
	{59, "PPPOE_PADN"},
	{60, "AGENT_CIRCUIT_ID"},
	{61, "PPPOE_AGENT_CIRCUIT_ID"},
	{62, "AGENT_REMOTE_ID"},
	{63, "PPPOE_AGENT_REMOTE_ID"},
	{64, "PPPOE_DSL_FORUM"},
	{65, "INTERFACE_VLAN"},
	{66, "TUNNEL_SERVER_ENDPOINT"},
	{67, "TUNNEL_CLIENT_ENDPOINT"},
	{68, "TUNNEL_TYPE"},
	{69, "TUNNEL_MEDIUM_TYPE"},
	{70, "TUNNEL_ASSIGNMENT_ID"},
	{71, "TUNNEL_CLIENT_AUTH_ID"},
	{72, "TUNNEL_SERVER_AUTH_ID"},
	{73, "INTERFACE_SVLAN"},
	{74, "ATTR_SESSION_TIMEOUT"},
	{75, "ATTR_IDLE_TIMEOUT"},
	{76, "CONFIGURATION_BITS"},
	{77, "CALLING_STATION_ID"},
	{78, "SERVICE_TYPE"},
	{79, "FRAMED_PROTOCOL"},
	{80, "PROFILE_VARSET"},
	{81, "UNDERLYING_SESSION_ID"},
	{82, "ATTR_FOLIA_OPTOUT_STATUS"},
	{83, "ATTR_FOLIA_TAG_VERSION"},
	{84, "ATTR_FOLIA_TAG_KERNEL"},
	{85, "PLEXAR_SESSION_ID"},
	{86, "SERVER_DHCP_OPTIONS"},
	{87, "IPV6_PRIMARY_DNS_ADDRESS"},
	{88, "IPV6_SECONDARY_DNS_ADDRESS"},
	{89, "MAX_CLIENTS_PER_INTERFACE"},
	{90, "ADDRESS_FAMILY"},
	{91, "KZT_L2C_UPSTREAM_DATA"},
	{92, "KZT_L2C_DOWNSTREAM_DATA"},
	{93, "KZT_ACC_LOOP_CIR_ID"},
	{94, "KZT_ACC_AGGR_CIR_ID_BIN"},
	{95, "KZT_ACC_AGGR_CIR_ID_ASC"},
	{96, "KZT_ACT_DATA_RATE_UP"},
	{97, "KZT_ACT_DATA_RATE_DN"},
	{98, "KZT_MIN_DATA_RATE_UP"},
	{99, "KZT_MIN_DATA_RATE_DN"},
	{100, "KZT_ATT_DATA_RATE_UP"},
	{101, "KZT_ATT_DATA_RATE_DN"},
	{102, "KZT_MAX_DATA_RATE_UP"},
	{103, "KZT_MAX_DATA_RATE_DN"},
	{104, "KZT_MIN_LP_DATA_RATE_UP"},
	{105, "KZT_MIN_LP_DATA_RATE_DN"},
	{106, "KZT_MAX_INTERLV_DELAY_UP"},
	{107, "KZT_ACT_INTERLV_DELAY_UP"},
	{108, "KZT_MAX_INTERLV_DELAY_DN"},
	{109, "KZT_ACT_INTERLV_DELAY_DN"},
	{110, "KZT_DSL_LINE_STATE"},
	{111, "KZT_DSL_TYPE"},
	{112, "KZT_DOWNSTREAM_CALCULATED_QOS_RATE"},
	{113, "KZT_UPSTREAM_CALCULATED_QOS_RATE"},
	{114, "ADVISORY_OPTIONS_UPSTREAM_RATE"},
	{115, "ADVISORY_OPTIONS_DOWNSTREAM_RATE"},
	{116, "L2TP_TX_CONNECT_SPEED"},
	{117, "L2TP_RX_CONNECT_SPEED"},
	{118, "SERVICE_ACTIVATION_TIME"},
	{119, "L2TP_CALL_SERIAL_NUMBER"},
	{120, "PROFILE_VERSION"},
	{121, "ACI_VLAN_SESSION_ID"},
	{122, "PRIMARY_DNS_ADDRESS"},
	{123, "SECONDARY_DNS_ADDRESS"},
	{124, "LI_ACTION"},
	{125, "LI_INTERCEPT_ID"},
	{126, "LI_MEDIATION_DEVICE_IP_ADDRESS"},
	{127, "LI_MEDIATION_DEVICE_PORT"},
	{128, "THRESHOLD_TYPE"},
	{129, "THRESHOLD_VALUE_INPUT_BYTES"},
	{130, "THRESHOLD_VALUE_OUTPUT_BYTES"},
	{131, "THRESHOLD_VALUE_TOTAL_BYTES"},
	{132, "THRESHOLD_VALUE_DURATION"},
	{133, "GX_MONITORING_KEY"},
	{134, "POLICY_NAME"},
	{135, "ON_DEMAND_IP_ADDRESS"},
	{136, "INTERFACE_SET_NAME"},
	{137, "REMOVE_NO_SUBSCRIBER"},
	{138, "PRIMARY_WINS_ADDRESS"},
	{139, "SECONDARY_WINS_ADDRESS"},
	{140, "LOCAL_DNS_ADDRESS_LIST"},
	{141, "LOCAL_DNS_V6_ADDRESS_LIST"},
	{142, "TAMRACK_PRIMARY_DNS_ADDRESS"},
	{143, "TAMRACK_SECONDARY_DNS_ADDRESS"},
	{144, "TAMRACK_PRIMARY_WINS_ADDRESS"},
	{145, "TAMRACK_SECONDARY_WINS_ADDRESS"},
	{146, "LOCAL_WINS_ADDRESS_LIST"},
	{147, "DSL_FORUM"},
	{148, "INTERFACE_DESCRIPTION"},
	{149, "PHYSICAL_INTERFACE_NAME"},
	{150, "SESSION_VERSION"},
	{151, "CALLED_STATION_ID"},
	{152, "RADIUS_NAS_PORT"},
	{153, "ATTRIBUTE_SUBSCRIBER_TUNNEL_SWITCH_PROFILE"},
	{154, "UNIT_NUMBER"},
	{155, "IFD_NAME"},
	{156, "INTERFACE_ATM_VPI"},
	{157, "INTERFACE_ATM_VCI"},
	{158, "PARENT_SESSION_ID"},
	{159, "RADIUS_NAS_PORT_ID"},
	{160, "EFFECTIVE_SHAPING_RATE"},
	{161, "TUNNELED_SUBSCRIBER_DISCONNECT_CAUSE_INFO"},
	{162, "APPLICATION_TERMINATE_ID"},
	{163, "PROTOCOL_TERMINATE_CAUSE"},
	{164, "SESSION_START_TIME"},
	{165, "SESSION_END_TIME"},
	{166, "SDB_DIRECT_CONNECT"},
	{167, "SDB_PPPOE_SESSION_ID"},
	{168, "SDB_NEIGHBOR_IPV6_ADDRESS"},
	{169, "SDB_BBE_DOMAIN_ID"},
	{170, "SDB_BBE_PFE_FLOW_ID"},
	{171, "SDB_ATTR_ACCT_FLAT_FILE_PROFILE"},
	{172, "SDB_BFD_V4_TX_IVL"},
	{173, "SDB_BFD_V4_TX_HIGH_IVL"},
	{174, "SDB_BFD_V4_RX_IVL"},
	{175, "SDB_BFD_V4_RX_HIGH_IVL"},
	{176, "SDB_BFD_V4_MULTIPLIER"},
	{177, "SDB_BFD_V4_CTRL_FLAGS"},
	{178, "SDB_BFD_V4_ADAPTION"},
	{179, "SDB_BFD_V4_TTL"},
	{180, "SDB_BFD_V6_TX_IVL"},
	{181, "SDB_BFD_V6_TX_HIGH_IVL"},
	{182, "SDB_BFD_V6_RX_IVL"},
	{183, "SDB_BFD_V6_RX_HIGH_IVL"},
	{184, "SDB_BFD_V6_MULTIPLIER"},
	{185, "SDB_BFD_V6_CTRL_FLAGS"},
	{186, "SDB_BFD_V6_ADAPTION"},
	{187, "SDB_BFD_V6_TTL"},
	{188, "SDB_MS_PRIMARY_DNS_ADDRESS"},
	{189, "SDB_MS_SECONDARY_DNS_ADDRESS"},
	{190, "SDB_SERVICE_INFO_FLAGS"},
	{191, "SDB_PROFILE_RESULT"},
	{192, "SDB_INET_NEXT_HOP_MAC_ADDRESS"},
	{193, "SDB_INET6_NEXT_HOP_MAC_ADDRESS"},
	{194, "SDB_SESSION_RECONNECT_REQUIRED"},
	{195, "SDB_CORE_IFL_NAME"},
	{196, "SDB_CORE_IFL_TRUNK_VLAN"},
	{197, "SDB_CORE_IFL_INNER_VLAN"},
	{198, "SDB_KZT_ACC_LOOP_ENCAP"},
	{199, "SDB_SERVICE_SESSION_TYPE"},
	{200, "SDB_NUM_DYN_PROF_SERVICE_SESSIONS"},
	{201, "SDB_NUM_EXTENSIBLE_SERVICE_SESSIONS"},
	{202, "SDB_KZT_DHCP_FIRST_RELAY_IPV4_ADDRESS"},
	{203, "SDB_KZT_DHCP_FIRST_RELAY_IPV6_ADDRESS"},
	{204, "SDB_ATTR_IDLE_TIMEOUT_INGRESS_ONLY"},
	{205, "SDB_PW_PEER_ADDRESS"},
	{206, "SDB_PW_ID"},
	{207, "SDB_PW_ENCAP"},
	{208, "SDB_PW_MTU"},
	{209, "SDB_PW_CW"},
	{211, "SDB_MARK_ISSU_CONV_SESSION_MAX_SERV_LIMIT"},
	{212, "SDB_TUNNEL_CLIENT_NAS_PORT"},
	{213, "SDB_TUNNEL_CLIENT_NAS_PORT_TYPE"},
	{214, "SDB_DHCPV6_OPTIONS"},
	{215, "SDB_DHCP_HEADER"},
	{216, "SDB_DHCPV6_HEADER"},
	{217, "SDB_SERVER_DHCPV6_OPTIONS"},
	{218, "SDB_SUBSCRIBER_REAUTH_CAPABLE"},
	{219, "SDB_L2_V4_TX_IVL"},
	{220, "SDB_L2_V4_MAX_RETRY"},
	{221, "SDB_L2_V6_TX_IVL"},
	{222, "SDB_L2_V6_MAX_RETRY"},
	{223, "SDB_OVERHEAD_ACCOUNTING"},
	{224, "SDB_KZT_DOWNSTREAM_ADJUSTED_QOS_RATE"},
	{225, "SDB_KZT_UPSTREAM_ADJUSTED_QOS_RATE"},
	{226, "SDB_PCC_CONTEXT_PCEF_PROFILE_NAME"},
	{227, "SDB_PCC_CONTEXT_INPUT_SERVICE_SET_NAME"},
	{228, "SDB_PCC_CONTEXT_OUTPUT_SERVICE_SET_NAME"},
	{229, "SDB_PCC_CONTEXT_INPUT_IPV6_SERVICE_SET_NAME"},
	{230, "SDB_PCC_CONTEXT_OUTPUT_IPV6_SERVICE_SET_NAME"},
	{231, "SDB_PCC_CONTEXT_INPUT_SERVICE_FILTER_NAME"},
	{232, "SDB_PCC_CONTEXT_OUTPUT_SERVICE_FILTER_NAME"},
	{233, "SDB_PCC_CONTEXT_INPUT_IPV6_SERVICE_FILTER_NAME"},
	{234, "SDB_PCC_CONTEXT_OUTPUT_IPV6_SERVICE_FILTER_NAME"},
	{235, "SDB_PCC_RULE_NAME"},
	{236, "SDB_SUBSCRIPTION_ID_TYPE"},
	{237, "SDB_SUBSCRIPTION_ID_DATA"},
	{238, "SDB_PCEF_POLICY_BITS"},
	{239, "SDB_CORE_IFL_INNER_TAG_PROTOCOL_ID"},
	{240, "SDB_ACCURATE_ACCOUNTING_TYPE"},
	{241, "SDB_HAG_SESSION_ID"},
	{242, "SDB_HAG_TUNNEL_ACCESS_LINK_TYPE"},
	{243, "SDB_PCRF_SUBSCRIPTION_ID_TYPE"},
	{244, "SDB_PCRF_SUBSCRIPTION_ID_DATA"},
	{245, "SDB_TELEMETRY_SUBSCRIBER_STATS_CONFIG"},
	{246, "SDB_TELEMETRY_IFL_QUEUE_STATS_REFRESH_INTERVAL"},
	{247, "SDB_TELEMETRY_IFL_QUEUE_STATS_EXPORT_QUEUES"},
	{248, "SDB_AGGREGATION_INTERFACE_SET_NAME"},
	{249, "SDB_STATISTICS_HELPER_FLAGS"},
	{250, "SDB_INTERFACE_SET_NAME_SOURCE"},
	{251, "SDB_HYBRID_ACCESS_DSL_DOWNSTREAM_SPEED"},
	{252, "SDB_HYBRID_ACCESS_LTE_DOWNSTREAM_SPEED"},
	{253, "SDB_KZT_PON_ACCESS_TYPE"},
	{254, "SDB_KZT_ONT_ONU_AVG_DATA_RATE_DN"},
	{255, "SDB_KZT_ONT_ONU_PEAK_DATA_RATE_DN"},
	{256, "SDB_KZT_ONT_ONU_MAX_DATA_RATE_UP"},
	{257, "SDB_KZT_ONT_ONU_ASSURED_DATA_RATE_UP"},
	{258, "SDB_KZT_PON_TREE_MAX_DATA_RATE_UP"},
	{259, "SDB_KZT_PON_TREE_MAX_DATA_RATE_DN"},
	{260, "SDB_KZT_EXP_THRU_UP"},
	{261, "SDB_KZT_EXP_THRU_DN"},
	{262, "SDB_KZT_ATT_EXP_THRU_UP"},
	{263, "SDB_KZT_ATT_EXP_THRU_DN"},
	{264, "SDB_KZT_GAMMA_DATA_RATE_UP"},
	{265, "SDB_KZT_GAMMA_DATA_RATE_DN"},
	{266, "SDB_KZT_ATT_GAMMA_DATA_RATE_UP"},
	{267, "SDB_KZT_ATT_GAMMA_DATA_RATE_DN"},
};

constexpr const char *var_names[] = {
	"invalid variable id",
	"orvia-interface-unit",
	"orvia-interface-ifd-name",
	"orvia-phy-ifd-name",
	"orvia-underlying-interface-unit",
	"orvia-underlying-interface",
	"orvia-subscriber-ip-address",
	"orvia-subscriber-ipv6-address",
	"orvia-interface-name",
	"orvia-subscriber-mac-address",
	"orvia-igmp-enable",
	"orvia-mld-version",
	"orvia-igmp-version",
	"orvia-igmp-immediate-leave",
	"orvia-mld-immediate-leave",
	"orvia-input-filter",
	"orvia-output-filter",
	"orvia-input-ipv6-filter",
	"orvia-output-ipv6-filter",
	"orvia-vlan-id",
	"orvia-stacked-vlan-id",
	"orvia-cos-scheduler-map",
	"orvia-cos-shaping-rate",
	"orvia-cos-guaranteed-rate",
	"orvia-cos-delay-buffer-rate",
	"orvia-cos-excess-rate",
	"orvia-cos-shaping-mode",
	"orvia-cos-byte-adjust",
	"orvia-cos-traffic-control-profile",
	"orvia-cos-scheduler",
	"orvia-cos-scheduler-tx",
	"orvia-cos-scheduler-bs",
	"orvia-cos-scheduler-pri",
	"orvia-cos-scheduler-dropfile-low",
	"orvia-cos-scheduler-dropfile-medium-low",
	"orvia-cos-scheduler-dropfile-medium-high",
	"orvia-cos-scheduler-dropfile-high",
	"orvia-cos-scheduler-dropfile-any",
	"orvia-framed-ip-address",
	"orvia-framed-route-ip-address-prefix",
	"orvia-framed-route-nexthop",
	"orvia-framed-route-cost",
	"orvia-framed-route-distance",
	"orvia-framed-route-tag",
	"orvia-framed-route-ipv6-address-prefix",
	"orvia-framed-route-ipv6-nexthop",
	"orvia-framed-route-ipv6-cost",
	"orvia-framed-route-ipv6-distance",
	"orvia-framed-route-ipv6-tag",
	"orvia-ipv6-ndra-prefix",
	"orvia-routing-instance",
	"orvia-ipv6-rib",
	"orvia-loopback-interface",
	"orvia-preferred-source-address",
	"orvia-preferred-source-ipv6-address",
	"orvia-ipv6-address",
	"orvia-interface-set-name",
	"orvia-adf-rule-v4",
	"orvia-adf-rule-v6",
	"orvia-mep-id",
	"orvia-remote-mep-id",
	"orvia-md-level",
	"orvia-md-name",
	"orvia-ma-name",
	"orvia-ccm-interval",
	"orvia-md-name-format",
	"orvia-loss-threshold",
	"orvia-ma-name-format",
	"orvia-remote-ma-name",
	"orvia-action-profile",
	"orvia-layer2-output-policer",
	"orvia-cos-adjust-minimum",
	"orvia-cos-excess-rate-high",
	"orvia-cos-excess-rate-low",
	"orvia-cos-shaping-rate-burst",
	"orvia-cos-guaranteed-rate-burst",
	"orvia-subscriber-ipv6-multi-address",
	"orvia-subscriber-demux-ip-address",
	"orvia-svlan-interface-set-name",
	"orvia-tagged-vlan-interface-set-name",
	"orvia-bundle-interface-name",
	"orvia-ipv6-dns-server-address",
	"orvia-underlying-ifd-name",
	"orvia-phy-ifd-interface-set-name",
	"orvia-pon-id-interface-set-name",
	"orvia-pim-enable",
	"orvia-vlan-map-id",
	"orvia-inner-vlan-map-id",
	"orvia-input-service-set",
	"orvia-output-service-set",
	"orvia-input-service-filter",
	"orvia-output-service-filter",
	"orvia-input-ipv6-service-set",
	"orvia-output-ipv6-service-set",
	"orvia-input-ipv6-service-filter",
	"orvia-output-ipv6-service-filter",
	"orvia-pcef-profile",
	"orvia-pcef-rule",
	"orvia-interface-mtu",
	"orvia-inner-vlan-tag-protocol-id",
	"orvia-framed-route-tag2",
	"orvia-interface-target-weight",
	"orvia-interface-set-target-weight",
	"orvia-routing-services",
	"orvia-aggregation-interface-set-name",
	"orvia-default-interface-set-name",
	"orvia-phy-ifd-underlying-intf-set-name",
	"variable id max",
};

static_assert(std::size(var_names) == SDB_DYN_VAR_COUNT + 2);

struct attr_info {
	const char *name = nullptr;
	sdb_value_kind kind = SDB_VALUE_BYTES;
	uint16_t max_len = 0;
	bool indexed = false;
};

struct kind_row {
	uint16_t attr;
	sdb_value_kind kind;
	uint16_t max_len;
};

constexpr kind_row kind_rows[] = {
	{SESSION_STATE, SDB_VALUE_U32, 4},
	{CLIENT_SESSION_TYPE, SDB_VALUE_U32, 4},
	{SESSION_VERSION, SDB_VALUE_U32, 4},
	{ATTR_ACCT_TYPE, SDB_VALUE_U32, 4},
	{SESSION_IFL_TYPE, SDB_VALUE_U32, 4},
	{AGGREGATE_CLIENT_ON_IFL, SDB_VALUE_U32, 4},
	{SDB_SERVICE_SESSION_TYPE, SDB_VALUE_U32, 4},
	{THRESHOLD_TYPE, SDB_VALUE_U32, 4},
	{SDB_NUM_DYN_PROF_SERVICE_SESSIONS, SDB_VALUE_SERVICE_COUNT, 4},
	{SDB_NUM_EXTENSIBLE_SERVICE_SESSIONS, SDB_VALUE_SERVICE_COUNT, 4},
	{SDB_MARK_ISSU_CONV_SESSION_MAX_SERV_LIMIT, SDB_VALUE_U16, 2},
	{UNDERLYING_SESSION_ID, SDB_VALUE_SESSION_ID, 8},
	{PARENT_SESSION_ID, SDB_VALUE_SESSION_ID, 8},
	{REMOVE_NO_SUBSCRIBER, SDB_VALUE_FLAG, 1},
	{CONFIGURATION_BITS, SDB_VALUE_BITS, 8},
	{USER_IP_ADDRESS, SDB_VALUE_IPV4, 4},
	{USER_MAC_ADDRESS, SDB_VALUE_MAC, 6},
	{SDB_NEIGHBOR_IPV6_ADDRESS, SDB_VALUE_IPV6_WORDS, 0},
	{DHCP_OPTIONS, SDB_VALUE_OCTETS, 0},
	{SERVER_DHCP_OPTIONS, SDB_VALUE_OCTETS, 0},
	{SDB_DHCPV6_OPTIONS, SDB_VALUE_OCTETS, 0},
	{SDB_DHCP_HEADER, SDB_VALUE_OCTETS, 0},
	{SDB_DHCPV6_HEADER, SDB_VALUE_OCTETS, 0},
	{SDB_SERVER_DHCPV6_OPTIONS, SDB_VALUE_OCTETS, 0},
	{INTERFACE_NAME, SDB_VALUE_TEXT, 60},
	{UNDERLYING_INTERFACE_NAME, SDB_VALUE_TEXT, 60},
	{PHYSICAL_INTERFACE_NAME, SDB_VALUE_TEXT, 60},
	{IFD_NAME, SDB_VALUE_TEXT, 60},
	{LOGICAL_SYSTEM_NAME, SDB_VALUE_TEXT, 63},
	{ROUTING_INSTANCE_NAME, SDB_VALUE_TEXT, 127},
	{USER_NAME, SDB_VALUE_TEXT, 0},
	{PROFILE_NAME, SDB_VALUE_TEXT, 0},
	{INTERFACE_SET_NAME, SDB_VALUE_TEXT, 0},
};

/* A search by one of these is an index lookup. */
constexpr uint16_t indexed_attrs[] = {
	USER_NAME, INTERFACE_NAME, USER_IP_ADDRESS, USER_IPV6_ADDRESS,
	CLIENT_SESSION_TYPE, USER_MAC_ADDRESS, INTERFACE_VLAN, INTERFACE_SVLAN,
	PHYSICAL_INTERFACE_NAME,
};

constexpr auto attr_table = [] {
	std::array<attr_info, SDB_ATTR_TABLE_SIZE> t{};
	for (auto [n, name] : attr_rows)
		t[n].name = name;
	for (const kind_row &k : kind_rows) {
		t[k.attr].kind = k.kind;
		t[k.attr].max_len = k.max_len;
	}
	for (uint16_t a : indexed_attrs)
		t[a].indexed = true;
	return t;
}();

constexpr bool rows_ascending()
{
	uint16_t prev = 0;
	for (auto [n, name] : attr_rows) {
		if (n <= prev || n > SDB_ATTR_NUM_MAX || name == nullptr)
			return false;
		prev = n;
	}
	return true;
}
static_assert(rows_ascending(), "attribute numbers rise and fit the table");
static_assert(std::size(attr_rows) == 265, "1 to 267 without 9 and 210");
static_assert(attr_rows[std::size(attr_rows) - 1].first == 267);
static_assert(attr_table[9].name == nullptr && attr_table[210].name == nullptr);
static_assert(std::string_view(attr_table[36].name) == "SESSION_STATE");
static_assert(std::string_view(attr_table[150].name) == "SESSION_VERSION");
static_assert(attr_table[INTERFACE_NAME].max_len == 60 &&
    attr_table[LOGICAL_SYSTEM_NAME].max_len == 63 &&
    attr_table[ROUTING_INSTANCE_NAME].max_len == 127);

constexpr uint32_t var_hash(std::string_view s)
{
	uint32_t h = 0;
	for (char c : s)
		h = h * 3 + (uint8_t)c;
	return h % SDB_DYN_VAR_BUCKETS;
}

/* Buckets: first id inline, further ids chained in insertion order. */
struct var_index {
	std::array<uint8_t, SDB_DYN_VAR_BUCKETS> head{};
	std::array<uint8_t, SDB_DYN_VAR_COUNT + 1> next{};
};

constexpr var_index var_table = [] {
	var_index v{};
	for (int id = 1; id <= SDB_DYN_VAR_COUNT; id++) {
		uint32_t b = var_hash(var_names[id]);
		if (v.head[b] == 0) {
			v.head[b] = (uint8_t)id;
			continue;
		}
		int at = v.head[b];
		while (v.next[at] != 0)
			at = v.next[at];
		v.next[at] = (uint8_t)id;
	}
	return v;
}();

constexpr int var_lookup(std::string_view s)
{
	for (int id = var_table.head[var_hash(s)]; id != 0;
	    id = var_table.next[id])
		if (s == var_names[id])
			return id;
	return 0;
}

constexpr bool every_var_found()
{
	for (int id = 1; id <= SDB_DYN_VAR_COUNT; id++)
		if (var_lookup(var_names[id]) != id)
			return false;
	return true;
}
static_assert(every_var_found(), "each name finds its own id");
static_assert(var_lookup("orvia-interface-unit") ==
    DYN_CONF_VAR_ORVIA_INTERFACE_UNIT);
static_assert(var_lookup("orvia-phy-ifd-underlying-intf-set-name") == 106);
static_assert(var_lookup("orvia-no-such-variable") == 0 && var_lookup("") == 0);

/* Sections of a session: dirty bit, long-term table (-1: carried inside
 * another section's row), name. */
struct section_row {
	uint8_t dirty;
	int table_client;
	int table_service;
	const char *name;
};
constexpr section_row sections[] = {
	{SDB_DIRTY_CLIENT_ATTRS, SDB_TABLE_CLIENT, SDB_TABLE_SERVICE,
	    "client attributes"},
	{SDB_DIRTY_DYNAMIC, SDB_TABLE_DYNAMIC, SDB_TABLE_DYNAMIC, "dynamic"},
	{SDB_DIRTY_AUTH_REQ, SDB_TABLE_AUTH_REQ, -1, "authentication request"},
	{SDB_DIRTY_AUTH_RESP, SDB_TABLE_AUTH_RESP, -1, "authentication response"},
	{SDB_DIRTY_APP_DATA, SDB_TABLE_APP, SDB_TABLE_APP, "application data"},
	{SDB_DIRTY_CLIENT_SESSION, -1, SDB_TABLE_SERVICE, "client_session"},
	{SDB_DIRTY_DYNAMIC_SESSION, SDB_TABLE_CLIENT, -1, "dynamic_session"},
	{SDB_DIRTY_SERVICE_LIST, SDB_TABLE_CLIENT, -1, "service list"},
};
constexpr bool sections_cover_the_byte()
{
	unsigned seen = 0;
	for (const section_row &r : sections) {
		if (std::popcount(r.dirty) != 1 || (seen & r.dirty))
			return false;
		seen |= r.dirty;
	}
	return seen == 0xFF;
}
static_assert(sections_cover_the_byte(), "one dirty bit per section");
static_assert(sections[0].dirty == 0x01 && sections[7].dirty == 0x80);

/* Rows: actions; columns: the targets of sdb_update_target. */
constexpr bool action_table[SDB_ACTION_COUNT][4] = {
	{true, true, true, true},	/* add */
	{true, true, true, true},	/* replace */
	{false, true, true, false},	/* clear bits */
	{false, true, true, false},	/* set bits */
	{true, true, true, true},	/* delete */
	{false, false, false, true},	/* delete array */
	{false, false, false, true},	/* select */
};
static_assert(!action_table[SDB_ACTION_CLEAR_BITS][SDB_TARGET_ATTR] &&
    !action_table[SDB_ACTION_SET_BITS][SDB_TARGET_ATTR],
    "bit actions are refused on plain attributes");
static_assert(action_table[SDB_ACTION_SELECT][SDB_TARGET_DYNAMIC]);

constexpr const char *action_names[SDB_ACTION_COUNT] = {
	"add", "replace", "clear bits", "set bits", "delete", "delete array",
	"select",
};

} // namespace

extern "C" const char *sdb_attr_name(uint32_t attr)
{
	if (attr >= SDB_ATTR_TABLE_SIZE || attr_table[attr].name == nullptr)
		return "unknown";
	return attr_table[attr].name;
}

extern "C" sdb_value_kind sdb_attr_value_kind(uint32_t attr)
{
	return attr < SDB_ATTR_TABLE_SIZE ? attr_table[attr].kind :
	    SDB_VALUE_BYTES;
}

extern "C" uint32_t sdb_attr_max_len(uint32_t attr)
{
	if (attr >= SDB_ATTR_TABLE_SIZE)
		return 0;
	const attr_info &a = attr_table[attr];
	/* Only texts are refused by length; numbers keep their own width. */
	return a.kind == SDB_VALUE_TEXT ? a.max_len : 0;
}

extern "C" int sdb_attr_is_indexed(uint32_t attr)
{
	return attr < SDB_ATTR_TABLE_SIZE && attr_table[attr].indexed;
}

extern "C" uint32_t sdb_dyn_var_hash(const char *name, size_t len)
{
	return name == nullptr ? 0 : var_hash(std::string_view(name, len));
}

extern "C" int sdb_dyn_var_id(const char *name, size_t len)
{
	if (name == nullptr)
		return 0;
	return var_lookup(std::string_view(name, len));
}

extern "C" const char *sdb_dyn_var_name(int id)
{
	if (id < 1 || id > SDB_DYN_VAR_COUNT)
		return nullptr;
	return var_names[id];
}

extern "C" int sdb_action_valid(uint32_t target, uint32_t action)
{
	return target < 4 && action < SDB_ACTION_COUNT &&
	    action_table[action][target];
}

extern "C" const char *sdb_section_name(uint32_t dirty_bit)
{
	for (const section_row &r : sections)
		if (r.dirty == dirty_bit)
			return r.name;
	return "unknown";
}

extern "C" const char *sdb_action_name(uint32_t action)
{
	return action < SDB_ACTION_COUNT ? action_names[action] : "unknown";
}

extern "C" void sdb_dyn_var_print_table(void (*fn)(void *, const char *),
    void *arg)
{
	char line[4096];
	fn(arg, "DYN_CONF VID to String Hash Table");
	snprintf(line, sizeof line, "%d strings, %d buckets", SDB_DYN_VAR_COUNT,
	    SDB_DYN_VAR_BUCKETS);
	fn(arg, line);
	int collisions = 0, most = 0;
	for (int b = 0; b < SDB_DYN_VAR_BUCKETS; b++) {
		int id = var_table.head[b];
		if (id == 0)
			continue;
		int n = snprintf(line, sizeof line, "%d\t%d\t%s", b, id,
		    var_names[id]);
		int in_bucket = 1;
		for (id = var_table.next[id]; id != 0; id = var_table.next[id]) {
			if (n < (int)sizeof line)
				n += snprintf(line + n, sizeof line - n,
				    "\n\t%d\t%s", id, var_names[id]);
			collisions++;
			in_bucket++;
		}
		most = in_bucket > most ? in_bucket : most;
		fn(arg, line);
	}
	snprintf(line, sizeof line, "Total hash collisions: %d", collisions);
	fn(arg, line);
	snprintf(line, sizeof line, "Max entries per location: %d", most);
	fn(arg, line);
}

/* The dump form of a value: first by number, then by length. */
extern "C" size_t sdb_attr_format(uint32_t attr, const void *value,
    size_t len, char *buf, size_t size)
{
	const auto *v = static_cast<const uint8_t *>(value);
	if (size == 0)
		return 0;
	buf[0] = '\0';
	auto put = [&](const char *fmt, auto... a) {
		size_t used = strlen(buf);
		if (used < size)
			snprintf(buf + used, size - used, fmt, a...);
	};
	constexpr size_t max_out = 400;
	switch (sdb_attr_value_kind(attr)) {
	case SDB_VALUE_MAC:
		if (len >= 6) {
			put("%02x:%02x:%02x:%02x:%02x:%02x", v[0], v[1], v[2],
			    v[3], v[4], v[5]);
			return strlen(buf);
		}
		break;
	case SDB_VALUE_IPV4:
		if (len >= 4) {
			put("%d.%d.%d.%d", v[0], v[1], v[2], v[3]);
			return strlen(buf);
		}
		break;
	case SDB_VALUE_IPV6_WORDS:
		if (len >= 12) {
			uint16_t w[6];
			memcpy(w, v, sizeof w);
			put("%4x:%4x:%4x:%4x:%4x:%4x", w[0], w[1], w[2], w[3],
			    w[4], w[5]);
			return strlen(buf);
		}
		break;
	case SDB_VALUE_SESSION_ID:
		if (len >= 8) {
			uint64_t id;
			memcpy(&id, v, 8);
			put("%llu", (unsigned long long)id);
			return strlen(buf);
		}
		break;
	case SDB_VALUE_SERVICE_COUNT: {
		uint32_t n = 0;	/* a 2-byte value reads into a zeroed word */
		memcpy(&n, v, len < 4 ? len : 4);
		put("%10d", (int)n);
		return strlen(buf);
	}
	case SDB_VALUE_OCTETS:
	case SDB_VALUE_BITS:
		for (size_t i = 0; i < len && strlen(buf) + 3 <= max_out; i++)
			put(" %02x", v[i]);
		return strlen(buf);
	default:
		break;
	}
	if (len == 1 || len == 2 || len == 4) {
		uint32_t n = 0;
		memcpy(&n, v, len);
		put("%10d", (int)n);
		return strlen(buf);
	}
	size_t cut = len < max_out ? len : max_out;
	for (size_t i = 0; i < cut && v[i] != 0; i++)
		put("%c", (v[i] >= 0x20 && v[i] < 0x7f) ? v[i] : '.');
	return strlen(buf);
}

/* The name table is a constant of the program: nothing to build at open. */
void sdb_dyn_var_table_init(void)
{
}
