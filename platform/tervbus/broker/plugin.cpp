// The mosquitto plugin that enforces the bus's access rules. The broker is to know its clients by their certificates:
// a listener with require_certificate, use_identity_as_username and use_username_as_clientid. Options:
//
//   plugin_opt_rules <file>                       see rules.h; read again when it has changed
//   plugin_opt_persistence <folder>               the broker's persistence_location; see journal.h
//   plugin_opt_bridge <CN> <unit>,<unit>,...      once per bridge; those in the rules count beside
//
// A bridge that the broker opens itself is exempt from its access checks; what comes over it is looked at as a message
// that has come in. mosquitto tells a plugin of those only with the settings of all listeners in one
// (per_listener_settings false), and names the bridge by its local_username.
//
// No signal is needed for new rules, and SIGHUP is best avoided: at SIGHUP mosquitto 2.0.11 enters every node that is
// away a second time into its list of sessions to expire, and crashes when one of them comes back or runs out.
//
// The broker is single-threaded: so is all of this.
#include "refusals.h"
#include "unsaved.h"

#include "../bus_clock.h"

#include <mosquitto.h>
#include <mosquitto_broker.h>
#include <mosquitto_plugin.h>
#include <mqtt_protocol.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <map>

namespace
{

// How long a client is remembered after it has gone. Its will, and the messages for its session, are looked at when
// its certificate is at hand no more.
constexpr int64_t memory_s = 120;

constexpr size_t name_max = 128; // bytes of a CN, as the nodes have it

struct seen_client {
	std::string group;
	int64_t gone_s = -1; // -1: connected
};

// What shows that a file is not the one read before.
struct file_mark {
	ino_t inode = 0;
	off_t size = 0;
	timespec changed = {};
};

struct plugin_state {
	mosquitto_plugin_id_t *identifier = nullptr;
	std::string rules_path;  // empty: no rules, nobody may send to anybody
	file_mark rules_mark;    // of the rules in force, or of those last refused
	int64_t looked_s = -1;   // for new rules; once a second is enough
	std::string persistence; // empty: no journal of what is not saved
	journal unsaved;
	access_policy policy;
	refusal_log refusals;
	bridged_groups groups;
	std::map<std::string, seen_client> seen;          // by CN
	std::deque<std::pair<int64_t, std::string>> gone; // who went when, oldest first
};

// Of the machine, so that nothing that is timed here depends on who sets the clock.
int64_t now_s()
{
	return bus_now_ms() / 1000;
}

// The first OU, or nothing.
std::string group_in(X509 *certificate)
{
	const X509_NAME *subject = X509_get_subject_name(certificate);
	const int index = X509_NAME_get_index_by_NID(subject, NID_organizationalUnitName, -1);
	if (index < 0)
		return {};

	unsigned char *utf8 = nullptr;
	const int length = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index)));
	if (length < 0)
		return {};
	std::string group(reinterpret_cast<const char *>(utf8), static_cast<size_t>(length));
	OPENSSL_free(utf8);
	// A group that could change a topic's meaning, or is cut short by a zero byte in it, is no group.
	return group.find_first_of(std::string("/+#\0", 4)) == std::string::npos ? group : std::string();
}

// A name that could change a topic's meaning, or one of several, is nobody's. The broker takes the first of several
// CNs.
bool usable_name(X509 *certificate, std::string_view name)
{
	const X509_NAME *subject = X509_get_subject_name(certificate);
	const int first = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
	if (first < 0 || X509_NAME_get_index_by_NID(subject, NID_commonName, first) >= 0)
		return false;
	return !name.empty() && name.size() <= name_max && std::none_of(name.begin(), name.end(), [](char character) {
		const unsigned char byte = static_cast<unsigned char>(character);
		return byte < 0x20 || byte == 0x7F || character == '/' || character == '+' || character == '#';
	});
}

access_node node_of(plugin_state *state, const mosquitto *client)
{
	access_node node;
	const char *name = mosquitto_client_username(client);
	if (name == nullptr)
		return node;
	node.unit = name;

	X509 *certificate = static_cast<X509 *>(mosquitto_client_certificate(client));
	if (certificate != nullptr) {
		node.unfit = !usable_name(certificate, node.unit);
		node.group = group_in(certificate);
		if (!node.unfit)
			state->seen[node.unit] = {node.group};
		X509_free(certificate);
		return node;
	}
	const auto known = state->seen.find(node.unit);
	node.away = known == state->seen.end();
	if (!node.away)
		node.group = known->second.group;
	return node;
}

void forget_the_long_gone(plugin_state *state, int64_t now)
{
	while (!state->gone.empty() && state->gone.front().first + memory_s < now) {
		const auto known = state->seen.find(state->gone.front().second);
		if (known != state->seen.end() && known->second.gone_s == state->gone.front().first)
			state->seen.erase(known);
		state->gone.pop_front();
	}
}

int note_gone(int, void *event, void *user)
{
	const auto *check = static_cast<const mosquitto_evt_disconnect *>(event);
	auto *state = static_cast<plugin_state *>(user);
	const int64_t now = now_s();

	forget_the_long_gone(state, now);
	const char *name = mosquitto_client_username(check->client);
	const auto known = name != nullptr ? state->seen.find(name) : state->seen.end();
	if (known == state->seen.end())
		return MOSQ_ERR_SUCCESS;
	known->second.gone_s = now;
	state->gone.emplace_back(now, name);
	return MOSQ_ERR_SUCCESS;
}

struct access_row {
	int asked; // the broker's word for it
	access_kind kind;
};

constexpr access_row access_table[] = {
		{MOSQ_ACL_READ, access_kind::read},
		{MOSQ_ACL_WRITE, access_kind::write},
		{MOSQ_ACL_SUBSCRIBE, access_kind::subscribe},
};
static_assert(std::size(access_table) == 3);

file_mark mark_of(const std::string &path)
{
	struct stat status;
	if (stat(path.c_str(), &status) != 0)
		return {};
	return {status.st_ino, status.st_size, status.st_ctim};
}

bool same_mark(const file_mark &left, const file_mark &right)
{
	return left.inode == right.inode && left.size == right.size && left.changed.tv_sec == right.changed.tv_sec &&
			left.changed.tv_nsec == right.changed.tv_nsec;
}

// The rules in force stay when the file cannot be used. The mark is taken first: what changes while it is being read is
// read once more.
void reload_rules(plugin_state *state)
{
	std::string why;
	state->rules_mark = mark_of(state->rules_path);
	if (!state->rules_path.empty() && !rules_load(state->rules_path.c_str(), &state->policy.rules, &why))
		mosquitto_log_printf(
				MOSQ_LOG_ERR, "quillet: %s: %s; the old rules stay", state->rules_path.c_str(), why.c_str());
}

// Before a decision: what nobody asks about need not be known.
void look_for_new_rules(plugin_state *state)
{
	const int64_t now = now_s();
	if (state->rules_path.empty() || now == state->looked_s)
		return;
	state->looked_s = now;
	if (!same_mark(mark_of(state->rules_path), state->rules_mark))
		reload_rules(state);
}

int reload(int, void *, void *user)
{
	reload_rules(static_cast<plugin_state *>(user));
	return MOSQ_ERR_SUCCESS;
}

// The broker's word for it, with a line in its log when one is due.
int refuse(plugin_state *state, const access_node &node, const access_wish &wish, const char *cause)
{
	const std::string line = refusal_line(&state->refusals, node.unit, wish, cause, now_s());
	if (!line.empty())
		mosquitto_log_printf(MOSQ_LOG_WARNING, "%s", line.c_str());
	return MOSQ_ERR_ACL_DENIED;
}

int decide(plugin_state *state, const access_node &node, const access_wish &wish)
{
	if (access_allowed(state->policy, node, wish))
		return MOSQ_ERR_SUCCESS;
	return refuse(state, node, wish, refusal_cause(state->policy, node, wish));
}

// A write that has come. The broker asks also about what it has kept, before it gives it to somebody: then the client
// is a mere name, without a protocol.
int decide_write(plugin_state *state, const mosquitto *client, const access_node &node, const access_wish &wish)
{
	const int verdict = decide(state, node, wish);
	if (verdict != MOSQ_ERR_SUCCESS || mosquitto_client_protocol_version(client) == 0)
		return verdict;
	return access_note_group(&state->groups, state->policy, node, wish.topic)
			? verdict
			: refuse(state, node, wish, refusal_many_groups);
}

std::string_view payload_of(const void *bytes, uint32_t length)
{
	return bytes != nullptr ? std::string_view(static_cast<const char *>(bytes), length) : std::string_view();
}

int check_access(int, void *event, void *user)
{
	const auto *check = static_cast<const mosquitto_evt_acl_check *>(event);
	auto *state = static_cast<plugin_state *>(user);

	if (check->access == MOSQ_ACL_UNSUBSCRIBE)
		return MOSQ_ERR_SUCCESS;
	look_for_new_rules(state);
	const access_row *row = std::find_if(std::begin(access_table), std::end(access_table),
			[check](const access_row &each) { return each.asked == check->access; });
	if (row == std::end(access_table))
		return MOSQ_ERR_ACL_DENIED;
	const access_wish wish{row->kind, check->topic, check->retain, payload_of(check->payload, check->payloadlen)};
	const access_node node = node_of(state, check->client);
	return wish.kind == access_kind::write ? decide_write(state, check->client, node, wish) : decide(state, node, wish);
}

// A local unit's name is never taken from the far end of a bridge, whatever the lists say.
bool poses_as_local(const plugin_state *state, std::string_view topic)
{
	return state->seen.contains(std::string(topic.substr(topic.rfind('/') + 1)));
}

// Such a client has no address; and a name of this kind is nobody else's, see access.h. Over TLS it does have a
// certificate, but that is the far broker's.
bool is_local_bridge(const mosquitto *client)
{
	const char *name = mosquitto_client_username(client);
	return mosquitto_client_address(client) == nullptr || name == nullptr ||
			std::string_view(name).substr(0, access_local_prefix.size()) == access_local_prefix;
}

// What comes in over a bridge that this broker has opened.
int decide_bridged(plugin_state *state, const mosquitto *client, const access_wish &wish)
{
	look_for_new_rules(state);
	const char *name = mosquitto_client_username(client);
	const access_node bridge{.unit = name != nullptr ? name : "", .group = "", .local = true};
	return poses_as_local(state, wish.topic) ? refuse(state, bridge, wish, refusal_as_local)
											 : decide_write(state, client, bridge, wish);
}

bool is_adorned(const mosquitto_property *property)
{
	for (; property != nullptr; property = mosquitto_property_next(property))
		if (mosquitto_property_identifier(property) != MQTT_PROP_MESSAGE_EXPIRY_INTERVAL)
			return true;
	return false;
}

// What check_access was not asked about, or not shown: messages of this broker's own bridges, and the properties of all
// others. Those of a will mosquitto 2.0 shows to no plugin.
int check_message(int, void *event, void *user)
{
	const auto *message = static_cast<const mosquitto_evt_message *>(event);
	auto *state = static_cast<plugin_state *>(user);

	const access_wish wish{access_kind::write, message->topic, message->retain,
			payload_of(message->payload, message->payloadlen), is_adorned(message->properties)};
	if (is_local_bridge(message->client))
		return decide_bridged(state, message->client, wish);
	return wish.adorned && access_is_status(wish.topic) ? decide(state, node_of(state, message->client), wish)
														: MOSQ_ERR_SUCCESS;
}

// The broker asks this only about a client that has not proved its name with a certificate.
int refuse_password(int, void *, void *)
{
	return MOSQ_ERR_AUTH;
}

bool take_option(plugin_state *state, const mosquitto_opt *option)
{
	if (strcmp(option->key, "rules") == 0) {
		state->rules_path = option->value;
		return true;
	}
	if (strcmp(option->key, "persistence") == 0) {
		state->persistence = option->value;
		return true;
	}
	return strcmp(option->key, "bridge") == 0 && access_add_bridge(&state->policy, option->value);
}

bool configure(plugin_state *state, const mosquitto_opt *options, int count)
{
	for (int i = 0; i < count; i++) {
		if (take_option(state, &options[i]))
			continue;
		mosquitto_log_printf(MOSQ_LOG_ERR,
				"quillet: plugin_opt_%s %s is not understood: there are plugin_opt_rules <file>, "
				"plugin_opt_persistence <folder> and plugin_opt_bridge <name> <unit>,<unit>...",
				options[i].key, options[i].value);
		return false;
	}
	std::string why;
	state->rules_mark = mark_of(state->rules_path);
	if (state->rules_path.empty() || rules_load(state->rules_path.c_str(), &state->policy.rules, &why))
		return true;
	mosquitto_log_printf(MOSQ_LOG_ERR, "quillet: %s: %s", state->rules_path.c_str(), why.c_str());
	return false;
}

struct callback_row {
	int event;
	MOSQ_FUNC_generic_callback call;
};

constexpr callback_row callback_table[] = {
		{MOSQ_EVT_ACL_CHECK, check_access},
		{MOSQ_EVT_BASIC_AUTH, refuse_password},
		{MOSQ_EVT_MESSAGE, check_message},
		{MOSQ_EVT_DISCONNECT, note_gone},
		{MOSQ_EVT_RELOAD, reload},
};
static_assert(std::size(callback_table) == 5);

bool register_callbacks(plugin_state *state)
{
	return std::all_of(std::begin(callback_table), std::end(callback_table), [state](const callback_row &row) {
		return mosquitto_callback_register(state->identifier, row.event, row.call, nullptr, state) == MOSQ_ERR_SUCCESS;
	});
}

// Registered behind the others, so that no message is noted that one of them refuses.
bool keep_unsaved(plugin_state *state)
{
	if (state->persistence.empty())
		return true;
	std::string why;
	if (unsaved_open(&state->unsaved, state->persistence, &why))
		return mosquitto_callback_register(
					   state->identifier, MOSQ_EVT_MESSAGE, unsaved_note, nullptr, &state->unsaved) == MOSQ_ERR_SUCCESS;
	mosquitto_log_printf(MOSQ_LOG_ERR, "quillet: %s", why.c_str());
	return false;
}

} // namespace

extern "C" int mosquitto_plugin_version(int count, const int *versions)
{
	for (int i = 0; i < count; i++)
		if (versions[i] == MOSQ_PLUGIN_VERSION)
			return MOSQ_PLUGIN_VERSION;
	return -1;
}

extern "C" int mosquitto_plugin_init(
		mosquitto_plugin_id_t *identifier, void **user, mosquitto_opt *options, int option_count)
{
	auto *state = new plugin_state;
	state->identifier = identifier;
	if (!configure(state, options, option_count) || !register_callbacks(state) || !keep_unsaved(state)) {
		journal_close(&state->unsaved);
		delete state;
		return MOSQ_ERR_UNKNOWN;
	}
	*user = state;
	return MOSQ_ERR_SUCCESS;
}

extern "C" int mosquitto_plugin_cleanup(void *user, mosquitto_opt *, int)
{
	auto *state = static_cast<plugin_state *>(user);
	if (state == nullptr)
		return MOSQ_ERR_SUCCESS;
	for (const callback_row &row : callback_table)
		(void)mosquitto_callback_unregister(state->identifier, row.event, row.call, nullptr); // the broker is ending
	if (!state->persistence.empty())
		(void)mosquitto_callback_unregister(state->identifier, MOSQ_EVT_MESSAGE, unsaved_note, nullptr);
	journal_close(&state->unsaved);
	delete state;
	return MOSQ_ERR_SUCCESS;
}
