#include "support/test_mqtt_peer.h"

#include "support/test_broker.h"

#include <gtest/gtest.h>

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>

namespace
{

constexpr auto answer_limit = std::chrono::seconds(5);

using properties = const mosquitto_property;

test_mqtt_peer *peer_of(void *object)
{
	return static_cast<test_mqtt_peer *>(object);
}

void on_connect(mosquitto *, void *object, int reason, int, properties *)
{
	peer_of(object)->answer = reason;
}

void on_publish(mosquitto *, void *object, int, int reason, properties *)
{
	peer_of(object)->answer = reason;
}

void on_subscribe(mosquitto *, void *object, int, int, const int *granted, properties *)
{
	peer_of(object)->answer = granted[0];
}

void on_message(mosquitto *, void *object, const mosquitto_message *message, properties *list)
{
	peer_message received{message->topic, {}, {}, {}, {}};
	received.payload.assign(static_cast<const char *>(message->payload), static_cast<size_t>(message->payloadlen));
	char *name = nullptr;
	char *value = nullptr;
	uint32_t expiry_s = 0;
	if (mosquitto_property_read_string(list, MQTT_PROP_CONTENT_TYPE, &value, false) != nullptr)
		received.content_type = value;
	free(value);
	value = nullptr;
	if (mosquitto_property_read_string_pair(list, MQTT_PROP_USER_PROPERTY, &name, &value, false) != nullptr)
		received.id = std::string(name) == "movra-id" ? value : "";
	free(name);
	free(value);
	if (mosquitto_property_read_int32(list, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &expiry_s, false) != nullptr)
		received.expiry_s = expiry_s;
	peer_of(object)->messages.push_back(received);
}

} // namespace

test_mqtt_peer::test_mqtt_peer(const test_credentials &own, const std::string &trust, const std::string &name)
{
	char pattern[] = "/tmp/quillet_peer_XXXXXX";
	folder_ = mkdtemp(pattern);
	test_write_file(folder_ + "/ca.pem", trust);
	test_write_file(folder_ + "/cert.pem", own.certificate_pem);
	test_write_file(folder_ + "/private.pem", own.key_pem);

	mosquitto_lib_init();
	handle_ = mosquitto_new(name.c_str(), true, this);
	mosquitto_int_option(handle_, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
	EXPECT_EQ(mosquitto_tls_set(handle_, (folder_ + "/ca.pem").c_str(), nullptr, (folder_ + "/cert.pem").c_str(),
					  (folder_ + "/private.pem").c_str(), nullptr),
			MOSQ_ERR_SUCCESS);
	mosquitto_connect_v5_callback_set(handle_, on_connect);
	mosquitto_publish_v5_callback_set(handle_, on_publish);
	mosquitto_subscribe_v5_callback_set(handle_, on_subscribe);
	mosquitto_message_v5_callback_set(handle_, on_message);
}

test_mqtt_peer::~test_mqtt_peer()
{
	mosquitto_destroy(handle_); // without a goodbye: its will is sent
	mosquitto_lib_cleanup();
	std::error_code ignored;
	std::filesystem::remove_all(folder_, ignored);
}

void test_mqtt_peer::run_until_answered()
{
	const auto limit = std::chrono::steady_clock::now() + answer_limit;
	while (answer < 0 && std::chrono::steady_clock::now() < limit)
		if (mosquitto_loop(handle_, 50, 1) != MOSQ_ERR_SUCCESS)
			return;
}

void test_mqtt_peer::set_will(const std::string &topic, const std::string &payload)
{
	mosquitto_will_set_v5(handle_, topic.c_str(), static_cast<int>(payload.size()), payload.data(), 1, true, nullptr);
}

int test_mqtt_peer::connect(uint16_t port)
{
	answer = -1;
	if (mosquitto_connect(handle_, "127.0.0.1", port, 10) != MOSQ_ERR_SUCCESS)
		return -1;
	run_until_answered();
	return answer;
}

int test_mqtt_peer::publish(const peer_publish &publish)
{
	mosquitto_property *list = nullptr;
	if (!publish.id.empty())
		mosquitto_property_add_string_pair(&list, MQTT_PROP_USER_PROPERTY, "movra-id", publish.id.c_str());
	answer = -1;
	mosquitto_publish_v5(handle_, nullptr, publish.topic.c_str(), static_cast<int>(publish.payload.size()),
			publish.payload.data(), 1, publish.retain, list);
	mosquitto_property_free_all(&list);
	run_until_answered();
	return answer;
}

int test_mqtt_peer::subscribe(const std::string &filter)
{
	answer = -1;
	mosquitto_subscribe(handle_, nullptr, filter.c_str(), 1);
	run_until_answered();
	return answer;
}

bool test_mqtt_peer::receive(size_t count)
{
	const auto limit = std::chrono::steady_clock::now() + answer_limit;
	while (messages.size() < count && std::chrono::steady_clock::now() < limit)
		mosquitto_loop(handle_, 50, 1);
	return messages.size() >= count;
}
