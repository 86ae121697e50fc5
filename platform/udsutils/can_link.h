// can_link: a way onto a CAN bus, as one record of function pointers, and the choice between its implementations.
// An interface name is a SocketCAN interface, or, when QUILLET_CAN_SERVER=host:port is set, a bus of that CAN server.
#pragma once

#include <cstdint>

#include "bus_frame.h"

enum can_link_filter : int {
	CAN_LINK_TAKES_NONE, // a link that only sends
	CAN_LINK_TAKES_ONE,  // exactly one identifier
	CAN_LINK_TAKES_ALL,
};

// send, receive and mark never block and are called by one thread at a time (the owner's lock); wait may run in several
// threads at once, also beside them.
struct can_link {
	void *state; // the implementation's own

	// 0 = taken, 1 = no room now, try again shortly, -1 = the link is dead.
	int (*send)(void *state, const bus_frame *frame);

	// 1 = a frame, 0 = none now, -1 = the link is dead. To be called until it gives no frame before waiting again.
	int (*receive)(void *state, bus_frame *frame);

	// What the far end of the link still holds from before this call is not given by receive any more, as far as the
	// link can tell. Called when receive has given no frame.
	void (*mark)(void *state);

	// Waits until receive is worth a call, wake_descriptor (-1 for none) is readable, or the moment deadline_us of
	// now_us is reached.
	void (*wait)(void *state, int wake_descriptor, int64_t deadline_us);

	// The monotonic clock that this link lives by, in microseconds.
	int64_t (*now_us)(void *state);

	// Readable when receive is worth a call, for owners with a poll loop of their own; borrowed. Always above 0.
	int descriptor;

	// Ends the link and frees its state; the record itself is the holder's.
	void (*close)(void *state);

	// The same for a link whose descriptor has become somebody else's, and stays open.
	void (*detach)(void *state);
};

// Opens a link on an interface. id is the identifier for CAN_LINK_TAKES_ONE. 0, or -1 with a message on standard error
// and *link untouched.
int can_link_open(can_link *link, const char *ifname, can_link_filter filter, uint32_t id);

// Closes the link; a record of zeros is accepted.
void can_link_close(can_link *link);

// Frees the link and leaves its descriptor open, to whoever has it now. A record of zeros is accepted.
void can_link_detach(can_link *link);

// Does the interface exist, and is it up: 1 yes, 0 no.
int can_link_exists(const char *ifname);
int can_link_is_up(const char *ifname);

// CLOCK_MONOTONIC in microseconds, the clock of every real link.
int64_t can_link_monotonic_us(void);

// Poll on a descriptor and a wake-up descriptor (-1 for none) until the deadline: the wait of every real link.
void can_link_poll(int descriptor, int wake_descriptor, int64_t deadline_us);
