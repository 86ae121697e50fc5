/* udsutils.h: the diagnostic transport library: UDS requests and answers over ISO-TP (ISO 15765-2) on CAN,
 * and raw CAN frames.
 *
 * The records and the operations are a binary interface: names, order and types stay as they are. A call
 * returns 0 for success and a negative number for failure, except the two interface checks (1 yes, 0 no) and
 * transport_init and open_can_port (a number above 0). On failure no output is written. kind is 0 or 1, and
 * both mean CAN; another kind fails. Every operation may be called from any thread.
 */
#ifndef UDSUTILS_H
#define UDSUTILS_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What a channel to one ECU needs. Identifiers up to 7FF are 11-bit ones, above it 29-bit ones; one above
 * 1FFFFFFF fails. phy_resp_id 0 means send only (functional addressing): a receive fails at once, a request
 * of more than 7 bytes fails. */
typedef struct uds_transport_params {
	int32_t kind;
	uint32_t phy_req_id;
	uint32_t phy_resp_id;
	char ifname[128]; /* zero-terminated */
	uint8_t bsize;    /* block size announced in our flow controls; 0 = no limit */
	uint8_t st_min;   /* separation time announced in our flow controls, as coded by ISO 15765-2 */
} uds_transport_params;

/* Does the interface exist: 1 yes, 0 no. */
int transport_interface_availibility(const char *ifname, int kind);

/* Is the interface up: 1 yes, 0 no. */
int transport_interface_status(const char *ifname, int kind);

/* Opens a channel. The handle is above 0 and is not used again after its end. */
int transport_init(int kind, const uds_transport_params *params);

/* Closes a channel; a thread that is using it fails at once. An unknown handle fails. */
int transport_deinit(int handle, int kind);

/* Sends one request of 1 to 8191 bytes and returns when its last frame has been sent. Answers that came
 * before are dropped. */
int send_diag_command(int handle, const uint8_t *request, uint32_t length, int kind);

/* Receives one answer. *length goes in as the buffer's size and comes out as the answer's length; a longer
 * answer fails with nothing written. timeout_ms bounds the wait for the answer's first frame. */
int recv_diag_command(int handle, uint8_t *response, uint32_t *length, int timeout_ms, int kind);

/* Opens a raw port that receives the frames of exactly this identifier (29-bit above 7FF). The descriptor is
 * the caller's to close(). */
int open_can_port(const char *ifname, uint32_t can_id);

/* Waits for one frame: data takes 8 bytes, *length becomes 0 to 8. */
int receive_can_frame(int descriptor, uint8_t *data, uint8_t *length);

/* How much the library says on standard error: 0 errors, 1 warnings, 2 news, 5 every frame. */
void movra_uds_util_debug_init(int verbosity);

static_assert(offsetof(uds_transport_params, ifname) == 12, "after three words");
static_assert(offsetof(uds_transport_params, bsize) == 140, "after the name");
static_assert(offsetof(uds_transport_params, st_min) == 141, "after the block size");
static_assert(sizeof(uds_transport_params) == 144, "two bytes of padding at the end");

#ifdef __cplusplus
}
#endif

#endif
