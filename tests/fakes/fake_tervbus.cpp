// One mutex guards everything here. It is released before a callback or an on_call action runs. Memory comes from new,
// which failures on demand do not reach: only the code under test runs short of it.
#include "fakes/fake_tervbus.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

namespace
{

using fake_bus::address;
using fake_bus::sent_message;

struct scripted {
	unsigned skipped;
	unsigned times; // 0: for ever
	int result;
};

struct bus_state {
	std::vector<std::string> calls;
	std::map<std::string, std::vector<scripted>> scripts;
	std::map<std::string, std::function<void()>> actions;
	std::vector<address> identity{fake_bus::unit("UNIT-1"), fake_bus::group("GROUP-1")};
	std::vector<sent_message> sent;
	std::vector<tervbus_message *> records; // by index of sent; NULL when refused or delivered
	fake_bus::delivery delivery = fake_bus::delivery::before_return;
	int delivery_ok = 1;
	fake_bus::release_mode release = fake_bus::release_mode::in_stop;
	uint32_t next_id = 1;
	tervbus_client *client = nullptr;
	bool started = false;
	fake_bus::start_view started_with = {};
	void (*debug)(const char *) = nullptr;
};

std::mutex lock;
std::condition_variable changed;
bus_state state;            // guarded by lock
std::thread library_thread; // guarded by lock

std::string shown(const char *text)
{
	return text != nullptr ? text : "(null)";
}

// Records the call, runs its action, and says whether a scripted result stands in for it.
bool stands_in(const char *function, const std::string &arguments, int *result)
{
	std::unique_lock<std::mutex> held(lock);
	state.calls.push_back(arguments.empty() ? function : std::string(function) + " " + arguments);
	std::function<void()> action;
	if (auto found = state.actions.find(function); found != state.actions.end())
		action = found->second;
	bool scripted_result = false;
	std::vector<scripted> &scripts = state.scripts[function];
	if (!scripts.empty()) {
		scripted &next = scripts.front();
		if (next.skipped != 0) {
			next.skipped -= 1;
		} else {
			*result = next.result;
			scripted_result = true;
			if (next.times != 0 && --next.times == 0)
				scripts.erase(scripts.begin());
		}
	}
	held.unlock();
	if (action)
		action();
	return scripted_result;
}

int chain(address_entry **list, uint32_t type, const void *value)
{
	const char *text = static_cast<const char *>(value);
	bool named = type != TERVBUS_ADDRESS_SPECIAL;
	if (named && (text == nullptr || *text == '\0'))
		return -1;
	address_entry *entry = new address_entry();
	entry->type = type;
	if (named)
		entry->value.text = strcpy(new char[strlen(text) + 1], text);
	else
		entry->value.number = reinterpret_cast<uintptr_t>(value);
	while (*list != nullptr)
		list = &(*list)->next;
	*list = entry;
	return 0;
}

void free_entries(address_entry *list, bool all)
{
	while (list != nullptr) {
		address_entry *next = list->next;
		if (list->type != TERVBUS_ADDRESS_SPECIAL)
			delete[] list->value.text;
		delete list;
		list = all ? next : nullptr;
	}
}

std::vector<address> copied(const address_entry *list)
{
	std::vector<address> result;
	for (; list != nullptr; list = list->next)
		result.push_back(list->type == TERVBUS_ADDRESS_SPECIAL ? fake_bus::special(list->value.number)
															   : address{list->type, shown(list->value.text), 0});
	return result;
}

std::string file_bytes(const tervbus_buffer *buffer)
{
	return buffer != nullptr && buffer->data != nullptr ? std::string(buffer->data, buffer->length) : std::string();
}

std::string first_bytes(tervbus_buffer **list)
{
	return list != nullptr ? file_bytes(list[0]) : std::string();
}

std::string shown_address(int type, const void *value)
{
	std::string text = std::to_string(type) + " ";
	if (type == TERVBUS_ADDRESS_SPECIAL)
		return text + std::to_string(reinterpret_cast<uintptr_t>(value));
	return text + shown(static_cast<const char *>(value));
}

tervbus_client *current_client()
{
	std::lock_guard<std::mutex> held(lock);
	return state.client;
}

// Takes the record of a message out, so that it is delivered once.
tervbus_message *take_record(size_t index)
{
	std::lock_guard<std::mutex> held(lock);
	if (index >= state.records.size() || state.records[index] == nullptr)
		return nullptr;
	state.sent[index].delivered = true;
	return std::exchange(state.records[index], nullptr);
}

void deliver_rest_as_failed()
{
	size_t count = fake_bus::sent().size();
	for (size_t i = 0; i < count; i++)
		if (tervbus_message *record = take_record(i); record != nullptr) {
			tervbus_client *client = current_client();
			client->on_delivered(client, record, nullptr, 0);
		}
}

}

namespace fake_bus
{

void reset()
{
	std::thread ended;
	{
		std::lock_guard<std::mutex> held(lock);
		state = bus_state();
		ended.swap(library_thread);
	}
	if (ended.joinable())
		ended.join();
}

std::vector<std::string> calls()
{
	std::lock_guard<std::mutex> held(lock);
	return state.calls;
}

std::vector<std::string> call_names()
{
	std::vector<std::string> names = calls();
	for (std::string &name : names)
		name = name.substr(0, name.find(' '));
	return names;
}

size_t count_calls(const std::string &name)
{
	size_t count = 0;
	for (const std::string &called : call_names())
		count += called == name;
	return count;
}

void script(const std::string &function, int result, unsigned times, unsigned skipped)
{
	std::lock_guard<std::mutex> held(lock);
	state.scripts[function].push_back({skipped, times, result});
}

void on_call(const std::string &function, std::function<void()> action)
{
	std::lock_guard<std::mutex> held(lock);
	state.actions[function] = std::move(action);
}

void set_identity_addresses(std::vector<address> addresses)
{
	std::lock_guard<std::mutex> held(lock);
	state.identity = std::move(addresses);
}

void set_delivery(delivery mode, int ok)
{
	std::lock_guard<std::mutex> held(lock);
	state.delivery = mode;
	state.delivery_ok = ok;
}

void set_release(release_mode mode)
{
	std::lock_guard<std::mutex> held(lock);
	state.release = mode;
}

void set_next_id(uint32_t id)
{
	std::lock_guard<std::mutex> held(lock);
	state.next_id = id;
}

tervbus_client *client()
{
	return current_client();
}

start_view started_with()
{
	std::lock_guard<std::mutex> held(lock);
	return state.started_with;
}

std::vector<sent_message> sent()
{
	std::lock_guard<std::mutex> held(lock);
	return state.sent;
}

sent_message last_sent()
{
	std::vector<sent_message> all = sent();
	if (!all.empty())
		return all.back();
	ADD_FAILURE() << "nothing was sent";
	return {};
}

bool wait_for_sent(size_t count)
{
	std::unique_lock<std::mutex> held(lock);
	return changed.wait_for(held, std::chrono::seconds(10), [count] {
		size_t accepted = 0;
		for (const sent_message &one : state.sent)
			accepted += one.result == 0;
		return accepted >= count;
	});
}

void status(int condition)
{
	tervbus_client *to = current_client();
	to->on_connection_status(to, condition);
}

void presence(const std::vector<address> &connected, const std::vector<address> &disconnected)
{
	tervbus_client *to = current_client();
	address_entry *came = make_list(connected);
	address_entry *went = make_list(disconnected);
	to->on_presence(to, came, went);
	free_list(came);
	free_list(went);
}

void deliver(size_t sent_index, int ok)
{
	tervbus_message *record = take_record(sent_index);
	ASSERT_NE(record, nullptr) << "no message " << sent_index << " waits for its delivery";
	tervbus_client *to = current_client();
	to->on_delivered(to, record, nullptr, ok);
}

void deliver_null(int ok)
{
	tervbus_client *to = current_client();
	to->on_delivered(to, nullptr, nullptr, ok);
}

void message(const std::string &text, const std::vector<address> &source)
{
	std::string data = text; // c_str() ends in a zero byte
	tervbus_message incoming = {};
	incoming.content_type = "application/json";
	incoming.data = data.data();
	bool counts_terminator = !data.empty() && data.back() != '\0';
	incoming.length = static_cast<uint32_t>(data.size() + (counts_terminator ? 1 : 0));
	incoming.source = make_list(source);
	raw_message(&incoming);
	free_list(incoming.source);
}

void raw_message(tervbus_message *message)
{
	tervbus_client *to = current_client();
	to->on_message(to, message);
}

void release()
{
	tervbus_client *to = nullptr;
	{
		std::lock_guard<std::mutex> held(lock);
		to = std::exchange(state.client, nullptr);
		state.started = false;
	}
	ASSERT_NE(to, nullptr) << "no client to release";
	to->on_release(to);
}

void debug(const char *text)
{
	void (*to)(const char *) = nullptr;
	{
		std::lock_guard<std::mutex> held(lock);
		to = state.debug;
	}
	ASSERT_NE(to, nullptr) << "no debug function was given";
	to(text);
}

void on_own_thread(const std::function<void()> &function)
{
	std::thread(function).join();
}

address_entry *make_list(const std::vector<address> &addresses)
{
	address_entry *list = nullptr;
	for (const address &one : addresses) {
		bool special = one.type == TERVBUS_ADDRESS_SPECIAL;
		const void *value = special ? reinterpret_cast<const void *>(one.number) : one.text.c_str();
		EXPECT_EQ(chain(&list, one.type, value), 0);
	}
	return list;
}

void free_list(address_entry *list)
{
	free_entries(list, true);
}

}

int tervbus_init_ll(tervbus_setup *setup)
{
	int result = 0;
	if (stands_in("tervbus_init_ll", "", &result))
		return result;
	std::lock_guard<std::mutex> held(lock);
	state.debug = setup->debug;
	return 0;
}

int tervbus_fini_ll(void)
{
	int result = 0;
	bool scripted_result = stands_in("tervbus_fini_ll", "", &result);
	std::thread ended;
	{
		std::lock_guard<std::mutex> held(lock);
		state.debug = nullptr;
		ended.swap(library_thread);
	}
	if (ended.joinable())
		ended.join();
	return scripted_result ? result : 0;
}

int tervbus_init_client(tervbus_client *client, const char *broker_url)
{
	{
		std::lock_guard<std::mutex> held(lock);
		state.client = client;
		state.started_with = {client->mode, client->identity.type, file_bytes(client->identity.private_key),
				first_bytes(client->identity.chain), first_bytes(client->identity.trust), client->user, broker_url};
	}
	int result = 0;
	if (stands_in("tervbus_init_client", shown(broker_url), &result))
		return result;
	std::lock_guard<std::mutex> held(lock);
	state.started = true;
	return 0;
}

int tervbus_stop_client(tervbus_client *)
{
	int result = 0;
	if (stands_in("tervbus_stop_client", "", &result))
		return result;
	fake_bus::release_mode mode = fake_bus::release_mode::on_demand;
	{
		std::lock_guard<std::mutex> held(lock);
		if (!state.started) {
			state.client = nullptr;
			return 0;
		}
		mode = state.release;
	}
	deliver_rest_as_failed();
	if (mode == fake_bus::release_mode::in_stop) {
		fake_bus::release();
	} else if (mode == fake_bus::release_mode::from_thread) {
		std::lock_guard<std::mutex> held(lock);
		library_thread = std::thread(fake_bus::release);
	}
	return 0;
}

int tervbus_get_identity_data(tervbus_identity *identity, address_entry **addresses, int first, int second)
{
	EXPECT_NE(first_bytes(identity->chain), "") << "not the identity that was read";
	int result = 0;
	if (stands_in("tervbus_get_identity_data", std::to_string(first) + " " + std::to_string(second), &result))
		return result;
	std::vector<address> own;
	{
		std::lock_guard<std::mutex> held(lock);
		own = state.identity;
	}
	*addresses = fake_bus::make_list(own);
	return 0;
}

int tervbus_chain_address(address_entry **list, int type, const void *value)
{
	int result = 0;
	if (stands_in("tervbus_chain_address", shown_address(type, value), &result))
		return result;
	return chain(list, static_cast<uint32_t>(type), value);
}

int tervbus_free_address(address_entry *list, int all)
{
	int result = 0;
	bool scripted_result = stands_in("tervbus_free_address", std::to_string(all), &result);
	free_entries(list, all != 0); // a scripted failure frees all the same: nothing of a test may leak here
	return scripted_result ? result : 0;
}

int tervbus_send_message(tervbus_client *client, tervbus_message *message, int flags)
{
	int result = 0;
	bool refused = stands_in("tervbus_send_message", std::to_string(flags), &result) && result != 0;
	int ok = 0;
	bool delivered = false;
	{
		std::lock_guard<std::mutex> held(lock);
		if (!refused)
			message->id = state.next_id++;
		delivered = !refused && state.delivery == fake_bus::delivery::before_return;
		ok = state.delivery_ok;
		state.sent.push_back({message->data, std::string(message->data, message->length), message->length,
				shown(message->content_type), copied(message->destination), message->id, flags, result, delivered});
		state.records.push_back(refused || delivered ? nullptr : message);
	}
	changed.notify_all();
	if (delivered)
		client->on_delivered(client, message, nullptr, ok);
	return result;
}
