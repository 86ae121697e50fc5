#include "socketcan_link.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/can.h>
#include <linux/can/error.h>
#include <linux/can/raw.h>
#include <linux/if.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <type_traits>
#include <unistd.h>

#include "uds_log.h"

// Room for an answer of 8,191 bytes without flow control several times over: the kernel counts 3/4 KiB for a frame.
// Above net.core.rmem_max it takes CAP_NET_ADMIN; without, the kernel gives what it allows.
static constexpr int receive_queue = 4 << 20;

static constexpr can_err_mask_t watched_errors = CAN_ERR_BUSOFF | CAN_ERR_RESTARTED | CAN_ERR_CRTL;

struct socketcan_link {
	int descriptor;
	bool is_dead;
	uint32_t lost; // frames that the receive queue had no room for, as the kernel counts them
	char ifname[IFNAMSIZ];
};
static_assert(std::is_trivially_copyable_v<socketcan_link>);

static int say_dead(socketcan_link *link, const char *why)
{
	if (!link->is_dead)
		uds_log(UDS_LOG_ERR, "%s: the link is lost: %s", link->ifname, why);
	link->is_dead = true;
	return -1;
}

static bool would_block(void)
{
	return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}

// Input

// The queue's own count of what it dropped comes with a frame.
static void note_lost_frames(socketcan_link *link, msghdr *header)
{
	for (cmsghdr *part = CMSG_FIRSTHDR(header); part != nullptr; part = CMSG_NXTHDR(header, part)) {
		if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SO_RXQ_OVFL)
			continue;
		uint32_t lost = 0;
		memcpy(&lost, CMSG_DATA(part), sizeof(lost));
		if (lost != link->lost)
			uds_log(UDS_LOG_WARN, "%s: the receive queue was full, %" PRIu32 " frames are lost", link->ifname,
					lost - link->lost);
		link->lost = lost;
	}
}

// Bus-off ends the link: what was under way is lost, and whether the controller comes back is the system's affair.
static int take_error(socketcan_link *link, const can_frame *frame)
{
	if ((frame->can_id & CAN_ERR_BUSOFF) != 0)
		return say_dead(link, "the controller is bus-off");
	if ((frame->can_id & CAN_ERR_RESTARTED) != 0)
		uds_log(UDS_LOG_WARN, "%s: the controller has been restarted", link->ifname);
	if ((frame->can_id & CAN_ERR_CRTL) == 0)
		return 0;
	const uint8_t status = frame->data[1];
	if ((status & CAN_ERR_CRTL_RX_OVERFLOW) != 0)
		uds_log(UDS_LOG_WARN, "%s: the controller has lost frames, its buffer was full", link->ifname);
	if ((status & (CAN_ERR_CRTL_RX_PASSIVE | CAN_ERR_CRTL_TX_PASSIVE)) != 0)
		uds_log(UDS_LOG_WARN, "%s: the controller is error-passive; is another node on the bus, at the same bit rate?",
				link->ifname);
	return 0;
}

// 1 = a frame or an error frame, 0 = none now, -1 = dead.
static int read_frame(socketcan_link *link, can_frame *frame)
{
	alignas(cmsghdr) char control[CMSG_SPACE(sizeof(uint32_t))];
	iovec data = {frame, sizeof(*frame)};
	msghdr header{};
	header.msg_iov = &data;
	header.msg_iovlen = 1;
	header.msg_control = control;
	header.msg_controllen = sizeof(control);
	const ssize_t count = recvmsg(link->descriptor, &header, MSG_DONTWAIT);
	if (count < 0)
		return would_block() ? 0 : say_dead(link, strerror(errno));
	if (count != static_cast<ssize_t>(sizeof(*frame)))
		return say_dead(link, "what was read is no frame");
	note_lost_frames(link, &header);
	return 1;
}

static bool is_data(const can_frame *frame)
{
	return (frame->can_id & (CAN_ERR_FLAG | CAN_RTR_FLAG)) == 0 && frame->can_dlc <= CAN_MAX_DLEN;
}

static void convert(const can_frame *from, bus_frame *to)
{
	to->is_extended = (from->can_id & CAN_EFF_FLAG) != 0;
	to->id = from->can_id & (to->is_extended ? CAN_EFF_MASK : CAN_SFF_MASK);
	to->length = from->can_dlc;
	memcpy(to->data, from->data, sizeof(to->data));
}

static int receive(void *state, bus_frame *frame)
{
	auto *link = static_cast<socketcan_link *>(state);
	if (link->is_dead)
		return -1;
	for (;;) {
		can_frame read;
		const int got = read_frame(link, &read);
		if (got <= 0)
			return got;
		if ((read.can_id & CAN_ERR_FLAG) != 0 && take_error(link, &read) != 0)
			return -1;
		if (!is_data(&read))
			continue;
		convert(&read, frame);
		return 1;
	}
}

// Output

static int send_frame(void *state, const bus_frame *frame)
{
	auto *link = static_cast<socketcan_link *>(state);
	if (link->is_dead)
		return -1;
	can_frame written{};
	written.can_id = frame->id | (frame->is_extended ? CAN_EFF_FLAG : 0);
	written.can_dlc = frame->length;
	memcpy(written.data, frame->data, sizeof(written.data));
	const ssize_t count = send(link->descriptor, &written, sizeof(written), MSG_DONTWAIT | MSG_NOSIGNAL);
	if (count == static_cast<ssize_t>(sizeof(written)))
		return 0;
	// A transmit queue that is full says ENOBUFS, and poll does not know when it has room again.
	if (count < 0 && (would_block() || errno == ENOBUFS))
		return 1;
	return say_dead(link, count < 0 ? strerror(errno) : "a frame was written in part");
}

// What the kernel has taken off the bus is in the socket's queue, which receive has just emptied.
static void mark(void *)
{
}

static void wait_for_frame(void *state, int wake_descriptor, int64_t deadline_us)
{
	can_link_poll(static_cast<socketcan_link *>(state)->descriptor, wake_descriptor, deadline_us);
}

static int64_t monotonic_us(void *)
{
	return can_link_monotonic_us();
}

static void close_link(void *state)
{
	close(static_cast<socketcan_link *>(state)->descriptor);
	free(state);
}

// Interfaces

static int say_no_socket(const char *ifname)
{
	if (errno == EAFNOSUPPORT || errno == EPROTONOSUPPORT)
		uds_log(UDS_LOG_ERR,
				"%s: no CAN socket: %s; load the kernel's module can-raw, or set QUILLET_CAN_SERVER=host:port to use "
				"the buses of a CAN server",
				ifname, strerror(errno));
	else
		uds_log(UDS_LOG_ERR, "%s: no CAN socket: %s", ifname, strerror(errno));
	return -1;
}

// A CAN socket above 0, also in a process without standard input: a raw port's is handed out. -1 with a message.
static int new_socket(const char *ifname)
{
	const int descriptor = socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, CAN_RAW);
	if (descriptor > 0)
		return descriptor;
	if (descriptor < 0)
		return say_no_socket(ifname);
	const int above = fcntl(descriptor, F_DUPFD_CLOEXEC, 1);
	const int result = above < 0 ? say_no_socket(ifname) : above;
	close(descriptor);
	return result;
}

// Asks the kernel about an interface; the answer is in *request.
static int ask(int descriptor, unsigned long what, const char *ifname, ifreq *request)
{
	*request = {};
	// What follows a colon is no part of an interface's name to the kernel, and would be passed over.
	if (strlen(ifname) >= sizeof(request->ifr_name) || strchr(ifname, ':') != nullptr) {
		errno = ENODEV;
		return -1;
	}
	memcpy(request->ifr_name, ifname, strlen(ifname));
	return ioctl(descriptor, what, request);
}

// The interface's index, or 0 with a message: it does not exist or is no CAN interface.
static int index_of(int descriptor, const char *ifname)
{
	ifreq request;
	if (ask(descriptor, SIOCGIFHWADDR, ifname, &request) != 0) {
		uds_log(UDS_LOG_ERR, "%s: %s; \"ip -brief link show\" lists the interfaces", ifname, strerror(errno));
		return 0;
	}
	if (request.ifr_hwaddr.sa_family != ARPHRD_CAN) {
		uds_log(UDS_LOG_ERR, "%s is not a CAN interface", ifname);
		return 0;
	}
	if (ask(descriptor, SIOCGIFINDEX, ifname, &request) != 0) {
		uds_log(UDS_LOG_ERR, "%s: %s", ifname, strerror(errno));
		return 0;
	}
	return request.ifr_ifindex;
}

static bool exists(int descriptor, const char *ifname)
{
	return index_of(descriptor, ifname) > 0;
}

static void say_down(const char *ifname)
{
	uds_log(UDS_LOG_ERR, "%s is down; as root: ip link set %s up", ifname, ifname);
}

// What rtnetlink is asked and, cut off where it goes on, what it answers.
struct link_message {
	nlmsghdr header;
	ifinfomsg info;
};

// Sends the question and takes the answer in its place; false with errno.
static bool ask_rtnetlink(int descriptor, link_message *message)
{
	constexpr auto size = static_cast<ssize_t>(sizeof(*message));
	if (send(descriptor, message, sizeof(*message), MSG_NOSIGNAL) != size ||
			recv(descriptor, message, sizeof(*message), MSG_DONTWAIT) != size) // send comes back with the answer there
		return false;
	errno = ENODEV; // what else it answers is that it went away
	return message->header.nlmsg_type == RTM_NEWLINK;
}

// The flags of an interface as they are this moment. SIOCGIFFLAGS has no room for IFF_LOWER_UP, and what it has
// instead, IFF_RUNNING, follows the controller's state up to a second late. 0, or -1 with a message.
static int read_flags(int index, const char *ifname, unsigned *flags)
{
	link_message message{};
	message.header.nlmsg_len = sizeof(message);
	message.header.nlmsg_type = RTM_GETLINK;
	message.header.nlmsg_flags = NLM_F_REQUEST;
	message.info.ifi_index = index;
	const int descriptor = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
	if (descriptor < 0 || !ask_rtnetlink(descriptor, &message)) {
		uds_log(UDS_LOG_ERR, "%s: its state cannot be read: %s", ifname, strerror(errno));
		if (descriptor >= 0)
			close(descriptor);
		return -1;
	}
	close(descriptor);
	*flags = message.info.ifi_flags;
	return 0;
}

static bool is_up(int descriptor, const char *ifname)
{
	const int index = index_of(descriptor, ifname);
	if (index == 0)
		return false;
	unsigned flags = 0;
	if (read_flags(index, ifname, &flags) != 0)
		return false;
	if ((flags & IFF_UP) == 0) {
		say_down(ifname);
		return false;
	}
	if ((flags & IFF_LOWER_UP) == 0) {
		uds_log(UDS_LOG_ERR, "%s is up but not on the bus: bus-off? As root: ip link set %s type can restart", ifname,
				ifname);
		return false;
	}
	return true;
}

// 1 = the interface is so, 0 = it is not, or nothing can be known, with a message.
static int check(const char *ifname, bool (*is_so)(int descriptor, const char *ifname))
{
	const int descriptor = new_socket(ifname);
	if (descriptor < 0)
		return 0;
	const bool result = is_so(descriptor, ifname);
	close(descriptor);
	return result ? 1 : 0;
}

int socketcan_exists(const char *ifname)
{
	return check(ifname, exists);
}

int socketcan_is_up(const char *ifname)
{
	return check(ifname, is_up);
}

// Opening

static int set(int descriptor, int level, int name, const void *value, socklen_t size)
{
	return setsockopt(descriptor, level, name, value, size);
}

// Only the kernel's filter keeps foreign frames from waking anybody: a full bus costs nothing.
static int set_filter(int descriptor, can_link_filter filter, uint32_t id)
{
	if (filter == CAN_LINK_TAKES_ALL)
		return 0; // as a socket is made
	can_filter one{};
	one.can_id = id | (bus_id_is_extended(id) ? CAN_EFF_FLAG : 0);
	one.can_mask = CAN_EFF_FLAG | CAN_RTR_FLAG | (bus_id_is_extended(id) ? CAN_EFF_MASK : CAN_SFF_MASK);
	return set(descriptor, SOL_CAN_RAW, CAN_RAW_FILTER, &one, filter == CAN_LINK_TAKES_ONE ? sizeof(one) : 0);
}

static void set_receive_queue(int descriptor)
{
	const int on = 1;
	if (set(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &receive_queue, sizeof(receive_queue)) != 0)
		(void)set(descriptor, SOL_SOCKET, SO_RCVBUF, &receive_queue, sizeof(receive_queue)); // the default will do
	(void)set(descriptor, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof(on));                         // only for a message
}

static int bind_to(int descriptor, int index)
{
	sockaddr_can address{};
	address.can_family = AF_CAN;
	address.can_ifindex = index;
	return bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
}

// A socket is bound to an interface that is down without a failure, and has its error pending from then on.
static bool is_down(int descriptor)
{
	int error = 0;
	socklen_t size = sizeof(error);
	return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error != 0;
}

static int set_up(int descriptor, const char *ifname, can_link_filter filter, uint32_t id)
{
	const int index = index_of(descriptor, ifname);
	if (index == 0)
		return -1;
	set_receive_queue(descriptor);
	if (set(descriptor, SOL_CAN_RAW, CAN_RAW_ERR_FILTER, &watched_errors, sizeof(watched_errors)) != 0 ||
			set_filter(descriptor, filter, id) != 0 || bind_to(descriptor, index) != 0) {
		uds_log(UDS_LOG_ERR, "%s: the CAN socket cannot be set up: %s", ifname, strerror(errno));
		return -1;
	}
	if (is_down(descriptor)) {
		say_down(ifname);
		return -1;
	}
	return 0;
}

int socketcan_link_adopt(can_link *link, int descriptor, const char *ifname)
{
	auto *made = static_cast<socketcan_link *>(calloc(1, sizeof(socketcan_link)));
	if (made == nullptr) {
		uds_log(UDS_LOG_ERR, "%s: no memory for a link", ifname);
		return -1;
	}
	made->descriptor = descriptor;
	(void)snprintf(made->ifname, sizeof(made->ifname), "%s", ifname); // the kernel knows no longer one
	*link = {.state = made,
			.send = send_frame,
			.receive = receive,
			.mark = mark,
			.wait = wait_for_frame,
			.now_us = monotonic_us,
			.descriptor = descriptor,
			.close = close_link,
			.detach = free};
	return 0;
}

int socketcan_link_open(can_link *link, const char *ifname, can_link_filter filter, uint32_t id)
{
	const int descriptor = new_socket(ifname);
	if (descriptor < 0)
		return -1;
	if (set_up(descriptor, ifname, filter, id) == 0 && socketcan_link_adopt(link, descriptor, ifname) == 0)
		return 0;
	close(descriptor);
	return -1;
}
