// A client to be stopped, and the account of what became of it. Its owner is as strict as an owner may be: in
// on_release the record and its identity are given up, each message in its on_delivered. What is given up is
// overwritten and, under the address sanitizer, out of bounds; it is freed with the probe, and by then nobody may have
// written to it.
#pragma once

#include "support/test_node.h"

#include <deque>
#include <optional>

struct probe_message {
	tervbus_message message{}; // given up, with what follows up to told
	char data[16] = "{}";
	unsigned told = 0; // how often on_delivered came
	bool accepted = false;
};

struct probe_account {
	std::vector<int> conditions;
	size_t accepted = 0;
	size_t told = 0;
	size_t messages = 0;
	int releases = 0;
	int after_release = 0; // callbacks
};

class stop_probe
{
public:
	stop_probe(const test_credentials &own, const std::string &trust);
	~stop_probe(); // the library has ended, or has never known the client
	stop_probe(const stop_probe &) = delete;
	stop_probe &operator=(const stop_probe &) = delete;

	int start(const std::string &url);
	// False when the library refuses it. Any thread.
	bool send(const char *unit);
	int stop(); // the first one starts the clock. Any thread, also when the record is given up
	void give_up_record();

	bool wait(const std::function<bool(const probe_account &)> &done,
			std::chrono::milliseconds limit = std::chrono::seconds(10));
	bool wait_condition(int condition); // it has been told
	bool wait_release();
	int64_t stop_ms(); // from the first stop to the release

	// Released once and last, each accepted send told once, nothing touched that was given up. When the library has
	// ended.
	void expect_in_order();
	// No callback came, and nothing was touched.
	void expect_left_alone();

	// Run inside the callbacks, with the number of calls so far, 1 for the first; set before the start.
	std::function<void(size_t)> in_message;
	std::function<void(int)> in_condition;
	std::function<void(size_t)> in_delivered;

	tervbus_client *client();

private:
	struct probe_record {
		tervbus_client client{};
		stop_probe *owner = nullptr;
	};

	static stop_probe *of(tervbus_client *client);
	void note(const std::function<void()> &change);
	static void on_release(tervbus_client *);
	static void on_presence(tervbus_client *, address_entry *, address_entry *);
	static void on_connection_status(tervbus_client *, int);
	static void on_delivered(tervbus_client *, tervbus_message *, void *, int);
	static void on_message(tervbus_client *, tervbus_message *);

	std::optional<test_identity> identity_;
	probe_record record_;
	std::mutex lock_; // guards what follows
	std::condition_variable changed_;
	probe_account account_;
	std::deque<probe_message> sends_;
	std::optional<std::chrono::steady_clock::time_point> stopped_at_, released_at_;
};
