// channel_driver: drives one isotp_channel over one can_link. The calling threads do the work themselves; one may send
// while another receives, and whoever reads a flow control hands it to the send in progress.
//
// Locks: one lock per driver guards channel, link and waiting PDUs; it is not held while a thread waits.
#pragma once

#include <cstddef>
#include <cstdint>

#include "can_link.h"
#include "isotp_channel.h"

struct channel_driver;

// Takes the link over, also when it fails (then the link is closed). NULL with a message for unusable settings, or
// without memory or descriptors. What a channel needs it has from then on: the other calls allocate nothing.
channel_driver *channel_driver_new(const isotp_settings *settings, can_link link);

// Sends one PDU and returns when its last frame is on the bus: 0 or -1. Marks a moment: frames that came before it are
// dropped, those of a reception under way and those that the link has not read yet included. While another thread
// sends, waits its turn for at most N_As.
int channel_driver_send(channel_driver *driver, const uint8_t *pdu, size_t length);

// Receives one PDU: 0, or -1 with nothing written. timeout_ms bounds the wait for the first frame, including the wait
// for another thread's receive to end; once a segmented PDU has begun, N_Cr governs.
int channel_driver_receive(channel_driver *driver, uint8_t *buffer, size_t capacity, size_t *length, int timeout_ms);

// Ends the channel for every thread: those inside a call, and each later one, fail at once. Any thread.
void channel_driver_end(channel_driver *driver);

// Frees the driver and closes its link. No thread is inside a call any more. NULL is accepted.
void channel_driver_free(channel_driver *driver);
