#include "bus_session.h"

#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>

#include <tervbus.h>

#include "text_file.h"

// Messages of this size are carried by the bus; the library takes 1 MiB by default, a bound meant for agents.
static constexpr const char *largest_reply = "16777216";

// A PEM file as the library takes it: the text ends in a zero byte that counts.
struct pem_file {
	std::string text;
	tervbus_buffer buffer = {};
};

struct bus_session {
	tervbus_client client = {};
	pem_file key;
	pem_file certificate;
	pem_file ca;
	tervbus_buffer *chain[2] = {};
	tervbus_buffer *trust[2] = {};
	bool library_started = false;
	bool client_started = false;

	std::mutex lock;
	std::condition_variable changed;
	std::deque<bus_event> events; // under lock
	bool released = false;        // under lock
};

static bus_session *session_of(tervbus_client *client)
{
	return static_cast<bus_session *>(client->user);
}

static void push_event(tervbus_client *client, bus_event event)
{
	bus_session *session = session_of(client);
	std::lock_guard<std::mutex> held(session->lock);
	session->events.push_back(std::move(event));
	session->changed.notify_all();
}

static void on_release(tervbus_client *client)
{
	bus_session *session = session_of(client);
	std::lock_guard<std::mutex> held(session->lock);
	session->released = true;
	session->changed.notify_all();
}

static void on_presence(tervbus_client *, address_entry *, address_entry *)
{
}

static void on_connection_status(tervbus_client *client, int condition)
{
	push_event(client, {.what = bus_event::kind::condition, .number = condition, .text = {}, .sender = {}});
}

static void free_message(tervbus_message *message)
{
	tervbus_free_address(message->destination, 1);
	free(message->data);
	delete message;
}

static void on_delivered(tervbus_client *client, tervbus_message *message, void *, int ok)
{
	free_message(message);
	push_event(client, {.what = bus_event::kind::delivered, .number = ok, .text = {}, .sender = {}});
}

// The source list has the sender's unit address, and other addresses that it may have.
static std::string unit_of(const address_entry *source)
{
	while (source != nullptr && source->type != TERVBUS_ADDRESS_UNIT)
		source = source->next;
	return source != nullptr && source->value.text != nullptr ? source->value.text : "";
}

static void on_message(tervbus_client *client, tervbus_message *message)
{
	push_event(client,
			{.what = bus_event::kind::message,
					.text = message->data != nullptr ? message->data : "",
					.sender = unit_of(message->source)});
}

static void on_debug(const char *text)
{
	fprintf(stderr, "bus: %s\n", text);
}

static bool load_pem(const std::string &path, pem_file &file, std::string &error)
{
	if (!read_text_file(path, file.text)) {
		error = path + " cannot be read: " + strerror(errno) +
				"; --certs names the folder that quillet-pki made for this requester";
		return false;
	}
	file.buffer.data = file.text.data();
	file.buffer.length = static_cast<uint32_t>(file.text.size() + 1);
	file.buffer.encoding = 2;
	return true;
}

static bool load_identity(bus_session &session, const std::string &folder, std::string &error)
{
	if (!load_pem(folder + "/private.pem", session.key, error) ||
			!load_pem(folder + "/cert.pem", session.certificate, error) ||
			!load_pem(folder + "/../ca/ca.pem", session.ca, error))
		return false;
	session.chain[0] = &session.certificate.buffer;
	session.trust[0] = &session.ca.buffer;
	session.client.identity.type = 1;
	session.client.identity.chain = session.chain;
	session.client.identity.private_key = &session.key.buffer;
	session.client.identity.trust = session.trust;
	return true;
}

bus_session_pointer bus_session_open(
		const std::string &folder, const std::string &broker, bool debug_output, std::string &error)
{
	bus_session_pointer session(new bus_session);
	if (!load_identity(*session, folder, error))
		return nullptr;
	session->client.mode = 1;
	session->client.on_release = on_release;
	session->client.on_presence = on_presence;
	session->client.on_connection_status = on_connection_status;
	session->client.on_delivered = on_delivered;
	session->client.on_message = on_message;
	session->client.user = session.get();

	setenv("TERVBUS_MAX_INCOMING", largest_reply, 0);
	tervbus_setup setup = {};
	setup.debug = debug_output ? on_debug : nullptr;
	if (tervbus_init_ll(&setup) != 0) {
		error = "the bus library cannot be started";
		return nullptr;
	}
	session->library_started = true;
	const std::string url = "tcp://" + broker;
	if (tervbus_init_client(&session->client, url.c_str()) != 0) {
		error = "the identity in " + folder + ", or the CA beside it, or the broker's address " + broker +
				" cannot be used; --verbose tells which";
		return nullptr;
	}
	session->client_started = true;
	return session;
}

void bus_session_closer::operator()(bus_session *session) const
{
	if (session->client_started && tervbus_stop_client(&session->client) == 0) {
		std::unique_lock<std::mutex> held(session->lock);
		session->changed.wait(held, [session] { return session->released; });
	}
	if (session->library_started)
		tervbus_fini_ll();
	delete session;
}

bool bus_session_send(bus_session &session, const std::string &unit, const std::string &text)
{
	tervbus_message *message = new tervbus_message();
	message->content_type = "application/json";
	message->data = strdup(text.c_str());
	message->length = static_cast<uint32_t>(text.size() + 1);
	if (message->data != nullptr &&
			tervbus_chain_address(&message->destination, TERVBUS_ADDRESS_UNIT, unit.c_str()) == 0 &&
			tervbus_send_message(&session.client, message, 0) == 0)
		return true;
	free_message(message);
	return false;
}

bus_event bus_session_wait(bus_session &session, std::chrono::milliseconds time)
{
	std::unique_lock<std::mutex> held(session.lock);
	session.changed.wait_for(held, time, [&session] { return !session.events.empty(); });
	if (session.events.empty())
		return {};
	bus_event event = std::move(session.events.front());
	session.events.pop_front();
	return event;
}
