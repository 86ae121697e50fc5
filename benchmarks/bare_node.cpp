#include "bare_node.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <openssl/ssl.h>
#include <poll.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace
{

constexpr int keepalive_s = 10;
constexpr uint32_t session_expiry_s = 60;
constexpr uint32_t message_expiry_s = 60;
constexpr int wait_ms = 1000;

void check(int result, const char *what)
{
	if (result == MOSQ_ERR_SUCCESS)
		return;
	fprintf(stderr, "benchmark: bare node: %s: %s\n", what, mosquitto_strerror(result));
	exit(1);
}

}

bare_node::bare_node(const std::string &directory, const std::string &host, int port, text_handler wanted)
		: name(std::filesystem::path(directory).filename()), handler(std::move(wanted))
{
	mosquitto_lib_init();
	handle = mosquitto_new(name.c_str(), false, this);
	check(handle != nullptr ? MOSQ_ERR_SUCCESS : MOSQ_ERR_NOMEM, "new");
	set_up(directory);
	connect_and_subscribe(host, port);
}

bare_node::~bare_node()
{
	mosquitto_disconnect_v5(handle, MQTT_RC_NORMAL_DISCONNECTION, nullptr);
	mosquitto_destroy(handle);
	mosquitto_lib_cleanup();
}

void bare_node::set_up(const std::string &directory)
{
	const std::string ca = directory + "/../ca/ca.pem", certificate = directory + "/cert.pem",
					  key = directory + "/private.pem", status = "movra/v1/status//" + name;
	check(mosquitto_int_option(handle, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5), "version");
	check(mosquitto_int_option(handle, MOSQ_OPT_TCP_NODELAY, 1), "TCP_NODELAY");
	check(mosquitto_tls_set(handle, ca.c_str(), nullptr, certificate.c_str(), key.c_str(), nullptr), "TLS files");
	check(mosquitto_will_set_v5(handle, status.c_str(), 3, "off", 1, true, nullptr), "will");
	mosquitto_message_v5_callback_set(handle,
			[](mosquitto *mosq, void *self, const mosquitto_message *message, const mosquitto_property *properties) {
				take_message(mosq, self, message, properties);
			});
	mosquitto_subscribe_callback_set(handle, [](mosquitto *, void *self, int, int count, const int *granted) {
		static_cast<bare_node *>(self)->subscribed = count == 1 && granted[0] == 1;
	});
}

void bare_node::connect_and_subscribe(const std::string &host, int port)
{
	mosquitto_property *properties = nullptr;
	check(mosquitto_property_add_int32(&properties, MQTT_PROP_SESSION_EXPIRY_INTERVAL, session_expiry_s), "expiry");
	check(mosquitto_connect_bind_v5(handle, host.c_str(), port, keepalive_s, nullptr, properties), "connect");
	mosquitto_property_free_all(&properties);
	const std::string inbox = "movra/v1/ua/" + name + "/+";
	check(mosquitto_subscribe(handle, nullptr, inbox.c_str(), 1), "subscribe");
	for (int steps = 0; !subscribed; steps++) {
		if (steps == 100) {
			fprintf(stderr, "benchmark: bare node: the broker does not let %s subscribe\n", name.c_str());
			exit(1);
		}
		step();
	}
}

void bare_node::send(const std::string &unit, const std::string &text)
{
	const std::string topic = "movra/v1/ua/" + unit + "/" + name;
	char id[33];
	snprintf(id, sizeof id, "%032x", ++sent);
	mosquitto_property *properties = nullptr;
	check(mosquitto_property_add_string(&properties, MQTT_PROP_CONTENT_TYPE, "application/json"), "content type");
	check(mosquitto_property_add_string_pair(&properties, MQTT_PROP_USER_PROPERTY, "movra-id", id), "user property");
	check(mosquitto_property_add_int32(&properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, message_expiry_s), "expiry");
	check(mosquitto_publish_v5(handle, nullptr, topic.c_str(), static_cast<int>(text.size() + 1), text.c_str(), 1,
				  false, properties),
			"publish");
	mosquitto_property_free_all(&properties);
}

void bare_node::step()
{
	const auto *ssl = static_cast<const SSL *>(mosquitto_ssl_get(handle));
	const auto pending = [ssl] {
		return ssl != nullptr && SSL_pending(ssl) > 0;
	};
	pollfd socket = {mosquitto_socket(handle), POLLIN, 0};
	if (mosquitto_want_write(handle))
		socket.events |= POLLOUT;
	poll(&socket, 1, pending() ? 0 : wait_ms);
	if ((socket.revents & POLLIN) != 0 || pending()) {
		do
			check(mosquitto_loop_read(handle, 1), "read");
		while (pending());
	}
	if (mosquitto_want_write(handle))
		check(mosquitto_loop_write(handle, 1), "write");
	check(mosquitto_loop_misc(handle), "keep-alive");
}

void bare_node::take_message(mosquitto *, void *self, const mosquitto_message *message, const void *)
{
	bare_node *node = static_cast<bare_node *>(self);
	const char *sender = strrchr(message->topic, '/');
	node->handler(*node, std::string(static_cast<const char *>(message->payload)), sender + 1);
}
