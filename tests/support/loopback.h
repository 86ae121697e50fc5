// Ports of 127.0.0.1 for servers that a test plays, starts, or has refuse connections.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>

inline sockaddr_in loopback_address(uint16_t port)
{
	sockaddr_in address{};
	address.sin_family = AF_INET;
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	address.sin_port = htons(port);
	return address;
}

// A TCP socket connected to the port, or -1 with errno.
inline int loopback_connect(uint16_t port)
{
	const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	const sockaddr_in address = loopback_address(port);
	if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0)
		return fd;
	const int error = errno;
	close(fd);
	errno = error;
	return -1;
}

// A port that is this object's own while it lives. Until somebody listens there, connections are refused. Either its
// own socket listens, or a server that is given the number and binds with SO_REUSEADDR, as servers do: that one may go
// and come back, and nobody else is given the port meanwhile.
class loopback_port
{
public:
	loopback_port() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
	{
		const int on = 1;
		sockaddr_in address = loopback_address(0);
		socklen_t size = sizeof(address);
		if (setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
				bind(fd_, reinterpret_cast<const sockaddr *>(&address), size) != 0 ||
				getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &size) != 0)
			throw std::system_error(errno, std::generic_category(), "no free port on 127.0.0.1");
		number_ = ntohs(address.sin_port);
	}

	~loopback_port()
	{
		close(fd_);
	}

	loopback_port(const loopback_port &) = delete;
	loopback_port &operator=(const loopback_port &) = delete;

	void listen(int backlog = 4) const
	{
		if (::listen(fd_, backlog) != 0)
			throw std::system_error(errno, std::generic_category(), "cannot listen on " + address());
	}

	// The next connection; -1 once the port is shut.
	int accept() const
	{
		return accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
	}

	// Ends an accept that is under way in another thread.
	void shut() const
	{
		shutdown(fd_, SHUT_RDWR);
	}

	int socket_fd() const
	{
		return fd_;
	}

	uint16_t number() const
	{
		return number_;
	}

	std::string address() const
	{
		return "127.0.0.1:" + std::to_string(number_);
	}

	std::string url() const
	{
		return "tcp://" + address();
	}

private:
	int fd_;
	uint16_t number_ = 0;
};
