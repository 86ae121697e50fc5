// An MQTT client that is not this project's: says to the broker whatever a test wants said, and tells the broker's
// reason codes. It works only while one of its functions runs.
#pragma once

#include "support/test_pki.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct mosquitto;

struct peer_publish {
	std::string topic;
	std::string payload = "";
	std::string id = ""; // of the user property movra-id; none when empty
	bool retain = false;
};

struct peer_message {
	std::string topic;
	std::string payload;
	std::string content_type;
	std::string id;
	std::optional<uint32_t> expiry_s;
};

class test_mqtt_peer
{
public:
	test_mqtt_peer(const test_credentials &own, const std::string &trust, const std::string &name);
	~test_mqtt_peer();
	test_mqtt_peer(const test_mqtt_peer &) = delete;
	test_mqtt_peer &operator=(const test_mqtt_peer &) = delete;

	// The reason code, or -1 when the broker has not answered in time.
	int connect(uint16_t port);
	int publish(const peer_publish &publish);
	int subscribe(const std::string &filter);
	// Waits until that many messages have come; false when they do not.
	bool receive(size_t count);
	// With a will of the bus's kind: before connect.
	void set_will(const std::string &topic, const std::string &payload);

	std::vector<peer_message> messages;
	int answer = -1; // the last reason code

private:
	void run_until_answered();
	std::string folder_;
	mosquitto *handle_ = nullptr;
};
