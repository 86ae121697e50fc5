// A CAN server of the test's own on a free port of 127.0.0.1, in a thread.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

#include "can_server.h"

class can_server_thread
{
public:
	explicit can_server_thread(
			std::vector<std::string> buses = {"vcan0", "vcan1"}, uint16_t port = 0, const bus_line_options &line = {})
	{
		can_server_options options;
		options.buses = std::move(buses);
		options.port = port;
		options.line = line;
		std::string error;
		server_ = can_server_new(options, error);
		EXPECT_EQ(error, "");
		if (server_ != nullptr)
			thread_ = std::thread(can_server_run, server_, stop_event_);
	}

	~can_server_thread()
	{
		stop();
		close(stop_event_);
	}

	can_server_thread(const can_server_thread &) = delete;
	can_server_thread &operator=(const can_server_thread &) = delete;

	void stop()
	{
		if (server_ == nullptr)
			return;
		EXPECT_EQ(eventfd_write(stop_event_, 1), 0);
		thread_.join();
		can_server_free(server_);
		server_ = nullptr;
	}

	uint16_t port() const
	{
		return can_server_port(server_);
	}

	std::string address() const
	{
		return "127.0.0.1:" + std::to_string(port());
	}

private:
	can_server *server_ = nullptr;
	const int stop_event_ = eventfd(0, EFD_CLOEXEC);
	std::thread thread_;
};
