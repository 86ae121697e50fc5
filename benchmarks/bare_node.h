// A node written directly on libmosquitto, the least that the bus library's road could cost: the same broker, TLS,
// properties and quality of service, driven by a poll loop of its own.
#pragma once

#include <functional>
#include <string>

struct mosquitto;
struct mosquitto_message;

class bare_node
{
public:
	using text_handler = std::function<void(bare_node &, const std::string &text, const std::string &sender)>;

	// Connects and subscribes to the unit's inbox; the unit is called like the directory. Ends the program with a
	// message when that fails.
	bare_node(const std::string &directory, const std::string &host, int port, text_handler handler);
	~bare_node();
	bare_node(const bare_node &) = delete;
	bare_node &operator=(const bare_node &) = delete;

	void send(const std::string &unit, const std::string &text);
	// Waits for the socket and does what it asks for; the handler is called from here.
	void step();

private:
	static void take_message(mosquitto *, void *self, const mosquitto_message *message, const void *);
	void set_up(const std::string &directory);
	void connect_and_subscribe(const std::string &host, int port);

	std::string name;
	text_handler handler;
	mosquitto *handle = nullptr;
	unsigned sent = 0;
	bool subscribed = false;
};
