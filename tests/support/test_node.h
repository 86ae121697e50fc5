// A node on the bus, as a test holds it: a tervbus client with an identity in memory, whose callbacks are kept and can
// be waited for.
#pragma once

#include "support/test_pki.h"

#include "tervbus.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

struct node_message {
	std::string data; // length bytes
	uint32_t length = 0;
	bool terminated = false; // is there a zero byte at or before the end?
	std::string content_type;
	std::vector<std::string> source; // "2:name", "1:0"
	std::vector<std::string> destination;
	bool operator==(const node_message &) const = default;
};

struct node_delivery {
	uint32_t id = 0;
	bool ok = false;
};

// What has come so far. Copied out under the lock.
struct node_record {
	std::vector<int> conditions;
	std::vector<node_message> messages;
	std::vector<node_delivery> deliveries;
	std::vector<std::string> presence; // "+2:name", "-1:0"
	int releases = 0;
	int after_release = 0; // callbacks after the release: none may come
};

// An identity's buffers, as a node's program would have read them from files.
class test_identity
{
public:
	test_identity(const test_credentials &own, const std::string &trust);
	void fill(tervbus_identity *identity);

private:
	static tervbus_buffer buffer_of(std::string &text);
	std::string key_, certificate_, trust_;
	tervbus_buffer key_buffer_{}, certificate_buffer_{}, trust_buffer_{};
	tervbus_buffer *chain_list_[2]{};
	tervbus_buffer *trust_list_[2]{};
};

class test_node
{
public:
	test_node(const test_credentials &own, const std::string &trust);
	~test_node(); // stops it and waits for the release
	test_node(const test_node &) = delete;
	test_node &operator=(const test_node &) = delete;

	int start(const std::string &url);
	int stop();
	// Sends to addresses of the form "2:name"; the message is freed when it is delivered. The library's result.
	int send(const std::vector<std::string> &to, const std::string &data, uint32_t *id = nullptr);
	bool stop_and_wait(std::chrono::milliseconds limit = std::chrono::seconds(5));

	node_record record();
	void forget(); // starts a new record, for a node that is started again
	bool wait(const std::function<bool(const node_record &)> &done,
			std::chrono::milliseconds limit = std::chrono::seconds(10));
	bool wait_condition(int condition); // the last one told
	bool wait_messages(size_t count);
	bool wait_deliveries(size_t count);

	tervbus_client *client();
	std::function<void()> in_message; // runs inside on_message; set before the start

private:
	static test_node *of(tervbus_client *client);
	void note(const std::function<void(node_record *)> &change);
	static void on_release(tervbus_client *);
	static void on_presence(tervbus_client *, address_entry *, address_entry *);
	static void on_connection_status(tervbus_client *, int);
	static void on_delivered(tervbus_client *, tervbus_message *, void *, int);
	static void on_message(tervbus_client *, tervbus_message *);

	test_identity identity_;
	tervbus_client client_{};
	bool started_ = false;
	std::mutex lock_; // guards record_
	std::condition_variable changed_;
	node_record record_;
};
