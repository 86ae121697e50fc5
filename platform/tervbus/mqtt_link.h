// One connection to the broker, from the TCP connect to its end: a libmosquitto handle that the bus thread drives. It
// never waits and never calls the client's callbacks: messages that arrive are kept, and the owner takes them out. A
// link is used once; after its loss a new one is opened. All functions: the bus thread.
//
//   tcp ─▶ tls ─▶ connack ─▶ suback ─▶ running        any of them ─▶ lost
#pragma once

#include "identity.h"
#include "keep_alive.h"
#include "mqtt_properties.h"
#include "record.h"
#include "topic.h"

#include <poll.h>

struct mosquitto;

inline constexpr uint32_t session_expiry_s = 60;

// What every link of a client has in common; outlives the links.
struct link_settings {
	bus_names names;
	SSL_CTX *context = nullptr;   // borrowed
	tls_report *report = nullptr; // borrowed; the context's
	uint32_t incoming_max = 0;    // bytes of a payload; a larger message is dropped
	// The broker's answer to a publish, told at once: keeping it could need memory, and it must not be lost. It may
	// note the answer and nothing else.
	void (*acknowledged)(void *owner, int mid, int reason) = nullptr;
	void *owner = nullptr;
};

enum class link_phase { tcp, tls, connack, suback, running, lost };

// A message that has come, an inbox's or a status's.
struct link_message {
	link_message *next = nullptr;
	bus_topic topic;
	message_properties properties;
	uint32_t length = 0;     // bytes of the payload as it came
	char *payload = nullptr; // behind the record, with room for one byte more
};

// NULL is accepted.
void link_message_free(link_message *message);

struct link_reason {
	char text[192] = "";
};

struct mqtt_link {
	const link_settings *settings = nullptr;
	mosquitto *handle = nullptr;
	link_phase phase = link_phase::lost;
	int64_t deadline_ms = INT64_MAX; // of the phase
	int subscribe_mid = 0;
	int disconnect_reason = 0; // as the library told it
	keep_alive traffic;
	bool silent_too_long = false; // the broker should hear something: the owner publishes its status
	fifo<link_message> messages;  // come and not taken yet
	int condition = 0;            // lost: the condition to be told
	link_reason reason;           // lost: for the debug text
};

struct link_publish {
	const char *topic;
	const char *data;
	uint32_t length;
	const char *content_type; // may be NULL
	const char *id;           // may be NULL
	uint32_t expiry_s;        // 0: none
	bool retain;
};

// Starts to connect to the numeric address. NULL when memory is short; any other failure is a link that is lost
// already.
mqtt_link *mqtt_link_open(const link_settings *settings, const char *address, uint16_t port, int64_t now_ms);

// Drops the connection as it stands. NULL is accepted.
void mqtt_link_close(mqtt_link *link);

// The socket and what to wait for; fd is -1 when there is none.
pollfd mqtt_link_poll(const mqtt_link *link);

// When mqtt_link_step is due though the socket is silent.
int64_t mqtt_link_deadline(const mqtt_link *link, int64_t now_ms);

void mqtt_link_step(mqtt_link *link, short ready, int64_t now_ms);

// Only while running. 0 with the packet identifier in *mid; -1 when this publish can never be made. A connection that
// turns out to be gone, or memory too short, is no failure of the publish: the link is then lost.
int mqtt_link_publish(mqtt_link *link, const link_publish &publish, int *mid);

// Only while running: says goodbye; the link is lost when the goodbye has gone out.
void mqtt_link_disconnect(mqtt_link *link);
