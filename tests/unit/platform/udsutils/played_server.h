// A CAN server that a test plays: every word of it is the test's.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/loopback.h"

// A server played by the test: what its thread does with the first connection is a function.
class played_server
{
public:
	explicit played_server(std::function<void(int descriptor)> play) : play_(std::move(play))
	{
		const int small = 4096; // a server that stalls soon takes no more
		EXPECT_EQ(setsockopt(port_.socket_fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)), 0);
		port_.listen();
		thread_ = std::thread([this] {
			const int descriptor = port_.accept();
			play_(descriptor);
			close(descriptor);
		});
	}

	~played_server()
	{
		thread_.join();
	}

	played_server(const played_server &) = delete;
	played_server &operator=(const played_server &) = delete;

	const char *address() const
	{
		return address_.c_str();
	}

private:
	std::function<void(int)> play_;
	const loopback_port port_;
	const std::string address_ = port_.address();
	std::thread thread_;
};

inline bool say(int descriptor, const std::string &text)
{
	return send(descriptor, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

// What the client says up to its next '>'; less when it has gone.
inline std::string hear(int descriptor)
{
	std::string text;
	char byte = 0;
	while (byte != '>' && recv(descriptor, &byte, 1, 0) == 1)
		text += byte;
	return text;
}

inline void greet(int descriptor)
{
	say(descriptor, "< hi >");
	hear(descriptor);
	say(descriptor, "< ok >");
	hear(descriptor);
	say(descriptor, "< ok >");
	hear(descriptor); // the link's echo, which this server does not know
}

inline int64_t ms_since(std::chrono::steady_clock::time_point start)
{
	return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}
