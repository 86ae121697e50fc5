// A node of the bus for the benchmarks: sends a text to a unit and waits for the next text that comes.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "tervbus.h"

class bus_node
{
public:
	// Is given each text and its sender on the bus's own thread, in place of receive().
	using text_handler = std::function<void(bus_node &, const std::string &text, const std::string &sender)>;

	// Reads private.pem and cert.pem of the directory and ../ca/ca.pem. Ends the program with a message when that or
	// the start fails.
	bus_node(const std::string &directory, const std::string &broker_url, text_handler handler = nullptr);
	~bus_node();
	bus_node(const bus_node &) = delete;
	bus_node &operator=(const bus_node &) = delete;

	// Waits at most 10 s until the node is connected and subscribed.
	bool wait_until_running();
	// False when the library refuses the text.
	bool send(const std::string &unit, const std::string &text);
	// Waits for a text and its sender; false after the time-out.
	bool receive(std::string &text, std::string &sender, int timeout_ms);

private:
	static void on_release(tervbus_client *client);
	static void on_presence(tervbus_client *, address_entry *, address_entry *);
	static void on_connection_status(tervbus_client *client, int condition);
	static void on_delivered(tervbus_client *, tervbus_message *message, void *, int);
	static void on_message(tervbus_client *client, tervbus_message *message);
	static bus_node *of(tervbus_client *client);

	tervbus_client client = {};
	text_handler handler;
	std::string files[3];
	tervbus_buffer buffers[3] = {};
	tervbus_buffer *chain[2] = {}, *trust[2] = {};
	std::mutex lock;
	std::condition_variable changed;
	bool running = false, released = false;
	std::deque<std::pair<std::string, std::string>> received;
};
