#include "support/test_node.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

namespace
{

std::string text_of(const address_entry *entry)
{
	const std::string type = std::to_string(entry->type) + ":";
	if (entry->type == TERVBUS_ADDRESS_SPECIAL)
		return type + std::to_string(entry->value.number);
	return type + entry->value.text;
}

std::vector<std::string> texts_of(const address_entry *list)
{
	std::vector<std::string> texts;
	for (; list != nullptr; list = list->next)
		texts.push_back(text_of(list));
	return texts;
}

int chain(address_entry **list, const std::string &address)
{
	const int type = address[0] - '0';
	const std::string value = address.substr(2);
	if (type == TERVBUS_ADDRESS_SPECIAL)
		return tervbus_chain_address(list, type, reinterpret_cast<const void *>(std::stoul(value)));
	return tervbus_chain_address(list, type, value.c_str());
}

void free_message(tervbus_message *message)
{
	tervbus_free_address(message->destination, 1);
	free(message->data);
	free(message);
}

tervbus_message *new_message(const std::vector<std::string> &to, const std::string &data)
{
	auto *message = static_cast<tervbus_message *>(calloc(1, sizeof(tervbus_message)));
	message->content_type = "application/json";
	message->data = static_cast<char *>(malloc(data.size() + 1));
	memcpy(message->data, data.data(), data.size());
	message->length = static_cast<uint32_t>(data.size());
	for (const std::string &address : to)
		EXPECT_EQ(chain(&message->destination, address), 0) << address;
	return message;
}

} // namespace

test_identity::test_identity(const test_credentials &own, const std::string &trust)
		: key_(own.key_pem), certificate_(own.certificate_pem), trust_(trust)
{
}

tervbus_buffer test_identity::buffer_of(std::string &text)
{
	return {text.data(), static_cast<uint32_t>(text.size() + 1), 0, 2};
}

void test_identity::fill(tervbus_identity *identity)
{
	key_buffer_ = buffer_of(key_);
	certificate_buffer_ = buffer_of(certificate_);
	trust_buffer_ = buffer_of(trust_);
	chain_list_[0] = &certificate_buffer_;
	trust_list_[0] = &trust_buffer_;
	identity->type = 1;
	identity->chain = chain_list_;
	identity->private_key = &key_buffer_;
	identity->trust = trust_list_;
}

test_node::test_node(const test_credentials &own, const std::string &trust) : identity_(own, trust)
{
	identity_.fill(&client_.identity);
	client_.mode = 1;
	client_.on_release = on_release;
	client_.on_presence = on_presence;
	client_.on_connection_status = on_connection_status;
	client_.on_delivered = on_delivered;
	client_.on_message = on_message;
	client_.user = this;
}

test_node::~test_node()
{
	if (started_) {
		EXPECT_TRUE(stop_and_wait());
	}
}

int test_node::start(const std::string &url)
{
	const int result = tervbus_init_client(&client_, url.c_str());
	started_ = started_ || result == 0;
	return result;
}

int test_node::stop()
{
	return tervbus_stop_client(&client_);
}

int test_node::send(const std::vector<std::string> &to, const std::string &data, uint32_t *id)
{
	tervbus_message *message = new_message(to, data);
	const std::lock_guard guard(lock_); // keeps the message alive until its id is read
	const int result = tervbus_send_message(&client_, message, 0);
	if (id != nullptr)
		*id = message->id;
	if (result != 0)
		free_message(message);
	return result;
}

bool test_node::stop_and_wait(std::chrono::milliseconds limit)
{
	stop();
	return wait([](const node_record &record) { return record.releases > 0; }, limit);
}

node_record test_node::record()
{
	const std::lock_guard guard(lock_);
	return record_;
}

void test_node::forget()
{
	const std::lock_guard guard(lock_);
	record_ = {};
}

bool test_node::wait(const std::function<bool(const node_record &)> &done, std::chrono::milliseconds limit)
{
	std::unique_lock guard(lock_);
	return changed_.wait_for(guard, limit, [this, &done] { return done(record_); });
}

bool test_node::wait_condition(int condition)
{
	return wait([condition](const node_record &record) {
		return !record.conditions.empty() && record.conditions.back() == condition;
	});
}

bool test_node::wait_messages(size_t count)
{
	return wait([count](const node_record &record) { return record.messages.size() >= count; });
}

bool test_node::wait_deliveries(size_t count)
{
	return wait([count](const node_record &record) { return record.deliveries.size() >= count; });
}

tervbus_client *test_node::client()
{
	return &client_;
}

test_node *test_node::of(tervbus_client *client)
{
	return static_cast<test_node *>(client->user);
}

void test_node::note(const std::function<void(node_record *)> &change)
{
	const std::lock_guard guard(lock_);
	if (record_.releases > 0)
		record_.after_release++;
	change(&record_);
	changed_.notify_all(); // under the lock: whoever waits may then free this node
}

void test_node::on_release(tervbus_client *client)
{
	of(client)->note([](node_record *record) { record->releases++; });
}

void test_node::on_presence(tervbus_client *client, address_entry *connected, address_entry *disconnected)
{
	of(client)->note([=](node_record *record) {
		for (const std::string &peer : texts_of(connected))
			record->presence.push_back("+" + peer);
		for (const std::string &peer : texts_of(disconnected))
			record->presence.push_back("-" + peer);
	});
}

void test_node::on_connection_status(tervbus_client *client, int condition)
{
	of(client)->note([=](node_record *record) { record->conditions.push_back(condition); });
}

void test_node::on_delivered(tervbus_client *client, tervbus_message *message, void *, int ok)
{
	of(client)->note([=](node_record *record) {
		record->deliveries.push_back({message->id, ok != 0});
		free_message(message);
	});
}

void test_node::on_message(tervbus_client *client, tervbus_message *message)
{
	test_node *node = of(client);
	if (node->in_message)
		node->in_message();
	node->note([=](node_record *record) {
		const std::string data(message->data, message->length);
		const bool terminated = message->data[message->length > 0 ? message->length - 1 : 0] == '\0';
		record->messages.push_back({data, message->length, terminated, message->content_type, texts_of(message->source),
				texts_of(message->destination)});
	});
}
