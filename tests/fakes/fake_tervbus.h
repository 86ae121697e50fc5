// A message-bus library for tests, at the link seam: it records every call, does what a test scripts, and fires the
// callbacks when a test asks. Address lists are real, so a leak checker sees what is not freed. State is process-wide;
// reset() between tests. Any thread may call; no lock is held while a callback runs.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tervbus.h"

namespace fake_bus
{

struct address {
	uint32_t type;
	std::string text;     // units and groups
	uintptr_t number = 0; // special addresses
	bool operator==(const address &) const = default;
};

inline address unit(const std::string &name)
{
	return {TERVBUS_ADDRESS_UNIT, name, 0};
}

inline address group(const std::string &name)
{
	return {TERVBUS_ADDRESS_GROUP, name, 0};
}

inline address special(uintptr_t number)
{
	return {TERVBUS_ADDRESS_SPECIAL, "", number};
}

// One accepted or refused send, copied at the call.
struct sent_message {
	std::string text;  // up to the first zero byte
	std::string bytes; // all `length` bytes
	uint32_t length;
	std::string content_type;
	std::vector<address> destination;
	uint32_t id;
	int flags;
	int result;
	bool delivered;
};

enum class delivery {
	before_return, // on_delivered(ok) inside tervbus_send_message (the default)
	on_demand,     // deliver(); what is left is delivered as failed by tervbus_stop_client
};

enum class release_mode {
	in_stop,     // inside tervbus_stop_client, on its caller's thread (the default)
	from_thread, // on a thread of the library, which tervbus_fini_ll joins
	on_demand,   // release()
};

// Forgets calls, messages, scripts and the client. Records not yet delivered are forgotten, not freed.
void reset();

// The calls in order: "tervbus_init_client tcp://127.0.0.1:9133", "tervbus_chain_address 2 UNIT-1",
// "tervbus_free_address 1", "tervbus_send_message 0", … A NULL text is shown as "(null)".
std::vector<std::string> calls();
std::vector<std::string> call_names();
size_t count_calls(const std::string &name);

// The result of a function, by its name: after `skipped` more calls, the next `times` of them return it and do nothing
// else. times 0: every one from then on.
void script(const std::string &function, int result, unsigned times = 1, unsigned skipped = 0);

// Called at the beginning of each of the function's calls, on the calling thread, before its scripted result counts.
void on_call(const std::string &function, std::function<void()> action);

void set_identity_addresses(std::vector<address> addresses); // by default UNIT-1 and GROUP-1
void set_delivery(delivery mode, int ok = 1);
void set_release(release_mode mode);
void set_next_id(uint32_t id);

// The record last given to tervbus_init_client, whatever came of it; NULL before and after its release.
tervbus_client *client();

// What tervbus_init_client saw: the mode word, the identity's bytes (empty when missing), the user pointer, the URL.
struct start_view {
	uint32_t mode;
	uint32_t identity_type;
	std::string private_key, certificate, ca;
	void *user;
	const char *url; // as it was given: a library may keep the pointer until the release
};
start_view started_with();

std::vector<sent_message> sent();
sent_message last_sent(); // fails the test when nothing was sent
// Waits until at least `count` messages were accepted: false after ten seconds.
bool wait_for_sent(size_t count);

// The callbacks, fired at the client on the calling thread.
void status(int condition);
void presence(const std::vector<address> &connected, const std::vector<address> &disconnected);
void deliver(size_t sent_index, int ok); // a message of sent(), still to be delivered
void deliver_null(int ok);
void message(const std::string &text, const std::vector<address> &source); // zero-terminated, counted as the bus does
void raw_message(tervbus_message *message);                                // NULL is handed on
void release();
void debug(const char *text);

// Runs the function to its end on a thread of its own.
void on_own_thread(const std::function<void()> &function);

// A real list of the entries, without a record of the calls; the caller frees it with free_list.
address_entry *make_list(const std::vector<address> &addresses);
void free_list(address_entry *list);

}
