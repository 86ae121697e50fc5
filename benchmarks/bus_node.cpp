#include "bus_node.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace
{

std::string read_file(const std::string &path)
{
	std::ifstream file(path, std::ios::binary);
	if (!file) {
		fprintf(stderr, "benchmark: cannot read %s: make the identity with quillet-pki\n", path.c_str());
		exit(1);
	}
	return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}

bus_node::bus_node(const std::string &directory, const std::string &broker_url, text_handler wanted)
		: handler(std::move(wanted))
{
	const std::string paths[3] = {directory + "/private.pem", directory + "/cert.pem", directory + "/../ca/ca.pem"};
	for (size_t i = 0; i < 3; i++) {
		files[i] = read_file(paths[i]);
		buffers[i] = {files[i].data(), static_cast<uint32_t>(files[i].size() + 1), 0, 2};
	}
	chain[0] = &buffers[1];
	trust[0] = &buffers[2];
	client.mode = 1;
	client.identity = {1, chain, &buffers[0], nullptr, trust, nullptr};
	client.on_release = on_release;
	client.on_presence = on_presence;
	client.on_connection_status = on_connection_status;
	client.on_delivered = on_delivered;
	client.on_message = on_message;
	client.user = this;
	tervbus_setup setup = {};
	if (tervbus_init_ll(&setup) != 0 || tervbus_init_client(&client, broker_url.c_str()) != 0) {
		fprintf(stderr, "benchmark: the bus client does not start with %s\n", directory.c_str());
		exit(1);
	}
}

bus_node::~bus_node()
{
	tervbus_stop_client(&client);
	{
		std::unique_lock held(lock);
		changed.wait(held, [this] { return released; });
	}
	tervbus_fini_ll();
}

bool bus_node::wait_until_running()
{
	std::unique_lock held(lock);
	return changed.wait_for(held, std::chrono::seconds(10), [this] { return running; });
}

bool bus_node::send(const std::string &unit, const std::string &text)
{
	tervbus_message *message = static_cast<tervbus_message *>(calloc(1, sizeof *message));
	message->content_type = "application/json";
	message->data = strdup(text.c_str());
	message->length = static_cast<uint32_t>(text.size() + 1);
	if (tervbus_chain_address(&message->destination, TERVBUS_ADDRESS_UNIT, unit.c_str()) == 0 &&
			tervbus_send_message(&client, message, 0) == 0)
		return true;
	on_delivered(&client, message, nullptr, 0);
	return false;
}

bool bus_node::receive(std::string &text, std::string &sender, int timeout_ms)
{
	std::unique_lock held(lock);
	if (!changed.wait_for(held, std::chrono::milliseconds(timeout_ms), [this] { return !received.empty(); }))
		return false;
	text = std::move(received.front().first);
	sender = std::move(received.front().second);
	received.pop_front();
	return true;
}

bus_node *bus_node::of(tervbus_client *client)
{
	return static_cast<bus_node *>(client->user);
}

void bus_node::on_release(tervbus_client *client)
{
	bus_node *self = of(client);
	std::lock_guard held(self->lock);
	self->released = true;
	self->changed.notify_all();
}

void bus_node::on_presence(tervbus_client *, address_entry *, address_entry *)
{
}

void bus_node::on_connection_status(tervbus_client *client, int condition)
{
	bus_node *self = of(client);
	std::lock_guard held(self->lock);
	self->running = condition == TERVBUS_CONDITION_RUNNING;
	self->changed.notify_all();
}

void bus_node::on_delivered(tervbus_client *, tervbus_message *message, void *, int)
{
	tervbus_free_address(message->destination, 1);
	free(message->data);
	free(message);
}

void bus_node::on_message(tervbus_client *client, tervbus_message *message)
{
	bus_node *self = of(client);
	std::string sender = message->source != nullptr && message->source->type == TERVBUS_ADDRESS_UNIT
			? message->source->value.text
			: "";
	if (self->handler) {
		self->handler(*self, message->data, sender);
		return;
	}
	std::lock_guard held(self->lock);
	self->received.emplace_back(message->data, sender);
	self->changed.notify_all();
}
