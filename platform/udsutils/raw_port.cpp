#include "raw_port.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>

#include "can_link.h"
#include "guards.h"
#include "uds_log.h"

struct raw_port {
	int descriptor; // its holder's, once it has been given out
	dev_t device;
	ino_t inode;
	pthread_mutex_t lock; // guards what is in the link
	can_link link;
	unsigned users; // calls inside, and one for the list; guarded by list_lock, as next is
	raw_port *next;
};
static_assert(std::is_trivially_copyable_v<raw_port>);

// Never destroyed: a thread may still receive while the process exits.
static pthread_mutex_t list_lock = PTHREAD_MUTEX_INITIALIZER;
static raw_port *ports;

static void free_port(raw_port *port)
{
	can_link_detach(&port->link);
	(void)pthread_mutex_destroy(&port->lock); // nobody is inside
	free(port);
}

static bool is_of(const raw_port *port, const struct stat *status)
{
	return status->st_ino == port->inode && status->st_dev == port->device;
}

static bool still_fits(const raw_port *port)
{
	struct stat now {
	};
	return fstat(port->descriptor, &now) == 0 && is_of(port, &now);
}

// For a port that the call at hand is not about. Its descriptor is left alone: the holder may be closing it this
// moment, or the number be another thread's by now. Without /proc nothing is known to be closed.
static bool is_closed(const raw_port *port)
{
	struct stat now {
	};
	char path[sizeof("/proc/self/fd/") + 3 * sizeof(int)];
	(void)snprintf(path, sizeof(path), "/proc/self/fd/%d", port->descriptor); // the longest number fits
	if (stat(path, &now) == 0)
		return !is_of(port, &now);
	return errno == ENOENT && access("/proc/self/fd", F_OK) == 0;
}

// `list_lock` is held.
static void let_go(raw_port *port)
{
	if (--port->users == 0)
		free_port(port);
}

// The number that has just been given out anew cannot be an old port's any more; -1 for none. `list_lock` is held.
static void drop_closed_ports(int new_descriptor)
{
	for (raw_port **at = &ports; *at != nullptr;) {
		raw_port *port = *at;
		if (port->descriptor != new_descriptor && !is_closed(port)) {
			at = &port->next;
			continue;
		}
		*at = port->next;
		let_go(port);
	}
}

// The port lives until leave_port; NULL for a descriptor that is not (any more) a port.
static raw_port *enter_port(int descriptor)
{
	const held_lock held = hold(&list_lock);
	for (raw_port *port = ports; port != nullptr; port = port->next) {
		if (port->descriptor != descriptor || !still_fits(port))
			continue;
		port->users++;
		return port;
	}
	return nullptr;
}

static void leave_port(raw_port *port)
{
	const held_lock held = hold(&list_lock);
	let_go(port);
}

size_t raw_port_count(void)
{
	const held_lock held = hold(&list_lock);
	drop_closed_ports(-1);
	size_t count = 0;
	for (const raw_port *port = ports; port != nullptr; port = port->next)
		count++;
	return count;
}

static raw_port *new_port(void)
{
	auto *port = static_cast<raw_port *>(calloc(1, sizeof(raw_port)));
	if (port == nullptr)
		return nullptr;
	port->descriptor = -1;
	if (pthread_mutex_init(&port->lock, nullptr) != 0) {
		free(port);
		return nullptr;
	}
	return port;
}

// 0, or -1 with a message.
static int connect_port(raw_port *port, const char *ifname, uint32_t id)
{
	if (can_link_open(&port->link, ifname, CAN_LINK_TAKES_ONE, id) != 0)
		return -1;
	struct stat now {
	};
	if (fstat(port->link.descriptor, &now) != 0) {
		uds_log(UDS_LOG_ERR, "a CAN port cannot be made: %s", strerror(errno));
		can_link_close(&port->link);
		return -1;
	}
	port->descriptor = port->link.descriptor;
	port->device = now.st_dev;
	port->inode = now.st_ino;
	return 0;
}

static void list_port(raw_port *port)
{
	const held_lock held = hold(&list_lock);
	drop_closed_ports(port->descriptor);
	port->users = 1;
	port->next = ports;
	ports = port;
}

int raw_port_open(const char *ifname, uint32_t id)
{
	scoped<raw_port, free_port> port(new_port());
	if (!port) {
		uds_log(UDS_LOG_ERR, "a CAN port cannot be made: no memory");
		return -1;
	}
	if (connect_port(port.get(), ifname, id) != 0)
		return -1;
	const int descriptor = port->descriptor;
	list_port(port.release());
	return descriptor;
}

static int read_port(raw_port *port, bus_frame *frame)
{
	const held_lock held = hold(&port->lock);
	return port->link.receive(port->link.state, frame);
}

static int await_frame(raw_port *port, bus_frame *frame, int wait_ms)
{
	const int64_t deadline_us = can_link_monotonic_us() + wait_ms * INT64_C(1000);
	for (;;) {
		if (!still_fits(port)) // closed by its holder meanwhile
			return -1;
		const int got = read_port(port, frame);
		if (got != 0)
			return got > 0 ? 0 : -1;
		if (can_link_monotonic_us() >= deadline_us) {
			uds_log(UDS_LOG_INFO, "no frame within %d ms", wait_ms);
			return -1;
		}
		can_link_poll(port->descriptor, -1, deadline_us);
	}
}

int raw_port_receive(int descriptor, bus_frame *frame, int wait_ms)
{
	raw_port *port = enter_port(descriptor);
	if (port == nullptr) {
		uds_log(UDS_LOG_ERR, "descriptor %d is not a CAN port", descriptor);
		return -1;
	}
	const int result = await_frame(port, frame, wait_ms);
	leave_port(port);
	return result;
}
