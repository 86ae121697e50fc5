// A link between a client and a broker that carries only so many bytes a second each way: a port of 127.0.0.1 that
// passes on, one connection at a time.
#pragma once

#include "support/loopback.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

class test_slow_link
{
public:
	test_slow_link(uint16_t to_port, size_t bytes_per_second);
	~test_slow_link();
	test_slow_link(const test_slow_link &) = delete;
	test_slow_link &operator=(const test_slow_link &) = delete;

	std::string url() const;
	unsigned connections() const; // so far

private:
	void run();
	void carry(int client, int broker);

	const uint16_t to_port_;
	const size_t bytes_per_second_;
	const loopback_port port_;
	std::atomic<bool> ends_{false};
	std::atomic<unsigned> connections_{0};
	std::thread thread_;
};
