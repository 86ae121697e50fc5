// The side of the broker on this machine: a port of the loopback, for one user's processes.
#pragma once

#include <cstdint>
#include <string>

#include <sys/types.h>

// The listening socket that a service manager has opened before any other program could take the port, handed over as
// systemd does it; -1 when there is none, with the cause in error when what there is cannot be used.
int local_inherit(std::string &error);

// A listening socket on 127.0.0.1; -1 on failure, with the cause in error.
int local_listen(uint16_t port, std::string &error);

// The next connection, on which small messages are sent at once; -1 when the one that knocked has gone.
int local_accept(int listener);

// Whether the process at the other end of this connection over the loopback is this user's or root's, as the kernel's
// table of connections has it. The port has no other lock: whoever gets in speaks for the bridge.
bool local_peer_is(int connection, uid_t user);
