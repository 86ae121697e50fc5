#include "mqtt_link.h"

#include "debug.h"
#include "presence.h"

#include <mqtt_protocol.h>
#include <openssl/x509.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace
{

constexpr int64_t phase_timeout_ms = 10'000;
constexpr int64_t housekeeping_ms = 1000; // the connection is looked at this often
constexpr int reads_per_step = 32;        // packets; then the other clients of this thread have their turn

constexpr uint32_t packet_max = 17u << 20; // bytes: the largest message of the bus and its header

const char *const will_text = "off";

__attribute__((format(printf, 3, 4))) void lose(mqtt_link *link, int condition, const char *format, ...)
{
	if (link->phase == link_phase::lost)
		return;
	link->phase = link_phase::lost;
	link->condition = condition;
	va_list arguments;
	va_start(arguments, format);
	(void)vsnprintf(link->reason.text, sizeof(link->reason.text), format, arguments); // a longer one is cut
	va_end(arguments);
}

void enter(mqtt_link *link, link_phase phase, int64_t now_ms)
{
	link->phase = phase;
	link->deadline_ms = phase == link_phase::running ? INT64_MAX : now_ms + phase_timeout_ms;
}

// TLS alerts with which a broker refuses this node's certificate (RFC 8446, 6.2); others are a failed handshake.
bool alert_refuses_certificate(int alert)
{
	constexpr int table[] = {SSL_AD_BAD_CERTIFICATE, SSL_AD_UNSUPPORTED_CERTIFICATE, SSL_AD_CERTIFICATE_REVOKED,
			SSL_AD_CERTIFICATE_EXPIRED, SSL_AD_CERTIFICATE_UNKNOWN, SSL_AD_UNKNOWN_CA, SSL_AD_ACCESS_DENIED,
			SSL_AD_CERTIFICATE_REQUIRED};
	static_assert(std::size(table) == 8);
	return std::find(std::begin(table), std::end(table), alert) != std::end(table);
}

// DISCONNECT reasons that are no judgement on this node: the broker goes away, or has not heard from us.
bool reason_is_a_loss(int reason)
{
	constexpr int table[] = {MQTT_RC_SERVER_SHUTTING_DOWN, MQTT_RC_SERVER_BUSY, MQTT_RC_KEEP_ALIVE_TIMEOUT};
	static_assert(std::size(table) == 3);
	return reason < MQTT_RC_UNSPECIFIED || std::find(std::begin(table), std::end(table), reason) != std::end(table);
}

// A refused certificate may show as nothing but a close: the alert behind TLS 1.3's handshake can be swallowed by a
// reset. So any loss between the handshake and the end of the registration is the broker's refusal.
void lose_unregistered(mqtt_link *link, const char *otherwise)
{
	const tls_report *report = link->settings->report;
	if (report->verify_error != X509_V_OK)
		lose(link, TERVBUS_CONDITION_CONNECTION_FAILED, "broker's certificate refused: %s",
				X509_verify_cert_error_string(report->verify_error));
	else if (alert_refuses_certificate(report->alert) || (report->complete && report->alert >= 0))
		lose(link, TERVBUS_CONDITION_REGISTRATION_FAILED, "refused by the broker: %s",
				SSL_alert_desc_string_long(report->alert));
	else if (report->complete)
		lose(link, TERVBUS_CONDITION_REGISTRATION_FAILED, "closed by the broker before the registration was complete");
	else
		lose(link, TERVBUS_CONDITION_CONNECTION_FAILED, "%s", otherwise);
}

void lose_running(mqtt_link *link)
{
	const int reason = link->disconnect_reason;
	if (reason_is_a_loss(reason)) {
		lose(link, TERVBUS_CONDITION_CONNECTION_BROKE, "connection lost (%d)", reason);
		return;
	}
	lose(link, TERVBUS_CONDITION_CONNECTION_ABORTED, "thrown out by the broker: %s", mosquitto_reason_string(reason));
}

void lose_connection(mqtt_link *link)
{
	if (link->phase == link_phase::running)
		lose_running(link);
	else
		lose_unregistered(link, "TLS handshake failed");
}

mqtt_link *link_of(void *object)
{
	return static_cast<mqtt_link *>(object);
}

void subscribe(mqtt_link *link)
{
	topic_filters list = topic_subscriptions(link->settings->names);
	char *texts[std::size(list.filters)];
	for (size_t i = 0; i < list.count; i++)
		texts[i] = list.filters[i].text;
	const int rc = mosquitto_subscribe_multiple(
			link->handle, &link->subscribe_mid, static_cast<int>(list.count), texts, 1, 0, nullptr);
	if (rc == MOSQ_ERR_NOMEM)
		lose(link, TERVBUS_CONDITION_CONNECTION_FAILED, "%s", mosquitto_strerror(rc));
	else if (rc != MOSQ_ERR_SUCCESS)
		lose(link, TERVBUS_CONDITION_REGISTRATION_FAILED, "%s", mosquitto_strerror(rc));
}

void on_connect(mosquitto *, void *object, int reason, int, const mosquitto_property *properties)
{
	mqtt_link *link = link_of(object);
	if (link->phase >= link_phase::suback)
		return;
	if (reason != MQTT_RC_SUCCESS) {
		lose(link, TERVBUS_CONDITION_REGISTRATION_FAILED, "refused by the broker: %s", mosquitto_reason_string(reason));
		return;
	}
	uint16_t keep_alive = 0;
	if (mosquitto_property_read_int16(properties, MQTT_PROP_SERVER_KEEP_ALIVE, &keep_alive, false) != nullptr)
		keep_alive_agree(&link->traffic, keep_alive);
	link->phase = link_phase::suback; // within the deadline that the CONNACK had
	subscribe(link);
}

void on_subscribe(mosquitto *, void *object, int mid, int count, const int *granted, const mosquitto_property *)
{
	mqtt_link *link = link_of(object);
	if (link->phase != link_phase::suback || mid != link->subscribe_mid)
		return;
	for (int i = 0; i < count; i++) {
		if (granted[i] < MQTT_RC_UNSPECIFIED)
			continue;
		lose(link, TERVBUS_CONDITION_REGISTRATION_FAILED, "subscription refused by the broker: %s",
				mosquitto_reason_string(granted[i]));
		return;
	}
	enter(link, link_phase::running, 0);
}

void on_disconnect(mosquitto *, void *object, int reason, const mosquitto_property *)
{
	// The broker's own word comes first; the close that follows is told here as well.
	if (link_of(object)->disconnect_reason == 0)
		link_of(object)->disconnect_reason = reason;
}

void on_publish(mosquitto *, void *object, int mid, int reason, const mosquitto_property *)
{
	const link_settings *settings = link_of(object)->settings;
	settings->acknowledged(settings->owner, mid, reason);
}

bool belongs_here(const bus_topic &topic, const bus_names &names)
{
	return topic.kind == topic_kind::status || topic_is_own_inbox(topic, names);
}

// What the node does not take, with the reason told.
bool refused(const link_settings *settings, const bus_topic &topic, const mosquitto_message *message)
{
	const uint32_t length = static_cast<uint32_t>(message->payloadlen);
	if (length > settings->incoming_max) {
		debug_text("message of %u bytes from %s dropped: above the limit of %u", length, topic.from.text,
				settings->incoming_max);
		return true;
	}
	// A kept message would come again with every connection: a command must not.
	if (topic.kind == topic_kind::inbox && message->retain) {
		debug_text("retained message from %s dropped", topic.from.text);
		return true;
	}
	return false;
}

link_message *copy_of(const mosquitto_message *message, const mosquitto_property *properties)
{
	const size_t length = static_cast<size_t>(message->payloadlen);
	void *space = calloc(1, sizeof(link_message) + length + 1);
	if (space == nullptr)
		return nullptr;
	scoped<link_message, link_message_free> copy(new (space) link_message);
	if (!mqtt_properties_read(properties, &copy->properties))
		return nullptr;
	copy->length = static_cast<uint32_t>(length);
	copy->payload = reinterpret_cast<char *>(copy.get() + 1);
	if (length > 0)
		memcpy(copy->payload, message->payload, length);
	return copy.release();
}

void on_message(mosquitto *, void *object, const mosquitto_message *message, const mosquitto_property *properties)
{
	mqtt_link *link = link_of(object);
	bus_topic topic;
	if (!topic_parse(message->topic, &topic) || !belongs_here(topic, link->settings->names)) {
		debug_text("message on a foreign topic dropped");
		return;
	}
	if (refused(link->settings, topic, message))
		return;

	link_message *kept = copy_of(message, properties);
	if (kept == nullptr) {
		debug_text("message of %d bytes from %s dropped: no memory", message->payloadlen, topic.from.text);
		return;
	}
	kept->topic = topic;
	fifo_push(&link->messages, kept);
}

void on_log(mosquitto *, void *, int level, const char *text)
{
	if (level == MOSQ_LOG_ERR || level == MOSQ_LOG_WARNING)
		debug_text("mqtt: %s", text);
}

void set_callbacks(mosquitto *handle)
{
	mosquitto_connect_v5_callback_set(handle, on_connect);
	mosquitto_subscribe_v5_callback_set(handle, on_subscribe);
	mosquitto_disconnect_v5_callback_set(handle, on_disconnect);
	mosquitto_publish_v5_callback_set(handle, on_publish);
	mosquitto_message_v5_callback_set(handle, on_message);
	mosquitto_log_callback_set(handle, on_log);
}

// The properties are the MQTT library's only when it has taken them.
bool set_will(mqtt_link *link)
{
	const topic_text topic = topic_of_status(link->settings->names);
	mosquitto_property *properties = nullptr;
	if (mqtt_properties_make(&properties, nullptr, nullptr, status_expiry_s) == MOSQ_ERR_SUCCESS &&
			mosquitto_will_set_v5(link->handle, topic.text, static_cast<int>(strlen(will_text)), will_text, 1, true,
					properties) == MOSQ_ERR_SUCCESS)
		return true;
	mosquitto_property_free_all(&properties);
	return false;
}

// The library's defaults stay off: with them on it refuses to connect, or verifies against nothing.
bool set_options(mqtt_link *link)
{
	return mosquitto_int_option(link->handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5) == MOSQ_ERR_SUCCESS &&
			mosquitto_void_option(link->handle, MOSQ_OPT_SSL_CTX, link->settings->context) == MOSQ_ERR_SUCCESS &&
			mosquitto_int_option(link->handle, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0) == MOSQ_ERR_SUCCESS &&
			mosquitto_int_option(link->handle, MOSQ_OPT_TCP_NODELAY, 1) == MOSQ_ERR_SUCCESS && set_will(link);
}

// The call that connects without waiting takes no properties. The one that waits keeps those it was given also when it
// refuses its arguments, as it does without a host.
bool set_connect_properties(mosquitto *handle)
{
	mosquitto_property *properties = nullptr;
	bool set = mosquitto_property_add_int32(&properties, MQTT_PROP_SESSION_EXPIRY_INTERVAL, session_expiry_s) ==
					MOSQ_ERR_SUCCESS &&
			mosquitto_property_add_int32(&properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, packet_max) == MOSQ_ERR_SUCCESS;
	if (set)
		set = mosquitto_connect_bind_v5(handle, nullptr, 0, keepalive_s, nullptr, properties) == MOSQ_ERR_INVAL;
	mosquitto_property_free_all(&properties);
	return set;
}

// A refusal may have been taken off the socket by the TLS library's first write; then only the missing peer shows it.
void step_tcp(mqtt_link *link, short ready, int64_t now_ms)
{
	if ((ready & (POLLOUT | POLLERR | POLLHUP)) == 0)
		return;

	const int fd = mosquitto_socket(link->handle);
	int error = 0;
	socklen_t size = sizeof(error);
	sockaddr_storage peer{};
	socklen_t peer_size = sizeof(peer);
	if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0)
		lose_unregistered(link, strerror(error));
	else if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &peer_size) != 0)
		lose_unregistered(link, "no connection");
	else
		enter(link, link_phase::tls, now_ms);
}

// The result alone does not tell: a closed connection shows in the socket.
bool still_connected(const mqtt_link *link, int result)
{
	return result == MOSQ_ERR_SUCCESS && mosquitto_socket(link->handle) >= 0;
}

// With a near broker the handshake is over within the call that connects; then there is nothing to drive.
void step_tls(mqtt_link *link, short ready, int64_t now_ms)
{
	const SSL *ssl = static_cast<const SSL *>(mosquitto_ssl_get(link->handle));
	if (ssl == nullptr || (SSL_in_init(ssl) && !still_connected(link, mosquitto_loop_read(link->handle, 1)))) {
		lose_connection(link);
		return;
	}
	if (!SSL_in_init(ssl)) {
		enter(link, link_phase::connack, now_ms);
		return;
	}
	if ((ready & (POLLERR | POLLHUP)) != 0)
		lose_connection(link);
}

bool has_pending(const mqtt_link *link)
{
	const SSL *ssl = static_cast<const SSL *>(mosquitto_ssl_get(link->handle));
	return ssl != nullptr && SSL_pending(ssl) > 0;
}

bool read_packets(mqtt_link *link, short ready)
{
	if ((ready & (POLLIN | POLLERR | POLLHUP)) == 0 && !has_pending(link))
		return true;
	for (int i = 0; i < reads_per_step; i++) {
		if (!still_connected(link, mosquitto_loop_read(link->handle, 1)))
			return false;
		if (!has_pending(link))
			break;
	}
	return true;
}

link_traffic traffic_of(const mqtt_link *link)
{
	const SSL *ssl = static_cast<const SSL *>(mosquitto_ssl_get(link->handle));
	int unsent = 0;
	if (ssl == nullptr || ioctl(mosquitto_socket(link->handle), SIOCOUTQ, &unsent) != 0)
		return {};
	return {BIO_number_read(SSL_get_rbio(ssl)), BIO_number_written(SSL_get_wbio(ssl)), static_cast<uint64_t>(unsent),
			mosquitto_want_write(link->handle)};
}

// What waited in the session comes before the answer to the subscription, so that its time begins anew with all that
// comes. The broker, which counts this node's silence, is asked again meanwhile; a ping's answer would count as coming.
void serve_unsubscribed(mqtt_link *link, keep_alive_need need)
{
	link->deadline_ms = std::max(link->deadline_ms, link->traffic.read_ms + phase_timeout_ms);
	if (need == keep_alive_need::sign_of_life)
		subscribe(link);
}

bool keep_alive_served(mqtt_link *link, int64_t now_ms)
{
	if (!keep_alive_look_due(&link->traffic, now_ms))
		return true;
	const keep_alive_need need = keep_alive_look(&link->traffic, traffic_of(link), now_ms);
	link->silent_too_long = need == keep_alive_need::sign_of_life;
	if (need == keep_alive_need::end)
		link->disconnect_reason = MOSQ_ERR_KEEPALIVE; // as the MQTT library tells it
	if (link->phase == link_phase::suback) {
		serve_unsubscribed(link, need);
		return need != keep_alive_need::end;
	}
	if (need == keep_alive_need::housekeeping)
		return still_connected(link, mosquitto_loop_misc(link->handle));
	return need != keep_alive_need::end;
}

void step_mqtt(mqtt_link *link, short ready, int64_t now_ms)
{
	bool connected = read_packets(link, ready);
	if (connected && mosquitto_want_write(link->handle))
		connected = still_connected(link, mosquitto_loop_write(link->handle, 1));
	if (connected)
		connected = keep_alive_served(link, now_ms);
	if (!connected)
		lose_connection(link);
}

} // namespace

void link_message_free(link_message *message)
{
	if (message == nullptr)
		return;
	free(message->properties.content_type);
	free(message);
}

mqtt_link *mqtt_link_open(const link_settings *settings, const char *address, uint16_t port, int64_t now_ms)
{
	mqtt_link *link = record_new<mqtt_link>();
	if (link == nullptr)
		return nullptr;
	link->settings = settings;
	*settings->report = {};
	keep_alive_begin(&link->traffic, now_ms);
	enter(link, link_phase::tcp, now_ms);

	link->handle = mosquitto_new(settings->names.unit.text, false, link);
	if (link->handle == nullptr || !set_options(link) || !set_connect_properties(link->handle)) {
		lose(link, TERVBUS_CONDITION_CONNECTION_FAILED, "no MQTT client");
		return link;
	}
	set_callbacks(link->handle);

	const int rc = mosquitto_connect_bind_async(link->handle, address, port, keepalive_s, nullptr);
	if (still_connected(link, rc))
		return link;
	lose_unregistered(link, rc == MOSQ_ERR_ERRNO ? strerror(errno) : mosquitto_strerror(rc));
	return link;
}

void mqtt_link_close(mqtt_link *link)
{
	if (link == nullptr)
		return;
	mosquitto_destroy(link->handle);
	while (link_message *message = fifo_pop(&link->messages))
		link_message_free(message);
	free(link);
}

pollfd mqtt_link_poll(const mqtt_link *link)
{
	if (link->phase == link_phase::lost)
		return {-1, 0, 0};

	short events = link->phase == link_phase::tcp ? POLLOUT : POLLIN;
	const SSL *ssl = static_cast<const SSL *>(mosquitto_ssl_get(link->handle));
	if (link->phase == link_phase::tls && ssl != nullptr && SSL_want_write(ssl))
		events |= POLLOUT;
	if (link->phase > link_phase::tls && mosquitto_want_write(link->handle))
		events |= POLLOUT;
	return {mosquitto_socket(link->handle), events, 0};
}

int64_t mqtt_link_deadline(const mqtt_link *link, int64_t now_ms)
{
	if (link->phase == link_phase::lost || (link->phase > link_phase::tls && has_pending(link)))
		return now_ms;
	if (link->phase > link_phase::tls)
		return std::min(link->deadline_ms, now_ms + housekeeping_ms);
	return link->deadline_ms;
}

void mqtt_link_step(mqtt_link *link, short ready, int64_t now_ms)
{
	if (link->phase == link_phase::tcp)
		step_tcp(link, ready, now_ms);
	if (link->phase == link_phase::tls)
		step_tls(link, ready, now_ms);
	if (link->phase > link_phase::tls && link->phase < link_phase::lost)
		step_mqtt(link, ready, now_ms);
	if (link->phase < link_phase::running && now_ms >= link->deadline_ms)
		lose(link, TERVBUS_CONDITION_CONNECTION_FAILED, "the broker does not answer");
}

int mqtt_link_publish(mqtt_link *link, const link_publish &publish, int *mid)
{
	mosquitto_property *properties = nullptr;
	int rc = mqtt_properties_make(&properties, publish.content_type, publish.id, publish.expiry_s);
	if (rc == MOSQ_ERR_SUCCESS)
		rc = mosquitto_publish_v5(link->handle, mid, publish.topic, static_cast<int>(publish.length), publish.data, 1,
				publish.retain, properties);
	mosquitto_property_free_all(&properties);

	// Whether the MQTT library has kept it cannot be known then; a new link starts from what is known.
	if (rc == MOSQ_ERR_NOMEM) {
		lose(link, TERVBUS_CONDITION_CONNECTION_BROKE, "no memory for a publish");
		return 0;
	}
	if (mosquitto_socket(link->handle) < 0) {
		lose_connection(link);
		return 0;
	}
	// Any other result than these says that this publish is not possible; these concern the connection.
	return rc == MOSQ_ERR_SUCCESS || rc == MOSQ_ERR_NO_CONN || rc == MOSQ_ERR_CONN_LOST || rc == MOSQ_ERR_ERRNO ? 0
																												: -1;
}

void mqtt_link_disconnect(mqtt_link *link)
{
	(void)mosquitto_disconnect_v5(link->handle, MQTT_RC_NORMAL_DISCONNECTION, nullptr); // a failure is a loss as well
	if (mosquitto_socket(link->handle) < 0)
		lose(link, TERVBUS_CONDITION_CONNECTION_BROKE, "disconnected");
}
