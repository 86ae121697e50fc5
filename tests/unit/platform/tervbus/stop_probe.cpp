#include "stop_probe.h"

#include <gtest/gtest.h>

#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace
{

constexpr unsigned char given_up = 0xEE;
constexpr size_t message_bytes = offsetof(probe_message, told);

void give_up(void *memory, size_t size)
{
	memset(memory, given_up, size);
	ASAN_POISON_MEMORY_REGION(memory, size);
}

bool untouched(const void *memory, size_t size)
{
	ASAN_UNPOISON_MEMORY_REGION(memory, size);
	const auto *bytes = static_cast<const unsigned char *>(memory);
	return std::all_of(bytes, bytes + size, [](unsigned char byte) { return byte == given_up; });
}

} // namespace

stop_probe::stop_probe(const test_credentials &own, const std::string &trust)
{
	identity_.emplace(own, trust);
	tervbus_client &client = record_.client;
	identity_->fill(&client.identity);
	client.mode = 1;
	client.on_release = on_release;
	client.on_presence = on_presence;
	client.on_connection_status = on_connection_status;
	client.on_delivered = on_delivered;
	client.on_message = on_message;
	record_.owner = this;
}

stop_probe::~stop_probe()
{
	ASAN_UNPOISON_MEMORY_REGION(&record_.client, sizeof(record_.client));
	for (probe_message &sent : sends_) {
		ASAN_UNPOISON_MEMORY_REGION(&sent, message_bytes);
		if (sent.told == 0)
			tervbus_free_address(sent.message.destination, 1);
	}
}

tervbus_client *stop_probe::client()
{
	return &record_.client;
}

int stop_probe::start(const std::string &url)
{
	return tervbus_init_client(client(), url.c_str());
}

bool stop_probe::send(const char *unit)
{
	probe_message *sent = nullptr;
	{
		const std::lock_guard guard(lock_);
		sent = &sends_.emplace_back();
	}
	sent->message.content_type = "application/json";
	sent->message.data = sent->data;
	sent->message.length = 3;
	EXPECT_EQ(tervbus_chain_address(&sent->message.destination, TERVBUS_ADDRESS_UNIT, unit), 0);
	const bool accepted = tervbus_send_message(client(), &sent->message, 0) == 0;

	const std::lock_guard guard(lock_);
	sent->accepted = accepted;
	account_.accepted += accepted ? 1 : 0;
	return accepted;
}

int stop_probe::stop()
{
	{
		const std::lock_guard guard(lock_);
		if (!stopped_at_)
			stopped_at_ = std::chrono::steady_clock::now();
	}
	return tervbus_stop_client(client());
}

void stop_probe::give_up_record()
{
	identity_.reset();
	give_up(&record_.client, sizeof(record_.client));
}

bool stop_probe::wait(const std::function<bool(const probe_account &)> &done, std::chrono::milliseconds limit)
{
	std::unique_lock guard(lock_);
	return changed_.wait_for(guard, limit, [this, &done] { return done(account_); });
}

bool stop_probe::wait_condition(int condition)
{
	return wait([condition](const probe_account &account) {
		return std::find(account.conditions.begin(), account.conditions.end(), condition) != account.conditions.end();
	});
}

bool stop_probe::wait_release()
{
	return wait([](const probe_account &account) { return account.releases > 0; });
}

int64_t stop_probe::stop_ms()
{
	const std::lock_guard guard(lock_);
	return std::chrono::duration_cast<std::chrono::milliseconds>(released_at_.value() - stopped_at_.value()).count();
}

void stop_probe::expect_in_order()
{
	const std::lock_guard guard(lock_);
	EXPECT_EQ(account_.releases, 1);
	EXPECT_EQ(account_.after_release, 0);
	EXPECT_EQ(std::count(account_.conditions.begin(), account_.conditions.end(), TERVBUS_CONDITION_STOPPED), 1);
	EXPECT_EQ(account_.conditions.back(), TERVBUS_CONDITION_STOPPED);
	EXPECT_TRUE(untouched(&record_.client, sizeof(record_.client))) << "the record was written to after its release";
	for (size_t i = 0; i < sends_.size(); i++) {
		EXPECT_EQ(sends_[i].told, sends_[i].accepted ? 1u : 0u) << "send " << i;
		EXPECT_TRUE(!sends_[i].accepted || untouched(&sends_[i], message_bytes)) << "send " << i;
	}
}

void stop_probe::expect_left_alone()
{
	const std::lock_guard guard(lock_);
	EXPECT_EQ(account_.releases + account_.after_release, 0);
	EXPECT_TRUE(account_.conditions.empty());
	EXPECT_TRUE(untouched(&record_.client, sizeof(record_.client)));
}

// By the record's place, not by what stands in it: it may have been given up.
stop_probe *stop_probe::of(tervbus_client *client)
{
	return reinterpret_cast<probe_record *>(client)->owner;
}

void stop_probe::note(const std::function<void()> &change)
{
	const std::lock_guard guard(lock_);
	if (account_.releases > 0)
		account_.after_release++;
	change();
	changed_.notify_all();
}

void stop_probe::on_release(tervbus_client *client)
{
	stop_probe *probe = of(client);
	probe->note([probe] {
		probe->released_at_ = std::chrono::steady_clock::now();
		probe->account_.releases++;
		probe->give_up_record();
	});
}

void stop_probe::on_presence(tervbus_client *client, address_entry *, address_entry *)
{
	of(client)->note([] {});
}

void stop_probe::on_connection_status(tervbus_client *client, int condition)
{
	stop_probe *probe = of(client);
	probe->note([probe, condition] { probe->account_.conditions.push_back(condition); });
	if (probe->in_condition)
		probe->in_condition(condition);
}

void stop_probe::on_delivered(tervbus_client *client, tervbus_message *message, void *, int)
{
	stop_probe *probe = of(client);
	auto *sent = reinterpret_cast<probe_message *>(message);
	size_t told = 0;
	probe->note([probe, sent, &told] {
		told = ++probe->account_.told;
		if (++sent->told > 1)
			return;
		tervbus_free_address(sent->message.destination, 1);
		give_up(sent, message_bytes);
	});
	if (probe->in_delivered)
		probe->in_delivered(told);
}

void stop_probe::on_message(tervbus_client *client, tervbus_message *)
{
	stop_probe *probe = of(client);
	size_t count = 0;
	probe->note([probe, &count] { count = ++probe->account_.messages; });
	if (probe->in_message)
		probe->in_message(count);
}
