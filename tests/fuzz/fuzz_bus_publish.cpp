// What a broker may hand to a node: publishes with any topic, payload and properties, from the MQTT library's callback
// on, and the passing of time. The input is a list of steps, each a byte that says what and the bytes that it needs. A
// model of the node's duties says which message has to be told, and as what. There is no broker and no network.
#include "client_events.h"

#include "fuzz/fuzz_input.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <algorithm>
#include <map>
#include <optional>
#include <set>

using message_callback = void (*)(mosquitto *, void *, const mosquitto_message *, const mosquitto_property *);

static message_callback arrive = nullptr; // the link's

extern "C" void __wrap_mosquitto_message_v5_callback_set(mosquitto *, message_callback callback);
extern "C" void __wrap_mosquitto_message_v5_callback_set(mosquitto *, message_callback callback)
{
	arrive = callback;
}

extern "C" int __wrap_mosquitto_connect_bind_async(mosquitto *, const char *, int, int, const char *);
extern "C" int __wrap_mosquitto_connect_bind_async(mosquitto *, const char *, int, int, const char *)
{
	return MOSQ_ERR_NO_CONN;
}

namespace
{

constexpr uint32_t incoming_max = 300; // bytes; a small one, so that it is reached
constexpr size_t steps_max = 256;      // no sender's window is full by then

enum class topic_shape { unit, group, special, status, status_of_dm_client, status_without_group, foreign_unit, raw };
constexpr unsigned topic_shapes = 8;

struct publish {
	topic_shape shape = topic_shape::raw;
	std::string topic;
	std::string sender;
	std::vector<char> payload;
	bool retain = false;
	mosquitto_property *properties = nullptr;
	std::string content_type;
	std::optional<std::string> id; // of the first user property of that name
};

// What the node has to do with what came.
struct model {
	const bus_client *client = nullptr;
	int64_t now_ms = 1;
	const publish *arriving = nullptr;
	unsigned told = 0;                                // of the one that arrives
	std::map<std::string, std::set<std::string>> ids; // told, by sender
	std::set<std::string> peers;                      // told as connected
};

model *model_of(tervbus_client *record)
{
	return static_cast<model *>(record->user);
}

bool id_is_well_formed(const std::string &id)
{
	return id.size() == 32 && id.find_first_not_of("0123456789abcdef") == std::string::npos;
}

bool known(const model &state, const publish &message)
{
	const auto sender = state.ids.find(message.sender);
	return message.id && sender != state.ids.end() && sender->second.contains(*message.id);
}

void note_id(model *state, const publish &message)
{
	if (message.id && id_is_well_formed(*message.id))
		state->ids[message.sender].insert(*message.id);
}

// With more senders than are remembered in any case, some have been forgotten perhaps.
bool remembers_all(const model &state)
{
	return state.ids.size() <= seen_ids_senders;
}

bool is_own_inbox(const model &state, const publish &message)
{
	switch (message.shape) {
	case topic_shape::unit:
		return true;
	case topic_shape::group:
		return state.client->names.group.text[0] != '\0';
	case topic_shape::special:
		return bus_name_is_dm_client(state.client->names.unit.text);
	default:
		return false;
	}
}

// Unless it came before.
bool has_to_be_told(const model &state, const publish &message)
{
	return is_own_inbox(state, message) && bus_name_usable(message.sender) && !message.retain &&
			message.payload.size() <= incoming_max;
}

void require_destination(const model &state, topic_shape shape, const address_entry *to)
{
	require(to != nullptr && to->next == nullptr);
	if (shape == topic_shape::special)
		require(to->type == TERVBUS_ADDRESS_SPECIAL && to->value.number == dm_client_special);
	else if (shape == topic_shape::group)
		require(to->type == TERVBUS_ADDRESS_GROUP && strcmp(to->value.text, state.client->names.group.text) == 0);
	else if (shape == topic_shape::unit)
		require(to->type == TERVBUS_ADDRESS_UNIT && strcmp(to->value.text, state.client->names.unit.text) == 0);
}

void require_source(const std::string &sender, const address_entry *from)
{
	require(from != nullptr && from->type == TERVBUS_ADDRESS_UNIT && sender == from->value.text);
	from = from->next;
	require((from != nullptr) == (sender == dm_client_name));
	if (from != nullptr)
		require(from->type == TERVBUS_ADDRESS_SPECIAL && from->value.number == 0 && from->next == nullptr);
}

void require_payload(const std::vector<char> &payload, const tervbus_message *message)
{
	const bool ended = payload.empty() || payload.back() == '\0';
	require(message->length == payload.size() + (ended ? 0 : 1));
	require(message->data != nullptr && std::equal(payload.begin(), payload.end(), message->data));
	require(message->data[message->length > 0 ? message->length - 1 : 0] == '\0');
}

void on_message(tervbus_client *record, tervbus_message *message)
{
	model *state = model_of(record);
	require(state->arriving != nullptr);
	const publish &arrived = *state->arriving;
	require(arrived.topic.ends_with("/" + arrived.sender));
	require(!arrived.retain && arrived.payload.size() <= incoming_max);
	require_source(arrived.sender, message->source);
	require_destination(*state, arrived.shape, message->destination);
	require_payload(arrived.payload, message);
	require(message->content_type != nullptr && arrived.content_type == message->content_type);
	state->told++;
}

// A peer as the callbacks name it.
std::string name_of(const address_entry *entry)
{
	require(entry->next == nullptr);
	if (entry->type == TERVBUS_ADDRESS_UNIT)
		return entry->value.text;
	require(entry->type == TERVBUS_ADDRESS_SPECIAL && entry->value.number == 0);
	return dm_client_name;
}

void on_presence(tervbus_client *record, address_entry *connected, address_entry *disconnected)
{
	model *state = model_of(record);
	require((connected == nullptr) != (disconnected == nullptr));
	if (connected != nullptr) {
		const std::string peer = name_of(connected);
		require(peer != state->client->names.unit.text);
		require(state->peers.insert(peer).second);
		return;
	}
	require(state->peers.erase(name_of(disconnected)) == 1);
}

std::string topic_of(const model &state, topic_shape shape, const std::string &sender, const std::string &raw)
{
	const bus_names &names = state.client->names;
	const std::string root = "movra/v1/";
	switch (shape) {
	case topic_shape::unit:
		return root + "ua/" + names.unit.text + "/" + sender;
	case topic_shape::group:
		return root + "grp/" + names.group.text + "/" + sender;
	case topic_shape::special:
		return root + "special/0/" + sender;
	case topic_shape::status:
		return root + "status/" + names.group.text + "/" + sender;
	case topic_shape::status_of_dm_client:
		return root + "status/" + raw + "/" + dm_client_name;
	case topic_shape::status_without_group:
		return root + "status//" + sender;
	case topic_shape::foreign_unit:
		return root + "ua/" + raw + names.unit.text + "x/" + sender;
	case topic_shape::raw:
		break;
	}
	return raw;
}

// A sender of a small cast, or any text.
std::string take_sender(fuzz_input *input)
{
	const uint8_t pick = take_byte(input);
	if (pick == 0)
		return dm_client_name;
	if (pick == 1)
		return take_text(input);
	return "unit" + std::to_string(pick);
}

std::string take_id(fuzz_input *input)
{
	std::string id(32, 'a');
	const uint8_t shape = take_byte(input);
	if (shape % 8 == 0)
		return take_text(input);
	id[31] = "0123456789abcdef"[take_byte(input) % 16];
	if (shape % 8 == 1)
		id[shape % 32] = 'A';
	else if (shape % 8 == 2)
		id.resize(shape, 'b');
	return id;
}

// A text that MQTT cannot carry is left out.
void add_user_property(publish *message, const std::string &name, const std::string &value)
{
	const int rc = mosquitto_property_add_string_pair(
			&message->properties, MQTT_PROP_USER_PROPERTY, name.c_str(), value.c_str());
	if (rc == MOSQ_ERR_SUCCESS && name == "movra-id" && !message->id)
		message->id = value;
}

void take_properties(publish *message, fuzz_input *input)
{
	const uint8_t which = take_byte(input);
	if ((which & 1) != 0)
		add_user_property(message, "movra-id", take_id(input));
	if ((which & 2) != 0) {
		const std::string type = take_text(input);
		if (mosquitto_property_add_string(&message->properties, MQTT_PROP_CONTENT_TYPE, type.c_str()) == 0)
			message->content_type = type;
	}
	if ((which & 4) != 0) {
		const uint8_t scale = take_byte(input);
		mosquitto_property_add_int32(
				&message->properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, uint32_t{take_byte(input)} << scale % 25);
	}
	if ((which & 8) != 0) {
		const std::string name = take_text(input);
		add_user_property(message, name, take_text(input));
	}
	if ((which & 16) != 0)
		add_user_property(message, "movra-id", take_id(input)); // also a second one
	if ((which & 32) != 0)
		mosquitto_property_add_byte(&message->properties, MQTT_PROP_PAYLOAD_FORMAT_INDICATOR, 1);
	message->retain = (which & 64) != 0;
}

std::vector<char> take_payload(fuzz_input *input)
{
	constexpr const char *statuses[] = {"on", "off"};
	const uint8_t kind = take_byte(input);
	std::string text = kind < 128 ? take_text(input) : statuses[kind % 2];
	if (kind % 4 == 3)
		text.push_back('\0');
	if (kind == 127)
		text.resize(incoming_max + take_byte(input) % 4 - 1, 'x');
	return {text.begin(), text.end()};
}

void deliver(model *state, bus_client *client, const publish &message)
{
	mosquitto_message arrived{};
	std::string topic = message.topic;
	std::vector<char> payload = message.payload;
	arrived.topic = topic.data();
	arrived.payload = payload.empty() ? nullptr : payload.data();
	arrived.payloadlen = static_cast<int>(payload.size());
	arrived.qos = 1;
	arrived.retain = message.retain;

	const bool repeated = known(*state, message);
	const bool expected = has_to_be_told(*state, message) && !repeated;
	state->arriving = &message;
	state->told = 0;
	arrive(nullptr, client->link, &arrived, message.properties);
	client_take_messages(client, state->now_ms);
	state->arriving = nullptr;

	require(client->link->messages.first == nullptr);
	require(state->told <= 1 && (state->told == 0 || !repeated || !remembers_all(*state)));
	require(state->told == 1 || !expected);
	require(state->told == 0 || message.shape == topic_shape::raw || has_to_be_told(*state, message));
	if (state->told == 1)
		note_id(state, message);
}

void take_publish(model *state, bus_client *client, fuzz_input *input)
{
	publish message;
	message.shape = static_cast<topic_shape>(take_byte(input) % topic_shapes);
	message.sender = take_sender(input);
	const bool with_text = message.shape >= topic_shape::status_of_dm_client;
	message.topic = topic_of(*state, message.shape, message.sender, with_text ? take_text(input) : "");
	take_properties(&message, input);
	message.payload = take_payload(input);
	// A slash in a name makes other levels of it than were meant.
	if (message.sender.find('/') != std::string::npos)
		message.shape = topic_shape::raw;
	message.sender = message.topic.substr(message.topic.rfind('/') + 1);
	deliver(state, client, message);
	mosquitto_property_free_all(&message.properties);
}

void play(model *state, bus_client *client, fuzz_input *input)
{
	for (size_t i = 0; input->left > 0 && i < steps_max; i++) {
		if (take_byte(input) % 8 == 7)
			state->now_ms += int64_t{take_byte(input)} * 5000;
		else
			take_publish(state, client, input);
		client_tell_expired_peers(client, state->now_ms);
		require(state->peers.size() == client->presence.count && client->presence.count <= presence_peers_max);
		require(client->seen.count <= seen_ids_senders_max);
	}
	state->now_ms += int64_t{status_expiry_s} * 1000;
	client_tell_expired_peers(client, state->now_ms);
	require(state->peers.empty());
}

bus_client *new_client(uint8_t who)
{
	constexpr bus_names cast[] = {{{"agent"}, {"vehicle"}}, {{"DM-CLIENT"}, {"backend"}}, {{"loner"}, {""}}};
	bus_client *client = record_new<bus_client>();
	require(client != nullptr);
	client->holders = 1;
	client->names = cast[who % std::size(cast)];
	client->on_presence = on_presence;
	client->on_message = on_message;
	static SSL_CTX *const context = SSL_CTX_new(TLS_client_method()); // none is used, but there has to be one
	require(context != nullptr && SSL_CTX_up_ref(context) == 1);
	client->context = context;
	client->settings = {
			client->names, client->context, &client->report, incoming_max, client_note_acknowledged, client};
	client->presence.own_unit = client->names.unit.text;
	client->link = mqtt_link_open(&client->settings, "127.0.0.1", 1, 0);
	require(client->link != nullptr && arrive != nullptr);
	return client;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	static const bool started = mosquitto_lib_init() == MOSQ_ERR_SUCCESS;
	require(started);
	fuzz_input input{data, size};
	model state;
	tervbus_client record{};
	record.user = &state;

	bus_client *client = new_client(take_byte(&input));
	client->record = &record;
	state.client = client;
	play(&state, client, &input);
	client_release(client);
	return 0;
}
