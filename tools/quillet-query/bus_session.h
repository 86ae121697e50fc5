// A node on the bus, for the length of one request: the library's callbacks become events that one thread takes.
#pragma once

#include <chrono>
#include <memory>
#include <string>

struct bus_session;

struct bus_event {
	enum class kind { nothing, condition, message, delivered } what = kind::nothing;
	int number = 0;     // of a condition; of a delivery, whether the broker has taken it
	std::string text;   // of a message
	std::string sender; // of a message: the unit address, as the broker has proved it
};

struct bus_session_closer {
	void operator()(bus_session *session) const;
};
using bus_session_pointer = std::unique_ptr<bus_session, bus_session_closer>;

// Loads the identity (private.pem, cert.pem and ../ca/ca.pem of the folder) and starts the client; the connection is
// made in the background and told as conditions. debug_output puts the library's own news on standard error. On
// failure NULL, with the cause in error. One session at a time.
bus_session_pointer bus_session_open(
		const std::string &folder, const std::string &broker, bool debug_output, std::string &error);

// Sends a text to a unit; its delivery is told as an event. False when the library refuses it.
bool bus_session_send(bus_session &session, const std::string &unit, const std::string &text);

// Waits for the next event; after the time one of kind nothing.
bus_event bus_session_wait(bus_session &session, std::chrono::milliseconds time);
