// An ECU on a clock that the test moves: requests go in, and what it answers is noted with the time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "uds_server.h"

using bytes = std::vector<uint8_t>;

struct timed_answer {
	int64_t at_ms;
	bytes pdu;

	bool operator==(const timed_answer &) const = default;
};

inline uint32_t key_for_tests(uint32_t seed, const char *script, uint8_t level)
{
	return seed + level + static_cast<uint32_t>(std::string(script).size()) * 0x100;
}

inline uint32_t next_test_seed()
{
	static uint32_t seed = 0x10000000;
	return ++seed;
}

class server_fixture : public testing::Test
{
protected:
	void describe(const std::string &members)
	{
		std::string error;
		const std::string text =
				R"({"ecus": [{"name": "ecu", "request_id": "7E0", "response_id": "7E8", )" + members + "}]}";
		server.reset();
		ASSERT_TRUE(description_parse(text, "test", &bench, &error)) << error;
		server.reset(uds_server_new(&bench.ecus[0], key_for_tests, next_test_seed));
	}

	void send(const bytes &request, uds_addressing addressing = UDS_PHYSICAL)
	{
		uds_server_request(server.get(), request, addressing, now_us);
	}

	// The answers that are due now.
	std::vector<bytes> answers()
	{
		std::vector<bytes> taken;
		bytes answer;
		while (uds_server_take_answer(server.get(), now_us, &answer))
			taken.push_back(answer);
		return taken;
	}

	// The one answer to a request; empty for none.
	bytes ask(const bytes &request, uds_addressing addressing = UDS_PHYSICAL)
	{
		send(request, addressing);
		const std::vector<bytes> taken = answers();
		EXPECT_LE(taken.size(), 1u);
		return taken.empty() ? bytes() : taken[0];
	}

	void pass_ms(int64_t time_ms)
	{
		now_us += time_ms * 1000;
	}

	// Moves the clock from deadline to deadline for this long and notes each answer with the time since the start.
	std::vector<timed_answer> answers_during_ms(int64_t time_ms)
	{
		const int64_t begin_us = now_us;
		const int64_t end_us = now_us + time_ms * 1000;
		std::vector<timed_answer> noted;
		for (;;) {
			for (const bytes &answer : answers())
				noted.push_back({(now_us - begin_us) / 1000, answer});
			const int64_t deadline_us = uds_server_deadline(server.get());
			if (deadline_us > end_us)
				break;
			now_us = deadline_us;
		}
		now_us = end_us;
		return noted;
	}

	// A seed is asked for on this level and its key is sent; the answer to the key.
	bytes unlock(uint8_t level, const std::string &script)
	{
		const bytes seed = ask({0x27, level});
		if (seed.size() != 6)
			return seed;
		const uint32_t number = static_cast<uint32_t>(seed[2] << 24 | seed[3] << 16 | seed[4] << 8 | seed[5]);
		return ask(key_request(level, key_for_tests(number, script.c_str(), level)));
	}

	static bytes key_request(uint8_t level, uint32_t key)
	{
		return {0x27, static_cast<uint8_t>(level + 1), static_cast<uint8_t>(key >> 24), static_cast<uint8_t>(key >> 16),
				static_cast<uint8_t>(key >> 8), static_cast<uint8_t>(key)};
	}

	bench_description bench;
	std::unique_ptr<uds_server, decltype(&uds_server_free)> server = {nullptr, uds_server_free};
	int64_t now_us = 1000000;
};
